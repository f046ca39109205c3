// SPDX-License-Identifier: Apache-2.0
#include "krv_radix.h"

#include <numeric>
#include <utility>

krv_numbered_address *krv_radix_sort(krv_numbered_address *array, krv_numbered_address *spare, size_t count)
{
    uint64_t varying = 0; // bits in which any two differ
    for (size_t i = 1; i < count; ++i)
        varying |= array[i].address ^ array[0].address;
    for (unsigned int shift = 0; shift < 64; shift += 8) {
        if ((varying >> shift & 0xff) == 0)
            continue;
        size_t begin[257] = {}; // where those with each digit go, once the counts are summed
        for (size_t i = 0; i < count; ++i)
            ++begin[(array[i].address >> shift & 0xff) + 1];
        std::partial_sum(begin, begin + 257, begin);
        for (size_t i = 0; i < count; ++i)
            spare[begin[array[i].address >> shift & 0xff]++] = array[i];
        std::swap(array, spare);
    }
    return array;
}
