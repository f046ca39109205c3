// SPDX-License-Identifier: Apache-2.0
//
// The function symbols of a file. They are read when they are asked for, and sorted when many are.
#ifndef KRV_ELF_SYMBOLS_H
#define KRV_ELF_SYMBOLS_H

#include "elf/file.h"

#include <deque>
#include <optional>

namespace krv_elf_loader
{

// For one thread at a time. What it hands out stays where it is.
class symbol_table
{
public:
    explicit symbol_table(const elf_file &elf) : file(elf) {}

    bool from_symtab() const;
    const std::vector<krv_elf_symbol_t> &all() const;
    const krv_elf_symbol_t *find(uint64_t address) const;
    // The first of that name, else the first of that name with a version.
    const krv_elf_symbol_t *find(const char *name) const;

private:
    struct entry {
        krv_elf_symbol_t symbol;
        int rank;             // global before weak before local
        uint64_t section_end; // where a symbol without a size ends at the latest
        bool label;           // of no type and no size: it names what no function covers
        uint32_t name_at;     // in its string table
    };
    class reader;
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
    const raw_section *section() const;
    void sort_all() const;
    static void sort(std::vector<entry> *entries);
    void find_stretches(const std::vector<entry> &entries) const;
    const krv_elf_symbol_t *scan(uint64_t address) const;
    const krv_elf_symbol_t *scan(const char *name) const;
    name_index index_names() const;

    const elf_file &file;
    mutable std::optional<const raw_section *> chosen; // by section()
    mutable std::deque<krv_elf_symbol_t> scanned;      // found before they were sorted
    mutable size_t scanned_addresses = 0;
    mutable std::vector<krv_elf_symbol_t> symbols; // ascending by address
    mutable std::vector<stretch> stretches;        // likewise: at most two for each symbol
    mutable bool sorted = false;                   // these two

    mutable name_index index; // made when many names are asked for
    mutable size_t scans = 0; // lookups without it
};

} // namespace krv_elf_loader

#endif
