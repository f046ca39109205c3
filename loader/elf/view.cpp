// SPDX-License-Identifier: Apache-2.0
#include "elf/view.h"

#include "elf/pass.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace krv_elf_loader
{

namespace
{

// In the order in which they run. A new correction is a function in a file of its own and a row here.
constexpr pass passes[] = {
    {"relocations", apply_relocations},            // first: what the others read stands in relocated places
    {"unit-versions", correct_unit_versions},      // before every walk over units
    {"alternate-strings", take_alternate_strings}, // before "forms", which makes numbers of what is left
    {"forms", correct_forms},                      // before entries are walked for what they hold
    {"long-numbers", correct_long_numbers},        // it makes abbreviations of its own, of corrected ones
    {"line-sequences", drop_dead_sequences},       // of .debug_line alone
    {"ranges", complete_ranges},                   // last: it reads entries that the others made readable
};

// What the core does not read itself.
constexpr std::string_view EXTRA[] = {".debug_ranges"};

// What few questions read: compressed, it may never have to be inflated.
bool is_seldom_read(krv_secidx_t index)
{
    return index == KRV_SEC_FRAME || index == KRV_SEC_LOC || index == KRV_SEC_PUBNAMES || index == KRV_SEC_PUBTYPES ||
           index == KRV_SEC_TYPES;
}

// ".zdebug_x" is ".debug_x", compressed.
std::string plain_name(std::string_view name)
{
    return name.starts_with(".zdebug_") ? "." + std::string(name.substr(2)) : std::string(name);
}

bool is_extra(std::string_view name)
{
    return std::find(std::begin(EXTRA), std::end(EXTRA), plain_name(name)) != std::end(EXTRA);
}

constexpr char ATTACH[] = "attach"; // in notes: what happens before the passes

} // namespace

std::vector<uint8_t> &view_section::writable()
{
    if (!copy)
        copy.emplace(original.begin(), original.end());
    return *copy;
}

view::view(elf_file &elf, const symbol_table &symbols, elf_file *alternate, bool raw_only)
    : source(elf), function_table(symbols), alternate_file(alternate)
{
    take_sections();
    if (raw_only && elf.type() == ET_REL)
        note_relocations();
    if (!raw_only)
        for (const pass &p : passes)
            p.run(*this, p.name);
    sort_notes();
}

void view::take_sections()
{
    for (const raw_section &raw : source.sections()) {
        krv_secidx_t index;
        boolean_t compressed;
        if (raw.file_size == 0)
            continue;
        if (korva_lookup_section_index(raw.name.c_str(), &index, &compressed) == 0)
            take(raw, index);
        else if (is_extra(raw.name))
            take(raw, KRV_SEC_NONE);
    }
}

void view::take(const raw_section &raw, krv_secidx_t index)
{
    if (index == KRV_SEC_NONE ? find_extra(raw.name) != nullptr : find(index) != nullptr) {
        add_note({ATTACH, raw.name, 0, true, "a second section " + raw.name + " is not read"});
        return;
    }
    try {
        // Those of a relocatable file are read by the pass that relocates them.
        const bool deferred = raw.compressed && is_seldom_read(index) && source.type() != ET_REL;
        if (deferred)
            source.check_claim(raw);
        const byte_span bytes = deferred ? byte_span() : source.contents(raw);
        if (deferred ? raw.size != 0 : !bytes.empty())
            section_list.push_back({index, raw.name, &raw, bytes, {}, deferred ? &source : nullptr});
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

// Into the order of the file's sections; those of one section stay in the order in which they were made.
void view::sort_notes()
{
    std::unordered_map<std::string_view, size_t> numbers;
    for (const raw_section &raw : source.sections())
        numbers.emplace(raw.name, raw.number);
    const auto number_of = [&numbers](const note &n) {
        const auto found = numbers.find(n.section);
        return found == numbers.end() ? 0 : found->second; // a section that the file does not have
    };
    std::stable_sort(note_list.begin(), note_list.end(),
                     [&number_of](const note &a, const note &b) { return number_of(a) < number_of(b); });
}

view_section *view::find(krv_secidx_t index)
{
    for (view_section &section : section_list)
        if (section.index == index && index != KRV_SEC_NONE)
            return &section;
    return nullptr;
}

view_section *view::find_extra(std::string_view name)
{
    for (view_section &section : section_list)
        if (section.index == KRV_SEC_NONE && plain_name(section.name) == name)
            return &section;
    return nullptr;
}

view_section *view::find_raw(size_t number)
{
    for (view_section &section : section_list)
        if (section.raw != nullptr && section.raw->number == number)
            return &section;
    return nullptr;
}

byte_span view::alternate_strings()
{
    if (alternate_file != nullptr)
        for (const raw_section &raw : alternate_file->sections())
            if (plain_name(raw.name) == ".debug_str")
                return alternate_file->contents(raw);
    return {};
}

view_section *view::make(krv_secidx_t index, const char *name)
{
    section_list.push_back({index, name, nullptr, {}, {}, nullptr});
    return &section_list.back();
}

} // namespace krv_elf_loader
