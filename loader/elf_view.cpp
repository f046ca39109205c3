// SPDX-License-Identifier: Apache-2.0
#include "elf_view.h"

#include "pass.h"

#include <algorithm>

namespace krv_elf_loader
{

namespace
{

// In the order in which they run. A new correction is a function in a file of its own and a row here.
constexpr pass passes[] = {
    {"unit-versions", correct_unit_versions},
};

} // namespace

view::view(elf_file &elf, bool raw_only) : source(elf)
{
    take_sections(elf);
    if (!raw_only)
        for (const pass &p : passes)
            p.run(*this, p.name);
    std::stable_sort(note_list.begin(), note_list.end(),
                     [](const note &a, const note &b) { return a.section < b.section; });
}

void view::take_sections(elf_file &elf)
{
    for (const raw_section &raw : elf.sections()) {
        krv_secidx_t index;
        boolean_t compressed;
        if (korva_lookup_section_index(raw.name.c_str(), &index, &compressed) != 0 || raw.file_size == 0)
            continue;
        if (find(index) != nullptr) {
            add_note("attach", raw.name, 0, true, "a second section " + raw.name + " is not read");
            continue;
        }
        try {
            const byte_span bytes = elf.contents(raw);
            if (!bytes.empty())
                section_list.push_back({index, raw.name, &raw, bytes, nullptr});
        } catch (const failure &f) { // this section is lost, the others are not
            add_note("attach", raw.name, 0, true, f.what());
        }
    }
    if (elf.type() != ET_REL)
        return;
    for (const raw_section &raw : elf.sections())
        if (raw.name.starts_with(".rela.debug_") || raw.name.starts_with(".rel.debug_"))
            add_note("attach", raw.name, 0, true, "relocations of " + raw.name + " are not applied");
}

view_section *view::find(krv_secidx_t index)
{
    for (view_section &section : section_list)
        if (section.index == index)
            return &section;
    return nullptr;
}

view_section *view::make(krv_secidx_t index, const char *name)
{
    section_list.push_back({index, name, nullptr, {}, std::make_unique<std::vector<uint8_t>>()});
    return &section_list.back();
}

std::vector<uint8_t> &view::writable(view_section *section)
{
    if (section->copy == nullptr) {
        section->copy = std::make_unique<std::vector<uint8_t>>(section->bytes.begin(), section->bytes.end());
        section->bytes = *section->copy;
    }
    return *section->copy;
}

void view::written(view_section *section)
{
    section->bytes = *section->copy;
}

void view::add_note(const char *pass_name, const std::string &section, uint64_t offset, bool refused,
                    const std::string &text)
{
    note_list.push_back({pass_name, section, offset, refused, text});
}

} // namespace krv_elf_loader
