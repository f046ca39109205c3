// SPDX-License-Identifier: Apache-2.0
//
// A walk over all entries below one, which makes cursors only of those that somebody wants.
#ifndef KRV_ENTRY_WALK_H
#define KRV_ENTRY_WALK_H

#include "krv_budget.h"
#include "krv_entry.h"
#include "krv_error.h"

enum class krv_step { next, skip, stop }; // `skip`: what is below the entry

// Calls visit(entry, level), which returns a krv_step, for the entries below `top` whose abbreviation wants(planned) takes,
// in section order. Of the entries that were visited before, those that this one lies in are the latest ones above `level`:
// the lowest depth of all that stands between the last one and this. 0, 1 when it was stopped, or -1 with messages at an entry that cannot be read.
template <typename Wants, typename Visit>
int krv_entry_walk(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &top, const Wants &wants,
                   const Visit &visit)
{
    if (!top.has_children)
        return 0;
    const krv_encoding_t &encoding = place.plan->sp_encoding;
    krv_entry_t entry = top;
    krv_entry_rewind(place, &entry);
    const uint8_t *at = krv_plan_skip(krv_entry_planned(&entry), place.at(entry.at), place.end, encoding);
    if (at == nullptr)
        return krv_entry_refuse(hp, &entry, "has values that are cut off or unknown");
    uint32_t skipped = UINT32_MAX; // entries deeper than this are
    uint64_t level = UINT32_MAX;
    const uint8_t *stop = at; // where the budget is asked again
    for (uint64_t depth = 1; depth != 0;) {
        if (at >= stop) {
            if (at == place.end)
                break;
            if (!krv_spend_to(hp, at, place.end, &stop))
                return -1;
        }
        uint64_t code = 0;
        const uint8_t *const head = at;
        at = krv_skip_number(at, place.end, &code);
        if (at != nullptr && code == 0) {
            --depth;
            continue;
        }
        const krv_planned_t *planned = at == nullptr ? nullptr : krv_plan_find(hp, place.plan, code);
        const uint8_t *end = planned == nullptr || (planned->flags & KRV_PLAN_TOO_MANY) != 0
                                 ? nullptr
                                 : krv_plan_skip(planned, at, place.end, encoding);
        if (end == nullptr || depth >= UINT32_MAX) { // read once more for what is wrong with it
            if (krv_entry_load(hp, top.unit, place, place.offset_of(head), &entry) == krv_found::entry)
                krv_entry_refuse(hp, &entry, "has values that are cut off or unknown");
            return -1;
        }
        level = depth < level ? depth : level;
        if (depth <= skipped) {
            skipped = UINT32_MAX;
            if (wants(planned)) {
                entry = {};
                entry.unit = top.unit;
                entry.offset = place.offset_of(head);
                entry.tag = planned->tag;
                entry.depth = static_cast<uint32_t>(depth);
                entry.has_children = planned->has_children();
                entry.is_alternate = top.is_alternate;
                entry.at = place.offset_of(at);
                entry.abbreviation = planned;
                const krv_step step = visit(entry, static_cast<uint32_t>(level));
                level = UINT32_MAX;
                if (step == krv_step::stop)
                    return 1;
                if (step == krv_step::skip)
                    skipped = static_cast<uint32_t>(depth);
            }
        }
        depth += planned->has_children();
        at = end;
    }
    return 0;
}

#endif
