// SPDX-License-Identifier: Apache-2.0
//
// Code that no unit covers, symbols, and what the loader and the reader noted.
#include "check/subject.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace korva::program::check
{

namespace
{

constexpr uint64_t PADDING = 64; // what compilers leave between functions is smaller

/** What of a section nothing covers. */
struct gaps {
    uint64_t bytes = 0, count = 0;
    range largest{};

    void add(uint64_t start, uint64_t end)
    {
        if (end - start < PADDING)
            return;
        bytes += end - start;
        ++count;
        if (end - start > largest.end - largest.start)
            largest = {start, end};
    }
};

} // namespace

// What units cover, ascending, joined where it touches.
static std::vector<range> join(const std::vector<stretch> &ascending)
{
    std::vector<range> joined;
    for (const stretch &next : ascending)
        if (!joined.empty() && next.start <= joined.back().end)
            joined.back().end = std::max(joined.back().end, next.end);
        else
            joined.push_back({next.start, next.end});
    return joined;
}

static gaps find_gaps(const std::vector<range> &covered, uint64_t start, uint64_t end)
{
    gaps found;
    auto next = std::lower_bound(covered.begin(), covered.end(), start,
                                 [](const range &r, uint64_t address) { return r.end <= address; });
    for (; next != covered.end() && next->start < end; ++next) {
        if (next->start > start)
            found.add(start, next->start);
        start = next->end;
    }
    if (start < end)
        found.add(start, end);
    return found;
}

static void tell_uncovered(subject *of, const std::vector<range> &covered, const krv_elf_section_t &section)
{
    const gaps left = find_gaps(covered, section.address, section.address + section.size);
    if (left.count == 0)
        return;
    const krv_elf_symbol_t *symbol = of->elf().symbol(left.largest.start);
    of->found().add(kind::code_uncovered, {.section = section.name, .offset = left.largest.start - section.address},
                    fmt::format("no unit covers 0x{:x} bytes in {} {}, the largest from 0x{:x} to 0x{:x}{}", left.bytes,
                                left.count, left.count == 1 ? "place" : "places", left.largest.start, left.largest.end,
                                symbol == nullptr ? "" : fmt::format(" ({})", symbol->name)));
}

static std::string places_of(const subject &of, const krv_elf_info_t &info)
{
    std::string hex, places;
    for (size_t i = 0; i < info.build_id_size; ++i)
        hex += fmt::format("{:02x}", info.build_id[i]);
    if (hex.size() < 4)
        return "the file has no build-id by which a debug file is found";
    for (const std::string &folder : of.folders())
        places += fmt::format("{}{}/.build-id/{}/{}.debug", places.empty() ? "" : ", ", folder, hex.substr(0, 2),
                              hex.substr(2));
    return "looked for " + places;
}

void check_coverage(subject *of)
{
    if (of->size_of(KRV_SEC_INFO) == 0)
        of->found().add(kind::no_debug_info, {}, {"there is no .debug_info", places_of(*of, of->elf().info())});
    const std::vector<range> covered = join(of->unit_ranges);
    for (const krv_elf_section_t &section : of->sections()) {
        const bool is_linkers = std::string_view(section.name).starts_with(".plt");
        if (section.executable != 0 && section.size != 0 && !is_linkers && !of->units.empty() &&
            section.size <= UINT64_MAX - section.address)
            tell_uncovered(of, covered, section);
    }
    for (const krv_elf_symbol_t &symbol : of->elf().symbols()) {
        const uint64_t end = of->end_of_code(symbol.address);
        if (end != 0 && symbol.size > end - symbol.address)
            of->found().add(kind::symbol_size, {},
                            fmt::format("{} has 0x{:x} bytes from 0x{:x}, where code ends at 0x{:x}", symbol.name,
                                        symbol.size, symbol.address, end));
    }
}

// Which class a note is of, and whether it says something new.
static std::optional<kind> classify(const subject &of, const krv_elf_note_t &note)
{
    const std::string_view pass = note.pass, text = note.text;
    if (note.refused == 0) // what was read is checked here, and relocations are nothing amiss
        return pass == "reading" || pass == "relocations" ? std::nullopt : std::optional(kind::left_out);
    if (pass == "debug-file" || text.starts_with("a second section "))
        return kind::left_out;
    if (of.found().has_fault_at(note.section, note.offset))
        return std::nullopt;
    if (pass == "reading" && note.section == std::string_view(".debug_aranges"))
        return std::nullopt; // told set by set
    return kind::not_read;
}

void check_notes(subject *of)
{
    for (const krv_elf_note_t &note : of->elf().notes())
        if (const auto what = classify(*of, note))
            of->found().add(*what, {.section = note.section, .offset = note.offset}, note.text);
}

} // namespace korva::program::check
