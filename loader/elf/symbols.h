// SPDX-License-Identifier: Apache-2.0
//
// The function symbols of a file, sorted for lookup by address.
#ifndef KRV_ELF_SYMBOLS_H
#define KRV_ELF_SYMBOLS_H

#include "elf/file.h"

namespace krv_elf_loader
{

class symbol_table
{
public:
    explicit symbol_table(const elf_file &file);

    bool from_symtab() const { return symtab; }
    const std::vector<krv_elf_symbol_t> &all() const { return symbols; }
    const krv_elf_symbol_t *find(uint64_t address) const;
    // The first of that name, else the first of that name with a version. Not by several threads at a time.
    const krv_elf_symbol_t *find(const char *name) const;

private:
    struct entry {
        krv_elf_symbol_t symbol;
        int rank;             // global before weak before local
        uint64_t section_end; // where a symbol without a size ends at the latest
        bool label;           // of no type and no size: it names what no function covers
    };
    struct hashed_name {
        uint64_t hash;
        size_t symbol;
    };
    struct name_index { // both ascending by hash, then by symbol
        std::vector<hashed_name> names;
        std::vector<hashed_name> bases; // of names with a version: what stands before it
    };
    // A stretch of addresses, up to the start of the next one, and who covers it innermost.
    struct stretch {
        uint64_t start;
        size_t symbol; // NONE when nobody does
    };
    std::vector<entry> read(const elf_file &file, const raw_section &section) const;
    static void sort(std::vector<entry> *entries);
    void find_stretches(const std::vector<entry> &entries);
    const krv_elf_symbol_t *scan(const char *name) const;
    name_index index_names() const;

    std::vector<krv_elf_symbol_t> symbols; // ascending by address
    std::vector<stretch> stretches;        // likewise: at most two for each symbol
    bool symtab = false;

    mutable name_index index; // made when many names are asked for
    mutable size_t scans = 0; // lookups without it
};

} // namespace krv_elf_loader

#endif
