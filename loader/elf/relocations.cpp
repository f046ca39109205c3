// SPDX-License-Identifier: Apache-2.0
#include "elf/relocations.h"

#include <cstring>
#include <fmt/format.h>

namespace krv_elf_loader
{

namespace
{

enum class formula { none, absolute, relative, unknown };

struct relocation_kind {
    formula how;
    size_t width;
};

relocation_kind kind_of(uint16_t machine, uint64_t type)
{
    if (machine == EM_386)
        switch (type) {
        case R_386_NONE:
            return {formula::none, 0};
        case R_386_32:
        case R_386_TLS_LDO_32:
            return {formula::absolute, 4};
        case R_386_PC32:
            return {formula::relative, 4};
        case R_386_16:
            return {formula::absolute, 2};
        case R_386_8:
            return {formula::absolute, 1};
        default:
            return {formula::unknown, 0};
        }
    switch (type) {
    case R_X86_64_NONE:
        return {formula::none, 0};
    case R_X86_64_64:
    case R_X86_64_DTPOFF64:
        return {formula::absolute, 8};
    case R_X86_64_32:
    case R_X86_64_32S:
    case R_X86_64_DTPOFF32:
        return {formula::absolute, 4};
    case R_X86_64_PC64:
        return {formula::relative, 8};
    case R_X86_64_PC32:
        return {formula::relative, 4};
    case R_X86_64_16:
        return {formula::absolute, 2};
    case R_X86_64_8:
        return {formula::absolute, 1};
    default:
        return {formula::unknown, 0};
    }
}

// What was done to one section.
struct result {
    size_t applied = 0;
    size_t refused = 0;
    uint64_t first_refused = 0; // offset
    std::string reason;

    void refuse(uint64_t offset, const std::string &why)
    {
        if (refused++ == 0) {
            first_refused = offset;
            reason = why;
        }
    }
};

class relocations
{
public:
    relocations(elf_file &elf, const raw_section &table, view_section *section)
        : file(elf), relocs(table), target(section), entries(data_of(table.number)), symbols(data_of(table.link))
    {
    }

    result apply()
    {
        result done;
        if (entries == nullptr)
            return done;
        const bool has_addends = relocs.type == SHT_RELA;
        const size_t count =
            entries->d_size / gelf_fsize(file.elf(), has_addends ? ELF_T_RELA : ELF_T_REL, 1, EV_CURRENT);
        for (size_t i = 0; i < count; ++i) {
            GElf_Rela r = {};
            if (has_addends) {
                if (gelf_getrela(entries, static_cast<int>(i), &r) == nullptr)
                    break;
            } else {
                GElf_Rel plain;
                if (gelf_getrel(entries, static_cast<int>(i), &plain) == nullptr)
                    break;
                r = {plain.r_offset, plain.r_info, 0};
            }
            apply(r, has_addends, &done);
        }
        return done;
    }

private:
    Elf_Data *data_of(size_t number) const
    {
        return file.section(number) == nullptr ? nullptr : elf_getdata(elf_getscn(file.elf(), number), nullptr);
    }

    void apply(const GElf_Rela &r, bool has_addend, result *done)
    {
        const relocation_kind kind = kind_of(file.machine(), GELF_R_TYPE(r.r_info));
        if (kind.how == formula::none)
            return;
        if (kind.how == formula::unknown)
            return done->refuse(r.r_offset, fmt::format("type {} is not known", GELF_R_TYPE(r.r_info)));
        if (kind.width > target->bytes().size() || r.r_offset > target->bytes().size() - kind.width)
            return done->refuse(r.r_offset, "it lies behind the section's end");
        uint64_t value;
        if (!value_of(GELF_R_SYM(r.r_info), &value))
            return done->refuse(r.r_offset, fmt::format("symbol {} is damaged", GELF_R_SYM(r.r_info)));
        std::vector<uint8_t> &bytes = target->writable();
        uint64_t addend = static_cast<uint64_t>(r.r_addend);
        if (!has_addend) // stands in the place itself
            std::memcpy(&addend, bytes.data() + r.r_offset, kind.width);
        value += addend;
        if (kind.how == formula::relative)
            value -= target->raw->address + r.r_offset;
        std::memcpy(bytes.data() + r.r_offset, &value, kind.width);
        ++done->applied;
    }

    // A symbol's address; 0 for one that another file defines. False when there is no such symbol.
    bool value_of(size_t number, uint64_t *value) const
    {
        *value = 0;
        GElf_Sym symbol;
        if (number == 0)
            return true;
        if (symbols == nullptr || number > INT32_MAX ||
            gelf_getsym(symbols, static_cast<int>(number), &symbol) == nullptr)
            return false;
        size_t home = symbol.st_shndx;
        if (home == SHN_XINDEX)
            home = far_home(number);
        else if (home >= SHN_LORESERVE)
            home = SHN_UNDEF; // absolute
        const raw_section *section = file.section(home);
        if (section != nullptr || symbol.st_shndx == SHN_ABS)
            *value = symbol.st_value + (section == nullptr ? 0 : section->address);
        return true;
    }

    // The section of a symbol whose number is too large for the symbol table.
    size_t far_home(size_t number) const
    {
        Elf *elf = file.elf();
        const int table = elf_scnshndx(elf_getscn(elf, relocs.link));
        Elf_Data *numbers = table <= 0 ? nullptr : elf_getdata(elf_getscn(elf, static_cast<size_t>(table)), nullptr);
        GElf_Sym symbol;
        Elf32_Word home = SHN_UNDEF;
        return gelf_getsymshndx(symbols, numbers, static_cast<int>(number), &symbol, &home) == nullptr ? SHN_UNDEF
                                                                                                       : home;
    }

    elf_file &file;
    const raw_section &relocs;
    view_section *target;
    Elf_Data *entries;
    Elf_Data *symbols;
};

} // namespace

void apply_relocations(view &v)
{
    uint64_t left = v.file().image().size(); // tables do not overlap
    for (const raw_section &raw : v.file().sections()) {
        if (raw.type != SHT_RELA && raw.type != SHT_REL)
            continue;
        view_section *target = v.find_raw(v.file().section(raw.info));
        if (target == nullptr || raw.file_size > left)
            continue;
        left -= raw.file_size;
        const result done = relocations(v.file(), raw, target).apply();
        if (done.applied != 0)
            v.add_note(
                {"relocations", target->name, 0, false, fmt::format("{} relocations are applied", done.applied)});
        if (done.refused != 0)
            v.add_note({"relocations", target->name, done.first_refused, true,
                        fmt::format("{} relocations of {} cannot be applied, the first at offset {:#x}: {}",
                                    done.refused, target->name, done.first_refused, done.reason)});
    }
}

} // namespace krv_elf_loader
