// SPDX-License-Identifier: Apache-2.0
//
// The bounds of all ranges are sorted, and the ranges are painted onto the pieces between them, those that win first: a
// piece keeps its first colour.
#include "krv_addr_map.h"

#include "krv_radix.h"

#include <algorithm>
#include <numeric>

template <typename T>
static T *alloc_array(krv_handle_t *hp, size_t count)
{
    return static_cast<T *>(krv_alloc(hp, count * sizeof(T)));
}

// Finds the pieces. Range i covers those from pieces[2 * i] to before pieces[2 * i + 1]. T: what has room for distances from
// the lowest bound, and for numbers.
template <typename T>
static bool find_pieces(krv_handle_t *hp, const krv_addr_ranges &t, uint64_t lowest, krv_addr_map *map,
                        uint32_t *pieces)
{
    const size_t count = 2 * t.entries;
    map->sam_bounds = alloc_array<uint64_t>(hp, count);
    const krv_owner<krv_numbered<T>> room(alloc_array<krv_numbered<T>>(hp, 2 * count));
    if (map->sam_bounds == nullptr || room == nullptr)
        return false;
    for (size_t i = 0; i < t.entries; ++i) {
        room.get()[2 * i] = {static_cast<T>(t.ranges[i].start - lowest), static_cast<T>(2 * i)};
        room.get()[2 * i + 1] = {static_cast<T>(t.ranges[i].end - lowest), static_cast<T>(2 * i + 1)};
    }
    const krv_numbered<T> *sorted = krv_radix_sort(room.get(), room.get() + count, count);
    for (size_t i = 0; i < count; ++i) {
        if (i == 0 || sorted[i].distance != sorted[i - 1].distance)
            map->sam_bounds[map->sam_pieces++] = lowest + sorted[i].distance;
        pieces[sorted[i].number] = static_cast<uint32_t>(map->sam_pieces - 1);
    }
    return true;
}

static bool find_pieces(krv_handle_t *hp, const krv_addr_ranges &t, krv_addr_map *map, uint32_t *pieces)
{
    uint64_t lowest = UINT64_MAX, highest = 0;
    for (size_t i = 0; i < t.entries; ++i) {
        lowest = std::min(lowest, t.ranges[i].start);
        highest = std::max(highest, t.ranges[i].end);
    }
    const auto find = t.entries == 0 || highest - lowest <= UINT32_MAX ? find_pieces<uint32_t> : find_pieces<uint64_t>;
    return find(hp, t, lowest, map, pieces);
}

// The first piece at or behind `piece` that is not painted. next[] leads over painted ones, ever farther.
static uint32_t first_bare(uint32_t *next, uint32_t piece)
{
    uint32_t bare = piece;
    while (next[bare] != bare)
        bare = next[bare];
    while (next[piece] != bare) { // what was walked over once is not walked over again
        const uint32_t behind = next[piece];
        next[piece] = bare;
        piece = behind;
    }
    return bare;
}

static bool paint_pieces(krv_handle_t *hp, const krv_addr_ranges &t, krv_paint paint, krv_addr_map *map,
                         const uint32_t *pieces)
{
    const size_t count = map->sam_pieces;
    map->sam_owners = alloc_array<uint32_t>(hp, count);
    const krv_owner<uint32_t> next(alloc_array<uint32_t>(hp, count + 1));
    if (map->sam_owners == nullptr || next == nullptr)
        return false;
    std::fill_n(map->sam_owners, count, KRV_ADDR_NOTHING);
    std::iota(next.get(), next.get() + count + 1, 0U);
    for (size_t k = 0; k < t.entries; ++k) {
        const size_t i = paint == krv_paint::first ? k : t.entries - 1 - k;
        uint32_t piece = pieces[2 * i];
        while ((piece = first_bare(next.get(), piece)) < pieces[2 * i + 1]) {
            map->sam_owners[piece] = t.ranges[i].owner;
            next.get()[piece] = piece + 1;
        }
    }
    return true;
}

// A table from blocks of addresses, all of one size and hardly more than there are pieces, to the pieces that begin in them:
// from there to the one that is asked for it is a step or two where pieces lie evenly.
bool krv_addr_map_add_blocks(krv_handle_t *hp, krv_addr_map *map)
{
    constexpr size_t FEWEST = 16; // pieces that are worth it
    const size_t pieces = map->sam_pieces;
    if (pieces < FEWEST)
        return true;
    const uint64_t first = map->sam_bounds[0], span = map->sam_bounds[pieces - 1] - first;
    while (span >> map->sam_shift >= pieces)
        ++map->sam_shift;
    const size_t count = static_cast<size_t>(span >> map->sam_shift) + 1;
    map->sam_blocks = alloc_array<uint32_t>(hp, count + 1);
    if (map->sam_blocks == nullptr)
        return false;
    map->sam_nblocks = count;
    uint32_t piece = 0;
    for (size_t block = 0; block <= count; ++block) {
        while (piece < pieces && (map->sam_bounds[piece] - first) >> map->sam_shift < block)
            ++piece;
        map->sam_blocks[block] = piece;
    }
    return true;
}

bool krv_addr_map_make(krv_handle_t *hp, const krv_addr_ranges &ranges, krv_paint paint, krv_addr_map *map)
{
    *map = {};
    if (ranges.entries >= UINT32_MAX / 2) {
        hp->sh_errno = KRV_ERR_NOMEM;
        return false;
    }
    const krv_owner<uint32_t> pieces(alloc_array<uint32_t>(hp, 2 * ranges.entries));
    return pieces != nullptr && find_pieces(hp, ranges, map, pieces.get()) &&
           paint_pieces(hp, ranges, paint, map, pieces.get());
}

void krv_addr_map_free(krv_addr_map *map)
{
    krv_free(map->sam_bounds);
    krv_free(map->sam_owners);
    krv_free(map->sam_blocks);
}
