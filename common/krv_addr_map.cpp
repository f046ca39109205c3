// SPDX-License-Identifier: Apache-2.0
//
// The bounds of all ranges are sorted, and the ranges are painted onto the pieces between them, those that win first: a
// piece keeps its first colour.
#include "krv_addr_map.h"

#include <algorithm>
#include <numeric>

namespace
{

// One of the two bounds of a range, numbered in the order of the ranges: starts are even.
struct bound {
    uint64_t address;
    size_t number;
};

} // namespace

template <typename T>
static T *alloc_array(krv_handle_t *hp, size_t count)
{
    return static_cast<T *>(krv_alloc(hp, count * sizeof(T)));
}

// Sorts by address, digit after digit from the lowest: addresses of a program differ in few bytes, and comparisons of
// them could not be predicted. `spare` is as long. Returns the one of both that is sorted.
static bound *sort_bounds(bound *bounds, bound *spare, size_t count)
{
    uint64_t varying = 0; // bits in which any two differ
    for (size_t i = 1; i < count; ++i)
        varying |= bounds[i].address ^ bounds[0].address;
    for (unsigned int shift = 0; shift < 64; shift += 8) {
        if ((varying >> shift & 0xff) == 0)
            continue;
        size_t begin[257] = {}; // where the bounds with each digit go, once the counts are summed
        for (size_t i = 0; i < count; ++i)
            ++begin[(bounds[i].address >> shift & 0xff) + 1];
        std::partial_sum(begin, begin + 257, begin);
        for (size_t i = 0; i < count; ++i)
            spare[begin[bounds[i].address >> shift & 0xff]++] = bounds[i];
        std::swap(bounds, spare);
    }
    return bounds;
}

// Finds the pieces. Range i covers those from pieces[2 * i] to before pieces[2 * i + 1].
static bool find_pieces(krv_handle_t *hp, const krv_addr_ranges &t, krv_addr_map *map, size_t *pieces)
{
    const size_t count = 2 * t.entries;
    map->sam_bounds = alloc_array<uint64_t>(hp, count);
    const krv_owner<bound> room(alloc_array<bound>(hp, 2 * count));
    if (map->sam_bounds == nullptr || room == nullptr)
        return false;
    for (size_t i = 0; i < t.entries; ++i) {
        room.get()[2 * i] = {t.ranges[i].start, 2 * i};
        room.get()[2 * i + 1] = {t.ranges[i].end, 2 * i + 1};
    }
    const bound *sorted = count == 0 ? nullptr : sort_bounds(room.get(), room.get() + count, count);
    for (size_t i = 0; i < count; ++i) {
        if (i == 0 || sorted[i].address != sorted[i - 1].address)
            map->sam_bounds[map->sam_pieces++] = sorted[i].address;
        pieces[sorted[i].number] = map->sam_pieces - 1;
    }
    return true;
}

// The first piece at or behind `piece` that is not painted. next[] leads over painted ones, ever farther.
static size_t first_bare(size_t *next, size_t piece)
{
    size_t bare = piece;
    while (next[bare] != bare)
        bare = next[bare];
    while (next[piece] != bare) { // what was walked over once is not walked over again
        const size_t behind = next[piece];
        next[piece] = bare;
        piece = behind;
    }
    return bare;
}

static bool paint_pieces(krv_handle_t *hp, const krv_addr_ranges &t, krv_paint paint, krv_addr_map *map,
                         const size_t *pieces)
{
    const size_t count = map->sam_pieces;
    map->sam_owners = alloc_array<uint32_t>(hp, count);
    const krv_owner<size_t> next(alloc_array<size_t>(hp, count + 1));
    if (map->sam_owners == nullptr || next == nullptr)
        return false;
    std::fill_n(map->sam_owners, count, KRV_ADDR_NOTHING);
    std::iota(next.get(), next.get() + count + 1, size_t{0});
    for (size_t k = 0; k < t.entries; ++k) {
        const size_t i = paint == krv_paint::first ? k : t.entries - 1 - k;
        size_t piece = pieces[2 * i];
        while ((piece = first_bare(next.get(), piece)) < pieces[2 * i + 1]) {
            map->sam_owners[piece] = t.ranges[i].owner;
            next.get()[piece] = piece + 1;
        }
    }
    return true;
}

bool krv_addr_map_make(krv_handle_t *hp, const krv_addr_ranges &ranges, krv_paint paint, krv_addr_map *map)
{
    *map = {};
    const krv_owner<size_t> pieces(alloc_array<size_t>(hp, 2 * ranges.entries));
    return pieces != nullptr && find_pieces(hp, ranges, map, pieces.get()) &&
           paint_pieces(hp, ranges, paint, map, pieces.get());
}

void krv_addr_map_free(krv_addr_map *map)
{
    krv_free(map->sam_bounds);
    krv_free(map->sam_owners);
}
