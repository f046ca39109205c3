// SPDX-License-Identifier: Apache-2.0
//
// The file that is checked, what all checks ask of it, and what one check leaves for the next.
#pragma once

#include "check/bitmap.h"
#include "check/bytes.h"
#include "check/findings.h"

#include <korva.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korva::program::check
{

constexpr uint64_t NOWHERE = UINT64_MAX;

/** A unit of .debug_info, and what was learnt of it. */
struct unit_facts {
    korva::unit unit;
    krv_cu_header_t header;
    krv_cu_kind_t kind;
    uint64_t line_table = NOWHERE; /**< its offset in .debug_line, when the first entry tells one */
    bool has_code = false;         /**< the unit covers addresses */
};

/** A stretch of addresses of what the number says. */
struct stretch {
    uint64_t start, end;
    uint64_t owner; /**< number of a unit, or offset of an entry or table */
};

/** The bytes of a section, in memory while this lives. */
class section_bytes
{
public:
    /** Those that the handle has; empty when it has none, or they cannot be read. */
    section_bytes(handle_view handle, krv_secidx_t section);

    const uint8_t *data() const { return m_data; }
    uint64_t size() const { return m_size; }
    byte_reader read(uint64_t at = 0) const { return {m_data, m_size, at}; }

private:
    std::vector<uint8_t> m_copy; // of a section that is inflated when it is read
    const uint8_t *m_data = nullptr;
    uint64_t m_size = 0;
};

class subject
{
public:
    subject(elf_view file, const std::vector<std::string> &debug_folders, findings *into);

    const elf_view &elf() const { return m_elf; }
    handle_view handle() const { return m_elf.handle(); }
    findings &found() const { return *m_found; }
    const std::vector<std::string> &folders() const { return m_folders; }

    /** Bytes of a section that the handle has, or 0. */
    uint64_t size_of(krv_secidx_t section) const;
    /** A section of the file by its name, as the loader lists it. */
    const krv_elf_section_t *find(const char *name) const;
    const std::vector<krv_elf_section_t> &sections() const { return m_sections; }

    /** Executable sections, ascending; those that touch are one. */
    const std::vector<range> &code() const { return m_code; }
    bool is_code(uint64_t address) const { return end_of_code(address) != 0; }
    /** Where the code that an address lies in ends; 0 when it lies in none. */
    uint64_t end_of_code(uint64_t address) const;
    bool is_linked() const { return m_info.type != 1; } // ET_REL
    krv_activation_type_t target() const { return m_info.target; }

    /** The unit that begins at an offset, or nullptr. */
    const unit_facts *unit_at(uint64_t offset) const;

    std::vector<unit_facts> units{}; /**< ascending */
    bitmap entry_starts{0};          /**< of .debug_info, where check_units found entries */
    std::vector<stretch>
        unit_ranges{}; /**< the code of units, by their numbers; ascending once check_units has returned */

private:
    elf_view m_elf;
    std::vector<std::string> m_folders;
    krv_elf_info_t m_info;
    findings *m_found;
    std::vector<krv_elf_section_t> m_sections;
    std::vector<range> m_code;
};

/** The messages of the handle's last failure, cause first; never none. */
std::vector<std::string> last_messages(handle_view handle);

/**
 * Calls visit(a, b) for neighbours that overlap, @p all ascending by start: b is the one behind. Those that are the same are copies
 * of one thing, of which linkers keep one, and no overlap.
 */
template <typename Visit>
void each_overlap(const std::vector<stretch> &all, const Visit &visit)
{
    const stretch *farthest = nullptr;
    for (const stretch &next : all) {
        const bool is_copy = farthest != nullptr && next.start == farthest->start && next.end == farthest->end;
        if (farthest != nullptr && next.start < farthest->end && !is_copy)
            visit(*farthest, next);
        if (farthest == nullptr || next.end > farthest->end)
            farthest = &next;
    }
}

/** By start, then by end and owner. */
void sort_stretches(std::vector<stretch> *all);

// The checks, in the order in which they are made.
void check_units(subject *of);         /**< units, entries, what these lead to */
void check_abbreviations(subject *of); /**< tables that units name */
void check_lines(subject *of);         /**< line tables that units name */
void check_aranges(subject *of);
void check_names(subject *of);
void check_frames(subject *of);
void check_coverage(subject *of); /**< code without units, and symbols */
void check_notes(subject *of);    /**< what the loader and the reader noted meanwhile */

} // namespace korva::program::check
