// SPDX-License-Identifier: Apache-2.0
#include "elf/symbols.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <numeric>
#include <tuple>
#include <utility>

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

// Compilers' own labels, as those of jump tables, are no names.
bool is_name(const char *name)
{
    return name != nullptr && *name != '\0' && !(name[0] == '.' && name[1] == 'L');
}

// Hash of a name, made from its last character to its first.
struct name_hash {
    uint64_t value = 0;

    name_hash behind(char first) const
    {
        const uint64_t mixed = (value + static_cast<uint8_t>(first) + 1) * 0x9e3779b97f4a7c15;
        return {mixed ^ mixed >> 32};
    }
};

// Where a symbol ends. A sum that leaves the address space ends with it.
uint64_t end_of(uint64_t address, uint64_t size)
{
    return size > UINT64_MAX - address ? UINT64_MAX : address + size;
}

uint64_t end_of(const krv_elf_symbol_t &symbol)
{
    return end_of(symbol.address, symbol.size);
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
            sort(&entries);
            symbols.reserve(entries.size());
            for (const entry &e : entries)
                symbols.push_back(e.symbol);
            find_stretches(entries);
            return;
        }
}

std::vector<symbol_table::entry> symbol_table::read(const elf_file &file, const raw_section &section) const
{
    std::vector<entry> entries;
    Elf *elf = file.elf();
    Elf_Scn *scn = elf_getscn(elf, section.number);
    GElf_Shdr shdr;
    Elf_Data *data = elf_getdata(scn, nullptr);
    if (data == nullptr || gelf_getshdr(scn, &shdr) == nullptr)
        return entries;
    // Section numbers too large for a symbol stand in a table of their own.
    const int wide = elf_scnshndx(scn);
    Elf_Data *wide_numbers = wide <= 0 ? nullptr : elf_getdata(elf_getscn(elf, static_cast<size_t>(wide)), nullptr);
    const raw_section *strings = file.section(shdr.sh_link);
    const string_table names(strings != nullptr && strings->type == SHT_STRTAB ? strings->bytes : byte_span());
    const size_t count = data->d_size / gelf_fsize(elf, ELF_T_SYM, 1, EV_CURRENT);
    for (size_t i = 0; i < count; ++i) {
        GElf_Sym sym;
        Elf32_Word number = 0;
        if (gelf_getsymshndx(data, wide_numbers, static_cast<int>(i), &sym, &number) == nullptr)
            break;
        if (sym.st_shndx != SHN_XINDEX)
            number = sym.st_shndx < SHN_LORESERVE ? sym.st_shndx : SHN_UNDEF;
        const raw_section *home = file.section(number);
        if (home == nullptr || !is_code(sym.st_info, home->executable()))
            continue;
        const char *name = names.at(sym.st_name);
        if (!is_name(name))
            continue;
        // Symbols of a relocatable file count from the start of their section.
        const uint64_t address = sym.st_value + (file.type() == ET_REL ? home->address : 0);
        const bool label = sym.st_size == 0 && GELF_ST_TYPE(sym.st_info) == STT_NOTYPE;
        entries.push_back(
            {{address, sym.st_size, name}, binding_rank(sym.st_info), end_of(home->address, home->size), label});
    }
    return entries;
}

void symbol_table::sort(std::vector<entry> *entries)
{
    std::stable_sort(entries->begin(), entries->end(), [](const entry &a, const entry &b) {
        return std::tie(a.symbol.address, a.rank) < std::tie(b.symbol.address, b.rank);
    });
    uint64_t next = UINT64_MAX; // address of the symbol behind that lies higher
    for (size_t i = entries->size(); i-- > 0;) {
        entry &e = (*entries)[i];
        if (i + 1 < entries->size() && (*entries)[i + 1].symbol.address > e.symbol.address)
            next = (*entries)[i + 1].symbol.address;
        const uint64_t end = std::min(next, e.section_end);
        if (e.symbol.size == 0 && end > e.symbol.address)
            e.symbol.size = end - e.symbol.address;
    }
    // What stands at the end of its section, as etext does, covers nothing.
    std::erase_if(*entries, [](const entry &e) { return e.symbol.size == 0; });
}

// Symbols may nest and overlap. Laid flat once, they are searched like any sorted table.
void symbol_table::find_stretches(const std::vector<entry> &entries)
{
    std::vector<size_t> begun; // symbols, the innermost last
    size_t label = NONE;       // the one that begun last: it reaches to the next symbol at most
    uint64_t at = 0;
    const auto cover_until = [&](uint64_t limit) {
        while (at < limit) {
            while (!begun.empty() && end_of(symbols[begun.back()]) <= at)
                begun.pop_back();
            if (label != NONE && end_of(symbols[label]) <= at)
                label = NONE;
            const size_t symbol = begun.empty() ? label : begun.back();
            stretches.push_back({at, symbol});
            at = symbol == NONE ? limit : std::min(limit, end_of(symbols[symbol]));
        }
    };
    for (size_t i = 0, behind = 0; i < symbols.size(); i = behind) {
        while (behind < symbols.size() && symbols[behind].address == symbols[i].address)
            ++behind;
        cover_until(symbols[i].address);
        for (size_t j = behind; j-- > i;) // the first of those at one address comes last, as the innermost
            if (entries[j].label)
                label = j;
            else
                begun.push_back(j);
    }
    cover_until(UINT64_MAX);
}

const krv_elf_symbol_t *symbol_table::find(uint64_t address) const
{
    const auto above = std::upper_bound(stretches.begin(), stretches.end(), address,
                                        [](uint64_t wanted, const stretch &s) { return wanted < s.start; });
    if (above == stretches.begin())
        return nullptr;
    const size_t symbol = std::prev(above)->symbol;
    return symbol == NONE ? nullptr : &symbols[symbol];
}

const krv_elf_symbol_t *symbol_table::scan(const char *name) const
{
    const size_t length = std::strlen(name);
    const bool has_version = std::strchr(name, '@') != nullptr;
    const krv_elf_symbol_t *versioned = nullptr;
    for (const krv_elf_symbol_t &symbol : symbols) {
        if (std::strncmp(symbol.name, name, length) != 0)
            continue;
        if (symbol.name[length] == '\0')
            return &symbol;
        if (symbol.name[length] == '@' && !has_version && versioned == nullptr)
            versioned = &symbol;
    }
    return versioned;
}

// Names may share their bytes, each being the end of another. From the last byte of the string table to the first, every
// byte is hashed once, for all of them.
symbol_table::name_index symbol_table::index_names() const
{
    std::vector<size_t> by_place(symbols.size());
    std::iota(by_place.begin(), by_place.end(), size_t{0});
    std::sort(by_place.begin(), by_place.end(),
              [this](size_t a, size_t b) { return symbols[a].name > symbols[b].name; });
    name_index fresh;
    name_hash whole, base;
    bool has_version = false;
    const char *at = symbols[by_place.front()].name;
    at += std::strlen(at);
    for (const size_t i : by_place) {
        while (at > symbols[i].name) {
            --at;
            whole = *at == '\0' ? name_hash() : whole.behind(*at);
            base = *at == '\0' || *at == '@' ? name_hash() : base.behind(*at);
            has_version = *at == '@' || (has_version && *at != '\0');
        }
        fresh.names.push_back({whole.value, i});
        if (has_version && *at != '@')
            fresh.bases.push_back({base.value, i});
    }
    for (std::vector<hashed_name> *list : {&fresh.names, &fresh.bases})
        std::sort(list->begin(), list->end(), [](const hashed_name &a, const hashed_name &b) {
            return std::tie(a.hash, a.symbol) < std::tie(b.hash, b.symbol);
        });
    return fresh;
}

const krv_elf_symbol_t *symbol_table::find(const char *name) const
{
    constexpr size_t MOST_SCANS = 8; // who asks for a few names does not wait for an index of all
    if (symbols.empty() || *name == '\0')
        return nullptr;
    if (index.names.empty()) {
        if (scans++ < MOST_SCANS)
            return scan(name);
        try {
            index = index_names();
        } catch (const std::bad_alloc &) {
            return scan(name);
        }
    }
    const size_t length = std::strlen(name);
    name_hash wanted;
    for (size_t i = length; i-- > 0;)
        wanted = wanted.behind(name[i]);
    for (const auto &[list, end] : {std::pair{&index.names, '\0'}, {&index.bases, '@'}}) {
        auto found = std::lower_bound(list->begin(), list->end(), wanted.value,
                                      [](const hashed_name &n, uint64_t hash) { return n.hash < hash; });
        for (; found != list->end() && found->hash == wanted.value; ++found) {
            const krv_elf_symbol_t &symbol = symbols[found->symbol];
            if (std::strncmp(symbol.name, name, length) == 0 && symbol.name[length] == end)
                return &symbol;
        }
    }
    return nullptr;
}

} // namespace krv_elf_loader
