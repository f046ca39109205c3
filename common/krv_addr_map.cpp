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

template <typename T>
static bool paint_pieces(krv_handle_t *hp, const krv_addr_ranges &t, krv_paint paint, krv_addr_piece<T> *pieces,
                         size_t count, const uint32_t *numbers)
{
    const krv_owner<uint32_t> next(alloc_array<uint32_t>(hp, count + 1));
    if (next == nullptr)
        return false;
    std::iota(next.get(), next.get() + count + 1, 0U);
    for (size_t k = 0; k < t.entries; ++k) {
        const size_t i = paint == krv_paint::first ? k : t.entries - 1 - k;
        uint32_t piece = numbers[2 * i];
        while ((piece = first_bare(next.get(), piece)) < numbers[2 * i + 1]) {
            pieces[piece].owner = t.ranges[i].owner;
            next.get()[piece] = piece + 1;
        }
    }
    return true;
}

// The pieces of any ranges.
template <typename T>
static bool find_pieces(krv_handle_t *hp, const krv_addr_ranges &t, uint64_t lowest, krv_paint paint,
                        krv_addr_piece<T> *pieces, size_t *countp)
{
    const size_t count = 2 * t.entries;
    // Range i covers pieces numbers[2 * i] to before numbers[2 * i + 1].
    const krv_owner<uint32_t> numbers(alloc_array<uint32_t>(hp, count));
    const krv_owner<krv_numbered<T>> room(alloc_array<krv_numbered<T>>(hp, 2 * count));
    if (numbers == nullptr || room == nullptr)
        return false;
    for (size_t i = 0; i < t.entries; ++i) {
        room.get()[2 * i] = {static_cast<T>(t.ranges[i].start - lowest), static_cast<T>(2 * i)};
        room.get()[2 * i + 1] = {static_cast<T>(t.ranges[i].end - lowest), static_cast<T>(2 * i + 1)};
    }
    const krv_numbered<T> *sorted = krv_radix_sort(room.get(), room.get() + count, count);
    size_t found = 0;
    for (size_t i = 0; i < count; ++i) {
        if (i == 0 || sorted[i].distance != sorted[i - 1].distance)
            pieces[found++] = {sorted[i].distance, KRV_ADDR_NOTHING};
        numbers.get()[sorted[i].number] = static_cast<uint32_t>(found - 1);
    }
    *countp = found;
    return paint_pieces(hp, t, paint, pieces, found, numbers.get());
}

// The pieces of ranges that ascend without overlapping, as those of most programs do.
template <typename T>
static void take_ascending(const krv_addr_ranges &t, uint64_t lowest, krv_addr_piece<T> *pieces, size_t *countp)
{
    size_t count = 0;
    for (size_t i = 0; i < t.entries; ++i) {
        const krv_addr_range &range = t.ranges[i];
        if (i == 0 || t.ranges[i - 1].end != range.start)
            pieces[count++].begin = static_cast<T>(range.start - lowest);
        pieces[count - 1].owner = range.owner;
        pieces[count++] = {static_cast<T>(range.end - lowest), KRV_ADDR_NOTHING};
    }
    *countp = count;
}

template <typename T>
static bool make_pieces(krv_handle_t *hp, const krv_addr_ranges &ranges, bool ascend, krv_paint paint,
                        krv_addr_map *map, krv_addr_piece<T> **piecesp)
{
    const size_t most = 2 * ranges.entries;
    krv_owner<krv_addr_piece<T>> pieces(alloc_array<krv_addr_piece<T>>(hp, most));
    if (pieces == nullptr)
        return false;
    if (ascend)
        take_ascending(ranges, map->sam_base, pieces.get(), &map->sam_pieces);
    else if (!find_pieces(hp, ranges, map->sam_base, paint, pieces.get(), &map->sam_pieces))
        return false;
    *piecesp = pieces.release();
    if (map->sam_pieces == most)
        return true;
    auto *exact = static_cast<krv_addr_piece<T> *>(krv_realloc(hp, *piecesp, map->sam_pieces * sizeof(**piecesp)));
    *piecesp = exact == nullptr ? *piecesp : exact;
    return exact != nullptr;
}

// A table from blocks of addresses, all of one size and at most twice as many as there are pieces, to the pieces that begin in
// them: where pieces lie evenly, that is the one that is asked for, or it is one of two.
bool krv_addr_map_add_blocks(krv_handle_t *hp, krv_addr_map *map)
{
    constexpr size_t FEWEST = 16; // pieces that are worth it
    const size_t pieces = map->sam_pieces;
    if (pieces < FEWEST)
        return true;
    const uint64_t span = krv_addr_map_bound(map, pieces - 1) - map->sam_base;
    while (span >> map->sam_shift >= 2 * pieces)
        ++map->sam_shift;
    const size_t count = static_cast<size_t>(span >> map->sam_shift) + 1;
    map->sam_blocks = alloc_array<uint32_t>(hp, count + 1);
    if (map->sam_blocks == nullptr)
        return false;
    map->sam_nblocks = count;
    uint32_t piece = 0;
    for (size_t block = 0; block <= count; ++block) {
        while (piece < pieces && (krv_addr_map_bound(map, piece) - map->sam_base) >> map->sam_shift < block)
            ++piece;
        map->sam_blocks[block] = piece;
    }
    return true;
}

bool krv_addr_map_make(krv_handle_t *hp, const krv_addr_ranges &ranges, krv_paint paint, krv_addr_map *map)
{
    *map = {};
    if (ranges.entries >= UINT32_MAX / 2) {
        krv_errno(hp) = KRV_ERR_NOMEM;
        return false;
    }
    if (ranges.entries == 0)
        return true;
    uint64_t lowest = UINT64_MAX, highest = 0;
    bool ascend = true;
    for (size_t i = 0; i < ranges.entries; ++i) {
        ascend = ascend && highest <= ranges.ranges[i].start;
        lowest = std::min(lowest, ranges.ranges[i].start);
        highest = std::max(highest, ranges.ranges[i].end);
    }
    map->sam_base = lowest;
    map->sam_is_far = highest - lowest > UINT32_MAX;
    return map->sam_is_far ? make_pieces(hp, ranges, ascend, paint, map, &map->sam_far)
                           : make_pieces(hp, ranges, ascend, paint, map, &map->sam_near);
}

void krv_addr_map_free(krv_addr_map *map)
{
    krv_free(map->sam_is_far ? static_cast<void *>(map->sam_far) : map->sam_near);
    krv_free(map->sam_blocks);
}
