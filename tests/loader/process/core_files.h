// SPDX-License-Identifier: Apache-2.0
//
// Core files, whole or with any part made wrong.
#ifndef KRV_TEST_CORE_FILES_H
#define KRV_TEST_CORE_FILES_H

#include "builders/elf.h"
#include "libkorva-elf.h"

#include "process.h"

#include <csignal>

namespace krv_test
{

inline bytes core_note(uint32_t type, const bytes &contents, uint32_t claimed = 0)
{
    bytes b;
    b.u32(5).u32(claimed != 0 ? claimed : contents.size()).u32(type).cstr("CORE").align(4);
    return b.add(contents).align(4);
}

// A small core file of targets/frames32.S, stopped in `deepest`.
struct core32 {
    static constexpr uint32_t bias = 0x56555000, stack = 0xffffd000, sp = stack + 0x100;

    std::string program = target_path("frames32");
    uint32_t pc = 0, ebp = sp + 44;
    bytes stack_bytes = {};
    uint32_t names = 1;     // of the program; when there are more, each for one page
    uint32_t note_size = 0; // of NT_FILE as it claims; 0: as it has

    // The stack: return address of deepest; leaf's 12 bytes and return address; middle's 24 bytes, %ebp, return address.
    core32() : pc(symbol("in_deepest"))
    {
        stack_bytes.fill(sp - stack).u32(symbol("in_leaf")).fill(12).u32(symbol("in_middle")).fill(24);
        stack_bytes.u32(0).u32(symbol("in_start")).fill(64);
    }

    static uint32_t symbol(const char *name)
    {
        krv_elf_t *elf = korva_elf_open(target_path("frames32").c_str(), 0, nullptr);
        EXPECT_NE(elf, nullptr);
        const krv_elf_symbol_t *found = elf == nullptr ? nullptr : korva_elf_lookup_symbol_by_name(elf, name);
        const uint32_t address = found == nullptr ? 0 : static_cast<uint32_t>(found->address) + bias;
        korva_elf_close(elf);
        return address;
    }

    // A name of the program.
    std::string name(uint32_t file) const
    {
        std::string way;
        for (uint32_t left = file % names; left != 0; left /= 2)
            way += left % 2 == 0 ? "/" : "/.";
        return way + program;
    }

    bytes build() const
    {
        bytes status, auxv, files;
        status.fill(12).u16(SIGSEGV).fill(10).u32(4711).fill(44); // pr_cursig, pr_pid, then pr_reg
        status.fill(5 * 4).u32(ebp).fill(6 * 4).u32(pc).fill(8).u32(sp).u32(0).u32(0);
        auxv.u32(AT_ENTRY).u32(symbol("_start")).u32(AT_NULL).u32(0);
        const uint32_t pages = std::max(names, 3U); // of the file the first three, again and again
        files.u32(pages).u32(4096);
        for (uint32_t page = 0; page < pages; ++page)
            files.u32(bias + page * 4096).u32(bias + (page + 1) * 4096).u32(page % 3);
        for (uint32_t page = 0; page < pages; ++page)
            files.cstr(name(page));
        const bytes notes =
            core_note(NT_PRSTATUS, status) + core_note(NT_AUXV, auxv) + core_note(NT_FILE, files, note_size);
        const elf_image core{.wide = false, .type = ET_CORE, .segments = 2};
        bytes b = core.header();
        b.add(core.segment(PT_NOTE, 0, core.first(), 0, notes.size(), 0));
        b.add(core.segment(PT_LOAD, PF_R | PF_W, core.first() + notes.size(), stack, stack_bytes.size(), 4096));
        return b.add(notes).add(stack_bytes);
    }
};

// A core file that claims more than it holds: any number of modules over one block of the file, each with a thread in
// it, and whatever of the block is to be read for each.
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
            bytes contents;
            contents.fill(32).u32(1 + i).fill(76); // pr_pid, then pr_reg
            contents.fill(16 * 8).u64(first + i % modules * stride + 0x100).fill(2 * 8).u64(1).fill(8 * 8);
            status += core_note(NT_PRSTATUS, contents);
        }
        const elf_image core{.type = ET_CORE, .segments = 1U + modules};
        bytes b = core.header().add(core.segment(PT_NOTE, PF_R, core.first(), 0, status.size()));
        for (uint16_t i = 0; i < modules; ++i)
            b.add(core.segment(PT_LOAD, PF_R | PF_X, core.first() + status.size(), first + i * stride, block.size()));
        return b.add(status).add(block);
    }

private:
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
        const elf_image module{.type = ET_DYN, .segments = 2U + notes};
        const size_t note_at = module.first(), hdr_at = note_at + note.size();
        const size_t size = hdr_at + 8 + 4 + cie.size() + fde.size() + 4;
        bytes b = module.header().add(module.segment(PT_LOAD, PF_R | PF_X, 0, 0, size));
        b.add(module.segment(PT_GNU_EH_FRAME, PF_R, hdr_at, hdr_at, 8));
        for (uint16_t i = 0; i < notes; ++i)
            b.add(module.segment(PT_NOTE, PF_R, note_at, note_at, note.size()));
        return b.add(note).u8(1).u8(0x1b).u8(0xff).u8(0xff).u32(4).block(4, cie).add(fde).u32(0);
    }
};

} // namespace krv_test

#endif
