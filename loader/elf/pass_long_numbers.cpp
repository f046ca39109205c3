// SPDX-License-Identifier: Apache-2.0
//
// Clang writes INT64_MAX and its like as signed LEB128 of ten bytes, which the core takes for more than 64 bits; the
// entry and what stands behind it become unreadable. No ten bytes of LEB128 say the same to the core, but a block of
// nine bytes takes as many: the entry gets an abbreviation of its own in which that attribute is one. The table of its
// unit is copied behind the others for that; its codes keep their number of bytes.
#include "elf/dwarf_units.h"
#include "elf/pass.h"
#include "krv_dwarf.h"

#include <fmt/format.h>
#include <set>

namespace krv_elf_loader
{

namespace
{

constexpr uint64_t LEAST_ROOM = 65536; // for copies of tables
constexpr size_t LONG = 10;            // bytes of the number; so many has a block of LONG - 1

// Whether the bytes are a number that the core refuses: positive, of ten bytes.
bool is_long(byte_span bytes)
{
    if (bytes.size() < LONG || bytes[LONG - 1] != 0)
        return false;
    for (size_t i = 0; i + 1 < LONG; ++i)
        if ((bytes[i] & 0x80) == 0)
            return false;
    return true;
}

// Whether one could be anywhere among the bytes. Looks at every ninth, and at the others where that one has its high
// bit set: few bytes have.
bool may_hold_long(byte_span bytes)
{
    for (size_t i = LONG - 2; i < bytes.size(); i += LONG - 1) {
        if ((bytes[i] & 0x80) == 0)
            continue;
        const size_t first = i - (LONG - 2);
        for (size_t start = first; start <= i; ++start)
            if (is_long(bytes.subspan(start)))
                return true;
    }
    return false;
}

// Numbers of the attributes that hold one, ascending.
using attribute_list = std::vector<size_t>;

struct long_number {
    uint64_t entry;    // offset of the entry
    uint64_t code;     // its abbreviation
    size_t code_width; // bytes of the code there
    size_t attribute;  // number in the abbreviation
    uint64_t at;       // offset of the value
};

// The numbers of a unit.
std::vector<long_number> find_long_numbers(byte_span info, const unit &u, const abbreviation_table &table)
{
    std::vector<long_number> found;
    walk_entries(info, u, table, [&](uint64_t entry, const abbreviation &abbrev, cursor c) {
        const size_t code_width = c.at() - entry;
        for (size_t i = 0; i < abbrev.attributes.size(); ++i) {
            if (abbrev.attributes[i].form == DW_FORM_sdata && is_long(info.first(u.end()).subspan(c.at())))
                found.push_back({entry, abbrev.code, code_width, i, c.at()});
            if (!skip_value(&c, u, abbrev.attributes[i].form))
                break;
        }
        return true;
    });
    return found;
}

// A copy of a unit's abbreviation table that grows by abbreviations of its own, while there is room.
class own_table
{
public:
    own_table(byte_span abbrevs, const abbreviation_table &of, uint64_t *room_left)
        : section(abbrevs), table(of), room(room_left)
    {
        for (const abbreviation &a : of.all())
            used.insert(a.code);
        bytes.assign(section.begin() + static_cast<ptrdiff_t>(of.begin()),
                     section.begin() + static_cast<ptrdiff_t>(of.end()));
        if (!bytes.empty() && bytes.back() == 0)
            bytes.pop_back(); // the null code
    }

    // The code of an abbreviation that differs from `code` in that the attributes named are blocks; nothing when there
    // is no room, or no code of that many bytes is free.
    std::optional<uint64_t> add(uint64_t code, size_t code_width, const attribute_list &blocks)
    {
        const auto key = std::make_tuple(code, code_width, blocks);
        if (const auto known = codes.find(key); known != codes.end())
            return known->second;
        const abbreviation *a = table.find(code);
        if (a == nullptr || a->size + LONG > *room)
            return std::nullopt;
        const std::optional<uint64_t> fresh = free_code(code_width);
        if (!fresh)
            return std::nullopt;
        *room -= a->size + LONG;
        const byte_span old = section.subspan(a->at, a->size);
        cursor c(old);
        c.uleb();
        append_uleb(*fresh);
        const size_t shift = bytes.size() - c.at();
        bytes.insert(bytes.end(), old.begin() + static_cast<ptrdiff_t>(c.at()), old.end());
        for (const size_t number : blocks) {
            const attribute_form &pair = a->attributes[number];
            write_padded_uleb(bytes.data() + shift + (pair.form_at - a->at), DW_FORM_block1, pair.form_width);
        }
        codes[key] = *fresh;
        used.insert(*fresh);
        return fresh;
    }

    std::vector<uint8_t> finish()
    {
        bytes.push_back(0);
        return std::move(bytes);
    }

private:
    // Codes only become fewer: the lowest free one never lies lower again.
    std::optional<uint64_t> free_code(size_t width)
    {
        const uint64_t highest = width >= 5 ? UINT32_MAX : (uint64_t{1} << (7 * width)) - 1;
        if (used.empty() || *used.rbegin() < highest)
            return used.empty() ? 1 : *used.rbegin() + 1;
        while (used.count(lowest_free) != 0)
            ++lowest_free;
        return lowest_free > highest ? std::nullopt : std::optional(lowest_free);
    }

    void append_uleb(uint64_t value)
    {
        do
            bytes.push_back(static_cast<uint8_t>((value & 0x7f) | (value > 0x7f ? 0x80 : 0)));
        while ((value >>= 7) != 0);
    }

    byte_span section;
    const abbreviation_table &table;
    uint64_t *room;
    std::set<uint64_t> used;
    uint64_t lowest_free = 1; // or any below
    std::map<std::tuple<uint64_t, size_t, attribute_list>, uint64_t> codes;
    std::vector<uint8_t> bytes;
};

// Gives the entries of a unit that hold such numbers their own abbreviations.
void correct_unit(view &v, const char *name, const unit &u, byte_span abbrevs_before, const abbreviation_table &table,
                  const std::vector<long_number> &found, uint64_t *room)
{
    view_section *info = v.find(KRV_SEC_INFO), *abbrev = v.find(KRV_SEC_ABBREV);
    own_table own(abbrevs_before, table, room);
    size_t corrected = 0, refused = 0;
    uint64_t first_refused = 0;
    for (size_t i = 0, next = 0; i < found.size(); i = next) {
        attribute_list blocks;
        for (next = i; next < found.size() && found[next].entry == found[i].entry; ++next)
            blocks.push_back(found[next].attribute);
        const std::optional<uint64_t> code = own.add(found[i].code, found[i].code_width, blocks);
        if (!code) {
            if (refused++ == 0)
                first_refused = found[i].entry;
            continue;
        }
        std::vector<uint8_t> &bytes = info->writable();
        write_padded_uleb(bytes.data() + found[i].entry, *code, found[i].code_width);
        for (size_t j = i; j < next; ++j) {
            const uint64_t at = found[j].at;
            cursor c(byte_span(bytes), at);
            const uint64_t value = static_cast<uint64_t>(c.sleb());
            bytes[at] = LONG - 1;
            write_number(bytes, at + 1, value, sizeof(value));
            bytes[at + 1 + sizeof(value)] = 0;
            ++corrected;
        }
    }
    if (refused != 0)
        v.add_note({name, info->name, first_refused, true,
                    fmt::format("{} entr{} of the unit at offset {:#x} cannot be read, the first at offset {:#x}: {} a "
                                "number of {} bytes, and no abbreviation code is free, or no room",
                                refused, refused == 1 ? "y" : "ies", u.offset, first_refused,
                                refused == 1 ? "it holds" : "each holds", LONG)});
    if (corrected == 0)
        return;
    const std::vector<uint8_t> fresh = own.finish();
    std::vector<uint8_t> &abbrevs = abbrev->writable();
    write_number(info->writable(), u.abbrev_offset_at(), abbrevs.size(), u.offset_size);
    abbrevs.insert(abbrevs.end(), fresh.begin(), fresh.end());
    v.add_note({name, info->name, u.offset, false,
                fmt::format("{} number{} of {} bytes in the unit at offset {:#x} {} shown as block{}", corrected,
                            corrected == 1 ? "" : "s", LONG, u.offset, corrected == 1 ? "is" : "are",
                            corrected == 1 ? "" : "s")});
}

} // namespace

void correct_long_numbers(view &v, const char *name)
{
    view_section *info = v.find(KRV_SEC_INFO), *abbrev = v.find(KRV_SEC_ABBREV);
    if (info == nullptr || abbrev == nullptr)
        return;
    std::vector<unit> units = read_units(info->bytes());
    std::erase_if(units, [&](const unit &u) {
        return !may_hold_long(info->bytes().subspan(u.entries(), u.end() - u.entries()));
    });
    if (units.empty())
        return;
    // Tables are copied from here: the section itself grows.
    const std::vector<uint8_t> before(abbrev->bytes().begin(), abbrev->bytes().end());
    abbreviation_tables tables{byte_span(before)};
    uint64_t left = info->bytes().size() + before.size() + LEAST_ROOM; // bytes that copies of tables may still take
    for (const unit &u : units) {
        const abbreviation_table &table = tables.at(u.abbrev_offset);
        const std::vector<long_number> found = find_long_numbers(info->bytes(), u, table);
        const uint64_t size = table.end() - table.begin();
        if (found.empty())
            continue;
        if (size > left) {
            v.add_note(
                {name, info->name, u.offset, true,
                 fmt::format("entries with numbers of {} bytes cannot be read in the unit at offset {:#x}, nor in "
                             "any behind it: copies of abbreviation tables take too much room",
                             LONG, u.offset)});
            return;
        }
        left -= size;
        correct_unit(v, name, u, byte_span(before), table, found, &left);
    }
}

} // namespace krv_elf_loader
