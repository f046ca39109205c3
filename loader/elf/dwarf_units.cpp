// SPDX-License-Identifier: Apache-2.0
#include "elf/dwarf_units.h"

#include "krv_dwarf.h"

#include <algorithm>
#include <fmt/format.h>

namespace krv_elf_loader
{

namespace
{

uint32_t narrow(uint64_t number)
{
    return static_cast<uint32_t>(std::min(number, uint64_t{UINT32_MAX}));
}

} // namespace

bool read_unit(byte_span info, uint64_t offset, unit *u, std::string *reason)
{
    cursor c(info, offset);
    *u = {offset, 0, 4, 0, 0, 0};
    *reason = "the section ends within its header";
    uint64_t length = c.number(4);
    if (length == 0xffffffff) {
        u->offset_size = 8;
        length = c.number(8);
    } else if (length >= 0xfffffff0) {
        *reason = fmt::format("its length {:#x} is reserved", length);
        return false;
    }
    if (!c.ok())
        return false;
    if (length > c.left()) {
        *reason = fmt::format("its length {:#x} exceeds the section", length);
        return false;
    }
    if (length < 2) {
        *reason = fmt::format("its length {:#x} has no room for a version", length);
        return false;
    }
    u->size = length + u->length_size();
    u->version = static_cast<uint16_t>(c.number(2));
    if (u->readable() && u->size >= u->header_size()) {
        u->abbrev_offset = c.number(u->offset_size);
        u->address_size = c.byte();
    }
    return true;
}

std::vector<unit> read_units(byte_span info)
{
    std::vector<unit> units;
    std::string reason;
    unit u;
    for (uint64_t offset = 0; offset < info.size() && read_unit(info, offset, &u, &reason); offset += u.size)
        if (u.readable() && u.size > u.header_size() && (u.address_size == 4 || u.address_size == 8))
            units.push_back(u);
    return units;
}

abbreviation_table::abbreviation_table(byte_span section, uint64_t offset) : first(offset), behind(offset)
{
    cursor c(section, offset);
    while (c.more()) {
        abbreviation abbrev = {c.at(), 0, c.uleb(), 0, false, {}};
        if (abbrev.code == 0 || !c.ok())
            break;
        abbrev.tag = c.uleb();
        abbrev.has_children = c.byte() != 0;
        for (;;) {
            const uint64_t name = c.uleb(), form_at = c.at(), form = c.uleb();
            if (!c.ok() || (name == 0 && form == 0))
                break;
            abbrev.attributes.push_back({narrow(name), narrow(form), narrow(c.at() - form_at), form_at});
        }
        if (!c.ok())
            break;
        abbrev.size = c.at() - abbrev.at;
        if (abbrev.code != list.size() + 1)
            numbers.emplace(abbrev.code, list.size());
        list.push_back(std::move(abbrev));
    }
    behind = c.at();
}

const abbreviation *abbreviation_table::find(uint64_t code) const
{
    if (code - 1 < list.size() && list[code - 1].code == code)
        return &list[code - 1];
    const auto found = numbers.find(code);
    return found == numbers.end() ? nullptr : &list[found->second];
}

const abbreviation_table &abbreviation_tables::at(uint64_t offset)
{
    const auto [found, fresh] = known.try_emplace(offset);
    if (fresh && offset < section.size()) {
        found->second = abbreviation_table(section.first(offset + std::min(left, section.size() - offset)), offset);
        left -= std::min(left, found->second.end() - offset);
    }
    return found->second;
}

std::optional<size_t> fixed_width(const unit &u, uint64_t form)
{
    switch (form) {
    case DW_FORM_flag_present:
        return 0;
    case DW_FORM_data1:
    case DW_FORM_ref1:
    case DW_FORM_flag:
        return 1;
    case DW_FORM_data2:
    case DW_FORM_ref2:
        return 2;
    case DW_FORM_data4:
    case DW_FORM_ref4:
        return 4;
    case DW_FORM_data8:
    case DW_FORM_ref8:
    case DW_FORM_ref_sig8:
        return 8;
    case DW_FORM_addr:
        return u.address_size;
    case DW_FORM_ref_addr: // version 2 gave it the size of an address
        return u.version == 2 ? u.address_size : u.offset_size;
    case DW_FORM_strp:
    case DW_FORM_sec_offset:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt:
        return u.offset_size;
    default:
        return std::nullopt;
    }
}

bool skip_value(cursor *c, const unit &u, uint64_t form)
{
    if (form == DW_FORM_indirect) {
        form = c->uleb();
        if (form == DW_FORM_indirect)
            return false;
    }
    if (const std::optional<size_t> width = fixed_width(u, form)) {
        c->skip(*width);
        return c->ok();
    }
    switch (form) {
    case DW_FORM_string:
        c->string();
        break;
    case DW_FORM_sdata:
    case DW_FORM_udata:
    case DW_FORM_ref_udata:
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index:
        c->uleb();
        break;
    case DW_FORM_block1:
        c->skip(c->byte());
        break;
    case DW_FORM_block2:
        c->skip(c->number(2));
        break;
    case DW_FORM_block4:
        c->skip(c->number(4));
        break;
    case DW_FORM_block:
    case DW_FORM_exprloc:
        c->skip(c->uleb());
        break;
    default:
        return false;
    }
    return c->ok();
}

} // namespace krv_elf_loader
