// SPDX-License-Identifier: Apache-2.0
//
// Rules that are kept: whoever has the promise that memory is constant gets the answers of whoever has not, and the walk
// by tables alone the program counters that activations find.
#include "krv_compact.h"
#include "support/activation.h"

#include <algorithm>

using namespace krv_test;

namespace
{

constexpr unsigned CODE = 0x20; // bytes of the functions here

bytes block(const bytes &expression)
{
    return bytes().block_uleb(expression);
}

// What the calls for a frame say of it, errors included.
std::string frame(stopped &s, uint64_t pc, unsigned registers)
{
    korva_activation_reset(s.h, s.ap.get());
    for (unsigned reg = 0; reg < registers; ++reg)
        s.load(reg, stack_address + 8 * (reg % 8));
    s.load_pc(pc);
    std::string answer;
    for (unsigned reg = 0; reg < registers; ++reg)
        answer += s.caller(reg) + " ";
    answer += s.caller(17) + " " + s.caller_pc();
    krv_frame_info_t info = {};
    unsigned int argc = 0;
    if (korva_activation_get_frame_info(s.h, s.ap.get(), &info) == 0)
        answer += text(" %lx+%lx %d", info.start, info.size, info.is_signal);
    answer += text(" %d %d %u", korva_activation_get_argc(s.h, s.ap.get(), &argc), korva_handle_get_errno(s.h), argc);
    return answer;
}

krv_stack_t stack_of(stopped &s, const krv_stack_module_t *modules, size_t nmodules, uint64_t pc)
{
    krv_stack_t stack = {};
    stack.modules = modules;
    stack.nmodules = nmodules;
    stack.read = reader::read;
    stack.arg = &s.memory;
    const krv_mach_def_t *mach = s.ap->sa_mach_def;
    for (unsigned i = 0; i < mach->smd_n_defs && mach->smd_defs[i].srd_dwarf <= static_cast<int>(mach->smd_pc); ++i) {
        stack.gregs[mach->smd_defs[i].srd_host] =
            static_cast<krv_greg_t>(stack_address + 8 * (static_cast<unsigned>(mach->smd_defs[i].srd_dwarf) % 8));
        stack.mask |= uint64_t{1} << mach->smd_defs[i].srd_host;
    }
    stack.gregs[KRV_HOST_RIP] = static_cast<krv_greg_t>(pc);
    return stack;
}

} // namespace

// By a cache, by its second answer, and by a table: at every address of a function, and around it.
TEST(Stack, KeptRulesSayTheSame)
{
    const bytes plus_eight = block(op(DW_OP_breg7).sleb(8)), loaded = block(op(DW_OP_breg7).sleb(16) + op(DW_OP_deref));
    const bytes next = op(DW_CFA_advance_loc, 4);
    const struct {
        const char *name;
        bytes rows;
        unsigned without; // addresses for which no table has a rule
    } cases[] = {
        {"a frame that grows",
         next + op(DW_CFA_def_cfa_offset).uleb(16) + op(DW_CFA_offset, 6).uleb(2) + next +
             op(DW_CFA_def_cfa_register).uleb(6) + op(DW_CFA_remember_state) + next + op(DW_CFA_restore, 6) +
             op(DW_CFA_def_cfa).uleb(7).uleb(8) + next + op(DW_CFA_restore_state),
         0},
        {"no caller", next + op(DW_CFA_undefined).uleb(16) + op(DW_CFA_undefined).uleb(8), 0},
        {"rows without code",
         op(DW_CFA_advance_loc, 0) + op(DW_CFA_def_cfa_offset).uleb(16) + op(DW_CFA_advance_loc, 0) +
             op(DW_CFA_def_cfa_offset).uleb(24),
         0},
        {"expressions",
         next + op(DW_CFA_def_cfa_expression) + loaded + next + op(DW_CFA_expression).uleb(3) + plus_eight + next +
             op(DW_CFA_val_expression).uleb(6) + plus_eight,
         0},
        {"an expression of its own",
         next + op(DW_CFA_def_cfa_expression) + block(op(DW_OP_breg7).sleb(8) + op(DW_OP_dup) + op(DW_OP_drop)),
         CODE - 4},
        {"other rules",
         next + op(DW_CFA_register).uleb(3).uleb(0) + next + op(DW_CFA_val_offset).uleb(6).uleb(1) + next +
             op(DW_CFA_offset, 1).uleb(2) + next + op(DW_CFA_same_value).uleb(2),
         0},
        {"of other registers", next + op(DW_CFA_offset_extended).uleb(17).uleb(3) + next + op(DW_CFA_offset, 2).uleb(1),
         0},
        {"odd and far", next + op(DW_CFA_offset, 3).uleb(40000) + next + op(DW_CFA_def_cfa).uleb(5).uleb(3), 0},
        {"a stack pointer", next + op(DW_CFA_same_value).uleb(7) + op(DW_CFA_same_value).uleb(4), 0},
        {"a far CFA", next + op(DW_CFA_def_cfa).uleb(17).uleb(8), CODE - 4},
        {"damage in the third row", next + op(DW_CFA_def_cfa_offset).uleb(16) + next + op(DW_CFA_restore_state),
         CODE - 8},
        {"damage in the first", op(DW_CFA_register).uleb(99).uleb(1), CODE},
        {"arguments", op(DW_CFA_nop), 0},
    };
    for (const auto &c : cases)
        for (const krv_activation_type_t target : both_targets)
            for (const bool eh : {false, true}) {
                const bool wide = target == KRV_ACTIVATION_AMD64;
                function f{.target = target, .rows = c.rows, .size = CODE, .column = wide ? 16U : 8U, .eh = eh};
                f.initial =
                    op(DW_CFA_def_cfa).uleb(wide ? 7 : 4).uleb(f.word()).add(op(DW_CFA_offset, f.column).uleb(1));
                if (std::string(c.name) == "arguments" && eh)
                    continue; // have none
                if (std::string(c.name) == "arguments")
                    f.initial.add(op(DW_CFA_VESK_arg_loc).uleb(1).block_uleb(op(DW_OP_reg5)));
                const unsigned registers = wide ? 17 : 9;
                stopped plain(f), cached(f), filled(f);
                for (stopped *s : {&cached, &filled})
                    ASSERT_EQ(korva_handle_set_opt(s->h, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1}), 0);
                ASSERT_EQ(korva_frames_prefill(filled.h), 0) << filled.h.error();
                for (stopped *s : {&plain, &cached}) // what is said of the end of the section is said once
                    frame(*s, f.start - 1, registers);
                unsigned without = 0;
                for (uint64_t pc = f.start - 2; pc < f.start + CODE + 2; ++pc) {
                    SCOPED_TRACE(text("%s, target %d, eh %d, pc %lx", c.name, target, eh, pc));
                    const std::string expected = frame(plain, pc, registers);
                    EXPECT_EQ(frame(cached, pc, registers), expected);
                    EXPECT_EQ(frame(cached, pc, registers), expected);
                    EXPECT_EQ(frame(filled, pc, registers), expected);
                    const krv_stack_module_t module = {filled.h, 0};
                    const krv_stack_t stack = stack_of(filled, &module, 1, pc);
                    uint64_t addresses[2] = {};
                    krv_stack_end_t end = {};
                    const size_t count = korva_stack_addresses(&stack, addresses, 2, &end);
                    const std::string caller = plain.caller_pc();
                    const bool has_rule = end.reason != KRV_STACK_NO_RULE || count != 1;
                    without += has_rule ? 0 : 1;
                    if (has_rule && caller != "NONE") { // a register that cannot be read is not missed by a walk
                        EXPECT_EQ(count == 2 ? text("%lx", addresses[1]) : "NOTFOUND: register not present (1)",
                                  caller);
                    }
                }
                EXPECT_EQ(without, c.without + 4) << c.name << ", target " << target << ", eh " << eh;
            }
}

namespace
{

// Three functions of 16 bytes and one of another module, and a stack: what each word leads to.
struct walked {
    stopped s{{.rows = {}, .size = 0x10, .eh = true}};
    stopped other{{.initial = op(DW_CFA_def_cfa).uleb(7).uleb(8) + op(DW_CFA_offset, 16).uleb(1), .size = 0x10}};
    krv_stack_module_t modules[2] = {};
    bytes section;

    walked()
    {
        const bytes push = op(DW_CFA_def_cfa).uleb(7).uleb(8) + op(DW_CFA_offset, 16).uleb(1);
        const auto add = [this](const char *augmentation, uint64_t start, const bytes &instructions) {
            const uint64_t parent = eh_frame_address + section.size();
            section += eh_cie{.augmentation = augmentation, .instructions = instructions}.build();
            section += eh_fde{.cie = parent, .address = start, .range = 0x10}.build(eh_frame_address + section.size());
        };
        add("zR", 0x1000, push);
        add("zR", 0x1010,
            op(DW_CFA_def_cfa).uleb(6).uleb(16) + op(DW_CFA_offset, 16).uleb(1) +
                op(DW_CFA_offset, 6).uleb(2)); // a frame pointer
        add("zRS", 0x1020, push);
        add("zR", 0x1030, op(DW_CFA_def_cfa).uleb(7).uleb(0) + op(DW_CFA_offset, 16).uleb(0)); // is its own caller
        add("zR", 0x1040, op(DW_CFA_def_cfa).uleb(6).uleb(16) + op(DW_CFA_undefined).uleb(16));
        section.u32(0);
        s.memory.contents = bytes().fill(eh_frame_address - stack_address).add(section);
        for (stopped *one : {&s, &other})
            korva_handle_set_opt(one->h, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
        s.h.extend(KRV_EXT_AS_WRITTEN);
        EXPECT_EQ(korva_frames_prefill(s.h), 0) << s.h.error();
        EXPECT_EQ(korva_frames_prefill(other.h), 0) << other.h.error();
        modules[0] = {s.h, 0};
        modules[1] = {other.h, 0x40000};
    }

    // The addresses, and why there are no more.
    std::string walk(const std::vector<uint64_t> &words, uint64_t pc, size_t room = 8, bool has_fp = true)
    {
        bytes memory;
        for (const uint64_t word : words)
            memory.u64(word);
        s.memory.contents = memory.fill(eh_frame_address - stack_address - memory.size()).add(section);
        krv_stack_t of = stack_of(s, modules, 2, pc);
        of.gregs[KRV_HOST_RSP] = stack_address;
        of.gregs[KRV_HOST_RBP] = stack_address + 8;
        of.mask &= has_fp ? UINT64_MAX : ~(uint64_t{1} << KRV_HOST_RBP);
        uint64_t addresses[8];
        krv_stack_end_t end = {};
        const size_t count = korva_stack_addresses(&of, addresses, room, &end);
        std::string line;
        for (size_t i = 0; i < count; ++i)
            line += text("%lx ", addresses[i]);
        EXPECT_TRUE(count == 0 || end.pc == addresses[count - 1]);
        return line + text("%d", end.reason);
    }
};

} // namespace

TEST(Stack, WhyWalksEnd)
{
    walked w;
    EXPECT_EQ(w.walk({0x1008, 0x1010, 0}, 0x1004), "1004 1008 1010 1");
    EXPECT_EQ(w.walk({0x1008, 0x1010, 0}, 0x1004, 2), "1004 1008 6");
    EXPECT_EQ(w.walk({0x1008, 0x1010, 0}, 0x1004, 3), "1004 1008 1010 1"); // as much room as it takes
    EXPECT_EQ(w.walk({0x1008}, 0x1004, 0), "6");
    EXPECT_EQ(w.walk({0x1005, 0x2000}, 0x1004), "1004 1005 2000 2");
    EXPECT_EQ(w.walk({0x1000}, 0x1004), "1004 1000 2");                          // a call of nothing before it
    EXPECT_EQ(w.walk({0x41008, 0x1005, 0}, 0x1004), "1004 41008 1005 1");        // through the other module
    EXPECT_EQ(w.walk({0x1018, 0, 0x7020, 0x1005, 0}, 0x1014, 8), "1014 7020 2"); // from where the frame pointer is
    EXPECT_EQ(w.walk({0, 0x7018, 0x1018, 0x7030, 0x1018}, 0x1014, 3), "1014 1018 1018 1");
    EXPECT_EQ(w.walk({}, 0x1014, 8, false), "1014 4");
    EXPECT_EQ(w.walk({0, UINT64_MAX - 7, 0x1018}, 0x1014), "1014 1018 3"); // behind the last address there is
    EXPECT_EQ(w.walk({0x1024, 0x1000, 0}, 0x1004), "1004 1024 1000 1");    // interrupted at its first byte
    EXPECT_EQ(w.walk({0x1034}, 0x1034), "1034 1034 5");
    EXPECT_EQ(w.walk({}, 0x1044), "1044 1");
    w.s.memory.kind = fault::fails;
    w.s.memory.fault_at = w.s.memory.reads + 2;
    EXPECT_EQ(w.walk({0x1008, 0x1010, 0}, 0x1004), "1004 1008 3");
    const krv_stack_t none = {};
    EXPECT_EQ(korva_stack_addresses(&none, nullptr, 0, nullptr), 0U);
    EXPECT_EQ(korva_stack_addresses(nullptr, nullptr, 0, nullptr), 0U);
}

// The memory of this process is read where the client says that the stack is.
TEST(Stack, OwnMemory)
{
    walked w;
    const uint64_t words[] = {0x1008, 0x1010, 0};
    krv_stack_t stack = stack_of(w.s, w.modules, 2, 0x1004);
    stack.read = nullptr;
    stack.gregs[KRV_HOST_RSP] = static_cast<krv_greg_t>(reinterpret_cast<uintptr_t>(words));
    stack.low = reinterpret_cast<uintptr_t>(words);
    uint64_t addresses[4];
    for (const size_t bytes_there : {0, 7, 8, 23, 24}) {
        krv_stack_end_t end = {};
        stack.high = stack.low + bytes_there;
        const size_t count = korva_stack_addresses(&stack, addresses, 4, &end);
        EXPECT_EQ(text("%zu %d", count, end.reason), bytes_there == 24 ? "3 1" : text("%zu 3", 1 + bytes_there / 8));
    }
    stack.gregs[KRV_HOST_RSP] -= 1;
    EXPECT_EQ(korva_stack_addresses(&stack, addresses, 4, nullptr), 1U);
}

TEST(Stack, Options)
{
    const auto set = [](stopped &s, krv_opt_idx_t opt, uint64_t value) {
        return korva_handle_set_opt(s.h, opt, value);
    };
    stopped s({});
    EXPECT_TRUE(
        refuses(s.h, korva_frames_prefill(s.h), "INVALID: call-frame information is not promised to be constant"));
    EXPECT_TRUE(
        refuses(s.h, set(s, KRV_OPT_EXT_FRAME_CACHE, (1 << 24) + 1), "INVALID: a cache for 16777217 program counters"));
    EXPECT_EQ(set(s, KRV_OPT_EXT_CONSTANT_FRAMES, 1), 0);
    for (const auto &[size, bits] : std::initializer_list<std::pair<uint64_t, unsigned>>{
             {0, 0}, {1, 1}, {2, 1}, {3, 2}, {4096, 12}, {4097, 13}, {1 << 24, 24}}) {
        EXPECT_EQ(set(s, KRV_OPT_EXT_FRAME_CACHE, size), 0);
        EXPECT_EQ(s.h->sh_cache_bits, bits);
    }
    frame(s, 0x1000, 1);
    for (const krv_opt_idx_t opt : {KRV_OPT_EXT_CONSTANT_FRAMES, KRV_OPT_EXT_FRAME_CACHE})
        EXPECT_TRUE(
            refuses(s.h, set(s, opt, 0), "INVALID: what is kept of frames cannot be changed after the first query"));
    // Other memory makes other rules; without records there is no table.
    EXPECT_EQ(korva_frames_prefill(s.h), 0);
    korva_attach_as(s.h, reader::read, &s.memory);
    EXPECT_EQ(s.h->sh_compact->table, nullptr);
    EXPECT_EQ(set(s, KRV_OPT_EXT_CONSTANT_FRAMES, 0), 0);
    EXPECT_EQ(s.h->sh_compact, nullptr);
    handle none;
    korva_handle_set_opt(none, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
    EXPECT_EQ(korva_frames_prefill(none), -1);
    EXPECT_EQ(korva_handle_get_errno(none), KRV_ERR_NOTFOUND);
}

// Functions with the same instructions share their rows: shorter and longer ones, with rows far apart, and with damage that not all of
// them reach.
TEST(Stack, SharedInstructions)
{
    const auto advance = [](uint32_t size) { return op(DW_CFA_advance_loc4).u32(size); };
    const auto offset = [](uint64_t size) { return op(DW_CFA_def_cfa_offset).uleb(size); };
    const bytes near = op(DW_CFA_advance_loc, 4) + offset(16) + op(DW_CFA_advance_loc, 4) + offset(24);
    const bytes far = advance(4) + offset(16) + advance(0x18000) + offset(24) + advance(0x10000) + offset(32);
    const bytes damaged = advance(4) + offset(16) + advance(8) + op(DW_CFA_restore_state);
    const struct {
        uint64_t start, size;
        bytes rows;
    } functions[] = {
        {0x2000, 0x30000, far},  {0x1000, 0x20, near}, {0x1030, 6, near},       {0x1040, 0x40, near},
        {0x40000, 0x18010, far}, {0x1100, 8, damaged}, {0x1108, 0x20, damaged}, {0x1200, 2, far},
    };
    stopped plain({.rows = {}, .eh = true}), filled({.rows = {}, .eh = true});
    bytes section = eh_cie{.instructions = op(DW_CFA_def_cfa).uleb(7).uleb(8) + op(DW_CFA_offset, 16).uleb(1)}.build();
    for (const auto &f : functions)
        section += eh_fde{.cie = eh_frame_address, .address = f.start, .range = f.size, .instructions = f.rows}.build(
            eh_frame_address + section.size());
    for (stopped *s : {&plain, &filled}) {
        bytes words;
        for (unsigned n = 1; n <= 16; ++n)
            words.u64(0x1101 * n);
        s->memory.contents = words.fill(eh_frame_address - stack_address - words.size()).add(section).u32(0);
    }
    korva_handle_set_opt(filled.h, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
    ASSERT_EQ(korva_frames_prefill(filled.h), 0) << filled.h.error();
    EXPECT_LT(filled.h->sh_compact->table->nrows, 40U);
    frame(plain, 1, 17); // what is said of the end of the section is said once
    for (const auto &f : functions)
        for (const uint64_t behind :
             {uint64_t{0}, uint64_t{3}, uint64_t{4}, uint64_t{7}, uint64_t{8}, uint64_t{12}, uint64_t{0x18003},
              uint64_t{0x18004}, uint64_t{0x28003}, uint64_t{0x28004}, f.size - 1, f.size}) {
            const uint64_t pc = f.start + behind;
            EXPECT_EQ(frame(filled, pc, 17), frame(plain, pc, 17)) << std::hex << pc;
        }
}

// A table reaches 4 GiB; what lies behind is asked of the records.
TEST(Stack, BeyondTheTable)
{
    function f{.rows = op(DW_CFA_advance_loc, 8) + op(DW_CFA_def_cfa_offset).uleb(16),
               .size = (uint64_t{1} << 32) + 64};
    f.initial = op(DW_CFA_def_cfa).uleb(7).uleb(8) + op(DW_CFA_offset, 16).uleb(1);
    stopped plain(f), filled(f);
    korva_handle_set_opt(filled.h, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
    ASSERT_EQ(korva_frames_prefill(filled.h), 0) << filled.h.error();
    for (const uint64_t pc : {f.start, f.start + 8, f.start + UINT32_MAX, f.start + f.size - 1})
        EXPECT_EQ(frame(filled, pc, 17), frame(plain, pc, 17)) << std::hex << pc;
}
