// SPDX-License-Identifier: Apache-2.0
//
// A thread that is stopped in a function which .debug_frame or .eh_frame describes, with a stack of sixteen words:
//
//     stopped s({.initial = op(DW_CFA_def_cfa).uleb(7).uleb(8)});
//     EXPECT_EQ(s.caller(7), "7008");
#ifndef KRV_TEST_ACTIVATION_H
#define KRV_TEST_ACTIVATION_H

#include "builders/frames.h"
#include "krv_activation.h"
#include "support/handle.h"

namespace krv_test
{

inline bytes op(uint64_t opcode, uint64_t packed = 0) // a call-frame instruction or an expression's operation
{
    return bytes().u8(opcode | packed);
}

constexpr uint64_t stack_address = 0x7000, eh_frame_address = 0x9000;

// A function, and what the call-frame information says of it.
struct function {
    krv_activation_type_t target = KRV_ACTIVATION_AMD64;
    bytes initial = {}, rows = {}; // instructions of the CIE and of the FDE
    uint64_t start = 0x1000, size = 0x100;
    uint64_t column = 16;
    bool eh = false; // .eh_frame, else .debug_frame

    size_t word() const { return target == KRV_ACTIVATION_AMD64 ? 8 : 4; }

    // The section. The data alignment factor is minus one word.
    bytes build() const
    {
        const size_t w = word();
        const auto align = -static_cast<int64_t>(w);
        if (eh) {
            bytes b = eh_cie{.data_align = align, .column = column, .instructions = initial}.build();
            const eh_fde f{.cie = eh_frame_address, .address = start, .range = size, .instructions = rows};
            return b.add(f.build(eh_frame_address + b.size())).u32(0);
        }
        const bytes ra = bytes().uleb(column);
        const fde f{.address = start, .range = size, .address_size = w, .instructions = rows, .word = w};
        return cie{.data_align = align, .column = ra, .instructions = initial, .word = w}.build() + f.build();
    }
};

struct stopped {
    handle h;
    bytes section;
    reader memory; // word n of the stack is 0x1101 * (n + 1)
    krv_activation_owner ap;

    explicit stopped(const function &f) : h(f.target), section(f.build()), memory{.contents = {}, .base = stack_address}
    {
        for (unsigned int n = 1; n <= 16; ++n)
            memory.contents.uint(0x1101 * n, f.word());
        if (f.eh) {
            memory.contents.fill(eh_frame_address - stack_address - memory.contents.size()).add(section);
            korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, eh_frame_address);
        } else {
            h.attach(KRV_SEC_FRAME, section);
        }
        korva_attach_as(h, reader::read, &memory);
        ap.reset(korva_activation_alloc(h));
        load(f.target == KRV_ACTIVATION_AMD64 ? 7 : 4, stack_address);
        load_pc(f.start);
    }

    void load(unsigned int dwarf, uint64_t value)
    {
        korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_DWARF, dwarf, static_cast<krv_greg_t>(value));
    }

    void load_pc(uint64_t pc)
    {
        korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(pc));
    }

    std::string get(krv_frame_type_t frame, krv_reg_type_t type, unsigned int reg)
    {
        return greg_of(h, ap.get(), frame, type, reg);
    }
    std::string caller(unsigned int dwarf) { return get(KRV_ACTIVATION_FRAME_CALLER, KRV_ACTIVATION_REG_DWARF, dwarf); }
    std::string caller_pc() { return get(KRV_ACTIVATION_FRAME_CALLER, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC); }
};

} // namespace krv_test

#endif
