// SPDX-License-Identifier: Apache-2.0
//
// Sorting by addresses, digit after digit from the lowest: addresses of a program differ in few bytes, and comparisons of
// them could not be predicted.
#ifndef KRV_RADIX_H
#define KRV_RADIX_H

#include <cstddef>
#include <cstdint>

struct krv_numbered_address {
    uint64_t address;
    size_t number; // in an order of the caller's
};

// `spare` has room for as many. Those of one address keep their order. Returns the one of both arrays that is sorted.
krv_numbered_address *krv_radix_sort(krv_numbered_address *array, krv_numbered_address *spare, size_t count);

#endif
