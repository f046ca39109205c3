// SPDX-License-Identifier: Apache-2.0
//
// The abbreviation tables that units name (DWARF 5, 7.5.3), also where no entry uses them.
#include "check/subject.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_set>

namespace korva::program::check
{

// Reads the pairs of one abbreviation. Empty: nothing is wrong.
static std::string read_pairs(byte_reader *table, std::vector<uint64_t> *attributes)
{
    constexpr uint64_t DW_FORM_implicit_const = 0x21;
    attributes->clear();
    for (;;) {
        const uint64_t attribute = table->leb128(), form = table->leb128();
        if (form == DW_FORM_implicit_const)
            table->leb128(true);
        if (table->failed())
            return "is cut off";
        if (attribute == 0 && form == 0)
            break;
        if (form == 0)
            return fmt::format("has the attribute 0x{:x} without a form", attribute);
        attributes->push_back(attribute);
    }
    std::sort(attributes->begin(), attributes->end());
    const auto twice = std::adjacent_find(attributes->begin(), attributes->end());
    return twice == attributes->end() ? "" : fmt::format("has the attribute 0x{:x} twice", *twice);
}

// Reads a table, and returns the offset behind it.
static uint64_t check_table(subject *of, const section_bytes &bytes, uint64_t offset, uint64_t unit)
{
    byte_reader table = bytes.read(offset);
    std::unordered_set<uint64_t> codes;
    std::vector<uint64_t> attributes;
    for (;;) {
        const uint64_t at = table.at(), code = table.leb128();
        const auto add = [&](const std::string &what) {
            of->found().add(kind::abbreviation, {.offset = at, .unit = unit},
                            fmt::format("abbreviation {} {}", code, what));
        };
        if (!table.failed() && code == 0)
            return table.at();
        table.leb128(); // the tag
        const uint64_t children = table.number(1);
        const std::string what = read_pairs(&table, &attributes);
        if (!what.empty())
            add(what);
        else if (children > 1)
            add(fmt::format("has children of the kind {}, which is neither 0 nor 1", children));
        else if (!codes.insert(code).second)
            add("is not the first with its code");
        if (table.failed())
            return bytes.size();
    }
}

void check_abbreviations(subject *of)
{
    const section_bytes bytes(of->handle(), KRV_SEC_ABBREV);
    std::vector<std::pair<uint64_t, uint64_t>> tables; // with the first unit that names it
    for (const unit_facts &unit : of->units)
        if (unit.kind.kind != 0 && unit.header.abbrev_offset < bytes.size()) // else the unit could not be read
            tables.emplace_back(unit.header.abbrev_offset, unit.header.offset);
    std::sort(tables.begin(), tables.end());
    uint64_t budget = 4 * bytes.size() + (1 << 20), last = NOWHERE;
    for (const auto &[offset, unit] : tables) {
        if (offset == last)
            continue;
        last = offset;
        if (budget == 0) {
            of->found().add(kind::unchecked, {.section = ".debug_abbrev", .offset = offset},
                            "abbreviation tables overlap too often");
            return;
        }
        const uint64_t size = check_table(of, bytes, offset, unit) - offset;
        budget -= std::min(budget, size + 1);
    }
}

} // namespace korva::program::check
