// SPDX-License-Identifier: Apache-2.0
//
// What a check finds: one table of classes, and the findings of a file, of which a few of each class are kept.
#pragma once

#include <korva.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korva::program::check
{

enum class severity : uint8_t {
    fault,  /**< a reader is misled, or has to leave something out */
    warning /**< legal, and costs readers time, or users an answer */
};

/**
 * The classes: name, severity, the section that its offsets count in, what it says. docs/checks.md lists the same. A class's name
 * in what is printed has hyphens.
 */
#define KORVA_FINDING_CLASSES(ROW)                                                                                     \
    ROW(not_read, fault, "", "A section, or a part of one, cannot be read at all.")                                    \
    ROW(unit_header, fault, ".debug_info", "A unit's header cannot be read, or the units end early.")                  \
    ROW(abbreviation, fault, ".debug_abbrev",                                                                          \
        "An abbreviation is cut off, appears twice, or says an attribute twice.")                                      \
    ROW(entry, fault, ".debug_info", "An entry, or the value of an attribute, cannot be read.")                        \
    ROW(reference, fault, ".debug_info", "A reference leads to no entry.")                                             \
    ROW(type_signature, fault, ".debug_info", "No type unit has the signature that an entry refers to.")               \
    ROW(range_list, fault, ".debug_info",                                                                              \
        "The addresses that an entry covers cannot be read, or end before they begin.")                                \
    ROW(range_nesting, fault, ".debug_info", "An entry covers addresses that the entry around it does not.")           \
    ROW(location_list, fault, ".debug_info", "A location list cannot be read, or a location ends before it begins.")   \
    ROW(expression, fault, ".debug_info", "The operations of an expression cannot be decoded.")                        \
    ROW(entry_file, fault, ".debug_info", "An entry names a file that its unit's line table does not have.")           \
    ROW(line_header, fault, ".debug_line", "The header of a line table cannot be read.")                               \
    ROW(line_program, fault, ".debug_line", "A line-number program cannot be executed up to its end.")                 \
    ROW(line_file, fault, ".debug_line", "Rows name a file that the line table does not have.")                        \
    ROW(line_address, fault, ".debug_line", "A sequence of rows begins in code and leads out of it.")                  \
    ROW(line_directory, fault, ".debug_line", "A file of a line table names a directory that it does not have.")       \
    ROW(aranges_set, fault, ".debug_aranges", "A set cannot be read.")                                                 \
    ROW(aranges_unit, fault, ".debug_aranges", "A set names no unit.")                                                 \
    ROW(aranges_range, warning, ".debug_aranges", "A set has addresses that its unit does not cover.")                 \
    ROW(name_index, fault, ".debug_names", "An index of names is damaged, or names what is not there.")                \
    ROW(frame_record, fault, ".eh_frame",                                                                              \
        "A record of call-frame information, or a row of its table, cannot be read.")                                  \
    ROW(frame_header, fault, ".eh_frame_hdr", "The search table does not lead to the records of .eh_frame.")           \
    ROW(no_debug_info, warning, "", "There is no debugging information.")                                              \
    ROW(no_aranges, warning, ".debug_aranges", "Without it, who looks up an address has to look into every unit.")     \
    ROW(aranges_missing, warning, ".debug_aranges", "A unit that has code is in no set.")                              \
    ROW(no_lines, warning, ".debug_info", "A unit that has code has no line table.")                                   \
    ROW(split_unit, warning, ".debug_info",                                                                            \
        "The rest of the unit is in another file, which is not read; or not found.")                                   \
    ROW(unit_overlap, warning, ".debug_info", "Two units cover the same addresses.")                                   \
    ROW(function_overlap, warning, ".debug_info", "Two functions cover the same addresses.")                           \
    ROW(line_overlap, warning, ".debug_line", "Two sequences of rows cover the same addresses.")                       \
    ROW(line_order, warning, ".debug_line", "The rows of a sequence go backwards.")                                    \
    ROW(code_uncovered, warning, "", "Code that no unit covers: addresses there have no line.")                        \
    ROW(no_frame_header, warning, ".eh_frame_hdr", "Without it, who unwinds has to read all of .eh_frame.")            \
    ROW(frame_overlap, warning, ".eh_frame", "Two records cover the same addresses.")                                  \
    ROW(frame_end, warning, ".eh_frame", "Records behind the terminator are read by nobody.")                          \
    ROW(symbol_size, warning, ".symtab", "A function's symbol leads out of its section.")                              \
    ROW(left_out, warning, "", "A part is read without what the text names.")                                          \
    ROW(unchecked, warning, "", "Too many entries share the same bytes: not all of them were checked.")

#define KORVA_FINDING_NAME(name, how_bad, section, means) name,
enum class kind : uint8_t { KORVA_FINDING_CLASSES(KORVA_FINDING_NAME) COUNT };
#undef KORVA_FINDING_NAME

struct finding_class {
    std::string name;
    severity how_bad;
    const char *section;
    const char *means;
};

/** The row of a class. */
const finding_class &class_of(kind what);
/** All of them, by number. */
const std::vector<finding_class> &all_classes();

/** Where a finding is; what is not known is empty. */
struct place {
    std::string section{}; /**< empty: that of the class */
    std::optional<uint64_t> offset{};
    std::optional<uint64_t> unit{}; /**< offset of its unit in .debug_info */
};

struct finding {
    kind what;
    place where;
    std::vector<std::string> messages; /**< cause first */
};

/** How much was read. */
struct volume {
    uint64_t units = 0, entries = 0, line_tables = 0, rows = 0, frame_records = 0;
};

class findings
{
public:
    /**
     * Keeps at most @p most of each class; all are counted, but for those of classes that are @p ignored, by name, and for
     * what is met after a bound on what the file may cost is used up.
     */
    findings(uint64_t most, const std::vector<std::string> &ignored, handle_view handle);

    /** Whether such a bound was used up: not everything was checked. */
    bool are_cut() const { return korva_handle_is_spent(m_handle.get()) != 0; }

    void add(kind what, place where, std::vector<std::string> messages);
    void add(kind what, place where, std::string message)
    {
        add(what, std::move(where), std::vector{std::move(message)});
    }
    /** Whether a fault was found at that offset of a section. Of a great many only the first are known. */
    bool has_fault_at(std::string_view section, uint64_t offset) const;

    uint64_t count(kind what) const { return m_counts[static_cast<size_t>(what)]; }
    uint64_t count(severity how_bad) const;
    const std::vector<finding> &kept() const { return m_kept; }

    volume read{};

private:
    uint64_t m_most;
    handle_view m_handle;
    std::array<bool, static_cast<size_t>(kind::COUNT)> m_ignored{};
    std::array<uint64_t, static_cast<size_t>(kind::COUNT)> m_counts{};
    std::vector<finding> m_kept;
    std::set<std::pair<std::string, uint64_t>, std::less<>> m_places; // of faults
};

} // namespace korva::program::check
