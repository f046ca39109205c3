// SPDX-License-Identifier: Apache-2.0
//
// A small core file, whole or with any part made wrong.
#ifndef KRV_TEST_CORE32_H
#define KRV_TEST_CORE32_H

#include "libkorva-elf.h"

#include "builders/bytes.h"
#include "process.h"

#include <csignal>
#include <elf.h>

namespace krv_test
{

// A core file of targets/frames32.S, stopped in `deepest`. Any part can be made wrong.
struct core32 {
    static constexpr uint32_t bias = 0x56555000, stack = 0xffffd000, sp = stack + 0x100;

    std::string program = target_path("frames32");
    uint32_t pc = 0, ebp = sp + 44;
    bytes stack_bytes = {};
    bool files_of_pages = false; // by a name of its own for each page of the program
    uint32_t note_size = 0;      // of NT_FILE as it claims; 0: as it has

    core32() { EXPECT_TRUE(load()); }

    uint32_t symbol(const char *name) const
    {
        const krv_elf_symbol_t *found = korva_elf_lookup_symbol_by_name(elf.get(), name);
        return found == nullptr ? 0 : static_cast<uint32_t>(found->address) + bias;
    }

    static bytes note(uint32_t type, const bytes &contents, uint32_t claimed = 0)
    {
        bytes b;
        b.u32(5).u32(claimed != 0 ? claimed : contents.size()).u32(type).cstr("CORE").align(4);
        return b.add(contents).align(4);
    }

    bytes build() const
    {
        bytes status, auxv, files;
        status.fill(12).u16(SIGSEGV).fill(10).u32(4711).fill(44); // pr_cursig, pr_pid, then pr_reg
        status.fill(5 * 4).u32(ebp).fill(6 * 4).u32(pc).fill(8).u32(sp).u32(0).u32(0);
        auxv.u32(AT_ENTRY).u32(symbol("_start")).u32(AT_NULL).u32(0);
        files.u32(3).u32(4096); // the first three pages of the file
        for (uint32_t page = 0; page < 3; ++page)
            files.u32(bias + page * 4096).u32(bias + (page + 1) * 4096).u32(page);
        for (size_t page = 0; page < 3; ++page)
            files.cstr(std::string(files_of_pages ? page : 0, '/') + program);
        const bytes notes = note(NT_PRSTATUS, status) + note(NT_AUXV, auxv) + note(NT_FILE, files, note_size);

        const auto notes_at = static_cast<uint32_t>(sizeof(Elf32_Ehdr) + 2 * sizeof(Elf32_Phdr));
        const auto stack_at = static_cast<uint32_t>(notes_at + notes.size());
        bytes b = bytes::hex("7f 45 4c 46 01 01 01").fill(9);
        b.u16(ET_CORE).u16(EM_386).u32(1).u32(0).u32(sizeof(Elf32_Ehdr)).u32(0).u32(0);
        b.u16(sizeof(Elf32_Ehdr)).u16(sizeof(Elf32_Phdr)).u16(2).fill(6);
        b.u32(PT_NOTE).u32(notes_at).u32(0).u32(0).u32(notes.size()).u32(0).u32(0).u32(4);
        b.u32(PT_LOAD).u32(stack_at).u32(stack).u32(0).u32(stack_bytes.size()).u32(4096).u32(PF_R | PF_W).u32(4096);
        return b.add(notes).add(stack_bytes);
    }

private:
    struct elf_closer {
        void operator()(krv_elf_t *e) const { korva_elf_close(e); }
    };
    std::shared_ptr<krv_elf_t> elf{korva_elf_open(target_path("frames32").c_str(), 0, nullptr), elf_closer()};

    // The stack: return address of deepest; leaf's 12 bytes and return address; middle's 24 bytes, %ebp, return address.
    bool load()
    {
        if (elf == nullptr)
            return false;
        pc = symbol("in_deepest");
        stack_bytes.fill(sp - stack).u32(symbol("in_leaf")).fill(12).u32(symbol("in_middle")).fill(24);
        stack_bytes.u32(0).u32(symbol("in_start")).fill(64);
        return true;
    }
};

} // namespace krv_test

#endif
