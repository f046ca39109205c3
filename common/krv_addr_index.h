// SPDX-License-Identifier: Apache-2.0
//
// An index from addresses to units over the ranges of krv_lookup, built on first use and kept until the handle is
// freed. Behind korva_lookup_ctu_by_addr.
#ifndef KRV_ADDR_INDEX_H
#define KRV_ADDR_INDEX_H

#include "krv_types.h"

// The bounds of all ranges, ascending, cut the address space into pieces; each piece belongs to one unit or none.
struct krv_addr_index {
    uint64_t *sai_bounds;       // owned: where pieces begin
    uint32_t *sai_units;        // owned: of each piece the unit, as an index of the unit table, or KRV_NO_UNIT
    size_t sai_pieces;          // their number
    uint32_t *sai_unknown;      // owned: units whose ranges were not known, ascending
    uint32_t sai_unknown_units; // their number
};

constexpr uint32_t KRV_NO_UNIT = UINT32_MAX;

// Teardown, before the units are freed.
void krv_addr_index_destroy(krv_handle_t *hp);

#endif
