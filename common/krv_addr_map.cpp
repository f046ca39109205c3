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

// Finds the pieces. Range i covers those from pieces[2 * i] to before pieces[2 * i + 1].
static bool find_pieces(krv_handle_t *hp, const krv_addr_ranges &t, krv_addr_map *map, size_t *pieces)
{
    const size_t count = 2 * t.entries;
    map->sam_bounds = alloc_array<uint64_t>(hp, count);
    // The bounds of range i are numbers 2 * i and 2 * i + 1.
    const krv_owner<krv_numbered_address> room(alloc_array<krv_numbered_address>(hp, 2 * count));
    if (map->sam_bounds == nullptr || room == nullptr)
        return false;
    for (size_t i = 0; i < t.entries; ++i) {
        room.get()[2 * i] = {t.ranges[i].start, 2 * i};
        room.get()[2 * i + 1] = {t.ranges[i].end, 2 * i + 1};
    }
    const krv_numbered_address *sorted = krv_radix_sort(room.get(), room.get() + count, count);
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

// A table from blocks of addresses, all of one size and hardly more than there are pieces, to the pieces that begin in them:
// from there to the one that is asked for it is a step or two where pieces lie evenly.
static bool make_blocks(krv_handle_t *hp, krv_addr_map *map)
{
    constexpr size_t FEWEST = 16; // pieces that are worth it
    const size_t pieces = map->sam_pieces;
    if (pieces < FEWEST || pieces >= UINT32_MAX)
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
    const krv_owner<size_t> pieces(alloc_array<size_t>(hp, 2 * ranges.entries));
    return pieces != nullptr && find_pieces(hp, ranges, map, pieces.get()) &&
           paint_pieces(hp, ranges, paint, map, pieces.get()) && make_blocks(hp, map);
}

void krv_addr_map_free(krv_addr_map *map)
{
    krv_free(map->sam_bounds);
    krv_free(map->sam_owners);
    krv_free(map->sam_blocks);
}
