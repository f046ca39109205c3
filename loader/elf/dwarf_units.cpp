// SPDX-License-Identifier: Apache-2.0
#include "elf/dwarf_units.h"

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
    krv_unit_length_t ul;
    const krv_length_outcome_t outcome = c.unit_length(&ul);
    const uint64_t length = ul.length;
    if (outcome == krv_length_outcome_t::reserved)
        *reason = fmt::format("its length {:#x} is reserved", length);
    if (outcome != krv_length_outcome_t::sound)
        return false;
    u->offset_size = ul.is_dwarf64 ? 8 : 4;
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

static krv_form_row_t row_of(uint64_t form)
{
    return form < KRV_BASE_FORMS
               ? krv_form_row(form)
               : krv_form_row(krv_extended_form(form), form > UINT8_MAX ? KRV_ALL_FORMS : KRV_BASE_FORMS);
}

std::optional<size_t> fixed_width(const unit &u, uint64_t form)
{
    const krv_form_row_t row = row_of(form);
    switch (row.family) {
    case krv_family_t::number:
    case krv_family_t::strp:
    case krv_family_t::alt_strp:
    case krv_family_t::opaque:
    case krv_family_t::present:
        return krv_form_width(row, u.encoding());
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
    const krv_form_row_t row = row_of(form);
    switch (row.family) {
    case krv_family_t::number:
    case krv_family_t::strp:
    case krv_family_t::alt_strp:
    case krv_family_t::opaque:
    case krv_family_t::present:
        c->skip(krv_form_width(row, u.encoding()));
        break;
    case krv_family_t::uleb128:
    case krv_family_t::sleb128:
        c->uleb();
        break;
    case krv_family_t::string:
        c->string();
        break;
    case krv_family_t::block:
        c->skip(row.width == 0 ? c->uleb() : c->number(row.width));
        break;
    default:
        return false;
    }
    return c->ok();
}

} // namespace krv_elf_loader
