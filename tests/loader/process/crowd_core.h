// SPDX-License-Identifier: Apache-2.0
//
// A core file that claims more than it holds: any number of modules over one block of the file, each with a thread in
// it, and whatever of the block is to be read for each.
#ifndef KRV_TEST_CROWD_CORE_H
#define KRV_TEST_CROWD_CORE_H

#include "builders/bytes.h"

#include <elf.h>

namespace krv_test
{

struct crowd_core {
    static constexpr uint64_t first = 0x10000000;

    uint16_t modules = 1;
    uint16_t threads = 1;
    uint16_t notes = 0;   // PT_NOTE headers of a module, each of them all notes of the block
    size_t cfi_bytes = 0; // of call-frame instructions that have to be corrected

    bytes build() const
    {
        const bytes block = module();
        const uint64_t stride = (block.size() + 0xffff) & ~uint64_t{0xffff};
        bytes status;
        for (uint16_t i = 0; i < threads; ++i) {
            bytes registers;
            registers.fill(16 * 8).u64(first + i % modules * stride + 0x100).fill(2 * 8).u64(1).fill(7 * 8);
            bytes contents;
            contents.fill(32).u32(1 + i).fill(76).add(registers).fill(8);
            status.u32(5).u32(contents.size()).u32(NT_PRSTATUS).cstr("CORE").align(4).add(contents).align(4);
        }
        const size_t status_at = sizeof(Elf64_Ehdr) + (1 + size_t{modules}) * sizeof(Elf64_Phdr);
        bytes b = header(ET_CORE, 1 + modules);
        b.add(segment(PT_NOTE, PF_R, status_at, 0, status.size()));
        for (uint16_t i = 0; i < modules; ++i)
            b.add(segment(PT_LOAD, PF_R | PF_X, status_at + status.size(), first + i * stride, block.size()));
        return b.add(status).add(block);
    }

private:
    static bytes header(uint16_t type, unsigned segments)
    {
        bytes b = bytes::hex("7f 45 4c 46 02 01 01").fill(9);
        b.u16(type).u16(EM_X86_64).u32(1).u64(0).u64(sizeof(Elf64_Ehdr)).u64(0).u32(0);
        return b.u16(sizeof(Elf64_Ehdr)).u16(sizeof(Elf64_Phdr)).u16(segments).fill(6);
    }

    static bytes segment(uint32_t type, uint32_t flags, uint64_t offset, uint64_t address, uint64_t size)
    {
        bytes b;
        return b.u32(type).u32(flags).u64(offset).u64(address).u64(0).u64(size).u64(size).u64(1);
    }

    // Headers, a thousand notes that are no build-id, .eh_frame_hdr, and .eh_frame of one long FDE.
    bytes module() const
    {
        bytes note, cie, fde;
        for (unsigned i = 0; notes != 0 && i < 1000; ++i)
            note.u32(0).u32(0).u32(0);
        cie.u32(0).u8(1).cstr("zLR").uleb(1).sleb(-8).uleb(16).uleb(2).u8(0).u8(0).uleb(0x0c).uleb(7).uleb(8).align(4);
        while (fde.size() < cfi_bytes) {
            bytes sizes;
            while (sizes.size() < 60000)
                sizes.u8(0x2e).u8(1);
            const size_t to_cie = cie.size() + 8 + fde.size();
            fde.u32(24 + sizes.size()).u32(to_cie).u64(0x100).u64(0x100).uleb(0).fill(3).add(sizes);
        }
        const size_t note_at = sizeof(Elf64_Ehdr) + (2 + size_t{notes}) * sizeof(Elf64_Phdr);
        const size_t hdr_at = note_at + note.size(), size = hdr_at + 8 + 4 + cie.size() + fde.size() + 4;
        bytes b = header(ET_DYN, 2U + notes);
        b.add(segment(PT_LOAD, PF_R | PF_X, 0, 0, size)).add(segment(PT_GNU_EH_FRAME, PF_R, hdr_at, hdr_at, 8));
        for (uint16_t i = 0; i < notes; ++i)
            b.add(segment(PT_NOTE, PF_R, note_at, note_at, note.size()));
        return b.add(note).u8(1).u8(0x1b).u8(0xff).u8(0xff).u32(4).block(4, cie).add(fde).u32(0);
    }
};

} // namespace krv_test

#endif
