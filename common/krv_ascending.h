// SPDX-License-Identifier: Apache-2.0
//
// Addresses in ascending order, whatever order a caller has them in.
#ifndef KRV_ASCENDING_H
#define KRV_ASCENDING_H

#include "krv_mem.h"
#include "krv_radix.h"

#include <algorithm>

// T: what has room for distances from the lowest address, and for numbers.
template <typename T, typename Visit>
bool krv_visit_ascending_as(krv_handle_t *hp, const uint64_t *addrs, size_t count, uint64_t lowest, const Visit &visit)
{
    const krv_owner<krv_numbered<T>> room(
        static_cast<krv_numbered<T> *>(krv_alloc(hp, 2 * count * sizeof(krv_numbered<T>))));
    if (room == nullptr)
        return false;
    for (size_t i = 0; i < count; ++i)
        room.get()[i] = {static_cast<T>(addrs[i] - lowest), static_cast<T>(i)};
    const krv_numbered<T> *sorted = krv_radix_sort(room.get(), room.get() + count, count);
    return std::all_of(sorted, sorted + count, [&](const krv_numbered<T> &a) {
        return visit(lowest + a.distance, static_cast<size_t>(a.number));
    });
}

// Calls visit(address, index) for each, until it returns false. False: it did, or KRV_ERR_NOMEM.
template <typename Visit>
bool krv_visit_ascending(krv_handle_t *hp, const uint64_t *addrs, size_t count, const Visit &visit)
{
    if (count == 0)
        return true;
    if (count > SIZE_MAX / (2 * sizeof(krv_numbered<uint64_t>))) {
        krv_errno(hp) = KRV_ERR_NOMEM;
        return false;
    }
    const auto [lowest, highest] = std::minmax_element(addrs, addrs + count);
    return count <= UINT32_MAX && *highest - *lowest <= UINT32_MAX
               ? krv_visit_ascending_as<uint32_t>(hp, addrs, count, *lowest, visit)
               : krv_visit_ascending_as<uint64_t>(hp, addrs, count, *lowest, visit);
}

#endif
