// SPDX-License-Identifier: Apache-2.0
//
// Values of attributes, read as the plan of their abbreviation says.
#include "krv_budget.h"
#include "krv_entry_move.h"

#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_mem.h"

#include <bit>

namespace
{

// One attribute while it is read.
struct reading {
    krv_handle_t *hp;
    const krv_place_t &place;
    const krv_entry_t *entry;
    krv_attr_t *attr;
    const uint8_t *at; // behind what was read of it
};

} // namespace

static bool refuse(const reading &r, const char *what)
{
    krv_fail(r.hp, KRV_ERR_CORRUPT, "attribute 0x%x of the entry at offset 0x%lx of %s %s", r.attr->attribute,
             static_cast<unsigned long>(r.entry->offset), krv_section_name(r.entry->unit->dcu_section), what);
    return false;
}

// The string at an offset of a section.
static bool find_string(const reading &r, krv_secidx_t sec, uint64_t offset)
{
    const krv_fd_t *section = krv_section(r.hp, sec);
    if (krv_fd_is_cb(section)) {
        krv_fail(r.hp, KRV_ERR_UNSUPPORTED, "strings are read only where %s is in memory", krv_section_name(sec));
        return false;
    }
    const void *nul = nullptr;
    if (offset < section->sfd_size) {
        r.attr->bytes = section->sfd_u.buf + offset;
        nul = std::memchr(r.attr->bytes, 0, section->sfd_size - offset);
    }
    if (nul == nullptr) {
        r.attr->bytes = nullptr;
        krv_fail(r.hp, KRV_ERR_CORRUPT, "string at offset 0x%lx leads out of %s", static_cast<unsigned long>(offset),
                 krv_section_name(sec));
        return refuse(r, "cannot be read");
    }
    r.attr->size = static_cast<uint64_t>(static_cast<const uint8_t *>(nul) - r.attr->bytes);
    r.attr->number = 0;
    return true;
}

static bool read_number(reading *r, size_t width)
{
    const uint8_t *next = krv_skip_bytes(r->at, r->place.end, width);
    if (next == nullptr)
        return refuse(*r, "is cut off");
    std::memcpy(&r->attr->number, r->at, width);
    r->at = next;
    return true;
}

static bool take_bytes(reading *r, const uint8_t *bytes, uint64_t size)
{
    if (bytes == nullptr || size > static_cast<uint64_t>(r->place.end - bytes))
        return refuse(*r, "is cut off");
    r->attr->bytes = bytes;
    r->attr->size = size;
    r->at = bytes + size;
    return true;
}

static bool read_signed(reading *r)
{
    int64_t value = 0;
    const uint8_t *next = krv_skip_signed(r->at, r->place.end, &value);
    if (next == nullptr)
        return refuse(*r, "is cut off, or too large");
    r->attr->number = static_cast<uint64_t>(value);
    r->at = next;
    return true;
}

static bool read_unsigned(reading *r)
{
    const uint8_t *next = krv_skip_number(r->at, r->place.end, &r->attr->number);
    if (next == nullptr)
        return refuse(*r, "is cut off, or too large");
    r->at = next;
    return true;
}

static bool read_text(reading *r)
{
    const auto *nul = static_cast<const uint8_t *>(std::memchr(r->at, 0, static_cast<size_t>(r->place.end - r->at)));
    if (nul == nullptr)
        return refuse(*r, "is cut off");
    take_bytes(r, r->at, static_cast<uint64_t>(nul - r->at));
    ++r->at;
    return true;
}

// Reads what the form says, up to numbers that lead elsewhere.
static bool read_form(reading *r, const krv_value_row &value, int64_t implicit)
{
    const bool is_alternate = r->entry->is_alternate != 0;
    switch (value.family) {
    case krv_family_t::number:
    case krv_family_t::opaque:
        return read_number(r, value.width);
    case krv_family_t::strp:
        return read_number(r, value.width) &&
               find_string(*r, is_alternate ? krv_secidx_t{KRV_SEC_EXT_ALT_STR} : krv_secidx_t{KRV_SEC_STR},
                           r->attr->number);
    case krv_family_t::present:
        r->attr->number = 1;
        return true;
    case krv_family_t::implicit:
        r->attr->number = static_cast<uint64_t>(implicit);
        return true;
    case krv_family_t::uleb128:
        return read_unsigned(r);
    case krv_family_t::sleb128:
        return read_signed(r);
    case krv_family_t::string:
        return read_text(r);
    case krv_family_t::line_strp:
        return read_number(r, value.width) && find_string(*r, KRV_SEC_EXT_LINE_STR, r->attr->number);
    case krv_family_t::alt_strp:
        return read_number(r, value.width) && find_string(*r, KRV_SEC_EXT_ALT_STR, r->attr->number);
    case krv_family_t::bytes:
        return take_bytes(r, r->at, value.width);
    case krv_family_t::block: {
        uint64_t size = 0;
        const uint8_t *bytes = krv_skip_length(r->at, r->place.end, value.width, &size);
        return take_bytes(r, bytes, size);
    }
    case krv_family_t::indirect:
    case krv_family_t::unknown:
        break;
    }
    return refuse(*r, "is of an unknown form");
}

static bool read_indexed(const reading &r, krv_base_t base)
{
    return krv_cu_read_indexed(r.hp, r.entry->unit, base, r.attr->number, &r.attr->number) ||
           refuse(r, "cannot be read");
}

static bool resolve(const reading &r, krv_then then)
{
    krv_attr_t *attr = r.attr;
    switch (then) {
    case krv_then::nothing:
    case krv_then::find_string:
    case krv_then::is_set:
    case krv_then::small_block:
    case krv_then::text:
    case krv_then::other:
        attr->is_alternate = attr->kind == KRV_ATTR_REFERENCE && r.entry->is_alternate != 0;
        return true;
    case krv_then::string_index:
        return read_indexed(r, KRV_BASE_STR_OFFSETS) && find_string(r, KRV_SEC_STR, attr->number);
    case krv_then::address_index:
        return read_indexed(r, KRV_BASE_ADDR);
    case krv_then::rnglist_index:
        return read_indexed(r, KRV_BASE_RNGLISTS);
    case krv_then::loclist_index:
        return read_indexed(r, KRV_BASE_LOCLISTS);
    case krv_then::in_unit:
    case krv_then::in_unit_by_wide_number:
        attr->number = krv_add_offset(attr->number, r.entry->unit->dcu_offset);
        attr->is_alternate = r.entry->is_alternate;
        return true;
    case krv_then::in_alternate:
        attr->is_alternate = 1;
        return true;
    }
    return false;
}

// Reads a value of any kind.
[[gnu::noinline]] static int read_other(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry,
                                        krv_attr_t *attr)
{
    const krv_planned_t *planned = krv_entry_planned(entry);
    const krv_afpair_t pair = planned->pairs[entry->attrs_read];
    const krv_value_row *value = &place.plan->row(pair.dwafp_form);
    reading r{hp, place, entry, attr, place.at(entry->at)};
    *attr = {};
    attr->attribute = pair.dwafp_attribute;
    int64_t implicit = 0;
    if (value->family == krv_family_t::implicit) {
        implicit = planned->abbrev()->dwa_implicit[entry->implicit_read++];
    } else if (value->family == krv_family_t::indirect) {
        krv_form_t form = 0;
        r.at = krv_plan_skip_indirect(r.at, place.end, place.plan->sp_encoding, &form);
        if (r.at == nullptr) {
            refuse(r, "is cut off, or of an unknown form");
            return -1;
        }
        value = &place.plan->row(form);
    }
    attr->form = value->written;
    attr->kind = value->kind;
    attr->is_signed = value->is_signed;
    if (!read_form(&r, *value, implicit) || !resolve(r, value->then))
        return -1;
    ++entry->attrs_read;
    entry->at = place.offset_of(r.at);
    return 1;
}

// Has the string at an offset of .debug_str in memory fetched. False: there is none.
static inline bool fetch_string(const krv_handle_t *hp, uint64_t offset)
{
    const krv_fd_t *section = &hp->sh_sec[KRV_SEC_STR];
    if (krv_fd_is_cb(section) || offset >= section->sfd_size)
        return false;
    __builtin_prefetch(section->sfd_u.buf + offset);
    return true;
}

// Of such an attribute, whose number is the offset so far. False: the string does not end.
static inline bool find_end_of_string(const krv_handle_t *hp, krv_attr_t *attr)
{
    const krv_fd_t *section = &hp->sh_sec[KRV_SEC_STR];
    const uint8_t *const text = section->sfd_u.buf + attr->number;
    const void *nul = std::memchr(text, 0, section->sfd_size - attr->number);
    attr->bytes = text;
    attr->size = static_cast<uint64_t>(static_cast<const uint8_t *>(nul) - text);
    attr->number = 0;
    return nul != nullptr;
}

// A block or an expression whose length takes a byte.
static inline bool take_small_block(const krv_value_row &row, const uint8_t *at, const uint8_t *end, krv_attr_t *attr)
{
    attr->number = 0;
    attr->size = *at;
    attr->bytes = at + 1;
    return attr->size <= static_cast<uint64_t>(end - at) - 1 && (attr->size < 0x80 || row.width == 1);
}

// A text that ends within `bytes`, which begin where it does.
static inline bool take_small_text(uint64_t bytes, const uint8_t *at, krv_attr_t *attr)
{
    constexpr uint64_t ONES = 0x0101010101010101;
    const uint64_t nul = (bytes - ONES) & ~bytes & (ONES << 7); // the lowest bit set is of the first one
    attr->number = 0;
    attr->bytes = at;
    attr->size = static_cast<uint64_t>(std::countr_zero(nul)) / 8;
    return nul != 0;
}

static_assert(offsetof(krv_attr_t, kind) - offsetof(krv_attr_t, form) == offsetof(krv_value_row, kind) &&
              offsetof(krv_attr_t, is_signed) - offsetof(krv_attr_t, form) == offsetof(krv_value_row, is_signed));

// Where a value stands, of an entry whose values before it were read.
static const uint8_t *find_value(const krv_place_t &place, const krv_entry_t *entry, size_t skipped)
{
    const krv_afpair_t *pair = krv_entry_planned(entry)->pairs + entry->attrs_read;
    const uint8_t *at = place.at(entry->at);
    for (; skipped != 0; --skipped, ++pair)
        at = krv_plan_skip_form(at, place.end, pair->dwafp_form, place.plan->sp_encoding);
    return at;
}

// Reads what most values are, up to the first that is another, or cannot be read so. Returns how many. Strings lie all over
// their section: they are fetched while what follows is read, and their ends are looked for last.
static inline size_t read_common(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry, krv_attr_t *attrs,
                                 size_t room)
{
    const krv_planned_t *planned = krv_entry_planned(entry);
    const krv_value_row *const rows = place.plan->sp_rows;
    const krv_form_t forms = place.plan->sp_encoding.forms;
    const krv_afpair_t *pair = planned->pairs + entry->attrs_read;
    const size_t left = planned->pair_count - entry->attrs_read, most = left < room ? left : room;
    const uint64_t unit_offset = entry->unit->dcu_offset;
    const uint8_t *at = place.at(entry->at), *const end = place.end;
    const uint8_t *const words =
        end - at < ptrdiff_t{sizeof(uint64_t)} ? at : end - sizeof(uint64_t) + 1; // up to there
    krv_attr_t *attr = attrs, *const last = attrs + most;
    uint64_t awaited = 0; // of the strings, by their numbers
    for (; attr != last && at < words; ++attr, ++pair) {
        const krv_value_row &row = rows[pair->dwafp_form < forms ? pair->dwafp_form : 0];
        uint64_t number;
        std::memcpy(&number, at, sizeof(number));
        number &= UINT64_MAX >> row.unused;
        attr->attribute = pair->dwafp_attribute;
        std::memcpy(&attr->form, &row, sizeof(uint32_t)); // form, kind and is_signed
        std::memset(&attr->is_alternate, 0, offsetof(krv_attr_t, number) - offsetof(krv_attr_t, is_alternate));
        attr->number = number;
        attr->bytes = nullptr;
        attr->size = 0;
        if (row.then == krv_then::nothing) {
        } else if (row.then == krv_then::in_unit) {
            attr->number = krv_add_offset(number, unit_offset);
        } else if (row.then == krv_then::find_string) {
            if (attr - attrs >= 64 || !fetch_string(hp, number))
                break;
            awaited |= uint64_t{1} << (attr - attrs);
        } else if (row.then == krv_then::is_set) {
            attr->number = 1;
        } else if (row.then == krv_then::small_block) {
            if (!take_small_block(row, at, end, attr))
                break;
            at = attr->bytes + attr->size;
            continue;
        } else if (row.then == krv_then::text) {
            if (!take_small_text(number, at, attr))
                break;
            at += attr->size + 1;
            continue;
        } else {
            break;
        }
        at += row.width;
    }
    for (; awaited != 0; awaited &= awaited - 1) {
        krv_attr_t *const string = attrs + std::countr_zero(awaited);
        if (!find_end_of_string(hp, string)) {
            attr = string;
            at = find_value(place, entry, static_cast<size_t>(attr - attrs));
            break;
        }
    }
    const auto count = static_cast<size_t>(attr - attrs);
    entry->attrs_read = static_cast<uint16_t>(entry->attrs_read + count);
    entry->at = place.offset_of(at);
    return count;
}

// Reads the attribute that the cursor is at, and moves it on. 1 or -1.
static inline int read_attr(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry, krv_attr_t *attr)
{
    const bool is_common = entry->is_alternate == 0 && read_common(hp, place, entry, attr, 1) == 1;
    return is_common ? 1 : read_other(hp, place, entry, attr);
}

int krv_entry_read_attr(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry, krv_attr_t *attr)
{
    return entry->attrs_read < krv_entry_planned(entry)->pair_count ? read_attr(hp, place, entry, attr) : 0;
}

// Reads the first `most` values of an entry. False: messages.
[[gnu::always_inline]] static inline bool read_attrs(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry,
                                                     krv_attr_t *attrs, size_t most)
{
    for (size_t i = 0; i < most;) {
        if (entry->is_alternate == 0)
            i += read_common(hp, place, entry, attrs + i, most - i);
        if (i < most && read_other(hp, place, entry, &attrs[i++]) != 1)
            return false;
    }
    return true;
}

int korva_entry_get_attrs(krv_handle_t *hp, krv_entry_t *entryp, krv_attr_t *attrs, size_t room, size_t *countp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || countp == nullptr || entryp->unit == nullptr || (attrs == nullptr && room != 0))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_place_t place;
    if (!krv_entry_place_of(hp, entryp, &place))
        return -1;
    if (entryp->attrs_read != 0)
        krv_entry_rewind(place, entryp);
    const uint32_t count = krv_entry_planned(entryp)->pair_count;
    *countp = count;
    return read_attrs(hp, place, entryp, attrs, count < room ? count : room) ? 0 : -1;
}

int korva_iter_entries(krv_handle_t *hp, krv_ctu_t *cup, krv_iter_entry_attrs_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (fn == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const krv_owner<krv_attr_t> room(
        static_cast<krv_attr_t *>(krv_alloc(hp, KRV_MOST_ATTRIBUTES * sizeof(krv_attr_t))));
    krv_attr_t *const attrs = room.get();
    krv_entry_t entry;
    krv_place_t place;
    if (attrs == nullptr)
        return -1;
    int moved = korva_entry_first(hp, cup, &entry);
    if (moved == 0 && !krv_entry_place_of(hp, &entry, &place))
        return -1;
    const krv_fd_t *const section = moved == 0 ? krv_section(hp, cup->dcu_section) : nullptr;
    krv_fd_t attached = moved == 0 ? *section : krv_fd_t{};
    while (moved == 0) {
        const size_t count = krv_entry_planned(&entry)->pair_count;
        if (!krv_spend(hp, 1 + count) || !read_attrs(hp, place, &entry, attrs, count))
            return -1;
        if (const int result = fn(hp, &entry, attrs, count, arg))
            return result;
        krv_clear_error(hp);
        if (!krv_fd_same_source(section, &attached)) { // the visitor has attached another one
            attached = *section;
            if (!krv_entry_place_of(hp, &entry, &place))
                return -1;
        }
        moved = krv_entry_move_behind(hp, place, &entry, place.at(entry.at));
    }
    if (krv_errno(hp) != KRV_ERR_NOTFOUND)
        return -1;
    krv_clear_error(hp);
    return 0;
}

int korva_entry_next_attr(krv_handle_t *hp, krv_entry_t *entryp, krv_attr_t *attrp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || attrp == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_place_t place;
    return krv_entry_place_of(hp, entryp, &place) ? krv_entry_read_attr(hp, place, entryp, attrp) : -1;
}

int korva_entry_get_attr(krv_handle_t *hp, const krv_entry_t *entryp, uint32_t attribute, krv_attr_t *attrp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || attrp == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const krv_planned_t *planned = krv_entry_planned(entryp);
    uint32_t wanted = 0;
    while (wanted < planned->pair_count && planned->pairs[wanted].dwafp_attribute != attribute)
        ++wanted;
    if (wanted == planned->pair_count)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    krv_place_t place;
    if (!krv_entry_place_of(hp, entryp, &place))
        return -1;
    krv_entry_t entry = *entryp;
    if (entry.attrs_read > wanted)
        krv_entry_rewind(place, &entry);
    const uint8_t *at = place.at(entry.at);
    for (; entry.attrs_read < wanted && at != nullptr; ++entry.attrs_read) {
        const krv_form_t form = planned->pairs[entry.attrs_read].dwafp_form;
        entry.implicit_read += form == KRV_EXT_DW_FORM_implicit_const;
        at = krv_plan_skip_form(at, place.end, form, place.plan->sp_encoding);
    }
    if (at == nullptr)
        return krv_entry_refuse(hp, entryp, "has values that are cut off or unknown");
    entry.at = place.offset_of(at);
    return read_attr(hp, place, &entry, attrp) == 1 ? 0 : -1;
}
