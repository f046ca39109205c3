// SPDX-License-Identifier: Apache-2.0
//
// Values of attributes. Each form says how its bytes are read (krv_form) and what they then stand for: a row of MEANINGS.
#include "krv_entry.h"

#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"

namespace
{

// What has to be done to a number that was read.
enum class then : uint8_t { nothing, string_index, address_index, rnglist_index, loclist_index, in_unit, in_alternate };

struct meaning {
    uint16_t written; // the form's number
    uint8_t kind;     // KRV_ATTR_*
    then what;
};

constexpr uint8_t kind_of(uint32_t classes)
{
    switch (classes) {
    case KRV_CLASS_ADDRESS:
        return KRV_ATTR_ADDRESS;
    case KRV_CLASS_BLOCK:
        return KRV_ATTR_BLOCK;
    case KRV_CLASS_CONSTANT:
        return KRV_ATTR_CONSTANT;
    case KRV_CLASS_EXPRLOC:
        return KRV_ATTR_EXPRESSION;
    case KRV_CLASS_FLAG:
        return KRV_ATTR_FLAG;
    case KRV_CLASS_REFERENCE:
        return KRV_ATTR_REFERENCE;
    case KRV_CLASS_STRING:
        return KRV_ATTR_STRING;
    default:
        return KRV_ATTR_SECTION;
    }
}

constexpr bool is_text(krv_family_t family)
{
    return family == krv_family_t::string || family == krv_family_t::strp || family == krv_family_t::line_strp ||
           family == krv_family_t::alt_strp;
}

constexpr then what_of(uint8_t code, const krv_form_row_t &row)
{
    switch (code) {
    case KRV_EXT_DW_FORM_loclistx:
        return then::loclist_index;
    case KRV_EXT_DW_FORM_rnglistx:
        return then::rnglist_index;
    case KRV_EXT_DW_FORM_GNU_ref_alt:
    case KRV_EXT_DW_FORM_ref_sup4:
    case KRV_EXT_DW_FORM_ref_sup8:
        return then::in_alternate;
    case DW_FORM_ref1:
    case DW_FORM_ref2:
    case DW_FORM_ref4:
    case DW_FORM_ref8:
    case DW_FORM_ref_udata:
        return then::in_unit;
    case DW_FORM_addr:
        return then::nothing;
    default:
        break;
    }
    if (row.classes == KRV_CLASS_ADDRESS)
        return then::address_index;
    return row.classes == KRV_CLASS_STRING && !is_text(row.family) ? then::string_index : then::nothing;
}

constexpr auto MEANINGS = [] {
    std::array<meaning, KRV_ALL_FORMS> rows{};
    for (unsigned int code = 0; code < rows.size(); ++code)
        rows[code] = {static_cast<uint16_t>(code), kind_of(krv_form_table[code].classes),
                      what_of(static_cast<uint8_t>(code), krv_form_table[code])};
#define KRV_ROW(name, number, code, ...) rows[code].written = (number);
    KRV_DW_FORM_EXT(KRV_ROW)
#undef KRV_ROW
    rows[DW_FORM_ref_sig8].kind = KRV_ATTR_SIGNATURE;
    return rows;
}();

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
    r->attr->is_signed = 1;
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

// Reads what the form says, up to numbers that lead elsewhere.
static bool read_form(reading *r, const krv_form_row_t &row, int64_t implicit)
{
    const krv_encoding_t &encoding = r->place.plan->sp_encoding;
    const bool is_alternate = r->entry->is_alternate != 0;
    switch (row.family) {
    case krv_family_t::number:
    case krv_family_t::opaque:
        return read_number(r, krv_form_width(row, encoding));
    case krv_family_t::uleb128:
        return read_unsigned(r);
    case krv_family_t::sleb128:
        return read_signed(r);
    case krv_family_t::present:
        r->attr->number = 1;
        return true;
    case krv_family_t::implicit:
        r->attr->number = static_cast<uint64_t>(implicit);
        r->attr->is_signed = 1;
        return true;
    case krv_family_t::string: {
        const auto *nul =
            static_cast<const uint8_t *>(std::memchr(r->at, 0, static_cast<size_t>(r->place.end - r->at)));
        if (nul == nullptr)
            return refuse(*r, "is cut off");
        take_bytes(r, r->at, static_cast<uint64_t>(nul - r->at));
        ++r->at;
        return true;
    }
    case krv_family_t::strp:
        return read_number(r, krv_form_width(row, encoding)) &&
               find_string(*r, is_alternate ? krv_secidx_t{KRV_SEC_EXT_ALT_STR} : krv_secidx_t{KRV_SEC_STR},
                           r->attr->number);
    case krv_family_t::line_strp:
        return read_number(r, krv_form_width(row, encoding)) && find_string(*r, KRV_SEC_EXT_LINE_STR, r->attr->number);
    case krv_family_t::alt_strp:
        return read_number(r, krv_form_width(row, encoding)) && find_string(*r, KRV_SEC_EXT_ALT_STR, r->attr->number);
    case krv_family_t::bytes:
        return take_bytes(r, r->at, row.width);
    case krv_family_t::block: {
        uint64_t size = 0;
        const uint8_t *bytes = krv_skip_length(r->at, r->place.end, row.width, &size);
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

static bool resolve(const reading &r, then what)
{
    krv_attr_t *attr = r.attr;
    switch (what) {
    case then::nothing:
        attr->is_alternate = attr->kind == KRV_ATTR_REFERENCE && r.entry->is_alternate != 0;
        return true;
    case then::string_index:
        return read_indexed(r, KRV_BASE_STR_OFFSETS) && find_string(r, KRV_SEC_STR, attr->number);
    case then::address_index:
        return read_indexed(r, KRV_BASE_ADDR);
    case then::rnglist_index:
        return read_indexed(r, KRV_BASE_RNGLISTS);
    case then::loclist_index:
        return read_indexed(r, KRV_BASE_LOCLISTS);
    case then::in_unit:
        attr->number = krv_add_offset(attr->number, r.entry->unit->dcu_offset);
        attr->is_alternate = r.entry->is_alternate;
        return true;
    case then::in_alternate:
        attr->is_alternate = 1;
        return true;
    }
    return false;
}

// The form behind DW_FORM_indirect.
static bool read_indirect(reading *r, krv_form_t *formp)
{
    const bool is_extended = r->place.plan->sp_encoding.is_extended();
    while (*formp == DW_FORM_indirect) {
        uint64_t written = 0;
        r->at = krv_skip_number(r->at, r->place.end, &written);
        if (r->at == nullptr)
            return refuse(*r, "is cut off");
        *formp = is_extended                ? krv_extended_form(written)
                 : written < KRV_BASE_FORMS ? static_cast<krv_form_t>(written)
                                            : KRV_BASE_FORMS;
    }
    return *formp != KRV_EXT_DW_FORM_implicit_const || refuse(*r, "is of an unknown form");
}

// Reads the attribute that the cursor is at, and moves it on.
static int read_attr(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry, krv_attr_t *attr)
{
    const krv_abbrev_t *abbrev = krv_entry_planned(entry)->abbrev;
    const krv_afpair_t pair = abbrev->dwa_afpairs[entry->attrs_read];
    reading r{hp, place, entry, attr, place.at(entry->at)};
    *attr = {};
    attr->attribute = pair.dwafp_attribute;
    krv_form_t form = pair.dwafp_form;
    int64_t implicit = 0;
    if (form == KRV_EXT_DW_FORM_implicit_const && place.plan->sp_encoding.is_extended())
        implicit = abbrev->dwa_implicit[entry->implicit_read++];
    else if (form == DW_FORM_indirect && !read_indirect(&r, &form))
        return -1;
    const krv_form_row_t row = krv_form_row(form, place.plan->sp_encoding.forms);
    const meaning &means = MEANINGS[row.family == krv_family_t::unknown ? 0 : form];
    attr->form = means.written;
    attr->kind = means.kind;
    if (!read_form(&r, row, implicit) || !resolve(r, means.what))
        return -1;
    ++entry->attrs_read;
    entry->at = place.offset_of(r.at);
    return 1;
}

int krv_entry_read_attr(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry, krv_attr_t *attr)
{
    return entry->attrs_read < krv_entry_planned(entry)->abbrev->dwa_nafpairs ? read_attr(hp, place, entry, attr) : 0;
}

int korva_entry_next_attr(krv_handle_t *hp, krv_entry_t *entryp, krv_attr_t *attrp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || attrp == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_place_t place;
    return krv_entry_place(hp, entryp->unit, &place) ? krv_entry_read_attr(hp, place, entryp, attrp) : -1;
}

int korva_entry_get_attr(krv_handle_t *hp, const krv_entry_t *entryp, uint32_t attribute, krv_attr_t *attrp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || attrp == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const krv_abbrev_t *abbrev = krv_entry_planned(entryp)->abbrev;
    uint32_t wanted = 0;
    while (wanted < abbrev->dwa_nafpairs && abbrev->dwa_afpairs[wanted].dwafp_attribute != attribute)
        ++wanted;
    if (wanted == abbrev->dwa_nafpairs)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    krv_place_t place;
    if (!krv_entry_place(hp, entryp->unit, &place))
        return -1;
    krv_entry_t entry = *entryp;
    if (entry.attrs_read > wanted)
        krv_entry_rewind(place, &entry);
    const uint8_t *at = place.at(entry.at);
    for (; entry.attrs_read < wanted && at != nullptr; ++entry.attrs_read) {
        const krv_form_t form = abbrev->dwa_afpairs[entry.attrs_read].dwafp_form;
        entry.implicit_read += form == KRV_EXT_DW_FORM_implicit_const;
        at = krv_plan_skip_form(at, place.end, form, place.plan->sp_encoding);
    }
    if (at == nullptr)
        return krv_entry_refuse(hp, entryp, "has values that are cut off or unknown");
    entry.at = place.offset_of(at);
    return read_attr(hp, place, &entry, attrp) == 1 ? 0 : -1;
}
