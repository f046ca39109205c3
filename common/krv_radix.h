// SPDX-License-Identifier: Apache-2.0
//
// Sorting by addresses, digit after digit from the lowest: addresses of a program differ in few bytes, and comparisons of
// them could not be predicted.
#ifndef KRV_RADIX_H
#define KRV_RADIX_H

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <utility>

// A distance from an address, and a number in an order of the caller's: in 8 bytes where both have room in that.
template <typename T>
struct krv_numbered {
    T distance;
    T number;
};

// `spare` has room for as many. Those of one distance keep their order. Returns the one of both arrays that is sorted.
template <typename T>
krv_numbered<T> *krv_radix_sort(krv_numbered<T> *array, krv_numbered<T> *spare, size_t count)
{
    T varying = 0; // bits in which any two differ
    for (size_t i = 1; i < count; ++i)
        varying |= array[i].distance ^ array[0].distance;
    for (unsigned int shift = 0; shift < 8 * sizeof(T); shift += 8) {
        if ((varying >> shift & 0xff) == 0)
            continue;
        size_t begin[257] = {}; // where those with each digit go, once the counts are summed
        for (size_t i = 0; i < count; ++i)
            ++begin[(array[i].distance >> shift & 0xff) + 1];
        std::partial_sum(begin, begin + 257, begin);
        for (size_t i = 0; i < count; ++i)
            spare[begin[array[i].distance >> shift & 0xff]++] = array[i];
        std::swap(array, spare);
    }
    return array;
}

#endif
