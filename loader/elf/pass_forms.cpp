// SPDX-License-Identifier: Apache-2.0
//
// Link-time optimisation and dwz write references across units (DW_FORM_ref_addr) and into an alternate file
// (DW_FORM_GNU_*); the core decodes neither, and one such attribute makes the whole entry unreadable. In a private
// copy of the abbreviation table the attribute gets a plain form of the same width, in as many bytes as its form had:
// nothing moves, and the rest of the entry is read. Strings of an alternate file have been taken from there before.
#include "elf/dwarf_units.h"
#include "elf/pass.h"
#include "krv_dwarf.h"

#include <fmt/format.h>
#include <set>
#include <tuple>

namespace krv_elf_loader
{

namespace
{

// The name of a form that leads elsewhere, and NULL for any other.
const char *name_of(uint64_t form)
{
#define KRV_NAMED(name, ...)                                                                                           \
    if (form == (name))                                                                                                \
        return #name;
    KRV_NAMED(DW_FORM_ref_addr)
    KRV_DW_FORM_NEW(KRV_NAMED)
#undef KRV_NAMED
    return nullptr;
}

// The form that the core reads in its place: a number that says where it leads.
uint8_t plain_form(const unit &u, uint64_t form)
{
    if (form == DW_FORM_GNU_addr_index || form == DW_FORM_GNU_str_index)
        return DW_FORM_udata;
    return fixed_width(u, form) == 8U ? DW_FORM_data8 : DW_FORM_data4;
}

// What was done in one abbreviation table.
struct table_change {
    std::vector<uint8_t> plain;        // forms, of its attributes that lead elsewhere, one after the other
    std::map<uint64_t, size_t> counts; // by form
};

void change_table(view *v, const char *name, const unit &u, const abbreviation_table &table, table_change *change)
{
    view_section *abbrev = v->find(KRV_SEC_ABBREV);
    const attribute_form *misread = nullptr; // the first
    size_t count = 0, next = 0;
    for (const abbreviation &a : table.all())
        for (const attribute_form &pair : a.attributes) {
            if (name_of(pair.form) == nullptr)
                continue;
            const uint8_t plain = plain_form(u, pair.form);
            if (next == change->plain.size()) {
                change->plain.push_back(plain);
                write_padded_uleb(abbrev->writable().data() + pair.form_at, plain, pair.form_width);
                ++change->counts[pair.form];
            } else if (change->plain[next] != plain && count++ == 0) {
                misread = &pair;
            }
            ++next;
        }
    if (misread != nullptr)
        v->add_note({name, abbrev->name, misread->form_at, true,
                     fmt::format("units that share the abbreviation table at offset {:#x} give {} of its attributes "
                                 "different sizes, the first of them {}: those of the unit at offset {:#x} of "
                                 ".debug_info are misread",
                                 table.begin(), count, name_of(misread->form), u.offset)});
}

} // namespace

void correct_forms(view &v, const char *name)
{
    const view_section *info = v.find(KRV_SEC_INFO);
    const view_section *abbrev = v.find(KRV_SEC_ABBREV);
    if (info == nullptr || abbrev == nullptr)
        return;
    // The tables are read before anything is changed.
    const std::vector<uint8_t> *changed = abbrev->copy ? &*abbrev->copy : nullptr;
    const std::vector<uint8_t> before = changed == nullptr ? std::vector<uint8_t>() : *changed;
    abbreviation_tables tables(changed == nullptr ? abbrev->original : byte_span(before));
    std::map<uint64_t, table_change> changes;
    std::set<std::tuple<uint64_t, size_t, size_t, bool>> seen; // what the widths of a table's forms depend on
    for (const unit &u : read_units(info->bytes()))
        if (seen.emplace(u.abbrev_offset, u.offset_size, u.address_size, u.version == 2).second)
            change_table(&v, name, u, tables.at(u.abbrev_offset), &changes[u.abbrev_offset]);
    for (const auto &[offset, change] : changes)
        for (const auto &[form, count] : change.counts)
            v.add_note(
                {name, abbrev->name, offset, false,
                 fmt::format("{} attribute{} of the abbreviation table at offset {:#x} lead{} elsewhere ({}) and "
                             "{} shown as a plain number",
                             count, count == 1 ? "" : "s", offset, count == 1 ? "s" : "", name_of(form),
                             count == 1 ? "is" : "are each")});
}

} // namespace krv_elf_loader
