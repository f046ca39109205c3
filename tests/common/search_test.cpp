// SPDX-License-Identifier: Apache-2.0
//
// Binary search.
#include "krv_search.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

// Every value among arrays of every length to twenty, dense, sparse and with runs of equal keys, from every guess.
TEST(Search, CountsWhatIsNotAbove)
{
    const auto key = [](uint64_t k) { return k; };
    for (const uint64_t step : {0, 1, 3})
        for (size_t count = 0; count <= 20; ++count) {
            std::vector<uint64_t> keys(count);
            for (size_t i = 0; i < count; ++i)
                keys[i] = 10 + i * step + (i / 4) * 2;
            for (uint64_t value = 8; value < 90; ++value) {
                const auto expected = static_cast<size_t>(std::ranges::upper_bound(keys, value) - keys.begin());
                EXPECT_EQ(krv_count_not_above(keys.data(), count, value, key), expected);
                for (size_t guess = 0; guess < count; ++guess)
                    EXPECT_EQ(krv_count_not_above_near(keys.data(), count, guess, value, key), expected)
                        << count << " " << value << " from " << guess;
            }
        }
}
