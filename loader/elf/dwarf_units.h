// SPDX-License-Identifier: Apache-2.0
//
// As much of .debug_info and .debug_abbrev (DWARF 4, 7.5) as the passes need: unit headers, abbreviation tables, and
// the walk from entry to entry.
#ifndef KRV_ELF_DWARF_UNITS_H
#define KRV_ELF_DWARF_UNITS_H

#include "elf/dwarf_cursor.h"
#include "krv_form.h"

#include <map>
#include <optional>

namespace krv_elf_loader
{

struct unit {
    uint64_t offset;
    uint64_t size; // length field included
    size_t offset_size;
    uint16_t version;
    uint64_t abbrev_offset; // of versions 2 to 4, as what follows
    size_t address_size;

    bool readable() const { return version >= 2 && version <= 4; }
    size_t length_size() const { return offset_size == 8 ? 12 : 4; }
    uint64_t abbrev_offset_at() const { return offset + length_size() + 2; }
    size_t header_size() const { return length_size() + 2 + offset_size + 1; } // of versions 2 to 4
    uint64_t entries() const { return offset + header_size(); }
    uint64_t end() const { return offset + size; }
    krv_encoding_t encoding() const { return {offset_size == 8, static_cast<uint8_t>(address_size), version}; }
};

// Reads the header of the unit at `offset`. False, with the reason, when it is damaged.
bool read_unit(byte_span info, uint64_t offset, unit *u, std::string *reason);

// The units of versions 2 to 4 with addresses of 4 or 8 bytes, from the start of the section to its end, or to one
// whose header is damaged.
std::vector<unit> read_units(byte_span info);

// Small: of every 2 bytes there may be one.
struct attribute_form {
    uint32_t name; // UINT32_MAX for any larger, as for forms: none of them is known
    uint32_t form;
    uint32_t form_width; // bytes
    uint64_t form_at;    // where the form stands in .debug_abbrev
};

struct abbreviation {
    uint64_t at; // where it stands in .debug_abbrev, its code
    uint64_t size;
    uint64_t code;
    uint64_t tag;
    bool has_children;
    std::vector<attribute_form> attributes;
};

// One abbreviation table. What the section's end cuts off is not there.
class abbreviation_table
{
public:
    abbreviation_table() = default;
    abbreviation_table(byte_span section, uint64_t offset);

    const abbreviation *find(uint64_t code) const;
    const std::vector<abbreviation> &all() const { return list; }
    uint64_t begin() const { return first; }
    uint64_t end() const { return behind; } // behind its null code

private:
    std::vector<abbreviation> list;
    std::map<uint64_t, size_t> numbers; // by code, where codes do not simply count up from 1
    uint64_t first = 0;
    uint64_t behind = 0;
};

// The tables of a section by offset, each read once. Tables of a sound section do not overlap; where they do, by far more
// bytes than the section has, those that are asked for last are empty.
class abbreviation_tables
{
public:
    explicit abbreviation_tables(byte_span all) : section(all), left(MOST_READINGS * all.size()) {}
    const abbreviation_table &at(uint64_t offset);

private:
    static constexpr uint64_t MOST_READINGS = 2; // of a byte, on the average

    byte_span section;
    uint64_t left; // bytes that may still be read
    std::map<uint64_t, abbreviation_table> known;
};

// Bytes of a form's value where they do not depend on the value; nothing for the others.
std::optional<size_t> fixed_width(const unit &u, uint64_t form);

// Moves the cursor behind a value. False for a form that is not known, or at the end of the bytes.
bool skip_value(cursor *c, const unit &u, uint64_t form);

// Attributes of a unit's entries, at most: values without bytes (DW_FORM_flag_present) are few among the others.
constexpr uint64_t most_attributes(const unit &u)
{
    return 64 * u.size;
}

// Walks the entries of a unit in the order in which they stand. The visitor gets each entry's offset, its
// abbreviation, and a cursor on its first value, which it may move at will; false ends the walk. Returns false when
// the entries could not be read to the unit's end.
template <typename F>
bool walk_entries(byte_span info, const unit &u, const abbreviation_table &table, const F &visit)
{
    cursor c(info.first(u.end()), u.entries());
    uint64_t left = most_attributes(u);
    while (c.more()) {
        const uint64_t entry = c.at();
        const uint64_t code = c.uleb();
        if (!c.ok())
            return false;
        if (code == 0)
            continue;
        const abbreviation *abbrev = table.find(code);
        if (abbrev == nullptr || abbrev->attributes.size() > left)
            return false;
        left -= abbrev->attributes.size();
        if (!visit(entry, *abbrev, c))
            return true;
        for (const attribute_form &pair : abbrev->attributes)
            if (!skip_value(&c, u, pair.form))
                return false;
    }
    return c.ok();
}

} // namespace krv_elf_loader

#endif
