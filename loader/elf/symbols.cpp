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

// The symbols of a section that name code, as they stand there.
class symbol_table::reader
{
public:
    reader(const elf_file &elf, const raw_section &section) : file(elf)
    {
        Elf_Scn *scn = elf_getscn(elf.elf(), section.number);
        Elf_Data *data = elf_getdata(scn, nullptr);
        if (data == nullptr || data->d_buf == nullptr || data->d_type != ELF_T_SYM)
            return;
        is_64 = elf.target() == KRV_ACTIVATION_AMD64;
        symbols = static_cast<const uint8_t *>(data->d_buf);
        count = data->d_size / (is_64 ? sizeof(Elf64_Sym) : sizeof(Elf32_Sym));
        // Section numbers too large for a symbol stand in a table of their own.
        const int wide = elf_scnshndx(scn);
        if (wide > 0)
            wide_numbers = elf_getdata(elf_getscn(elf.elf(), static_cast<size_t>(wide)), nullptr);
        const raw_section *strings = file.section(section.link);
        names = string_table(strings != nullptr && strings->type == SHT_STRTAB ? strings->bytes : byte_span());
    }

    size_t size() const { return count; }

    // Everything of a symbol but its name; false when it cannot name code.
    bool read(size_t i, entry *e) const
    {
        const GElf_Sym sym = is_64 ? get<Elf64_Sym>(i) : widened(get<Elf32_Sym>(i));
        const int type = GELF_ST_TYPE(sym.st_info);
        if (type != STT_FUNC && type != STT_GNU_IFUNC && type != STT_NOTYPE)
            return false;
        const raw_section *home = file.section(section_of(sym, i));
        // Functions, and labels of hand-written assembly.
        if (home == nullptr || (type == STT_NOTYPE && !home->executable()))
            return false;
        // Symbols of a relocatable file count from the start of their section.
        const uint64_t address = sym.st_value + (file.type() == ET_REL ? home->address : 0);
        *e = {.symbol = {address, sym.st_size, nullptr},
              .rank = binding_rank(sym.st_info),
              .section_end = end_of(home->address, home->size),
              .label = sym.st_size == 0 && type == STT_NOTYPE,
              .name_at = sym.st_name};
        return true;
    }

    // Adds the name; false when it is none.
    bool name(entry *e) const
    {
        e->symbol.name = names.at(e->name_at);
        return is_name(e->symbol.name);
    }

private:
    template <typename T>
    T get(size_t i) const // the table may lie at any address
    {
        T value;
        std::memcpy(&value, symbols + i * sizeof(T), sizeof(T));
        return value;
    }

    static GElf_Sym widened(const Elf32_Sym &narrow)
    {
        return {.st_name = narrow.st_name,
                .st_info = narrow.st_info,
                .st_other = narrow.st_other,
                .st_shndx = narrow.st_shndx,
                .st_value = narrow.st_value,
                .st_size = narrow.st_size};
    }

    size_t section_of(const GElf_Sym &sym, size_t i) const
    {
        if (sym.st_shndx < SHN_LORESERVE)
            return sym.st_shndx;
        Elf32_Word number = SHN_UNDEF;
        if (sym.st_shndx == SHN_XINDEX && wide_numbers != nullptr && i < wide_numbers->d_size / sizeof(number))
            std::memcpy(&number, static_cast<const uint8_t *>(wide_numbers->d_buf) + i * sizeof(number),
                        sizeof(number));
        return number;
    }

    const elf_file &file;
    bool is_64 = false;
    const uint8_t *symbols = nullptr;
    size_t count = 0;
    const Elf_Data *wide_numbers = nullptr;
    string_table names;
};

// The section whose symbols are those of the file: the first that names code, of .symtab before .dynsym.
const raw_section *symbol_table::section() const
{
    if (chosen)
        return *chosen;
    for (const uint32_t type : {uint32_t{SHT_SYMTAB}, uint32_t{SHT_DYNSYM}})
        for (const raw_section &s : file.sections()) {
            if (s.type != type || !s.in_file)
                continue;
            const reader all(file, s);
            entry e;
            for (size_t i = 0; i < all.size(); ++i)
                if (all.read(i, &e) && all.name(&e))
                    return *(chosen = &s);
        }
    return *(chosen = nullptr);
}

bool symbol_table::from_symtab() const
{
    return section() != nullptr && section()->type == SHT_SYMTAB;
}

void symbol_table::sort_all() const
{
    std::vector<entry> entries;
    if (section() != nullptr) {
        const reader from(file, *section());
        entry e;
        for (size_t i = 0; i < from.size(); ++i)
            if (from.read(i, &e) && from.name(&e))
                entries.push_back(e);
    }
    sort(&entries);
    symbols.clear();
    symbols.reserve(entries.size());
    for (const entry &e : entries)
        symbols.push_back(e.symbol);
    stretches.clear();
    find_stretches(entries);
    sorted = true;
}

const std::vector<krv_elf_symbol_t> &symbol_table::all() const
{
    if (!sorted)
        sort_all();
    return symbols;
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
    // What stands at the end of its section, as etext does, or of the address space, covers nothing.
    std::erase_if(*entries, [](const entry &e) { return end_of(e.symbol) <= e.symbol.address; });
}

// Symbols may nest and overlap. Laid flat once, they are searched like any sorted table.
void symbol_table::find_stretches(const std::vector<entry> &entries) const
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

// What find() finds in the sorted table, by two looks at each symbol.
const krv_elf_symbol_t *symbol_table::scan(uint64_t address) const
{
    const reader from(file, *section());
    entry e;
    uint64_t below = 0, above = UINT64_MAX; // where symbols begin next to the address: at it or before, and behind
    for (size_t i = 0; i < from.size(); ++i) {
        if (!from.read(i, &e))
            continue;
        const uint64_t start = e.symbol.address;
        uint64_t *nearest = start > address ? &above : &below;
        if ((start > address ? start < above : start > below) && from.name(&e))
            *nearest = start;
    }
    std::optional<entry> function, label; // the innermost
    for (size_t i = 0; i < from.size(); ++i) {
        if (!from.read(i, &e) || e.symbol.address > address)
            continue;
        // A symbol without a size reaches to the next one.
        if (e.symbol.size == 0 && e.symbol.address == below)
            e.symbol.size = std::max(std::min(above, e.section_end), below) - below;
        std::optional<entry> *kind = e.label ? &label : &function;
        const bool leads =
            !*kind || std::pair((*kind)->symbol.address, -(*kind)->rank) < std::pair(e.symbol.address, -e.rank);
        if (address < end_of(e.symbol) && leads && from.name(&e))
            *kind = e;
    }
    const std::optional<entry> &found = function ? function : label;
    return found ? &scanned.emplace_back(found->symbol) : nullptr;
}

const krv_elf_symbol_t *symbol_table::find(uint64_t address) const
{
    constexpr size_t MOST_SCANS = 16; // who asks for a few addresses does not wait for all to be sorted
    if (section() == nullptr)
        return nullptr;
    if (!sorted && scanned_addresses++ < MOST_SCANS)
        return scan(address);
    all();
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
    if (all().empty() || *name == '\0')
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
