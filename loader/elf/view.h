// SPDX-License-Identifier: Apache-2.0
//
// What the handle gets to see of each section: the file's own bytes, or what they inflate to; of relocatable files a copy.
// And the notes on what it does not see.
#ifndef KRV_ELF_VIEW_H
#define KRV_ELF_VIEW_H

#include "elf/file.h"

#include <deque>
#include <optional>
#include <set>

namespace krv_elf_loader
{

struct view_section {
    krv_secidx_t index;
    std::string name;
    const raw_section *raw;
    byte_span original;                       // the file's own bytes, or the inflated ones
    std::optional<std::vector<uint8_t>> copy; // relocated
    elf_file *home;                           // the file that has it
    bool is_deferred;                         // inflated when the handle reads it

    byte_span bytes() const { return copy ? byte_span(*copy) : original; } // what the handle reads, unless deferred
    uint64_t size() const { return is_deferred ? raw->size : bytes().size(); }
    std::vector<uint8_t> &writable(); // copies on first use
};

struct note {
    const char *pass; // what was being done: "attach", "debug-file", "relocations", "reading"
    std::string section;
    uint64_t offset;
    bool refused; // this part cannot be read; else it was corrected, or read without what the text names
    std::string text;

    auto operator<=>(const note &) const = default;
};

class view
{
public:
    // Takes every section that libkorva knows; unless `raw_only` those of its extensions too, and relocates them.
    // `alternate` is the file that holds what several share, or NULL.
    view(elf_file &elf, elf_file *alternate, bool raw_only);

    elf_file &file() const { return source; }
    const std::deque<view_section> &sections() const { return section_list; }
    // In the order of the file's sections; those of one section in the order in which they were made. They stay where they
    // are when others are added.
    std::vector<const note *> notes() const;
    size_t note_count() const { return note_list.size(); }
    bool lacks_notes() const { return lost; } // there were too many, or no memory
    std::string name_of(krv_secidx_t index) const;

    view_section *find(krv_secidx_t index);         // NULL when the file has none
    view_section *find_raw(const raw_section *raw); // NULL when it is not read
    // What was noted before is not noted again.
    void add_note(note n);
    void lose_note() { lost = true; }

private:
    void take_sections(bool raw_only);
    void take_alternate(elf_file &alternate);
    void take(elf_file &home, const raw_section &raw, krv_secidx_t index);
    void note_relocations();

    struct by_content {
        bool operator()(const note *a, const note *b) const { return *a < *b; }
    };

    elf_file &source;
    std::deque<view_section> section_list;
    std::deque<note> note_list;
    std::set<const note *, by_content> known_notes;
    bool lost = false;
};

} // namespace krv_elf_loader

#endif
