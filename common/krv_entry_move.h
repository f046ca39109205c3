// SPDX-License-Identifier: Apache-2.0
//
// Steps of a cursor, for loops in which they are most of the work.
#ifndef KRV_ENTRY_MOVE_H
#define KRV_ENTRY_MOVE_H

#include "krv_entry.h"
#include "krv_error.h"

// Says what is wrong with what stands at an offset; NULL: the abbreviation's messages are there already.
krv_found krv_entry_refuse_head(krv_handle_t *hp, krv_ctu_t *cu, uint64_t offset, const char *what);

// Reads the head of an entry. *behind is only set for a null entry.
[[gnu::always_inline]] inline krv_found krv_entry_read_head(krv_handle_t *hp, krv_ctu_t *cu, const krv_place_t &place,
                                                            const uint8_t *head, uint32_t depth, krv_entry_t *entry,
                                                            const uint8_t **behind)
{
    if (head >= place.end)
        return krv_found::end;
    uint64_t code = 0;
    const uint8_t *at = krv_skip_number(head, place.end, &code);
    if (at != nullptr && code == 0) {
        *behind = at;
        return krv_found::null;
    }
    const krv_planned_t *planned = at == nullptr ? nullptr : krv_plan_find(hp, place.plan, code);
    if (planned == nullptr || (planned->flags & KRV_PLAN_TOO_MANY) != 0)
        return krv_entry_refuse_head(hp, cu, place.offset_of(head),
                                     at == nullptr        ? "is cut off"
                                     : planned == nullptr ? nullptr
                                                          : "has too many attributes");
    *entry = {.unit = cu,
              .offset = place.offset_of(head),
              .tag = planned->tag,
              .depth = depth,
              .has_children = planned->has_children(),
              .is_alternate = cu->dcu_section == KRV_SEC_EXT_ALT_INFO,
              .attrs_read = 0,
              .implicit_read = 0,
              .at = place.offset_of(at),
              .abbreviation = planned};
    return krv_found::entry;
}

// Moves to the entry at a byte, `depth` levels down, or to the first behind it that is none above. 0, or -1: KRV_ERR_NOTFOUND, or messages.
[[gnu::always_inline]] inline int krv_entry_move_to(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry,
                                                    const uint8_t *at, uint32_t depth)
{
    for (;;) {
        switch (krv_entry_read_head(hp, entry->unit, place, at, depth, entry, &at)) {
        case krv_found::entry:
            return 0;
        case krv_found::null:
            if (depth-- == 0)
                return krv_fail_code(hp, KRV_ERR_NOTFOUND);
            break;
        case krv_found::end:
            return krv_fail_code(hp, KRV_ERR_NOTFOUND);
        case krv_found::failed:
            return -1;
        }
    }
}

// The same from an entry whose values end at the byte, in section order.
[[gnu::always_inline]] inline int krv_entry_move_behind(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry,
                                                        const uint8_t *at)
{
    if (entry->depth == UINT32_MAX)
        return krv_entry_refuse(hp, entry, "is nested too deeply");
    return krv_entry_move_to(hp, place, entry, at, entry->depth + entry->has_children);
}

#endif
