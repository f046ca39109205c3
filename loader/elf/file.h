// SPDX-License-Identifier: Apache-2.0
//
// The raw file: mapped, recognised, its sections and segments as it has them. Compressed sections are inflated on
// demand; everything else is the mapping's own bytes. Nothing here knows DWARF.
#ifndef KRV_ELF_FILE_H
#define KRV_ELF_FILE_H

#include "address_ranges.h"
#include "bytes.h"
#include "failure.h"
#include "file_mapping.h"

#include <cstdint>
#include <gelf.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace krv_elf_loader
{

// Strings by their offset. Whether they end within the table is known once for all of them.
class string_table
{
public:
    string_table() = default;
    explicit string_table(byte_span all);
    const char *at(uint64_t offset) const; // NULL when the table has none there

private:
    byte_span bytes; // the last one is a NUL
};

struct raw_section {
    std::string name; // cut to 255 characters: no section that matters has more
    size_t number;    // in the section header table
    uint32_t type;
    uint64_t flags;
    size_t link;        // number of a section that belongs to it, as of a symbol table its strings
    size_t info;        // of relocations: number of the section that they are for
    uint64_t address;   // of a relocatable file: the one that it got here
    uint64_t alignment; // 0 and 1: any address will do
    uint64_t size;      // bytes in memory, or after inflation as the section claims it
    uint64_t file_size; // bytes in the file: 0 for SHT_NOBITS
    byte_span bytes;    // as they stand in the file; empty for a section without contents, or beyond the file
    bool in_file;       // false when the header claims bytes that the file does not have
    bool compressed;    // SHF_COMPRESSED, or .zdebug_*

    bool executable() const { return (flags & SHF_EXECINSTR) != 0; }
};

class elf_file
{
public:
    // `flags`: KRV_ELF_F_*. Throws failure.
    explicit elf_file(const std::string &path, unsigned int flags = KRV_ELF_F_NONE);
    ~elf_file();
    elf_file(const elf_file &) = delete;
    elf_file &operator=(const elf_file &) = delete;

    const std::string &path() const { return file_path; }
    Elf *elf() const { return handle; }
    uint16_t machine() const { return header.e_machine; }
    uint16_t type() const { return header.e_type; }
    krv_activation_type_t target() const;
    const std::vector<raw_section> &sections() const { return section_list; } // from number 1 on
    const raw_section *section(size_t number) const;                          // NULL when there is none
    const std::vector<GElf_Phdr> &segments() const { return segment_list; }
    const address_ranges &code() const { return code_ranges; } // where executable sections lie; else segments
    byte_span build_id() const { return build_id_bytes; }
    byte_span image() const { return mapping.bytes(); }
    const file_mapping &bytes_of_file() const { return mapping; }
    bool any_inflation() const { return inflates_any; }
    bool was_cut() const { return mapping.was_cut(); } // while it was read

    // The contents of a section: its bytes, or what they inflate to, which is done once and kept. Throws failure; the
    // text names the section only.
    byte_span contents(const raw_section &section);
    // Throws what contents() would throw before it inflated anything.
    void check_claim(const raw_section &section) const;

private:
    static file_mapping map(const std::string &path, unsigned int flags);
    void check_machine();
    void check_section_headers();
    void read_sections();
    string_table section_names() const;
    uint64_t claimed_size(Elf_Scn *scn, const raw_section &section) const;
    byte_span inflate(const raw_section &section);
    byte_span inflate_zstd(const raw_section &section);
    void check_inflation() const;
    void place_sections();
    void read_segments();
    void find_code();
    void find_build_id();
    bool has_far_units() const;
    [[noreturn]] void fail(int code, const std::string &what) const; // names the file
    byte_span extent(uint64_t offset, uint64_t size) const;          // empty when it leaves the file

    std::string file_path;
    file_mapping mapping;
    bool inflates_any;
    Elf *handle = nullptr;
    GElf_Ehdr header = {};
    std::vector<raw_section> section_list;
    std::map<size_t, byte_span> inflated;                   // by section number
    std::vector<std::unique_ptr<uint8_t[]>> inflated_bytes; // those that libelf does not own
    uint64_t inflated_size = 0;                             // of all of them
    std::vector<GElf_Phdr> segment_list;
    address_ranges code_ranges;
    byte_span build_id_bytes;
};

} // namespace krv_elf_loader

#endif
