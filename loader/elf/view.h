// SPDX-License-Identifier: Apache-2.0
//
// What the handle gets to see of each section, and the notes on what it does not. Passes look at the raw sections and,
// where these cannot be read as they are, put a private copy in place. A pass that finds nothing copies nothing.
#ifndef KRV_ELF_VIEW_H
#define KRV_ELF_VIEW_H

#include "elf/file.h"
#include "elf/symbols.h"

#include <deque>
#include <optional>
#include <set>

namespace krv_elf_loader
{

struct view_section {
    krv_secidx_t index;
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
    bool refused; // this part cannot be read; else it was corrected, or read without what the text names
    std::string text;

    auto operator<=>(const note &) const = default;
};

class view
{
public:
    // Takes every section that libkorva knows, those of its extensions too unless `raw_only`, and corrects them then.
    // `alternate` is the file that holds what several share, or NULL.
    view(elf_file &elf, const symbol_table &symbols, elf_file *alternate, bool raw_only);

    elf_file &file() const { return source; }
    const symbol_table &functions() const { return function_table; }
    const std::deque<view_section> &sections() const { return section_list; }
    // In the order of the file's sections; those of one section in the order in which they were made. They stay where they
    // are when others are added.
    std::vector<const note *> notes() const;
    size_t notes_lost() const { return lost; } // that were too many
    std::string name_of(krv_secidx_t index) const;

    // For passes. A section stays where it is when another one is made.
    view_section *find(krv_secidx_t index);                   // NULL when the file has none
    view_section *find_raw(const raw_section *raw);           // NULL when it is not read
    view_section *make(krv_secidx_t index, const char *name); // a new, empty section
    // What was noted before is not noted again.
    void add_note(note n);

private:
    void take_sections(bool raw_only);
    void take_alternate(elf_file &alternate);
    void take(elf_file &home, const raw_section &raw, krv_secidx_t index);
    void note_relocations();

    struct by_content {
        bool operator()(const note *a, const note *b) const { return *a < *b; }
    };

    elf_file &source;
    const symbol_table &function_table;
    std::deque<view_section> section_list;
    std::deque<note> note_list;
    std::set<const note *, by_content> known_notes;
    size_t lost = 0;
};

} // namespace krv_elf_loader

#endif
