// SPDX-License-Identifier: Apache-2.0
#include "elf/view.h"

#include "elf/relocations.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace krv_elf_loader
{

namespace
{

// So many notes are kept.
constexpr size_t MOST_NOTES = 4096;

// What few questions read: compressed, it may never have to be inflated.
bool is_seldom_read(krv_secidx_t index)
{
    return index == KRV_SEC_FRAME || index == KRV_SEC_LOC || index == KRV_SEC_PUBNAMES || index == KRV_SEC_PUBTYPES ||
           index == KRV_SEC_TYPES || index == KRV_SEC_EXT_LOCLISTS || index == KRV_SEC_EXT_NAMES ||
           index == KRV_SEC_EXT_GNU_PUBNAMES;
}

// ".zdebug_x" is ".debug_x", compressed.
std::string plain_name(std::string_view name)
{
    return name.starts_with(".zdebug_") ? "." + std::string(name.substr(2)) : std::string(name);
}

constexpr char ATTACH[] = "attach"; // in notes

} // namespace

std::vector<uint8_t> &view_section::writable()
{
    if (!copy)
        copy.emplace(original.begin(), original.end());
    return *copy;
}

view::view(elf_file &elf, elf_file *alternate, bool raw_only) : source(elf)
{
    take_sections(raw_only);
    if (alternate != nullptr)
        take_alternate(*alternate);
    if (elf.type() != ET_REL)
        return;
    if (raw_only)
        note_relocations();
    else
        apply_relocations(*this);
}

void view::take_sections(bool raw_only)
{
    for (const raw_section &raw : source.sections()) {
        krv_secidx_t index;
        boolean_t compressed;
        if (raw.file_size != 0 &&
            (korva_lookup_section_index(raw.name.c_str(), &index, &compressed) == 0 ||
             (!raw_only && korva_lookup_ext_section_index(raw.name.c_str(), &index, &compressed) == 0)))
            take(source, raw, index);
    }
}

void view::take_alternate(elf_file &alternate)
{
    for (const raw_section &raw : alternate.sections())
        if (raw.file_size != 0 && plain_name(raw.name) == ".debug_info")
            take(alternate, raw, KRV_SEC_EXT_ALT_INFO);
        else if (raw.file_size != 0 && plain_name(raw.name) == ".debug_str")
            take(alternate, raw, KRV_SEC_EXT_ALT_STR);
        else if (raw.file_size != 0 && plain_name(raw.name) == ".debug_abbrev")
            take(alternate, raw, KRV_SEC_EXT_ALT_ABBREV);
}

void view::take(elf_file &home, const raw_section &raw, krv_secidx_t index)
{
    if (find(index) != nullptr) {
        add_note({ATTACH, raw.name, 0, true, "a second section " + raw.name + " is not read"});
        return;
    }
    try {
        // Those of a relocatable file are read when they are relocated.
        const bool deferred = raw.compressed && is_seldom_read(index) && home.type() != ET_REL;
        if (deferred)
            home.check_claim(raw);
        const byte_span bytes = deferred ? byte_span() : home.contents(raw);
        if (deferred ? raw.size != 0 : !bytes.empty())
            section_list.push_back({index, raw.name, &raw, bytes, {}, &home, deferred});
    } catch (const failure &f) { // this section is lost, the others are not
        add_note({ATTACH, raw.name, 0, true, f.what()});
    }
}

void view::note_relocations()
{
    for (const raw_section &raw : source.sections())
        for (const std::string_view prefix : {".rela", ".rel"}) {
            if (!raw.name.starts_with(prefix) || !raw.name.substr(prefix.size()).starts_with(".debug_"))
                continue;
            const std::string target = raw.name.substr(prefix.size());
            add_note({ATTACH, target, 0, true, "the relocations of " + target + " are not applied"});
        }
}

void view::add_note(note n)
{
    if (known_notes.count(&n) != 0)
        return;
    if (note_list.size() == MOST_NOTES) {
        lose_note();
        return;
    }
    note_list.push_back(std::move(n));
    known_notes.insert(&note_list.back());
}

std::vector<const note *> view::notes() const
{
    std::unordered_map<std::string_view, size_t> numbers;
    for (const raw_section &raw : source.sections())
        numbers.emplace(raw.name, raw.number);
    const auto number_of = [&numbers](const note *n) {
        const auto found = numbers.find(n->section);
        return found == numbers.end() ? 0 : found->second; // a section that the file does not have
    };
    std::vector<const note *> sorted;
    for (const note &n : note_list)
        sorted.push_back(&n);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [&number_of](const note *a, const note *b) { return number_of(a) < number_of(b); });
    return sorted;
}

// As the file spells it; empty when the handle has no such section.
std::string view::name_of(krv_secidx_t index) const
{
    for (const view_section &section : section_list)
        if (section.index == index)
            return section.name;
    return {};
}

view_section *view::find(krv_secidx_t index)
{
    for (view_section &section : section_list)
        if (section.index == index)
            return &section;
    return nullptr;
}

view_section *view::find_raw(const raw_section *raw)
{
    for (view_section &section : section_list)
        if (section.raw == raw && raw != nullptr)
            return &section;
    return nullptr;
}

} // namespace krv_elf_loader
