// SPDX-License-Identifier: Apache-2.0
//
// What named the unit of an address. The unit itself, and its neighbours, are those of krv_addr_index; what is looked for
// here is which of its ranges has the address: by the readers that these came from, in their order.
#include "krv_addr_index.h"
#include "krv_build.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_functions.h"
#include "krv_ranges.h"
#include "krv_sets.h"

namespace
{

struct search {
    uint64_t address;
    krv_unit_why_t *why;
};

} // namespace

// Looks for the address in sets of one unit, or, where none is known to cover it, in all.
static bool find_set(krv_handle_t *hp, const search &s)
{
    krv_unit_why_t *why = s.why;
    const krv_sets *sets = hp->sh_sets;
    const krv_set_t *const end = sets->ss_sets + sets->ss_entries;
    const krv_set_t *set = why->unit == nullptr ? sets->ss_sets : krv_sets_find(sets, why->unit->dcu_offset);
    for (; set != nullptr && set != end && (why->unit == nullptr || set->set_unit == why->unit->dcu_offset); ++set)
        for (size_t i = 0; i < set->set_entries; ++i) {
            const krv_set_range_t *range = &set->set_ranges[i];
            if (s.address < range->start || s.address >= range->end)
                continue;
            why->reason = KRV_WHY_SET;
            why->section = KRV_SEC_ARANGES;
            why->offset = set->set_offset;
            why->tuple = krv_sets_find_tuple(hp, set, range);
            why->named = set->set_unit;
            why->range = {range->start, range->end};
            return true;
        }
    return false;
}

// Whether an entry's own ranges have it, as far as they can be read.
static bool find_own(krv_handle_t *hp, const search &s, const krv_die_t *die, int reason_of_bounds)
{
    krv_ranges_t ranges;
    if (krv_ranges_begin(hp, die->dwdie_parent_cu, die, &ranges) != 1)
        return false;
    uint64_t start, end;
    while (krv_ranges_next(&ranges, &start, &end) == 1) {
        if (s.address < start || s.address >= end)
            continue;
        const bool is_list = ranges.sr_section != KRV_SEC_NONE;
        krv_unit_why_t *why = s.why;
        why->reason = reason_of_bounds != KRV_WHY_BOUNDS || !is_list ? reason_of_bounds : KRV_WHY_LIST;
        why->section = is_list ? ranges.sr_section : KRV_SEC_INFO;
        why->offset = is_list ? ranges.sr_list : die->dwdie_section_offset;
        why->entry = die->dwdie_section_offset;
        why->range = {start, end};
        return true;
    }
    return false;
}

static int visit_function(krv_handle_t *hp, krv_die_t *die, void *arg)
{
    return find_own(hp, *static_cast<const search *>(arg), die, KRV_WHY_FUNCTION) || krv_is_passing(hp) ? 1 : 0;
}

// The unit has the address: whatever says so can be read, unless something fails.
static int find_reason(krv_handle_t *hp, search s)
{
    krv_ctu_t *unit = s.why->unit;
    const bool by_set = find_set(hp, s);
    if (!by_set && !find_own(hp, s, unit->dcu_compile_unit, KRV_WHY_BOUNDS)) {
        const krv_build_guard guard(hp);
        if (guard.is_nested())
            return guard.refuse();
        krv_iter_functions(hp, unit, visit_function, &s);
    }
    const bool is_found = by_set ? s.why->tuple != 0 : s.why->reason != KRV_WHY_NOTHING;
    return is_found ? 0 : krv_note(hp, "what named the unit cannot be read again");
}

int korva_explain_unit(krv_handle_t *hp, uint64_t address, krv_unit_why_t *whyp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (whyp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    *whyp = {};
    whyp->section = KRV_SEC_NONE;
    if (!krv_reads_as_written(hp))
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "what named a unit is told of input as written alone");
    krv_addr_stretch stretch;
    whyp->unit = krv_addr_index_find(hp, address, KRV_LOOKUP_F_NONE, &stretch);
    if (whyp->unit != nullptr) {
        if (find_reason(hp, {address, whyp}) != 0)
            return -1;
    } else {
        krv_addr_neighbours near;
        if (!stretch.is_answered || !krv_addr_index_neighbours(hp, address, &near))
            return -1;
        whyp->before = near.before;
        whyp->before_end = near.before_end;
        whyp->after = near.after;
        whyp->after_start = near.after_start;
        find_set(hp, {address, whyp});
    }
    if (krv_is_passing(hp))
        return -1;
    krv_clear_error(hp); // of what is damaged behind the answer
    return 0;
}
