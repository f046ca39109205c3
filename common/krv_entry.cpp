// SPDX-License-Identifier: Apache-2.0
#include "krv_entry_move.h"

#include "krv_budget.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"

int krv_entry_refuse(krv_handle_t *hp, const krv_entry_t *entry, const char *what)
{
    return krv_fail(hp, KRV_ERR_CORRUPT, "entry at offset 0x%lx of %s %s", static_cast<unsigned long>(entry->offset),
                    krv_section_name(entry->unit->dcu_section), what);
}

void krv_entry_refuse_place(krv_handle_t *hp, const krv_ctu_t *cu)
{
    if (krv_fd_is_cb(krv_section(hp, cu->dcu_section)))
        krv_fail(hp, KRV_ERR_UNSUPPORTED, "entries are walked only where %s is in memory",
                 krv_section_name(cu->dcu_section));
    else
        krv_fail(hp, KRV_ERR_CORRUPT, "unit at offset 0x%lx leads out of %s",
                 static_cast<unsigned long>(cu->dcu_offset), krv_section_name(cu->dcu_section));
}

bool krv_entry_place(krv_handle_t *hp, krv_ctu_t *cu, krv_place_t *place)
{
    return krv_entry_find_bytes(hp, cu, place) && (place->plan = krv_cu_plan(hp, cu)) != nullptr;
}

krv_found krv_entry_refuse_head(krv_handle_t *hp, krv_ctu_t *cu, uint64_t offset, const char *what)
{
    krv_entry_t entry = {};
    entry.unit = cu;
    entry.offset = offset;
    if (what != nullptr)
        krv_entry_refuse(hp, &entry, what);
    else
        krv_note(hp, "entry at offset 0x%lx of %s cannot be read", static_cast<unsigned long>(offset),
                 krv_section_name(cu->dcu_section));
    return krv_found::failed;
}

krv_found krv_entry_load(krv_handle_t *hp, krv_ctu_t *cu, const krv_place_t &place, uint64_t offset, krv_entry_t *entry)
{
    const uint8_t *behind;
    return krv_entry_read_head(hp, cu, place, place.at(offset), 0, entry, &behind);
}

void krv_entry_rewind(const krv_place_t &place, krv_entry_t *entry)
{
    uint64_t code;
    entry->at = place.offset_of(krv_skip_number(place.at(entry->offset), place.end, &code)); // was read before
    entry->attrs_read = 0;
    entry->implicit_read = 0;
}

// What follows an entry's values. NULL: KRV_ERR_CORRUPT.
static inline const uint8_t *find_end(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t *entry)
{
    const krv_planned_t *planned = krv_entry_planned(entry);
    const uint8_t *at = place.at(entry->at);
    if (entry->attrs_read == planned->pair_count)
        return at;
    if (entry->attrs_read == 0) {
        at = krv_plan_skip(planned, at, place.end, place.plan->sp_encoding);
    } else {
        for (uint32_t i = entry->attrs_read; i < planned->pair_count && at != nullptr; ++i)
            at = krv_plan_skip_form(at, place.end, planned->pairs[i].dwafp_form, place.plan->sp_encoding);
    }
    if (at == nullptr)
        krv_entry_refuse(hp, entry, "has values that are cut off or unknown");
    return at;
}

static inline int move_on(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry)
{
    const uint8_t *end = find_end(hp, place, entry);
    if (end == nullptr)
        return -1;
    return krv_entry_move_behind(hp, place, entry, end);
}

int krv_entry_next(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry)
{
    return move_on(hp, place, entry);
}

// Where DW_AT_sibling leads: forward, within the unit. 1, 0 when the entry has none, or -1.
static int find_sibling_link(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t *entry, uint64_t *offsetp)
{
    krv_attr_t attr;
    if (korva_entry_get_attr(hp, entry, DW_AT_sibling, &attr) != 0)
        return krv_errno(hp) == KRV_ERR_NOTFOUND ? 0 : -1;
    const uint8_t *end = find_end(hp, place, entry);
    if (end == nullptr)
        return -1;
    if (attr.kind != KRV_ATTR_REFERENCE || attr.number < place.offset_of(end) ||
        attr.number >= place.offset_of(place.end))
        return krv_entry_refuse(hp, entry, "has a sibling that does not lead forward");
    *offsetp = attr.number;
    return 1;
}

static int move_to_sibling(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry)
{
    const uint32_t depth = entry->depth;
    uint64_t offset = 0;
    const int linked = entry->has_children ? find_sibling_link(hp, place, entry, &offset) : 0;
    if (linked == -1)
        return -1;
    krv_entry_t next = *entry;
    if (linked == 1) {
        if (krv_entry_move_to(hp, place, &next, place.at(offset), 0) != 0)
            return -1;
        next.depth = depth;
    } else {
        next.depth = 0; // so that the last sibling ends the walk, and not the parent's
        do {
            if (!krv_spend(hp, 1) || krv_entry_next(hp, place, &next) != 0)
                return -1;
        } while (next.depth > 0);
        next.depth = depth;
    }
    *entry = next;
    return 0;
}

int krv_entry_load_at(krv_handle_t *hp, krv_ctu_t *cu, uint64_t offset, krv_entry_t *entry)
{
    krv_place_t place;
    if (cu->dcu_kind == 0)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    if (!krv_entry_place(hp, cu, &place))
        return -1;
    const krv_found found = krv_entry_load(hp, cu, place, offset, entry);
    if (found == krv_found::null || found == krv_found::end)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    return found == krv_found::entry ? 0 : -1;
}

// ---------------------------------------------------------------------------------------------------------------
// Exported
// ---------------------------------------------------------------------------------------------------------------

int korva_entry_first(krv_handle_t *hp, krv_ctu_t *cup, krv_entry_t *entryp)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || entryp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return krv_entry_load_at(hp, cup, cup->dcu_offset + cup->dcu_header_size, entryp);
}

// What all moves begin with. False: nothing is to be moved.
static inline bool begin_move(krv_handle_t *hp, const krv_entry_t *entry, krv_place_t *place)
{
    if (hp == nullptr)
        return false;
    if (entry == nullptr || entry->unit == nullptr) {
        krv_fail_code(hp, KRV_ERR_INVALID);
        return false;
    }
    krv_clear_error(hp);
    return krv_spend(hp, 1) && krv_entry_place_of(hp, entry, place);
}

int korva_entry_next(krv_handle_t *hp, krv_entry_t *entryp)
{
    krv_place_t place;
    return begin_move(hp, entryp, &place) ? move_on(hp, place, entryp) : -1;
}

int korva_entry_child(krv_handle_t *hp, krv_entry_t *entryp)
{
    krv_place_t place;
    if (!begin_move(hp, entryp, &place))
        return -1;
    if (!entryp->has_children)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    krv_entry_t child = *entryp;
    child.depth = 0; // a null entry in its place ends the walk
    const uint8_t *end = find_end(hp, place, &child);
    if (end == nullptr || krv_entry_move_to(hp, place, &child, end, 0) != 0)
        return -1;
    child.depth = entryp->depth + 1;
    *entryp = child;
    return 0;
}

int korva_entry_sibling(krv_handle_t *hp, krv_entry_t *entryp)
{
    krv_place_t place;
    return begin_move(hp, entryp, &place) ? move_to_sibling(hp, place, entryp) : -1;
}

int korva_entry_get_ancestors(krv_handle_t *hp, const krv_entry_t *entryp, krv_entry_t *ancestors, size_t room,
                              size_t *countp)
{
    krv_place_t place;
    if (!begin_move(hp, entryp, &place))
        return -1;
    if (countp == nullptr || (ancestors == nullptr && room != 0))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_entry_t at;
    if (krv_entry_load_at(hp, entryp->unit, entryp->unit->dcu_offset + entryp->unit->dcu_header_size, &at) != 0)
        return -1;
    while (at.offset < entryp->offset) {
        if (!krv_spend(hp, 1))
            return -1;
        if (at.depth < room)
            ancestors[at.depth] = at;
        uint64_t sibling = 0;
        const int linked = at.has_children ? find_sibling_link(hp, place, &at, &sibling) : 0;
        if (linked == -1)
            return -1;
        const int moved = linked == 1 && sibling <= entryp->offset
                              ? krv_entry_move_to(hp, place, &at, place.at(sibling), at.depth)
                              : krv_entry_next(hp, place, &at);
        if (moved != 0)
            break;
    }
    if (at.offset != entryp->offset)
        return krv_fail(hp, KRV_ERR_INVALID, "no entry begins at offset 0x%lx of %s",
                        static_cast<unsigned long>(entryp->offset), krv_section_name(entryp->unit->dcu_section));
    krv_clear_error(hp);
    *countp = at.depth;
    return 0;
}
