// SPDX-License-Identifier: Apache-2.0
//
// ELF headers of 32-bit x86 and AMD64, over any bytes at all: what they say need not be there.
#ifndef KRV_BUILDERS_ELF_H
#define KRV_BUILDERS_ELF_H

#include "builders/bytes.h"

#include <elf.h>
#include <optional>

namespace krv_test
{

// The headers of segments follow the file's; those of sections stand anywhere, and section 1 holds their names.
struct elf_image {
    bool wide = true; // ELFCLASS64
    uint16_t type = ET_EXEC;
    size_t segments = 0, sections = 0;
    uint64_t sections_at = 0;

    bytes header() const
    {
        bytes b = bytes::hex(wide ? "7f 45 4c 46 02 01 01" : "7f 45 4c 46 01 01 01").fill(9);
        b.u16(type).u16(wide ? EM_X86_64 : EM_386).u32(1).uint(0, word()).uint(segments != 0 ? size() : 0, word());
        b.uint(sections_at, word()).u32(0).u16(size()).u16(segment_size()).u16(segments);
        return b.u16(wide ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr)).u16(sections).u16(sections != 0 ? 1 : 0);
    }
    bytes segment(uint32_t kind, uint32_t flags, uint64_t offset, uint64_t address, uint64_t extent,
                  std::optional<uint64_t> in_memory = {}) const
    {
        bytes b;
        b.u32(kind).add(wide ? bytes().u32(flags) : bytes()).uint(offset, word()).uint(address, word());
        b.uint(0, word()).uint(extent, word()).uint(in_memory.value_or(extent), word());
        return b.add(wide ? bytes() : bytes().u32(flags)).uint(1, word());
    }
    size_t first() const { return size() + segments * segment_size(); } // byte behind the headers

private:
    size_t word() const { return wide ? 8 : 4; }
    size_t size() const { return wide ? sizeof(Elf64_Ehdr) : sizeof(Elf32_Ehdr); }
    size_t segment_size() const { return wide ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr); }
};

} // namespace krv_test

#endif
