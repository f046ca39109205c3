// SPDX-License-Identifier: Apache-2.0
#include "elf_symbols.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace krv_elf_loader
{

namespace
{

constexpr size_t NONE = SIZE_MAX;

int binding_rank(unsigned char info)
{
    switch (GELF_ST_BIND(info)) {
    case STB_GLOBAL:
        return 0;
    case STB_WEAK:
        return 1;
    default:
        return 2;
    }
}

// Functions, and labels of hand-written assembly.
bool is_code(unsigned char info, bool executable)
{
    const int type = GELF_ST_TYPE(info);
    return type == STT_FUNC || type == STT_GNU_IFUNC || (type == STT_NOTYPE && executable);
}

const raw_section *find_section(const elf_file &file, size_t number)
{
    for (const raw_section &section : file.sections())
        if (section.number == number)
            return &section;
    return nullptr;
}

} // namespace

symbol_table::symbol_table(const elf_file &file)
{
    for (const uint32_t type : {uint32_t{SHT_SYMTAB}, uint32_t{SHT_DYNSYM}})
        for (const raw_section &section : file.sections()) {
            if (section.type != type || !section.in_file)
                continue;
            std::vector<entry> entries = read(file, section);
            if (entries.empty())
                continue;
            symtab = type == SHT_SYMTAB;
            sort(std::move(entries));
            link_enclosing();
            return;
        }
}

std::vector<symbol_table::entry> symbol_table::read(const elf_file &file, const raw_section &section) const
{
    std::vector<entry> entries;
    Elf_Scn *scn = elf_getscn(file.elf(), section.number);
    GElf_Shdr shdr;
    Elf_Data *data = elf_getdata(scn, nullptr);
    if (data == nullptr || gelf_getshdr(scn, &shdr) == nullptr)
        return entries;
    const size_t count = data->d_size / gelf_fsize(file.elf(), ELF_T_SYM, 1, EV_CURRENT);
    const raw_section *home = nullptr; // of the symbol before: they come in runs
    for (size_t i = 0; i < count; ++i) {
        GElf_Sym sym;
        if (gelf_getsym(data, static_cast<int>(i), &sym) == nullptr)
            break;
        if (sym.st_shndx == SHN_UNDEF || sym.st_shndx >= SHN_LORESERVE)
            continue;
        if (home == nullptr || home->number != sym.st_shndx)
            home = find_section(file, sym.st_shndx);
        if (home == nullptr || !is_code(sym.st_info, home->executable()))
            continue;
        const char *name = elf_strptr(file.elf(), shdr.sh_link, sym.st_name);
        if (name == nullptr || *name == '\0')
            continue;
        const uint64_t start = file.type() == ET_REL ? 0 : home->address;
        const uint64_t end = home->file_size > UINT64_MAX - start ? UINT64_MAX : start + home->file_size;
        const uint64_t most = UINT64_MAX - sym.st_value;
        entries.push_back(
            {{sym.st_value, std::min<uint64_t>(sym.st_size, most), name}, binding_rank(sym.st_info), end});
    }
    return entries;
}

void symbol_table::sort(std::vector<entry> entries)
{
    std::stable_sort(entries.begin(), entries.end(), [](const entry &a, const entry &b) {
        return std::tie(a.symbol.address, a.rank) < std::tie(b.symbol.address, b.rank);
    });
    uint64_t next = UINT64_MAX; // address of the symbol behind that lies higher
    for (size_t i = entries.size(); i-- > 0;) {
        entry &e = entries[i];
        if (i + 1 < entries.size() && entries[i + 1].symbol.address > e.symbol.address)
            next = entries[i + 1].symbol.address;
        if (e.symbol.size != 0)
            continue;
        const uint64_t end = std::min(next, e.section_end);
        e.symbol.size = end > e.symbol.address ? end - e.symbol.address : 1;
    }
    symbols.reserve(entries.size());
    for (const entry &e : entries)
        symbols.push_back(e.symbol);
}

void symbol_table::link_enclosing()
{
    enclosing.resize(symbols.size());
    for (size_t i = 0; i < symbols.size(); ++i) {
        size_t j = i == 0 ? NONE : i - 1;
        while (j != NONE && end_of(j) <= end_of(i))
            j = enclosing[j];
        enclosing[i] = j;
    }
}

const krv_elf_symbol_t *symbol_table::find(uint64_t address) const
{
    const auto above =
        std::upper_bound(symbols.begin(), symbols.end(), address,
                         [](uint64_t wanted, const krv_elf_symbol_t &symbol) { return wanted < symbol.address; });
    if (above == symbols.begin())
        return nullptr;
    // What lies between a symbol and the one that encloses it ends no later than it does.
    size_t i = static_cast<size_t>(above - symbols.begin()) - 1;
    while (i != NONE && end_of(i) <= address)
        i = enclosing[i];
    if (i == NONE)
        return nullptr;
    for (size_t j = i; j > 0 && symbols[j - 1].address == symbols[i].address; --j)
        if (end_of(j - 1) > address)
            i = j - 1;
    return &symbols[i];
}

const krv_elf_symbol_t *symbol_table::find(const char *name) const
{
    for (const krv_elf_symbol_t &symbol : symbols)
        if (std::strcmp(symbol.name, name) == 0)
            return &symbol;
    return nullptr;
}

} // namespace krv_elf_loader
