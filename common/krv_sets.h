// SPDX-License-Identifier: Apache-2.0
//
// What .debug_aranges says, as it is written: its sets by the units that they name, read in one pass on first use and kept
// until the handle is freed. Sets that are damaged or name no unit, and ranges that are no code, are left out.
#ifndef KRV_SETS_H
#define KRV_SETS_H

#include "krv_types.h"

struct krv_set_range_t {
    uint64_t start, end;
};

// One set that has ranges, or had some that were left out.
struct krv_set_t {
    uint64_t set_unit;                 // offset of the unit's header, which was not looked at
    const krv_set_range_t *set_ranges; // inside ss_ranges
    size_t set_entries;
    uint64_t set_offset; // its own, in .debug_aranges
    krv_ctu_t *set_made; // krv_units: the unit, of the first set that names it, once it was asked for; published last
};

// What first entries of units keep.
struct krv_kept_t {
    uint64_t attributes;
    uint64_t copied; // bytes of strings
};

struct krv_sets {
    krv_set_t *ss_sets; // owned: by unit, and those of one unit in section order
    uint32_t ss_size, ss_entries;
    krv_set_range_t *ss_ranges; // owned
    size_t ss_ranges_size, ss_ranges_entries;
    krv_ctu_t *ss_latest; // unit that was made last
    krv_kept_t ss_kept;   // by units that were made for sets
};

// NULL with KRV_ERR_NOMEM, or when the section cannot be read through its call-back.
krv_sets *krv_sets_get(krv_handle_t *hp);

// The first of the sets that name the unit at this offset, or NULL.
krv_set_t *krv_sets_find(const krv_sets *sets, uint64_t unit);

// Calls visit(set) for it and the further ones of its unit.
template <typename Visit>
void krv_sets_visit(const krv_sets *sets, const krv_set_t *first, const Visit &visit)
{
    const krv_set_t *const end = sets->ss_sets + sets->ss_entries;
    for (const krv_set_t *set = first; set != end && set->set_unit == first->set_unit; ++set)
        visit(set);
}

// Where the tuple stands in .debug_aranges that a range of a set was read of; 0: it is no longer there. Clears the error
// state.
uint64_t krv_sets_find_tuple(krv_handle_t *hp, const krv_set_t *set, const krv_set_range_t *range);

// Teardown, after the units that were made for sets.
void krv_sets_destroy(krv_handle_t *hp);

#endif
