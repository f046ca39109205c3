// SPDX-License-Identifier: Apache-2.0
//
// Call-frame instructions into rules: two streams in, a line of rules or of errors out.
#include "krv_cfa.h"
#include "krv_frame_reader.h"
#include "support/activation.h"

#include <cstring>
#include <random>

using namespace krv_test;

namespace
{

// Runs streams as a CIE and an FDE of the function [0x1000, 0x1100) do, on AMD64 with data alignment factor -8.
struct machine {
    stopped s{{}};
    krv_activation_t *ap = s.ap.get();
    krv_cie_owner cie{krv_get_cie_by_offset(s.h, 0), {s.h}};

    int generate(const bytes &stream, uint64_t pc, uint64_t code_align, bool is_fde)
    {
        krv_fd_t fd = s.h.cursor(stream);
        std::memcpy(is_fde ? ap->sa_current : ap->sa_initial, is_fde ? ap->sa_initial : ap->sa_default,
                    ap->sa_n_registers * sizeof(krv_cfarule_t));
        krv_ruleset_t rules = {.code_align = code_align,
                               .data_align = static_cast<uint64_t>(-8),
                               .augp = cie->scie_augmentation,
                               .aug_arg = nullptr,
                               .nslots = ap->sa_n_registers,
                               .currentp = is_fde ? ap->sa_current : ap->sa_initial,
                               .argsp = is_fde ? nullptr : &ap->sa_args,
                               .initialp = is_fde ? ap->sa_initial : nullptr,
                               .pc = is_fde ? pc : 0,
                               .slocation = is_fde ? uint64_t{0x1000} : 0,
                               .arange = is_fde ? uint64_t{0x100} : 0,
                               .changed = {},
                               .row = nullptr,
                               .row_arg = nullptr};
        return krv_generate_ruleset(s.h, &fd, &rules);
    }

    // The rules that differ from the default ones, or the error, in which "@n" stands for the message that tells the
    // offset.
    std::string run(const bytes &first, const bytes &second, uint64_t pc = 0x1010, uint64_t code_align = 1)
    {
        ap->sa_args = {};
        for (const bool is_fde : {false, true})
            if (generate(is_fde ? second : first, pc, code_align, is_fde) != 0) {
                std::string line = (is_fde ? "FDE " : "CIE ") + s.h.error();
                const std::string before = " | error at offset ", behind = " in instruction stream";
                EXPECT_TRUE(line.ends_with(behind)) << line;
                line.erase(line.size() - behind.size());
                return line.replace(line.find(before), before.size(), " @");
            }
        std::string line = ap->sa_args.sa_argc == 0 ? "" : text("argc=%u ", ap->sa_args.sa_argc);
        for (unsigned int n = 0; n < KRV_MAX_ARGS; ++n)
            if (const krv_activation_arg_t &a = ap->sa_args.sa_argv[n]; a.offset != 0)
                line += text("arg%u=%lu@%lu ", n + 1, a.size, a.offset);
        for (unsigned int slot = 0; slot < ap->sa_n_registers; ++slot)
            if (const std::string is = rule(ap->sa_current[slot]); is != rule(ap->sa_default[slot]))
                line += (slot == 68 ? "cfa=" : text("r%u=", slot)) + is + " ";
        return line.substr(0, line.find_last_not_of(' ') + 1);
    }

    static std::string rule(const krv_cfarule_t &r)
    {
        static const char *const kinds[] = {"undefined", "same", "[cfa]", "cfa", "r", "[expr]", "expr", "r"};
        std::string is = kinds[r.desc];
        if (r.desc == KRV_CFA_RULE_EXPRESSION || r.desc == KRV_CFA_RULE_VAL_EXPRESSION)
            return is + text(" %lu@%lu", r.size, r.offset);
        if (r.desc == KRV_CFA_RULE_REG_OFFSET)
            is += text("%lu", r.arg >> 32);
        return r.desc < KRV_CFA_RULE_OFFSET ? is : is + text("%+d", static_cast<int>(r.arg));
    }
};

} // namespace

TEST(Cfa, Instructions)
{
    const bytes rsp_8 = op(DW_CFA_def_cfa).uleb(7).uleb(8), to_16 = op(DW_CFA_def_cfa_offset).uleb(16);
    const bytes block = bytes().block_uleb(bytes().fill(5, DW_OP_nop));
    const bytes r3_gone = op(DW_CFA_undefined).uleb(3), expr = op(DW_CFA_def_cfa_expression) + block;
    const bytes remember = op(DW_CFA_remember_state), restore = op(DW_CFA_restore_state);
    const auto arg = [&](uint64_t n) { return op(DW_CFA_VESK_arg_loc).uleb(n).add(block); };
    const auto advance = [](uint64_t by) { return op(DW_CFA_advance_loc, by); };
    const std::string open = " datum unterminated by end of section | failed to read ";
    const struct {
        bytes cie, fde;
        std::string expected;
        uint64_t code_align = 1;
        uint32_t extensions = 0;
    } rows[] = {
        {{}, op(DW_CFA_nop), ""},
        // CFA
        {rsp_8, op(DW_CFA_offset, 16).uleb(1), "r16=[cfa]-8 cfa=r7+8"},
        {op(DW_CFA_def_cfa_sf).uleb(7).sleb(1), {}, "cfa=r7-8"},
        {op(DW_CFA_def_cfa).uleb(7).uleb(0x1fffffff8), {}, "cfa=r7-8"}, // the offset has 32 bits
        {rsp_8, op(DW_CFA_def_cfa_register).uleb(6), "cfa=r6+8"},
        {rsp_8, to_16, "cfa=r7+16"},
        {rsp_8, op(DW_CFA_def_cfa_offset_sf).sleb(-4), "cfa=r7+32"},
        {rsp_8, expr, "cfa=[expr] 5@2"},
        // Registers
        {op(DW_CFA_offset_extended).uleb(66).uleb(2), {}, "r66=[cfa]-16"},
        {op(DW_CFA_offset_extended_sf).uleb(3).sleb(-2), {}, "r3=[cfa]+16"},
        {op(DW_CFA_val_offset).uleb(3).uleb(2), {}, "r3=cfa-16"},
        {op(DW_CFA_val_offset_sf).uleb(3).sleb(-2), {}, "r3=cfa+16"},
        {r3_gone, op(DW_CFA_same_value).uleb(0), "r0=same r3=undefined"},
        {op(DW_CFA_register).uleb(3).uleb(66), {}, "r3=r+66"},
        {{}, op(DW_CFA_expression).uleb(3) + block, "r3=[expr] 5@3"},
        {{}, op(DW_CFA_val_expression).uleb(3).uleb(0), "r3=expr 0@3"},
        {op(DW_CFA_offset, 3).uleb(2), r3_gone + op(DW_CFA_restore, 3), "r3=[cfa]-16"},
        {op(DW_CFA_expression).uleb(3) + block, r3_gone + op(DW_CFA_restore_extended).uleb(3), "r3=[expr] 5@3"},
        // States: the CFA and every register; what is left at the end is freed.
        {rsp_8, remember + to_16 + remember + op(DW_CFA_def_cfa_register).uleb(6) + r3_gone + restore, "cfa=r7+16"},
        {rsp_8, remember + remember + to_16 + r3_gone + restore + restore, "cfa=r7+8"},
        {{}, remember + restore + restore, "FDE CORRUPT: DW_CFA_restore_state has no state to restore @3"},
        // Rows: the program counter is 0x1010, and nothing is read beyond its row.
        {rsp_8, advance(0x10) + to_16, "cfa=r7+16"},
        {rsp_8, advance(0x11).u8(0x3f), "cfa=r7+8"},
        {rsp_8, op(DW_CFA_advance_loc1).u8(2) + op(DW_CFA_advance_loc2).u16(2) + to_16, "cfa=r7+16", 4},
        {rsp_8, op(DW_CFA_advance_loc4).u32(4) + advance(1) + to_16, "cfa=r7+8", 4},
        {rsp_8, op(DW_CFA_set_loc).u64(0x1000) + op(DW_CFA_set_loc).u64(0x1010) + to_16, "cfa=r7+16"},
        {{}, advance(4) + op(DW_CFA_set_loc).u64(0x1003), "FDE CORRUPT: decreasing location @10"},
        {{}, advance(1), "FDE CORRUPT: decreasing location @1", UINT64_MAX}, // wraps around
        {rsp_8 + advance(1), {}, "CIE CORRUPT: row-creation instruction in CIE @4"},
        // Arguments
        {arg(3), {}, "argc=3 arg3=5@3"},
        {arg(128) + arg(1) + arg(1), {}, "argc=128 arg1=5@20 arg128=5@4"},
        {arg(0) + arg(129), {}, ""},
        {{}, arg(1), "FDE CORRUPT: illegal instruction for FDE @2"},
        // Not here, not so, not at all
        {op(DW_CFA_restore, 3), {}, "CIE NONE: illegal instruction for CIE @1"},
        {to_16, {}, "CIE NONE: CFA rule not reg + offset @2"},
        {expr, op(DW_CFA_def_cfa_offset_sf).sleb(8), "FDE NONE: CFA rule not reg + offset @2"},
        {expr, op(DW_CFA_def_cfa_register).uleb(7), "FDE NONE: CFA rule not reg + offset @2"},
        {op(DW_CFA_GNU_window_save), {}, "CIE UNSUPPORTED: unknown instruction 0x2d @1"},
        {{}, op(DW_CFA_GNU_args_size).uleb(8), "FDE UNSUPPORTED: unknown instruction 0x2e @1"},
        {rsp_8, op(DW_CFA_GNU_args_size).uleb(0, 3) + to_16, "cfa=r7+16", 1, KRV_EXT_AS_WRITTEN},
        {op(DW_CFA_GNU_negative_offset_extended).uleb(3).uleb(2), {}, "r3=[cfa]+16", 1, KRV_EXT_AS_WRITTEN},
        {op(DW_CFA_GNU_window_save), {}, "CIE UNSUPPORTED: unknown instruction 0x2d @1", 1, KRV_EXT_AS_WRITTEN},
        {{}, op(0x17), "FDE UNSUPPORTED: unknown instruction 0x17 @1"},
        {{}, op(DW_CFA_def_cfa_expression), "FDE CORRUPT: DW_FORM_udata" + open + "expression length @1"},
        {{}, op(DW_CFA_offset_extended_sf).uleb(6), "FDE CORRUPT: DW_FORM_sdata" + open + "operand 1 @2"},
        {{}, op(DW_CFA_offset, 5).u8(0x80), "FDE CORRUPT: DW_FORM_udata" + open + "operand 1 @1"},
        {{},
         op(DW_CFA_advance_loc4).u8(1),
         "FDE CORRUPT: form DW_FORM_data4 requires 4 bytes;  1 remaining | failed to read operand 0 @1"},
        {{}, op(DW_CFA_expression).uleb(3).uleb(2).u8(0), "FDE INVALID: can't seek beyond remainder @3"},
        {op(DW_CFA_VESK_arg_loc).uleb(1).uleb(UINT64_MAX), {}, "CIE INVALID: can't seek beyond remainder @12"},
    };
    machine m;
    ASSERT_NE(m.cie, nullptr);
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        m.s.h->sh_ext = row.extensions;
        EXPECT_EQ(m.run(row.cie, row.fde, 0x1010, row.code_align), row.expected);
        // Whatever the answer to half of it, no step beyond the bytes.
        for_each_prefix(row.cie, [&](const bytes &prefix) { m.run(prefix, row.fde); });
        for_each_prefix(row.fde, [&](const bytes &prefix) { m.run(row.cie, prefix); });
    }
}

// Registers end at 66 on AMD64; the library's own slots behind them cannot be named.
TEST(Cfa, RegistersAreChecked)
{
    machine m;
    const bytes rsp_8 = op(DW_CFA_def_cfa).uleb(7).uleb(8);
    for (const unsigned int opcode :
         {DW_CFA_offset_extended, DW_CFA_restore_extended, DW_CFA_undefined, DW_CFA_same_value, DW_CFA_register,
          DW_CFA_def_cfa, DW_CFA_def_cfa_register, DW_CFA_expression, DW_CFA_offset_extended_sf, DW_CFA_def_cfa_sf,
          DW_CFA_val_offset, DW_CFA_val_offset_sf, DW_CFA_val_expression})
        for (const uint64_t reg : {uint64_t{66}, uint64_t{67}, uint64_t{68}, UINT64_MAX}) {
            // The 0 is a second operand, an expression of no bytes, or DW_CFA_nop.
            const std::string found = m.run(rsp_8, op(opcode).uleb(reg).uleb(0));
            const char *name = korva_print_define(m.s.h, KRV_DEF_CFA, opcode);
            const std::string refusal = text("FDE NONE: register %lu out of range for %s @", reg, name);
            EXPECT_EQ(found.starts_with(refusal), reg > 66) << found;
            EXPECT_EQ(found.starts_with("FDE"), reg > 66) << found;
        }
    EXPECT_EQ(m.run({}, op(DW_CFA_register).uleb(99).uleb(67)),
              "FDE NONE: register 67 out of range for DW_CFA_register @3");

    // The packed instructions reach as far as 63; 32-bit x86 ends at 49.
    stopped narrow({.target = KRV_ACTIVATION_I386, .rows = op(DW_CFA_restore, 63), .column = 8});
    EXPECT_EQ(narrow.caller(0), "NONE: register 63 out of range for DW_CFA_restore | error at offset 1 in instruction "
                                "stream | failed to generate FDE's rules");
}

// The glance at bytes in memory and the decoder that every cursor has, over the same random bytes.
TEST(Cfa, InstructionsAtAGlance)
{
    std::mt19937 random(1);
    bytes stream;
    while (stream.size() < 50000) // opcodes and long numbers are as likely as any
        stream.u8(random() % 4 == 0 ? random() % 0x40 : random() % 0x100);
    machine m;
    const uint8_t *end = stream.data() + stream.size();
    krv_fd_t fd = m.s.h.cursor(stream);
    unsigned glances = 0;
    for (uint64_t at = 0; at < stream.size(); ++at) {
        krv_cfa_op_t quick;
        const uint8_t *behind = krv_cfa_scan(stream.data() + at, end, &quick);
        if (behind == nullptr)
            continue;
        ++glances;
        krv_operation_t op;
        krv_fd_seek(&fd, at);
        ASSERT_EQ(krv_frame_get_next_op(m.s.h, &fd, &op, m.cie->scie_augmentation, nullptr), 0) << at;
        ASSERT_EQ(text("%x %lx %lx, to %ld", quick.opcode, quick.first, quick.second, behind - stream.data()),
                  text("%x %lx %lx, to %lu", op.opcode, op.operand[0].sa_u.su_unsigned, op.operand[1].sa_u.su_unsigned,
                       fd.sfd_offset));
    }
    EXPECT_GT(glances, stream.size() / 2);
}
