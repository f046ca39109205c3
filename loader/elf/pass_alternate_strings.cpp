// SPDX-License-Identifier: Apache-2.0
//
// dwz -m moves strings that several files share into an alternate file (DW_FORM_GNU_strp_alt). Its .debug_str is put
// behind the file's own, and every such attribute becomes a DW_FORM_strp there. Without that file they all become one
// string that says so: the names of a unit are among them, and the core reads no unit whose name is no string.
#include "elf/dwarf_units.h"
#include "elf/pass.h"
#include "krv_dwarf.h"

#include <fmt/format.h>

namespace krv_elf_loader
{

namespace
{

constexpr char MISSING[] = "(in the alternate debug file)";

bool has_alternate_strings(const abbreviation_table &table)
{
    for (const abbreviation &a : table.all())
        for (const attribute_form &pair : a.attributes)
            if (pair.form == DW_FORM_GNU_strp_alt)
                return true;
    return false;
}

// Where the values of such attributes stand in a unit.
std::vector<uint64_t> find_values(byte_span info, const unit &u, const abbreviation_table &table)
{
    std::vector<uint64_t> found;
    walk_entries(info, u, table, [&](uint64_t, const abbreviation &abbrev, cursor c) {
        for (const attribute_form &pair : abbrev.attributes) {
            if (pair.form == DW_FORM_GNU_strp_alt)
                found.push_back(c.at());
            if (!skip_value(&c, u, pair.form))
                break;
        }
        return true;
    });
    return found;
}

} // namespace

void take_alternate_strings(view &v, const char *name)
{
    view_section *info = v.find(KRV_SEC_INFO), *abbrev = v.find(KRV_SEC_ABBREV);
    if (info == nullptr || abbrev == nullptr)
        return;
    byte_span strings = v.alternate_strings();
    const bool missing = strings.empty();
    if (missing)
        strings = {reinterpret_cast<const uint8_t *>(MISSING), sizeof(MISSING)};
    abbreviation_tables tables(abbrev->bytes());
    view_section *own = v.find(KRV_SEC_STR);
    const uint64_t base = own == nullptr ? 0 : own->bytes().size();
    if (base + strings.size() > UINT32_MAX)
        return v.add_note({name, info->name, 0, true, "strings of the alternate file are too large to be added"});
    size_t taken = 0;
    std::map<uint64_t, size_t> forms; // where to write DW_FORM_strp, in how many bytes
    std::map<uint64_t, bool> has;     // by offset of the table
    for (const unit &u : read_units(info->bytes())) {
        const abbreviation_table &table = tables.at(u.abbrev_offset);
        const auto [known, fresh] = has.try_emplace(u.abbrev_offset, false);
        if (fresh && has_alternate_strings(table)) {
            known->second = true;
            for (const abbreviation &a : table.all())
                for (const attribute_form &pair : a.attributes)
                    if (pair.form == DW_FORM_GNU_strp_alt)
                        forms[pair.form_at] = pair.form_width;
        }
        if (!known->second)
            continue;
        for (const uint64_t at : find_values(info->bytes(), u, table)) {
            cursor c(info->bytes(), at);
            // What leads nowhere leads to the NUL that ends the strings.
            const uint64_t offset = missing ? 0 : std::min<uint64_t>(c.number(u.offset_size), strings.size());
            write_number(info->writable(), at, base + offset, u.offset_size);
            ++taken;
        }
    }
    if (taken == 0)
        return;
    if (own == nullptr)
        own = v.make(KRV_SEC_STR, ".debug_str");
    std::vector<uint8_t> &bytes = own->writable();
    bytes.insert(bytes.end(), strings.begin(), strings.end());
    bytes.push_back(0);
    for (const auto &[at, width] : forms)
        write_padded_uleb(abbrev->writable().data() + at, DW_FORM_strp, width);
    v.add_note({name, info->name, 0, missing,
                fmt::format("{} strings {}", taken,
                            missing ? "stand in an alternate file, which was not found"
                                    : "are taken from the alternate file")});
}

} // namespace krv_elf_loader
