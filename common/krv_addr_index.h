// SPDX-License-Identifier: Apache-2.0
//
// An index from addresses to units over the ranges of krv_lookup, built on first use and kept until the handle is
// freed. Behind korva_lookup_ctu_by_addr and its next one, and korva_lookup_rows.
#ifndef KRV_ADDR_INDEX_H
#define KRV_ADDR_INDEX_H

#include "krv_addr_layers.h"
#include "krv_addr_map.h"
#include "krv_types.h"

// What was found for addresses of a piece; from then on it is the same, but for the sequence.
struct krv_addr_hint {
    krv_ctu_t *sah_unit;   // NULL while unknown, published
    krv_lnp_t *sah_matrix; // the unit's, likewise
    krv_calls *sah_calls;  // likewise
    uint32_t sah_sequence; // of the matrix: one that covered an address of the piece
};

struct krv_addr_index {
    krv_addr_map sai_map;        // units as indices of the unit table
    uint32_t *sai_unknown;       // owned: units whose ranges were not known, ascending
    uint32_t sai_unknown_units;  // their number
    krv_addr_layers *sai_layers; // owned: further units of each address; NULL until asked for, published
    krv_addr_hint *sai_hints;    // owned: one a piece
};

// Addresses that a query has the same answer for.
struct krv_addr_stretch {
    uint64_t first, last;
    krv_addr_hint *hint; // or NULL
    bool is_answered;    // false: the query failed. The error code is no sign of it: other threads may have cleared it
};

// The piece of an address as a stretch; the number of pieces up to it.
[[gnu::always_inline]] inline size_t krv_addr_index_piece(const krv_addr_index *index, uint64_t address,
                                                          krv_addr_stretch *stretch)
{
    const krv_addr_map *const map = &index->sai_map;
    if (address < map->sam_base || map->sam_pieces == 0) {
        *stretch = {0, map->sam_pieces == 0 ? UINT64_MAX : map->sam_base - 1, nullptr, true};
        return 0;
    }
    return krv_addr_map_in_form(map, address, [=](const auto *pieces, uint64_t distance) {
        const size_t begun = krv_addr_map_count(map, pieces, distance); // the first one does
        stretch->last = begun == map->sam_pieces ? UINT64_MAX : map->sam_base + pieces[begun].begin - 1;
        stretch->first = map->sam_base + pieces[begun - 1].begin;
        stretch->hint = &index->sai_hints[begun - 1];
        stretch->is_answered = true;
        return begun;
    });
}

// The answer of krv_addr_index_find, where it was given before and a set gave it; else NULL, and *stretch is of no use.
[[gnu::always_inline]] inline krv_ctu_t *krv_addr_index_recall(krv_handle_t *hp, uint64_t address,
                                                               krv_addr_stretch *stretch)
{
    const krv_addr_index *index = krv_load(&hp->sh_addr_sets);
    return index == nullptr || krv_addr_index_piece(index, address, stretch) == 0 ? nullptr
                                                                                  : krv_load(&stretch->hint->sah_unit);
}

// As korva_lookup_ctu_by_addr, without clearing the error state first; *stretch has the address in it, also without a unit.
krv_ctu_t *krv_addr_index_find(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags, krv_addr_stretch *stretch);

// The units on both sides of an address that none is known to cover, and where these end and begin; NULL: there is none. False
// with the error of making the index.
struct krv_addr_neighbours {
    krv_ctu_t *before, *after;
    uint64_t before_end, after_start;
};
bool krv_addr_index_neighbours(krv_handle_t *hp, uint64_t address, krv_addr_neighbours *found);

// Teardown, before the units are freed.
void krv_addr_index_destroy(krv_handle_t *hp);

#endif
