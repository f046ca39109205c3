// SPDX-License-Identifier: Apache-2.0
//
// The corrected view: what the handle gets to see of each section. Small named passes look at the raw sections and,
// where something real compilers write would stop the strict core, put a private copy in place. A pass that finds
// nothing copies nothing.
#ifndef KRV_ELF_VIEW_H
#define KRV_ELF_VIEW_H

#include "elf/file.h"
#include "elf/symbols.h"

#include <deque>
#include <optional>

namespace krv_elf_loader
{

struct view_section {
    krv_secidx_t index; // KRV_SEC_NONE: passes read it, and the handle does not
    std::string name;
    const raw_section *raw;                   // NULL for a section that a pass has made
    byte_span original;                       // the file's own bytes, or the inflated ones
    std::optional<std::vector<uint8_t>> copy; // what passes made of them
    elf_file *deferred = nullptr;             // inflates it when the handle reads it; no pass does

    byte_span bytes() const { return copy ? byte_span(*copy) : original; } // what the handle reads, unless deferred
    uint64_t size() const { return deferred != nullptr ? raw->size : bytes().size(); }
    std::vector<uint8_t> &writable(); // copies on first use
};

struct note {
    const char *pass;
    std::string section;
    uint64_t offset;
    bool refused; // this part cannot be read; else it was corrected
    std::string text;
};

class view
{
public:
    // Takes every section that libkorva knows, and those that passes read; corrects them unless `raw_only`.
    // `alternate` is the file that holds what several share, or NULL.
    view(elf_file &elf, const symbol_table &symbols, elf_file *alternate, bool raw_only);

    elf_file &file() const { return source; }
    const symbol_table &functions() const { return function_table; }
    byte_span alternate_strings(); // .debug_str of the alternate file, empty without one
    const std::deque<view_section> &sections() const { return section_list; }
    const std::deque<note> &notes() const { return note_list; }

    // For passes. A section stays where it is when another one is made.
    view_section *find(krv_secidx_t index);                   // NULL when the file has none
    view_section *find_extra(std::string_view name);          // one that passes read and the handle does not
    view_section *find_raw(size_t number);                    // by its number in the file
    view_section *make(krv_secidx_t index, const char *name); // a new, empty section
    void add_note(note n) { note_list.push_back(std::move(n)); }

private:
    void take_sections();
    void take(const raw_section &raw, krv_secidx_t index);
    void note_relocations();
    void sort_notes();

    elf_file &source;
    const symbol_table &function_table;
    elf_file *alternate_file;
    std::deque<view_section> section_list;
    std::deque<note> note_list;
};

} // namespace krv_elf_loader

#endif
