// SPDX-License-Identifier: Apache-2.0
//
// Location lists: .debug_loc (DWARF 4, 2.6.2) and, from DWARF 5 on, .debug_loclists (DWARF 5, 2.6.2 and 7.7.3). Their items
// are those of range lists, each with an expression behind it. Location views stand before a list, or in items of their own.
#include "krv_loclist.h"

#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_ranges.h"

// An item of .debug_loclists. *is_default: it holds wherever no other does, and is no range.
static krv_range_item read_item(krv_ranges_t *list, uint64_t *startp, uint64_t *endp, bool *is_default)
{
    uint8_t kind = 0;
    if (krv_decode(&list->sr_fd, DW_FORM_data1, &kind) != 0)
        return krv_range_item::failed;
    *is_default = kind == DW_LLE_default_location;
    if (*is_default)
        return krv_range_item::none;
    if (kind == DW_LLE_GNU_view_pair) {
        uint64_t view;
        const bool sound =
            krv_decode(&list->sr_fd, DW_FORM_udata, &view) == 0 && krv_decode(&list->sr_fd, DW_FORM_udata, &view) == 0;
        return sound ? krv_range_item::none : krv_range_item::failed;
    }
    if (kind > DW_LLE_default_location) // in range lists they are numbered one lower
        --kind;
    return krv_ranges_read_item(list, kind, startp, endp);
}

// Moves the list's cursor behind the expression, which is then *expr.
static bool read_expression(krv_ranges_t *list, bool is_v5, krv_fd_t *expr)
{
    uint64_t size = 0;
    if (krv_decode(&list->sr_fd, is_v5 ? DW_FORM_udata : DW_FORM_data2, &size) != 0)
        return false;
    *expr = list->sr_fd;
    if (size > expr->sfd_remaining) {
        krv_fail(list->sr_hp, KRV_ERR_CORRUPT, "expression of %lu bytes, where %lu remain",
                 static_cast<unsigned long>(size), static_cast<unsigned long>(expr->sfd_remaining));
        return false;
    }
    expr->sfd_remaining = size;
    krv_fd_advance(&list->sr_fd, size);
    return true;
}

// Calls visit(location) for the items of a list, until it returns non-zero, which is returned. *sizep: the bytes that were read.
template <typename Visit>
static int visit_list(krv_handle_t *hp, const krv_ctu_t *cu, uint64_t offset, const Visit &visit, uint64_t *sizep)
{
    const bool is_v5 = cu->dcu_version >= 5;
    const krv_secidx_t sec = is_v5 ? krv_secidx_t{KRV_SEC_EXT_LOCLISTS} : krv_secidx_t{KRV_SEC_LOC};
    krv_ranges_t list;
    *sizep = 0;
    if (krv_ranges_begin_list(hp, cu, sec, offset, &list) != 1)
        return -1;
    krv_range_item item = krv_range_item::none;
    for (uint64_t asked = list.sr_fd.sfd_offset; item != krv_range_item::end;) { // each turn consumes a byte at least
        if (!krv_spend(hp, list.sr_fd.sfd_offset - asked))
            return -1;
        asked = list.sr_fd.sfd_offset;
        krv_location_t here = {};
        bool is_default = false;
        item = is_v5 ? read_item(&list, &here.start, &here.end, &is_default)
                     : krv_ranges_read_pair(&list, &here.start, &here.end);
        *sizep = list.sr_fd.sfd_offset - offset;
        const bool has_expression = item == krv_range_item::range || is_default;
        if (item == krv_range_item::failed || (has_expression && !read_expression(&list, is_v5, &here.expression)))
            return krv_note(hp, "failed to read the location list at offset 0x%lx of %s",
                            static_cast<unsigned long>(offset), krv_section_name(sec));
        here.is_default = is_default ? 1 : 0;
        if (const int result = has_expression ? visit(here) : 0)
            return result;
    }
    krv_clear_error(hp);
    return 0;
}

int krv_find_location(krv_handle_t *hp, const krv_ctu_t *cu, uint64_t offset, uint64_t pc, krv_fd_t *expr)
{
    krv_fd_t fallback = {};
    uint64_t size;
    const auto choose = [&](const krv_location_t &here) {
        const bool holds = here.is_default == 0 && here.start <= pc && pc < here.end;
        if (here.is_default != 0)
            fallback = here.expression;
        else if (holds)
            *expr = here.expression;
        return holds ? 1 : 0;
    };
    const int found = visit_list(hp, cu, offset, choose, &size);
    if (found != 0)
        return found == 1 ? 0 : -1;
    if (fallback.sfd_hp == nullptr)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    *expr = fallback;
    return 0;
}

static bool find_list(krv_handle_t *hp, krv_ctu_t *cup, uint32_t flags, uint64_t *listp)
{
    krv_clear_error(hp);
    return (flags & KRV_LOCATION_F_INDEX) == 0 || krv_cu_read_indexed(hp, cup, KRV_BASE_LOCLISTS, *listp, listp);
}

int korva_find_location(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, uint32_t flags, uint64_t pc, krv_fd_t *exprp)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || exprp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    return find_list(hp, cup, flags, &list) ? krv_find_location(hp, cup, list, pc, exprp) : -1;
}

int korva_iter_locations(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, uint32_t flags, krv_iter_location_f *fn,
                         void *arg, uint64_t *sizep)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || fn == nullptr || sizep == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    *sizep = 0;
    const auto visit = [=](const krv_location_t &here) { return fn(hp, &here, arg); };
    return find_list(hp, cup, flags, &list) ? visit_list(hp, cup, list, visit, sizep) : -1;
}
