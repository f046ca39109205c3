// SPDX-License-Identifier: Apache-2.0
//
// Location lists: .debug_loc (DWARF 4, 2.6.2) and, from DWARF 5 on, .debug_loclists (DWARF 5, 2.6.2 and 7.7.3). Their items
// are those of range lists, each with an expression behind it. Location views stand before a list, or in items of their own.
#include "krv_loclist.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_ranges.h"

namespace
{

// Where an item of a list holds.
enum class place { end, none, range, anywhere, failed };

} // namespace

static place place_of(krv_range_item item)
{
    switch (item) {
    case krv_range_item::end:
        return place::end;
    case krv_range_item::none:
        return place::none;
    case krv_range_item::range:
        return place::range;
    case krv_range_item::failed:
        break;
    }
    return place::failed;
}

static place read_item(krv_ranges_t *list, uint64_t *startp, uint64_t *endp)
{
    uint8_t kind = 0;
    if (krv_decode(&list->sr_fd, DW_FORM_data1, &kind) != 0)
        return place::failed;
    uint64_t view;
    switch (kind) {
    case DW_LLE_default_location:
        return place::anywhere;
    case DW_LLE_GNU_view_pair:
        return krv_decode(&list->sr_fd, DW_FORM_udata, &view) == 0 &&
                       krv_decode(&list->sr_fd, DW_FORM_udata, &view) == 0
                   ? place::none
                   : place::failed;
    default: // those behind the default location are numbered one higher than in range lists
        return place_of(krv_ranges_read_item(
            list, kind < DW_LLE_default_location ? kind : static_cast<uint8_t>(kind - 1), startp, endp));
    }
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

int krv_find_location(krv_handle_t *hp, const krv_ctu_t *cu, uint64_t offset, uint64_t pc, krv_fd_t *expr)
{
    const bool is_v5 = cu->dcu_version >= 5;
    const krv_secidx_t sec = is_v5 ? krv_secidx_t{KRV_SEC_EXT_LOCLISTS} : krv_secidx_t{KRV_SEC_LOC};
    krv_ranges_t list;
    if (krv_ranges_begin_list(hp, cu, sec, offset, &list) != 1)
        return -1;
    krv_fd_t fallback = {};
    place where = place::none;
    while (where != place::end) { // each turn consumes a byte at least
        uint64_t start = 0, end = 0;
        krv_fd_t here = {};
        where = is_v5 ? read_item(&list, &start, &end) : place_of(krv_ranges_read_pair(&list, &start, &end));
        const bool has_expression = where == place::range || where == place::anywhere;
        if (where == place::failed || (has_expression && !read_expression(&list, is_v5, &here)))
            return krv_note(hp, "failed to read the location list at offset 0x%lx of %s",
                            static_cast<unsigned long>(offset), krv_section_name(sec));
        if (where == place::range && start <= pc && pc < end) {
            *expr = here;
            return 0;
        }
        if (where == place::anywhere)
            fallback = here;
    }
    krv_clear_error(hp);
    if (fallback.sfd_hp == nullptr)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    *expr = fallback;
    return 0;
}

int korva_find_location(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, uint32_t flags, uint64_t pc, krv_fd_t *exprp)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || exprp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if ((flags & KRV_LOCATION_F_INDEX) != 0 && !krv_cu_read_indexed(hp, cup, KRV_BASE_LOCLISTS, list, &list))
        return -1;
    return krv_find_location(hp, cup, list, pc, exprp);
}
