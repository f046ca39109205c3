// SPDX-License-Identifier: Apache-2.0
//
// The corrected view: what the handle gets to see of each section. Small named passes look at the raw sections and,
// where something real compilers write would stop the strict core, put a private copy in place. A pass that finds
// nothing copies nothing.
#ifndef KRV_ELF_VIEW_H
#define KRV_ELF_VIEW_H

#include "elf_file.h"

#include <memory>

namespace krv_elf_loader
{

struct view_section {
    krv_secidx_t index;
    std::string name;
    const raw_section *raw; // NULL for a section that a pass has made
    byte_span bytes;        // what the handle reads
    std::unique_ptr<std::vector<uint8_t>> copy;
};

struct note {
    std::string pass;
    std::string section;
    uint64_t offset;
    bool refused; // this part cannot be read; else it was corrected
    std::string text;
};

class view
{
public:
    // Takes every section that libkorva knows; corrects them unless `raw_only`.
    view(elf_file &elf, bool raw_only);

    const elf_file &file() const { return source; }
    const std::vector<view_section> &sections() const { return section_list; }
    const std::vector<note> &notes() const { return note_list; }

    // For passes.
    view_section *find(krv_secidx_t index);                   // NULL when the file has none
    view_section *make(krv_secidx_t index, const char *name); // a new, empty section
    std::vector<uint8_t> &writable(view_section *section);    // copies on first use
    void written(view_section *section);                      // after the copy changed its size
    void add_note(const char *pass, const std::string &section, uint64_t offset, bool refused, const std::string &text);

private:
    void take_sections(elf_file &elf);

    const elf_file &source;
    std::vector<view_section> section_list;
    std::vector<note> note_list;
};

} // namespace krv_elf_loader

#endif
