// SPDX-License-Identifier: Apache-2.0
//
// From addresses to what covers them, of ranges that may overlap: units, functions, inlined calls.
#ifndef KRV_ADDR_MAP_H
#define KRV_ADDR_MAP_H

#include "krv_mem.h"
#include "krv_search.h"
#include "krv_types.h"

constexpr uint32_t KRV_ADDR_NOTHING = UINT32_MAX;

// The bounds of all ranges, ascending, cut the address space into pieces; each piece belongs to one owner or none. What a
// search ends with lies together: where a piece begins, as the distance from the first, and its owner or KRV_ADDR_NOTHING.
template <typename T>
struct krv_addr_piece {
    T begin;
    uint32_t owner;
};

// The number of pieces that begin at the distance or before.
template <typename T>
size_t krv_addr_pieces_count(const krv_addr_piece<T> *pieces, size_t count, uint64_t distance)
{
    return krv_count_not_above(pieces, count, distance, [](const krv_addr_piece<T> &p) -> uint64_t { return p.begin; });
}

struct krv_addr_map {
    uint64_t sam_base; // where the first piece begins
    union {            // owned
        krv_addr_piece<uint32_t> *sam_near;
        krv_addr_piece<uint64_t> *sam_far; // where a distance needs it
    };
    size_t sam_pieces; // their number
    uint32_t
        *sam_blocks; // owned: of each block of 1 << sam_shift addresses, from the base on, the number of pieces that
                     // begin before it, and behind them all pieces; NULL where pieces are few
    size_t sam_nblocks;
    unsigned int sam_shift;
    bool sam_is_far;
};

struct krv_addr_range {
    uint64_t start, end;
    uint32_t owner;
};

// Ranges while they are collected.
struct krv_addr_ranges {
    krv_addr_range *ranges = nullptr;
    size_t size = 0, entries = 0;

    krv_addr_ranges() = default;
    ~krv_addr_ranges() { krv_free(ranges); }
    krv_addr_ranges(const krv_addr_ranges &) = delete;
    krv_addr_ranges &operator=(const krv_addr_ranges &) = delete;

    // Takes a range that covers at least one address. False: KRV_ERR_NOMEM.
    bool append(krv_handle_t *hp, const krv_addr_range &range)
    {
        if (range.start >= range.end)
            return true;
        if (!krv_table_grow(hp, &ranges, &size, entries, size_t{16}))
            return false;
        ranges[entries++] = range;
        return true;
    }
};

// Which of several ranges that cover an address owns it.
enum class krv_paint { first, last };

// False with KRV_ERR_NOMEM: the map is to be freed all the same. The second adds the blocks.
bool krv_addr_map_make(krv_handle_t *hp, const krv_addr_ranges &ranges, krv_paint paint, krv_addr_map *map);
bool krv_addr_map_add_blocks(krv_handle_t *hp, krv_addr_map *map);
void krv_addr_map_free(krv_addr_map *map);

// Where a piece begins.
inline uint64_t krv_addr_map_bound(const krv_addr_map *map, size_t piece)
{
    return map->sam_base + (map->sam_is_far ? map->sam_far[piece].begin : map->sam_near[piece].begin);
}

inline uint32_t krv_addr_map_owner(const krv_addr_map *map, size_t piece)
{
    return map->sam_is_far ? map->sam_far[piece].owner : map->sam_near[piece].owner;
}

// Calls func(pieces, distance) for the pieces in their form, and the distance of an address that is not below the base.
template <typename F>
[[gnu::always_inline]] inline auto krv_addr_map_in_form(const krv_addr_map *map, uint64_t address, F func)
{
    return map->sam_is_far ? func(map->sam_far, address - map->sam_base) : func(map->sam_near, address - map->sam_base);
}

// The number of these pieces of a map that begin at the distance or before.
template <typename T>
[[gnu::always_inline]] inline size_t krv_addr_map_count(const krv_addr_map *map, const krv_addr_piece<T> *pieces,
                                                        uint64_t distance)
{
    size_t first = 0, behind = map->sam_pieces;
    if (map->sam_blocks != nullptr) {
        const uint64_t block = distance >> map->sam_shift;
        if (block >= map->sam_nblocks)
            return behind;
        first = map->sam_blocks[block];
        behind = map->sam_blocks[block + 1];
    }
    return first + krv_addr_pieces_count(pieces + first, behind - first, distance);
}

// The number of pieces that begin at the address or before.
inline size_t krv_addr_map_count(const krv_addr_map *map, uint64_t address)
{
    if (address < map->sam_base)
        return 0;
    return krv_addr_map_in_form(map, address, [map](const auto *pieces, uint64_t distance) {
        return krv_addr_map_count(map, pieces, distance);
    });
}

// Addresses of which the same is true.
struct krv_addr_span {
    uint64_t first = 1, last = 0; // none
    bool has(uint64_t address) const { return address >= first && address <= last; }
};
// That of the last of the pieces that have begun, of which there is one.
template <typename T>
krv_addr_span krv_addr_span_of(const krv_addr_piece<T> *pieces, size_t count, uint64_t base, size_t begun)
{
    return {base + pieces[begun - 1].begin, begun == count ? UINT64_MAX : base + pieces[begun].begin - 1};
}
// The owner of an address, or KRV_ADDR_NOTHING; and the addresses around it of which the same is true, unless that is NULL.
[[gnu::always_inline]] inline uint32_t krv_addr_map_find(const krv_addr_map *map, uint64_t address,
                                                         krv_addr_span *span = nullptr)
{
    if (address < map->sam_base || map->sam_pieces == 0) {
        if (span != nullptr)
            *span = {0, map->sam_pieces == 0 ? UINT64_MAX : map->sam_base - 1};
        return KRV_ADDR_NOTHING;
    }
    return krv_addr_map_in_form(map, address, [=](const auto *pieces, uint64_t distance) {
        const size_t begun = krv_addr_map_count(map, pieces, distance); // the first one does
        if (span != nullptr)
            *span = krv_addr_span_of(pieces, map->sam_pieces, map->sam_base, begun);
        return pieces[begun - 1].owner;
    });
}

#endif
