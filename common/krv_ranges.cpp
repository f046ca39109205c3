// SPDX-License-Identifier: Apache-2.0
#include "krv_ranges.h"

#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"

#include <iterator>

namespace
{

using item = krv_range_item;

// What an entry says of where its code is.
struct code_values {
    const krv_value_t *low = nullptr, *high = nullptr, *ranges = nullptr;
};

} // namespace

uint64_t krv_ranges_most_bytes(krv_handle_t *hp, uint64_t readings)
{
    const uint64_t size =
        krv_add_offset(krv_section(hp, KRV_SEC_EXT_RANGES)->sfd_size, krv_section(hp, KRV_SEC_EXT_RNGLISTS)->sfd_size);
    return size > UINT64_MAX / readings ? UINT64_MAX : readings * size;
}

static code_values find_code_values(const krv_die_t *die)
{
    code_values found;
    const krv_abbrev_t *abbrev = die->dwdie_abbrev_cache;
    for (uint32_t i = abbrev->dwa_nafpairs; i-- != 0;) { // the first of a kind counts
        const krv_value_t *value = &die->dwdie_attrs[i];
        switch (abbrev->dwa_afpairs[i].dwafp_attribute) {
        case DW_AT_low_pc:
            found.low = value;
            break;
        case DW_AT_high_pc:
            found.high = value;
            break;
        case DW_AT_ranges:
            found.ranges = value;
            break;
        default:
            break;
        }
    }
    return found;
}

// Whether a value is of one of these classes, by the form that it really has.
static bool is_of(const krv_value_t *value, uint32_t classes)
{
    return value != nullptr && (krv_form_row(value->sa_actual, KRV_ALL_FORMS).classes & classes) != 0;
}

// The highest address of the target.
static uint64_t highest_address(const krv_handle_t *hp)
{
    return hp->sh_target_size == 4 ? UINT32_MAX : UINT64_MAX;
}

int krv_ranges_begin_list(krv_handle_t *hp, const krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset,
                          krv_ranges_t *ranges)
{
    *ranges = {};
    ranges->sr_hp = hp;
    ranges->sr_cu = cu;
    ranges->sr_section = sec;
    ranges->sr_list = offset;
    ranges->sr_fd = *krv_section(hp, sec);
    if (offset >= ranges->sr_fd.sfd_size || krv_fd_seek(&ranges->sr_fd, offset) != 0)
        return krv_fail(hp, KRV_ERR_CORRUPT, "%s list at offset 0x%lx leads out of %s",
                        sec == KRV_SEC_EXT_RANGES || sec == KRV_SEC_EXT_RNGLISTS ? "range" : "location",
                        static_cast<unsigned long>(offset), krv_section_name(sec));
    const krv_value_t *base = cu->dcu_compile_unit == nullptr ? nullptr : find_code_values(cu->dcu_compile_unit).low;
    ranges->sr_base = is_of(base, KRV_CLASS_ADDRESS) ? base->sa_u.su_unsigned : 0;
    return 1;
}

static int begin_list(krv_handle_t *hp, const krv_ctu_t *cu, const krv_value_t *value, krv_ranges_t *ranges)
{
    uint64_t offset = value->sa_u.su_unsigned;
    if (value->sa_actual == KRV_EXT_DW_FORM_rnglistx &&
        !krv_cu_read_indexed(hp, cu, KRV_BASE_RNGLISTS, offset, &offset))
        return -1;
    return krv_ranges_begin_list(hp, cu, cu->dcu_version < 5 ? KRV_SEC_EXT_RANGES : KRV_SEC_EXT_RNGLISTS, offset,
                                 ranges);
}

int krv_ranges_begin(krv_handle_t *hp, const krv_ctu_t *cu, const krv_die_t *die, krv_ranges_t *ranges)
{
    *ranges = {};
    ranges->sr_hp = hp;
    ranges->sr_cu = cu;
    ranges->sr_section = KRV_SEC_NONE;
    const code_values found = find_code_values(die);
    if (is_of(found.ranges, KRV_CLASS_RANGELISTPTR | KRV_CLASS_CONSTANT)) // numbers in versions 2 and 3
        return begin_list(hp, cu, found.ranges, ranges);
    if (!is_of(found.low, KRV_CLASS_ADDRESS) || !is_of(found.high, KRV_CLASS_ADDRESS | KRV_CLASS_CONSTANT))
        return 0;
    ranges->sr_low = found.low->sa_u.su_unsigned;
    ranges->sr_high = found.high->sa_u.su_unsigned;
    if (is_of(found.high, KRV_CLASS_CONSTANT)) // a length (DWARF 4, 2.17.2)
        ranges->sr_high = (ranges->sr_high + ranges->sr_low) & highest_address(hp);
    return 1;
}

void krv_code_place_t::take(const krv_attr_t &attr)
{
    const bool is_number = attr.kind == KRV_ATTR_CONSTANT;
    if (attr.attribute == DW_AT_low_pc && !has_low && attr.kind == KRV_ATTR_ADDRESS) {
        has_low = true;
        low = attr.number;
    } else if (attr.attribute == DW_AT_high_pc && !has_high && (is_number || attr.kind == KRV_ATTR_ADDRESS)) {
        has_high = true;
        is_length = is_number; // DWARF 4, 2.17.2
        high = attr.number;
    } else if (attr.attribute == DW_AT_ranges && !has_list && (is_number || attr.kind == KRV_ATTR_SECTION)) {
        has_list = true;
        list = attr.number;
    }
}

int krv_ranges_begin_at(krv_handle_t *hp, const krv_ctu_t *cu, const krv_code_place_t &code, krv_ranges_t *ranges)
{
    if (code.has_list)
        return krv_ranges_begin_list(hp, cu, cu->dcu_version < 5 ? KRV_SEC_EXT_RANGES : KRV_SEC_EXT_RNGLISTS, code.list,
                                     ranges);
    *ranges = {};
    ranges->sr_hp = hp;
    ranges->sr_cu = cu;
    ranges->sr_section = KRV_SEC_NONE;
    ranges->sr_low = code.low;
    ranges->sr_high = code.is_length ? (code.low + code.high) & highest_address(hp) : code.high;
    return code.has_low && code.has_high;
}

int krv_ranges_begin_entry(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t *entry, krv_ranges_t *ranges)
{
    krv_entry_t reading = *entry;
    krv_entry_rewind(place, &reading);
    krv_code_place_t code = {};
    krv_attr_t attr;
    int read;
    while ((read = krv_entry_read_attr(hp, place, &reading, &attr)) == 1)
        code.take(attr);
    return read != 0 ? -1 : krv_ranges_begin_at(hp, entry->unit, code, ranges);
}

static unsigned long list_offset(const krv_ranges_t *ranges)
{
    return static_cast<unsigned long>(ranges->sr_list);
}

// Offsets from the base. Of a function that the linker dropped, the base is -1 or -2 and not its own address.
static item add_base(const krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp)
{
    const uint64_t highest = highest_address(ranges->sr_hp);
    const bool is_dropped = ranges->sr_base >= highest - 1;
    *startp = is_dropped ? *startp != *endp : (ranges->sr_base + *startp) & highest; // [1, 0) is no code, but not empty
    *endp = is_dropped ? 0 : (ranges->sr_base + *endp) & highest;
    return item::range;
}

// DWARF 4, 2.17.3.
item krv_ranges_read_pair(krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp)
{
    if (krv_decode(&ranges->sr_fd, DW_FORM_addr, startp) != 0 || krv_decode(&ranges->sr_fd, DW_FORM_addr, endp) != 0)
        return item::failed;
    if (*startp == 0 && *endp == 0)
        return item::end;
    if (*startp == highest_address(ranges->sr_hp)) {
        ranges->sr_base = *endp;
        return item::none;
    }
    return add_base(ranges, startp, endp);
}

namespace
{

// What the operands of an item of .debug_rnglists say.
enum class rle : uint8_t { end, base, bounds, length, offsets };

struct rle_row {
    rle meaning;
    krv_form_t first, second; // of its operands; 0: none
    bool is_indexed[2];       // operands that lead to addresses in .debug_addr
};

// DWARF 5, 2.17.3
constexpr rle_row RLE_ROWS[] = {
    /* DW_RLE_end_of_list */ {rle::end, 0, 0, {false, false}},
    /* DW_RLE_base_addressx */ {rle::base, DW_FORM_udata, 0, {true, false}},
    /* DW_RLE_startx_endx */ {rle::bounds, DW_FORM_udata, DW_FORM_udata, {true, true}},
    /* DW_RLE_startx_length */ {rle::length, DW_FORM_udata, DW_FORM_udata, {true, false}},
    /* DW_RLE_offset_pair */ {rle::offsets, DW_FORM_udata, DW_FORM_udata, {false, false}},
    /* DW_RLE_base_address */ {rle::base, DW_FORM_addr, 0, {false, false}},
    /* DW_RLE_start_end */ {rle::bounds, DW_FORM_addr, DW_FORM_addr, {false, false}},
    /* DW_RLE_start_length */ {rle::length, DW_FORM_addr, DW_FORM_udata, {false, false}},
};
static_assert(std::size(RLE_ROWS) == DW_RLE_start_length + 1);

} // namespace

static bool read_operand(krv_ranges_t *ranges, krv_form_t form, bool is_indexed, uint64_t *valuep)
{
    return form == 0 ||
           (krv_decode(&ranges->sr_fd, form, valuep) == 0 &&
            (!is_indexed || krv_cu_read_indexed(ranges->sr_hp, ranges->sr_cu, KRV_BASE_ADDR, *valuep, valuep)));
}

item krv_ranges_read_item(krv_ranges_t *ranges, uint8_t kind, uint64_t *startp, uint64_t *endp)
{
    krv_handle_t *hp = ranges->sr_hp;
    if (kind >= std::size(RLE_ROWS)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "unknown kind 0x%x of range", kind);
        return item::failed;
    }
    const rle_row &row = RLE_ROWS[kind];
    if (!read_operand(ranges, row.first, row.is_indexed[0], startp) ||
        !read_operand(ranges, row.second, row.is_indexed[1], endp))
        return item::failed;
    switch (row.meaning) {
    case rle::end:
        return item::end;
    case rle::base:
        ranges->sr_base = *startp;
        return item::none;
    case rle::offsets:
        return add_base(ranges, startp, endp);
    case rle::length:
        *endp = krv_add_offset(*startp, *endp);
        return item::range;
    case rle::bounds:
        break;
    }
    return item::range;
}

static item next_rle(krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp)
{
    uint8_t kind = 0;
    return krv_decode(&ranges->sr_fd, DW_FORM_data1, &kind) != 0 ? item::failed
                                                                 : krv_ranges_read_item(ranges, kind, startp, endp);
}

static item next_item(krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp)
{
    krv_handle_t *hp = ranges->sr_hp;
    const auto section = [ranges] { return krv_section_name(ranges->sr_section); };
    const uint64_t begin = ranges->sr_fd.sfd_offset;
    if (ranges->sr_fd.sfd_remaining == 0) {
        krv_fail(hp, KRV_ERR_CORRUPT, "range list at offset 0x%lx of %s has no end", list_offset(ranges), section());
        return item::failed;
    }
    const item result = ranges->sr_section == KRV_SEC_EXT_RANGES ? krv_ranges_read_pair(ranges, startp, endp)
                                                                 : next_rle(ranges, startp, endp);
    if (result == item::failed) {
        krv_note(hp, "failed to read the range list at offset 0x%lx of %s, at offset 0x%lx", list_offset(ranges),
                 section(), static_cast<unsigned long>(begin));
        return item::failed;
    }
    if (!krv_spend(ranges->sr_hp, ranges->sr_fd.sfd_offset - begin))
        return item::failed;
    if (ranges->sr_left == nullptr)
        return result;
    const uint64_t read = ranges->sr_fd.sfd_offset - begin;
    if (read > *ranges->sr_left) {
        krv_fail(hp, KRV_ERR_CORRUPT, "range list at offset 0x%lx of %s: too many units read the same lists",
                 list_offset(ranges), section());
        return item::failed;
    }
    *ranges->sr_left -= read;
    return result;
}

int krv_ranges_next(krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp)
{
    for (;;) {
        item next = item::range;
        if (ranges->sr_section != KRV_SEC_NONE) {
            next = next_item(ranges, startp, endp);
        } else {
            *startp = ranges->sr_low;
            *endp = ranges->sr_high;
            ranges->sr_low = ranges->sr_high = 0;
            if (*startp == 0 && *endp == 0)
                return 0;
        }
        if (next == item::failed)
            return -1;
        if (next == item::end)
            return 0;
        if (next == item::none || *startp == *endp)
            continue;
        if (krv_is_code(ranges->sr_hp, *startp, *endp))
            return 1;
        ++ranges->sr_dead;
    }
}

int korva_iter_ranges(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, krv_iter_range_f *fn, void *arg, uint64_t *sizep)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (cup == nullptr || fn == nullptr || sizep == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_ranges_t ranges;
    krv_range_t range;
    const krv_secidx_t sec = cup->dcu_version < 5 ? KRV_SEC_EXT_RANGES : KRV_SEC_EXT_RNGLISTS;
    *sizep = 0;
    if (krv_ranges_begin_list(hp, cup, sec, list, &ranges) != 1)
        return -1;
    int read, result = 0;
    while (result == 0 && (read = krv_ranges_next(&ranges, &range.start, &range.end)) == 1)
        result = fn(hp, &range, arg);
    *sizep = ranges.sr_fd.sfd_offset - list;
    return read < 0 ? -1 : result;
}
