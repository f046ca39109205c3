// SPDX-License-Identifier: Apache-2.0
//
// Binary search of sorted arrays in memory.
#ifndef KRV_SEARCH_H
#define KRV_SEARCH_H

#include <cstddef>
#include <cstdint>

// The number of elements whose key is not above `value`, in an array whose keys never descend. Which half comes next is
// computed, not branched to: the branch could not be predicted.
template <typename T, typename Key>
size_t krv_count_not_above(const T *array, size_t count, uint64_t value, Key key)
{
    if (count == 0)
        return 0;
    const T *base = array;
    while (count > 1) {
        const size_t half = count / 2;
        base += half * (key(base[half]) <= value);
        count -= half;
    }
    return static_cast<size_t>(base - array) + (key(*base) <= value);
}

// The same, searched from element `guess`, which exists, in steps that double: next to a good guess only its neighbours
// are read.
template <typename T, typename Key>
size_t krv_count_not_above_near(const T *array, size_t count, size_t guess, uint64_t value, Key key)
{
    size_t step = 1;
    if (key(array[guess]) <= value) {
        size_t low = guess;
        while (step < count - low && key(array[low + step]) <= value) {
            low += step;
            step *= 2;
        }
        const size_t left = count - low;
        return low + krv_count_not_above(array + low, step < left ? step : left, value, key);
    }
    size_t high = guess; // the key of this element is above
    while (step < high && key(array[high - step]) > value) {
        high -= step;
        step *= 2;
    }
    const size_t low = step < high ? high - step : 0;
    return low + krv_count_not_above(array + low, high - low, value, key);
}

#endif
