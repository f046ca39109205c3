// SPDX-License-Identifier: Apache-2.0
//
// Call-frame instructions into rules: two streams in, a line of rules out.
#include "krv_cfa.h"
#include "support/activation.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace krv_test;

namespace
{

// Runs streams as a CIE and an FDE of the function [0x1000, 0x1100) do, on AMD64 with data alignment factor -8.
struct machine {
    stopped s{{}};
    krv_activation_t *ap = s.ap.get();
    krv_cie_owner cie{krv_get_cie_by_offset(s.h, 0), {s.h}};

    std::string run(const bytes &first, const bytes &second, uint64_t pc, uint64_t code_align = 1)
    {
        const size_t rules = ap->sa_n_registers * sizeof(krv_cfarule_t);
        const auto generate = [&](krv_fd_t *fdp, bool is_cie) {
            return krv_generate_ruleset(s.h, fdp, code_align, static_cast<uint64_t>(-8), is_cie ? 0 : pc,
                                        is_cie ? 0 : 0x1000, is_cie ? 0 : 0x100, ap->sa_n_registers,
                                        is_cie ? nullptr : ap->sa_initial, is_cie ? ap->sa_initial : ap->sa_current,
                                        is_cie ? &ap->sa_args : nullptr, cie->scie_augmentation, nullptr);
        };
        ap->sa_args = {};
        std::memcpy(ap->sa_initial, ap->sa_default, rules);
        krv_fd_t fd1 = s.h.cursor(first), fd2 = s.h.cursor(second);
        if (generate(&fd1, true) != 0)
            return "CIE " + s.h.error();
        std::memcpy(ap->sa_current, ap->sa_initial, rules);
        if (generate(&fd2, false) != 0)
            return "FDE " + s.h.error();
        std::string line = ap->sa_args.sa_argc == 0 ? "" : text("argc=%u ", ap->sa_args.sa_argc);
        for (unsigned int n = 0; n < KRV_MAX_ARGS; ++n)
            if (const krv_activation_arg_t &a = ap->sa_args.sa_argv[n]; a.offset != 0)
                line += text("arg%u=%d@%d ", n + 1, static_cast<int>(a.size), static_cast<int>(a.offset));
        for (unsigned int slot = 0; slot < ap->sa_n_registers; ++slot)
            if (std::memcmp(&ap->sa_current[slot], &ap->sa_default[slot], sizeof(krv_cfarule_t)) != 0)
                line += slot + 1 == ap->sa_n_registers ? "cfa=" + rule(slot) : text("r%u=", slot) + rule(slot);
        return line.empty() ? "" : line.substr(0, line.size() - 1);
    }

    std::string rule(unsigned int slot) const
    {
        const krv_cfarule_t &r = ap->sa_current[slot];
        const int arg = static_cast<int>(r.arg), size = static_cast<int>(r.size), at = static_cast<int>(r.offset);
        switch (r.desc) {
        case KRV_CFA_RULE_UNDEFINED:
            return "undefined ";
        case KRV_CFA_RULE_SAME_VALUE:
            return "same ";
        case KRV_CFA_RULE_OFFSET:
            return text("[cfa%+d] ", arg);
        case KRV_CFA_RULE_VAL_OFFSET:
            return text("cfa%+d ", arg);
        case KRV_CFA_RULE_REGISTER:
            return text("r%d ", arg);
        case KRV_CFA_RULE_EXPRESSION:
            return text("[%d@%d] ", size, at);
        case KRV_CFA_RULE_VAL_EXPRESSION:
            return text("%d@%d ", size, at);
        case KRV_CFA_RULE_REG_OFFSET:
            return text("r%d%+d ", static_cast<int>(r.arg >> 32), arg);
        default:
            return "? ";
        }
    }
};

} // namespace

static const bytes cfa_rsp_8 = op(DW_CFA_def_cfa).uleb(7).uleb(8);
static const bytes block = bytes().block_uleb(bytes().fill(5, DW_OP_nop));

TEST(Cfa, Instructions)
{
    const struct {
        const char *what;
        bytes cie, fde;
        const char *expected;
        uint64_t pc = 0x1010, code_align = 1;
    } rows[] = {
        {"nothing", {}, {}, ""},
        {"nop", op(DW_CFA_nop), op(DW_CFA_nop), ""},
        {"def_cfa, offset", cfa_rsp_8 + op(DW_CFA_offset, 16).uleb(1), {}, "r16=[cfa-8] cfa=r7+8"},
        {"def_cfa_sf", op(DW_CFA_def_cfa_sf).uleb(7).sleb(1), {}, "cfa=r7-8"},
        {"the offset has 32 bits", op(DW_CFA_def_cfa).uleb(7).uleb(0x1fffffff8), {}, "cfa=r7-8"},
        {"def_cfa_register", cfa_rsp_8, op(DW_CFA_def_cfa_register).uleb(6), "cfa=r6+8"},
        {"def_cfa_offset", cfa_rsp_8, op(DW_CFA_def_cfa_offset).uleb(24), "cfa=r7+24"},
        {"def_cfa_offset_sf", cfa_rsp_8, op(DW_CFA_def_cfa_offset_sf).sleb(-4), "cfa=r7+32"},
        {"def_cfa_expression", cfa_rsp_8, op(DW_CFA_def_cfa_expression) + block, "cfa=[5@2]"},
        {"offset_extended", op(DW_CFA_offset_extended).uleb(66).uleb(2), {}, "r66=[cfa-16]"},
        {"offset_extended_sf", op(DW_CFA_offset_extended_sf).uleb(3).sleb(-2), {}, "r3=[cfa+16]"},
        {"val_offset", op(DW_CFA_val_offset).uleb(3).uleb(2), {}, "r3=cfa-16"},
        {"val_offset_sf", op(DW_CFA_val_offset_sf).uleb(3).sleb(-2), {}, "r3=cfa+16"},
        {"undefined", op(DW_CFA_undefined).uleb(3), {}, "r3=undefined"},
        {"same_value", op(DW_CFA_same_value).uleb(0), {}, "r0=same"},
        {"register", op(DW_CFA_register).uleb(3).uleb(66), {}, "r3=r66"},
        {"expression", {}, op(DW_CFA_expression).uleb(3) + block, "r3=[5@3]"},
        {"val_expression", {}, op(DW_CFA_val_expression).uleb(3) + block, "r3=5@3"},
        {"an empty expression", {}, op(DW_CFA_expression).uleb(3).uleb(0), "r3=[0@3]"},
        {"restore", op(DW_CFA_offset, 3).uleb(2), op(DW_CFA_undefined).uleb(3) + op(DW_CFA_restore, 3), "r3=[cfa-16]"},
        {"restore_extended", {}, op(DW_CFA_undefined).uleb(3) + op(DW_CFA_restore_extended).uleb(3), ""},
        {"restore takes the whole rule", op(DW_CFA_expression).uleb(3) + block,
         op(DW_CFA_undefined).uleb(3) + op(DW_CFA_restore, 3), "r3=[5@3]"},
        {"states nest", cfa_rsp_8,
         op(DW_CFA_remember_state) + op(DW_CFA_def_cfa_offset).uleb(16) + op(DW_CFA_remember_state) +
             op(DW_CFA_def_cfa_register).uleb(6) + op(DW_CFA_undefined).uleb(3) + op(DW_CFA_restore_state),
         "cfa=r7+16"},
        {"states bring everything back, some are left", cfa_rsp_8,
         op(DW_CFA_remember_state) + op(DW_CFA_remember_state) + op(DW_CFA_def_cfa).uleb(6).uleb(16) +
             op(DW_CFA_undefined).uleb(3) + op(DW_CFA_restore_state),
         "cfa=r7+8"},

        // Rows: those that begin at or below the program counter count.
        {"a row at pc", cfa_rsp_8, op(DW_CFA_advance_loc, 0x10) + op(DW_CFA_def_cfa_offset).uleb(16), "cfa=r7+16"},
        {"a row above pc", cfa_rsp_8, op(DW_CFA_advance_loc, 0x11) + op(DW_CFA_def_cfa_offset).uleb(16), "cfa=r7+8"},
        {"nothing is read beyond the row", cfa_rsp_8, op(DW_CFA_advance_loc, 0x11).u8(0x3f), "cfa=r7+8"},
        {"factored advances", cfa_rsp_8,
         op(DW_CFA_advance_loc1).u8(2) + op(DW_CFA_advance_loc2).u16(1) + op(DW_CFA_def_cfa_offset).uleb(16) +
             op(DW_CFA_advance_loc4).u32(1) + op(DW_CFA_def_cfa_offset).uleb(24),
         "cfa=r7+16", 0x100f, 4},
        {"set_loc", cfa_rsp_8, op(DW_CFA_set_loc).u64(0x1010) + op(DW_CFA_def_cfa_offset).uleb(16), "cfa=r7+16"},
        {"set_loc to where it is", {}, op(DW_CFA_set_loc).u64(0x1000) + cfa_rsp_8, "cfa=r7+8"},
        {"set_loc back",
         {},
         op(DW_CFA_advance_loc, 4) + op(DW_CFA_set_loc).u64(0x1003),
         "FDE CORRUPT: decreasing location | error at offset 10 in instruction stream"},
        {"an advance that wraps around",
         {},
         op(DW_CFA_advance_loc4).u32(1),
         "FDE CORRUPT: decreasing location | error at offset 5 in instruction stream",
         0x1010,
         UINT64_MAX},
        {"a row in a CIE",
         cfa_rsp_8 + op(DW_CFA_advance_loc, 1),
         {},
         "CIE CORRUPT: row-creation instruction in CIE | error at offset 4 in instruction stream"},

        // Arguments.
        {"argument 3 alone", op(DW_CFA_VESK_arg_loc).uleb(3) + block, {}, "argc=3 arg3=5@3"},
        {"the last, the first, the first again",
         op(DW_CFA_VESK_arg_loc).uleb(128) + block + op(DW_CFA_VESK_arg_loc).uleb(1) + block +
             op(DW_CFA_VESK_arg_loc).uleb(1) + block,
         {},
         "argc=128 arg1=5@20 arg128=5@4"},
        {"arguments 0 and 129",
         op(DW_CFA_VESK_arg_loc).uleb(0) + block + op(DW_CFA_VESK_arg_loc).uleb(129) + block,
         {},
         ""},
        {"an argument in an FDE",
         {},
         op(DW_CFA_VESK_arg_loc).uleb(1) + block,
         "FDE CORRUPT: illegal instruction for FDE | error at offset 2 in instruction stream"},

        // Faults.
        {"restore in a CIE",
         op(DW_CFA_restore, 3),
         {},
         "CIE NONE: illegal instruction for CIE | error at offset 1 in instruction stream"},
        {"no state",
         {},
         op(DW_CFA_remember_state) + op(DW_CFA_restore_state) + op(DW_CFA_restore_state),
         "FDE CORRUPT: DW_CFA_restore_state has no state to restore | error at offset 3 in instruction stream"},
        {"offset of no CFA",
         op(DW_CFA_def_cfa_offset).uleb(8),
         {},
         "CIE NONE: CFA rule not reg + offset | error at offset 2 in instruction stream"},
        {"offset of an expression", op(DW_CFA_def_cfa_expression) + block, op(DW_CFA_def_cfa_offset_sf).sleb(8),
         "FDE NONE: CFA rule not reg + offset | error at offset 2 in instruction stream"},
        {"register of an expression", op(DW_CFA_def_cfa_expression) + block, op(DW_CFA_def_cfa_register).uleb(8),
         "FDE NONE: CFA rule not reg + offset | error at offset 2 in instruction stream"},
        {"not executed here",
         op(DW_CFA_GNU_window_save),
         {},
         "CIE UNSUPPORTED: unknown instruction 0x2d | error at offset 1 in instruction stream"},
        {"undefined",
         {},
         op(0x17),
         "FDE UNSUPPORTED: unknown instruction 0x17 | error at offset 1 in instruction stream"},
        {"no length",
         {},
         op(DW_CFA_def_cfa_expression),
         "FDE CORRUPT: DW_FORM_udata datum unterminated by end of section | failed to read expression length | "
         "error at offset 1 in instruction stream"},
        {"a block beyond the end",
         {},
         op(DW_CFA_expression).uleb(3).uleb(2).u8(DW_OP_nop),
         "FDE INVALID: can't seek beyond remainder | error at offset 3 in instruction stream"},
        {"an endless block",
         op(DW_CFA_VESK_arg_loc).uleb(1).uleb(UINT64_MAX),
         {},
         "CIE INVALID: can't seek beyond remainder | error at offset 12 in instruction stream"},
    };
    machine m;
    ASSERT_NE(m.cie, nullptr);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(m.run(row.cie, row.fde, row.pc, row.code_align), row.expected);
        for (const bytes *stream : {&row.cie, &row.fde}) // whatever the answer, no step beyond the bytes
            for_each_prefix(*stream, [&](const bytes &prefix) {
                m.run(stream == &row.cie ? prefix : row.cie, stream == &row.fde ? prefix : row.fde, row.pc);
            });
    }
}

// The library's own slots, 67 and 68 on AMD64, and those beyond cannot be named.
TEST(Cfa, RegistersAreChecked)
{
    const struct {
        unsigned int opcode;
        const char *name;
        int further_operands;
    } rows[] = {
        {DW_CFA_offset_extended, "DW_CFA_offset_extended", 1},
        {DW_CFA_restore_extended, "DW_CFA_restore_extended", 0},
        {DW_CFA_undefined, "DW_CFA_undefined", 0},
        {DW_CFA_same_value, "DW_CFA_same_value", 0},
        {DW_CFA_register, "DW_CFA_register", 1},
        {DW_CFA_def_cfa, "DW_CFA_def_cfa", 1},
        {DW_CFA_def_cfa_register, "DW_CFA_def_cfa_register", 0},
        {DW_CFA_expression, "DW_CFA_expression", 0},
        {DW_CFA_offset_extended_sf, "DW_CFA_offset_extended_sf", 1},
        {DW_CFA_def_cfa_sf, "DW_CFA_def_cfa_sf", 1},
        {DW_CFA_val_offset, "DW_CFA_val_offset", 1},
        {DW_CFA_val_offset_sf, "DW_CFA_val_offset_sf", 1},
        {DW_CFA_val_expression, "DW_CFA_val_expression", 0},
    };
    machine m;
    const auto message = [](const char *reg, const char *name, size_t at) {
        return text("FDE NONE: register %s out of range for %s | error at offset %zu in instruction stream", reg, name,
                    at);
    };
    for (const auto &row : rows) {
        for (const uint64_t reg : {uint64_t{67}, uint64_t{68}, UINT64_MAX}) {
            bytes stream = op(row.opcode).uleb(reg);
            if (row.further_operands != 0)
                stream.uleb(1);
            EXPECT_EQ(m.run(cfa_rsp_8, stream, 0x1000), message(std::to_string(reg).c_str(), row.name, stream.size()));
        }
        bytes last = op(row.opcode).uleb(66);
        last.uleb(0);
        EXPECT_EQ(m.run(cfa_rsp_8, last, 0x1000).find("FDE"), std::string::npos) << row.name;
    }
    EXPECT_EQ(m.run({}, op(DW_CFA_register).uleb(99).uleb(67), 0x1000), message("67", "DW_CFA_register", 3));

    // The packed instructions reach as far as register 63, which 32-bit x86 does not have.
    stopped narrow({.target = KRV_ACTIVATION_I386, .cie = op(DW_CFA_offset, 50).uleb(1), .column = 8});
    EXPECT_EQ(narrow.caller(0), "NONE: register 50 out of range for DW_CFA_offset | error at offset 2 in instruction "
                                "stream | failed to generate CIE's rules");
    stopped restored({.target = KRV_ACTIVATION_I386, .fde = op(DW_CFA_restore, 63), .column = 8});
    EXPECT_EQ(restored.caller(0), "NONE: register 63 out of range for DW_CFA_restore | error at offset 1 in "
                                  "instruction stream | failed to generate FDE's rules");
}
