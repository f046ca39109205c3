// SPDX-License-Identifier: Apache-2.0
//
// An index from addresses to units over the ranges of krv_lookup, built on first use and kept until the handle is
// freed. Behind korva_lookup_ctu_by_addr and its next one.
#ifndef KRV_ADDR_INDEX_H
#define KRV_ADDR_INDEX_H

#include "krv_addr_layers.h"
#include "krv_addr_map.h"
#include "krv_types.h"

struct krv_addr_index {
    krv_addr_map sai_map;        // units as indices of the unit table
    uint32_t *sai_unknown;       // owned: units whose ranges were not known, ascending
    uint32_t sai_unknown_units;  // their number
    krv_addr_layers *sai_layers; // owned: further units of each address; NULL until asked for, published
};

// Teardown, before the units are freed.
void krv_addr_index_destroy(krv_handle_t *hp);

#endif
