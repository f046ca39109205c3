// SPDX-License-Identifier: Apache-2.0
//
// The address ranges of units, found on first use and kept until the handle is freed.
#ifndef KRV_LOOKUP_H
#define KRV_LOOKUP_H

#include "krv_aranges.h"
#include "krv_info.h"
#include "krv_types.h"

// Ranges while they are collected. The pairs stand behind room for their count (krv_range_list_t).
typedef struct krv_lookup_cu_populate_cookie {
    uint64_t *slpc_aranges;      // start, end, start, end, ...; NULL while empty
    size_t slpc_aranges_size;    // capacity in pairs
    size_t slpc_aranges_entries; // pairs in use
} krv_lcpc_t;

// Appends one pair. 0, or 1 with KRV_ERR_NOMEM.
int krv_lookup_insert_arange_entry(krv_handle_t *hp, uint64_t start, uint64_t end, krv_lcpc_t *list);

// Makes what .debug_aranges says known, and the units that it says it of unless input is read as written. 0, or -1, also when there is no .debug_info.
int krv_lookup_prepare_ranges(krv_handle_t *hp);

// The pairs of a unit, found on first use; NULL with 0 when only a scan could tell and flags forbid it. -1 with
// KRV_ERR_NOMEM. Comes after krv_lookup_prepare_ranges.
int krv_lookup_get_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lookup_flag_t flags, uint64_t **pairsp);

// Visitors: a set of .debug_aranges, one of its tuples (arg: krv_lcpc_t *), a child of a unit entry (likewise).
krv_iter_arh_f krv_lookup_cu_populate_aranges;
krv_iter_are_f krv_lookup_cu_arange_entry_cb;
krv_iter_die_children_f krv_lookup_scan_die;

#endif
