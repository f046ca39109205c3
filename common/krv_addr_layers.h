// SPDX-License-Identifier: Apache-2.0
//
// All owners of an address, one behind the other, where ranges overlap: a map has only one of them.
#ifndef KRV_ADDR_LAYERS_H
#define KRV_ADDR_LAYERS_H

#include "krv_addr_map.h"
#include "krv_types.h"

// A tree over the pieces of a map, as an array: node 1 is the root, 2n and 2n + 1 are below node n, and the pieces come last.
// A range is kept by the fewest nodes that have all its pieces below them, so that those above a piece know who owns it.
struct krv_addr_layers {
    const krv_addr_map *sal_map;
    size_t *sal_begins;   // owned: where the owners of each node begin, and behind the last one
    uint32_t *sal_owners; // owned: those of each node ascending
};

// From the map of the same ranges, in the order of their owners. NULL: KRV_ERR_NOMEM. The map must stay.
krv_addr_layers *krv_addr_layers_make(krv_handle_t *hp, const krv_addr_map *map, const krv_addr_ranges &ranges);
void krv_addr_layers_free(krv_addr_layers *layers);

// The least owner of an address from `first` on, or KRV_ADDR_NOTHING.
uint32_t krv_addr_layers_find(const krv_addr_layers *layers, uint64_t address, uint32_t first);

#endif
