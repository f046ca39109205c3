// SPDX-License-Identifier: Apache-2.0
//
// The caller's frame, walks over a stack, and arguments.
#include "krv_unwind.h"
#include "support/activation.h"

#include <algorithm>
#include <cstring>
#include <random>

using namespace krv_test;

namespace
{

constexpr auto DWARF = KRV_ACTIVATION_REG_DWARF, LIBRARY = KRV_ACTIVATION_REG_LIBRARY;
constexpr auto CURRENT = KRV_ACTIVATION_FRAME_CURRENT, CALLER = KRV_ACTIVATION_FRAME_CALLER;

bytes block(const bytes &expression)
{
    return bytes().block_uleb(expression);
}

// CFA = stack pointer + 5 words, the return address in word 4 of the stack: 0x5505.
function framed(krv_activation_type_t target, const bytes &more = {}, bool eh = false)
{
    const bool wide = target == KRV_ACTIVATION_AMD64;
    function f{.target = target, .column = wide ? 16U : 8U, .eh = eh};
    f.initial =
        op(DW_CFA_def_cfa).uleb(wide ? 7 : 4).uleb(5 * f.word()).add(op(DW_CFA_offset, f.column).uleb(1)).add(more);
    return f;
}

} // namespace

// Register 3 (%rbx, %ebx) of the caller by every kind of rule. The CFA is 0x7000 and five words.
TEST(Unwind, Rules)
{
    const bytes sixteen_back = block(op(DW_OP_lit16) + op(DW_OP_minus)); // from the CFA
    const struct {
        bytes rule;
        const char *amd64, *i386; // register 3 of the caller
        bool needs_cfa;           // without it: no value
    } rows[] = {
        {{}, "33", "", false}, // the defaults of the two
        {op(DW_CFA_undefined).uleb(3), "", "", false},
        {op(DW_CFA_same_value).uleb(3), "33", "33", false},
        {op(DW_CFA_offset, 3).uleb(2), "4404", "4404", true},
        {op(DW_CFA_offset_extended_sf).uleb(3).sleb(-1), "7707", "7707", true},
        {op(DW_CFA_val_offset).uleb(3).uleb(2), "7018", "700c", true},
        {op(DW_CFA_register).uleb(3).uleb(0), "deadbeef00000010", "10", false},
        {op(DW_CFA_register).uleb(3).uleb(1), "", "", false},  // has no value
        {op(DW_CFA_register).uleb(3).uleb(46), "", "", false}, // nor has %mm5, and 32-bit x86 has no 46
        {op(DW_CFA_register).uleb(3).uleb(40), "f1f1f1f1f1f1f1f1", "f1f1f1f1", false}, // %st7, %es
        {op(DW_CFA_expression).uleb(3) + sixteen_back, "4404", "2202", true},
        {op(DW_CFA_val_expression).uleb(3) + sixteen_back, "7018", "7004", true},
    };
    for (const auto &row : rows)
        for (const krv_activation_type_t target : both_targets)
            for (const bool has_cfa : {true, false}) {
                SCOPED_TRACE(text("row %d, target %d, CFA %d", static_cast<int>(&row - rows), target, has_cfa));
                stopped s(framed(target, row.rule));
                if (!has_cfa)
                    korva_activation_reset(s.h, s.ap.get());
                s.load_pc(0x1000);
                s.load(3, 0x33);
                s.load(0, 0xdeadbeef00000010);
                s.load(40, 0xf1f1f1f1f1f1f1f1);
                const bool wide = target == KRV_ACTIVATION_AMD64;
                const std::string cfa = wide ? "7028" : "7014", absent = "NOTFOUND: register not present ";
                const std::string expected = row.needs_cfa && !has_cfa ? "" : wide ? row.amd64 : row.i386;
                s.caller(3); // of a frame without CFA the first answer also tells why
                EXPECT_EQ(s.caller(3), expected.empty() ? absent + "(3)" : expected);
                EXPECT_EQ(s.caller_pc(), has_cfa ? "5505" : absent + "(1)");
                EXPECT_EQ(s.caller(wide ? 7 : 4), has_cfa ? cfa : absent + (wide ? "(7)" : "(4)"));
                EXPECT_EQ(s.get(CURRENT, LIBRARY, KRV_REG_CFA), has_cfa ? cfa : absent + "(0)");
                EXPECT_EQ(s.get(CALLER, LIBRARY, KRV_REG_CFA), absent + "(0)");
            }
}

TEST(Unwind, Widths)
{
    // Registers wider and narrower than a word, and one without storage, for which nothing is read.
    stopped s(framed(KRV_ACTIVATION_AMD64, op(DW_CFA_offset, 17).uleb(3) + op(DW_CFA_val_offset).uleb(18).uleb(1) +
                                               op(DW_CFA_offset_extended).uleb(65).uleb(3) +
                                               op(DW_CFA_offset, 62).uleb(9999) +
                                               op(DW_CFA_register).uleb(19).uleb(2)));
    s.load(2, 5);
    s.load(0, 7); // lies behind it, and is what a wider register then holds in its upper half
    const std::pair<unsigned int, const char *> wide[] = {
        {17, "3303 4404"}, {18, "7020 0"}, {19, "5 7"}, {65, "3303 1"}};
    for (const auto &[reg, expected] : wide) {
        uint64_t halves[2] = {0, 1};
        EXPECT_EQ(korva_activation_get_reg(s.h, s.ap.get(), DWARF, CALLER, reg, halves, 16), 0);
        EXPECT_EQ(text("%lx %lx", halves[0], halves[1]), expected);
    }
    EXPECT_EQ(s.caller(62), "0");
    stopped narrow({.initial = op(DW_CFA_def_cfa).uleb(7).uleb(40) + op(DW_CFA_offset_extended).uleb(65).uleb(3) +
                               op(DW_CFA_offset_extended).uleb(66).uleb(1),
                    .column = 65}); // %fcw, before %fsw
    EXPECT_EQ(narrow.caller_pc(), "55053303");

    // Addresses of 32-bit x86 wrap at 4 bytes: CFA = 0xfffffffc + 0x14, and 4 - 8.
    const bytes saved = op(DW_CFA_offset, 3).uleb(2);
    function f = framed(KRV_ACTIVATION_I386, saved);
    stopped high(f);
    high.load(4, 0xfffffffc);
    high.memory.base = 0;
    EXPECT_EQ(high.caller(4) + " " + high.caller(3), "10 3303");
    f.initial = op(DW_CFA_def_cfa_sf).uleb(4).sleb(2) + saved;
    stopped low(f);
    low.load(4, 4);
    low.memory.base = 0xfffffff4;
    EXPECT_EQ(low.caller(4) + " " + low.caller(3), "fffffffc 1101");
}

TEST(Unwind, Cfa)
{
    const auto cfa = [](const bytes &instructions) {
        stopped s({.initial = instructions, .column = 3}); // %rbx stays
        s.load(3, 0x44);
        const std::string rsp = s.caller(7);
        return rsp == "NOTFOUND: register not present (7)" ? s.caller_pc() : rsp;
    };
    EXPECT_EQ(cfa({}), "44"); // none: the frame is there all the same
    EXPECT_EQ(cfa(op(DW_CFA_def_cfa_sf).uleb(7).sleb(1)), "6ff8");
    EXPECT_EQ(cfa(op(DW_CFA_def_cfa_expression) + block(op(DW_OP_breg7).sleb(16) + op(DW_OP_deref))), "3303");
    EXPECT_EQ(cfa(op(DW_CFA_def_cfa).uleb(56).uleb(8)), "INVALID: DWARF register 56 is undefined");
    EXPECT_EQ(cfa(op(DW_CFA_def_cfa_expression) + block({})),
              "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining | error decoding first instruction | "
              "couldn't execute CFA expression");
    EXPECT_EQ(cfa(op(DW_CFA_def_cfa_expression) + block(op(DW_OP_nop))),
              "INVALID: stack is empty | unable to retrieve CFA expression result");
    EXPECT_EQ(cfa(op(DW_CFA_def_cfa_expression) + block(op(DW_OP_call_frame_cfa))),
              "EVAL: instruction not valid for CFI expressions | error executing instruction 0x9c "
              "(DW_OP_call_frame_cfa) at offset 15 | couldn't execute CFA expression");
}

// Every outcome is remembered until the current frame changes, and a failure told once.
TEST(Unwind, Outcomes)
{
    using spoiler = void (*)(stopped &);
    const auto more = [](const bytes &instructions) { return framed(KRV_ACTIVATION_AMD64, instructions); };
    const auto value = [&](const bytes &e) { return more(op(DW_CFA_val_expression).uleb(3) + block(e)); };
    const spoiler none = [](stopped &) {};
    const spoiler no_as = [](stopped &s) { s.h->sh_as = {}; };
    const spoiler no_pc = [](stopped &s) { korva_activation_reset(s.h, s.ap.get()); };
    const spoiler far_pc = [](stopped &s) { s.load_pc(0x1100); };
    const spoiler short_read = [](stopped &s) { s.memory.kind = fault::short_, s.memory.fault_at = 1; };
    const spoiler no_stack = [](stopped &s) {
        korva_handle_set_opt(s.h, KRV_OPT_EXPR_STACK_SIZE, 0UL);
        s.ap.reset(korva_activation_alloc(s.h));
        s.load(7, stack_address);
        s.load_pc(0x1000);
    };
    const spoiler bad_rule = [](stopped &s) { s.ap->sa_default[3].desc = KRV_CFA_RULE_MAX; };
    const spoiler bad_cfa = [](stopped &s) { s.ap->sa_default[68].desc = KRV_CFA_RULE_OFFSET; };
    function bogus = more({}), undefined = more({}), empty = more({});
    bogus.column = 200;
    undefined.column = 56;
    empty.start = empty.size = 0; // its end, 0 + 0 - 1, is no address at all
    const struct {
        function f;
        spoiler spoil;
        const char *expected;
    } rows[] = {
        {more({}), no_as, "UNSUPPORTED: no as read callback found"},
        {more({}), no_pc, "NOTFOUND: register not present (1) | unable to get PC\n"},
        {more({}), far_pc, "NOTFOUND: unable to get FDE for PC 0x1100"},
        {empty, none, "NOTFOUND: unable to get FDE for PC 0x0"},
        {bogus, none, "CORRUPT: CIE provides bogus RAR (200)"},
        {undefined, none, "CORRUPT: CIE provides bogus RAR (56)"},
        {more(op(DW_CFA_offset, 3).uleb(6)), none, "IO: error in AS-read call back"},
        {more({}), short_read, "IO: error in AS-read call back"},
        {more(op(DW_CFA_expression).uleb(3) + block(op(DW_OP_lit0))), none, "IO: error in AS-read call back"},
        {value(op(DW_OP_drop)), none, "INVALID: stack is empty | unable to retrieve expression result for register 3"},
        {value(op(DW_OP_drop) + op(DW_OP_drop)), none,
         "CORRUPT: stack underflow | error executing instruction 0x13 (DW_OP_drop) at offset 22 | couldn't execute "
         "expression for register 3\n"},
        {value(op(DW_OP_nop)), no_stack, "NOSPACE: stack overflow | couldn't push CFA"},
        {more({}), bad_rule, "UNSUPPORTED: unsupported register rule (8)"},
        {{}, bad_cfa, "UNSUPPORTED: unsupported CFA rule (2)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.expected);
        stopped s(row.f);
        row.spoil(s);
        EXPECT_EQ(s.caller(3), row.expected);
        const unsigned int reads = s.memory.reads;
        EXPECT_EQ(s.caller(3), "NONE");
        EXPECT_TRUE(refuses(s.h, korva_activation_unwind(s.h, s.ap.get()), "NONE"));
        EXPECT_EQ(s.memory.reads, reads);
        s.load(0, 0); // a change: tried again
        EXPECT_NE(s.caller(3), "NONE");
    }
    stopped good(more({}));
    for (const unsigned int reads : {1U, 2U}) {
        EXPECT_EQ(good.caller_pc() + " " + good.caller(7), "5505 7028");
        EXPECT_EQ(good.memory.reads, reads);
        good.load(0, 0);
    }
    const krv_gregset_t set = {}; // without a stack pointer there is no CFA, whatever it was before
    EXPECT_EQ(korva_activation_set_regs(good.h, good.ap.get(), set, 0, nullptr), 0);
    good.caller(3);
    EXPECT_EQ(good.get(CURRENT, LIBRARY, KRV_REG_CFA), "NOTFOUND: register not present (0)");
}

// The expressions of a frame share a million instructions; those of a walk what its client grants.
TEST(Unwind, Budget)
{
    const auto count_down = [](uint32_t from) { // executes 1 + 4 * from instructions
        return op(DW_OP_const4u).u32(from) + op(DW_OP_lit1) + op(DW_OP_minus) + op(DW_OP_dup) +
               op(DW_OP_bra).u16(0xfffa);
    };
    const auto value = [](uint64_t reg, const bytes &e) { return op(DW_CFA_val_expression).uleb(reg) + block(e); };
    const std::string spent = "EVAL: expression has no instructions left | error executing instruction 0x";
    stopped frame(framed(KRV_ACTIVATION_AMD64, value(3, count_down(150000)) + value(6, count_down(150000))));
    EXPECT_TRUE(frame.caller(3).starts_with(spent));
    stopped one(framed(KRV_ACTIVATION_AMD64, value(3, count_down(300000))));
    EXPECT_TRUE(one.caller(3).starts_with("EVAL: expression exceeds 1000000 instructions | "));

    stopped s(framed(KRV_ACTIVATION_AMD64, value(3, count_down(10)) + value(6, count_down(1))));
    uint64_t left = 100;
    EXPECT_EQ(korva_activation_set_budget(s.h, s.ap.get(), &left), 0);
    std::string walk;
    for (int n = 0; n < 3; ++n, s.load(0, 0)) { // each computes the frame again
        walk += s.caller(3).substr(0, spent.size());
        walk += text(", %lu left; ", left);
    }
    EXPECT_EQ(walk, "0, 54 left; 0, 8 left; " + spent + ", 0 left; ");
    EXPECT_EQ(korva_activation_set_budget(s.h, s.ap.get(), nullptr), 0);
    EXPECT_EQ(s.caller(3), "0");
    EXPECT_EQ(korva_activation_set_budget(s.h, nullptr, &left), -1);
    EXPECT_EQ(s.h.error(), "INVALID");
}

// Three frames of one function that calls itself, saving the frame pointer: words 0 and 1 of each frame.
TEST(Unwind, Walk)
{
    for (const krv_activation_type_t target : both_targets)
        for (const bool eh : {false, true}) {
            SCOPED_TRACE(text("target %d, %s", target, eh ? ".eh_frame" : ".debug_frame"));
            const bool wide = target == KRV_ACTIVATION_AMD64;
            const unsigned int sp = wide ? 7 : 4, fp = wide ? 6 : 5;
            function f{.target = target, .column = wide ? 16U : 8U, .eh = eh};
            const auto w = static_cast<unsigned int>(f.word());
            f.initial = op(DW_CFA_def_cfa).uleb(sp).uleb(2 * w) + op(DW_CFA_offset, f.column).uleb(1) +
                        op(DW_CFA_offset, fp).uleb(2);
            stopped s(f);
            const uint64_t words[] = {0x7111, 0x1020, 0x7222, 0x1030, 0x7333, 0x2000};
            for (size_t i = 0; i < std::size(words); ++i)
                s.memory.contents.set(i * w, words[i], w);
            krv_gregset_t first; // %rax, %eax and the trap number, of which no rule speaks, are of this frame only
            std::fill(std::begin(first), std::end(first), 0x99);
            first[KRV_HOST_RSP] = first[KRV_HOST_RBP] = 0x7000;
            korva_activation_set_regs(s.h, s.ap.get(), first, UINT64_MAX, nullptr);
            std::string walk;
            do {
                krv_gregset_t set;
                uint64_t mask = 0;
                ASSERT_EQ(korva_activation_get_gregs(s.h, s.ap.get(), CURRENT, &set, &mask), 0);
                EXPECT_EQ(mask >> KRV_HOST_RBP & 1, 1U);
                EXPECT_EQ(mask >> KRV_HOST_RAX & 1, walk.empty() ? 1U : 0U);
                EXPECT_EQ(set[KRV_HOST_RAX], walk.empty() ? 0x99 : 0);
                EXPECT_EQ(set[KRV_HOST_TRAPNO], set[KRV_HOST_RAX]);
                walk += s.get(CURRENT, LIBRARY, KRV_REG_PC) +
                        text(" %lx %lx; ", set[KRV_HOST_RSP] - 0x7000, set[KRV_HOST_RBP]);
            } while (korva_activation_unwind(s.h, s.ap.get()) == 0);
            EXPECT_EQ(walk, text("1000 0 7000; 1020 %x 7111; 1030 %x 7222; 2000 %x 7333; ", 2 * w, 4 * w, 6 * w));
            EXPECT_EQ(s.get(CURRENT, LIBRARY, KRV_REG_PC), "2000"); // the last frame stays
            EXPECT_EQ(s.memory.strayed, false);
        }
}

// A CIE is taken for that of the query before only if its bytes, read again, are the same.
TEST(Unwind, RecordsAreReadAfresh)
{
    stopped s(framed(KRV_ACTIVATION_AMD64, {}, true));
    const size_t cie = eh_frame_address - stack_address, version = cie + 8, cfa_offset = cie + 19;
    const std::string damaged = "CORRUPT: illegal Version (3) | failed to read CIE at address 0x9000 in .eh_frame";
    const struct {
        size_t at;
        uint64_t byte;
        std::string expected; // the caller's stack pointer, or the beginning of the error
    } rows[] = {{cfa_offset, 40, "7028"}, {cfa_offset, 40, "7028"},   {cfa_offset, 16, "7010"}, {version, 3, damaged},
                {version, 1, "7010"},     {cie, 0xff, "UNSUPPORTED"}, {cie, 20, "7010"},        {cie, 0, "CORRUPT"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        s.memory.contents.set(row.at, row.byte, 1);
        s.load(0, 0); // a change: evaluated again
        const std::string found = s.caller(7);
        EXPECT_TRUE(found.starts_with(row.expected)) << found;
    }
}

// What the rules at a program counter are, or the error.
static std::string rules_at(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc)
{
    uint64_t column = 0;
    if (krv_generate_rules(hp, ap, pc, &column) != 0)
        return error_line(hp);
    std::string all = text("%lx+%lx r%lu", ap->sa_function.start, ap->sa_function.size, column);
    for (unsigned slot = 0; slot < ap->sa_n_registers; ++slot) {
        const krv_cfarule_t &rule = ap->sa_current[slot];
        const bool is_expression = rule.desc == KRV_CFA_RULE_EXPRESSION || rule.desc == KRV_CFA_RULE_VAL_EXPRESSION;
        all += text(" %d/%lx/%lx", rule.desc, rule.arg, is_expression ? rule.offset : 0);
    }
    return all;
}

// Instructions that were seen before, beside a handle that learns nothing, since it is watched: of random functions, some
// with the same ones, of two CIEs, also where addresses wrap, and when a byte changes.
TEST(Unwind, KnownRows)
{
    std::mt19937_64 random(17);
    const bytes pool[] = {op(DW_CFA_advance_loc, 4),
                          op(DW_CFA_advance_loc1).u8(9),
                          op(DW_CFA_advance_loc2).u16(30),
                          op(DW_CFA_advance_loc4).u32(20),
                          op(DW_CFA_def_cfa).uleb(6).uleb(16),
                          op(DW_CFA_def_cfa_offset).uleb(48),
                          op(DW_CFA_offset, 6).uleb(2),
                          op(DW_CFA_offset, 3).uleb(3),
                          op(DW_CFA_restore, 3),
                          op(DW_CFA_remember_state),
                          op(DW_CFA_same_value).uleb(12),
                          op(DW_CFA_restore_state), // from here on with errors, or not to be kept
                          op(DW_CFA_val_offset).uleb(3).uleb(1),
                          op(DW_CFA_val_expression).uleb(3) + block(op(DW_OP_lit1)),
                          op(DW_CFA_set_loc).u32(40),
                          op(DW_CFA_offset_extended).uleb(99).uleb(1)};
    constexpr unsigned FUNCTIONS = 24;
    for (int round = 0; round < 60; ++round) {
        reader memory{.contents = {}, .base = eh_frame_address};
        bytes programs[4];
        for (bytes &program : programs)
            for (size_t n = random() % 12; n > 0; --n)
                program += pool[random() % (random() % 4 == 0 ? std::size(pool) : 11)];
        uint64_t starts[FUNCTIONS], parent = 0;
        for (unsigned i = 0; i < FUNCTIONS; ++i) {
            const bool is_second = i >= FUNCTIONS / 2, is_high = is_second && i % 2 == 0;
            const uint8_t encoding = is_second ? DW_EH_PE_absptr : DW_EH_PE_pcrel | DW_EH_PE_sdata4;
            if (i % (FUNCTIONS / 2) == 0) {
                parent = eh_frame_address + memory.contents.size();
                memory.contents += eh_cie{.code_align = is_second && random() % 4 == 0 ? UINT64_MAX : 1,
                                          .data = bytes().u8(encoding),
                                          .instructions = op(DW_CFA_def_cfa).uleb(7).uleb(is_second ? 16 : 8)}
                                       .build();
            }
            starts[i] = is_high ? 0 - 0x40 * uint64_t{FUNCTIONS - i} : 0x1000 + 0x80 * i;
            memory.contents += eh_fde{.cie = parent,
                                      .address = starts[i],
                                      .range = 1 + random() % (is_high ? 0x3f : 0x7f),
                                      .encoding = encoding,
                                      .instructions = programs[random() % std::size(programs)]}
                                   .build(eh_frame_address + memory.contents.size());
        }
        memory.contents.u32(0);
        handle learning, watched;
        watched.watch();
        for (handle *h : {&learning, &watched}) {
            korva_handle_set_opt(*h, KRV_OPT_EH_FRAME_ADDR, eh_frame_address);
            korva_attach_as(*h, reader::read, &memory);
        }
        const krv_activation_owner one(korva_activation_alloc(learning)), other(korva_activation_alloc(watched));
        for (unsigned query = 0; query < 300; ++query) {
            if (query > 200 && query % 10 == 0)
                memory.contents.set(random() % memory.contents.size(), random() % 256, 1);
            const uint64_t pc = starts[random() % FUNCTIONS] + random() % 0x60;
            ASSERT_EQ(rules_at(learning, one.get(), pc), rules_at(watched, other.get(), pc)) << round << " " << query;
        }
        const auto *reader = krv_get_reader(learning);
        EXPECT_TRUE(reader->sr_known != nullptr && krv_get_reader(watched)->sr_known == nullptr);
    }
}

// A read that fails once fails the frame: the next read does not make up for it, however much one call reads.
TEST(Unwind, OneReadFails)
{
    for (const fault kind : {fault::fails, fault::short_})
        for (const size_t padding : {0, 300}) // instructions that are read with their record, and by themselves
            for (unsigned n = 1, met = 1; met != 0; ++n) {
                SCOPED_TRACE(text("padding %zu, read %u", padding, n));
                function f = framed(KRV_ACTIVATION_AMD64, bytes().fill(padding), true);
                f.rows.fill(padding);
                stopped s(f);
                EXPECT_EQ(s.caller(7), "7028"); // the table of all FDEs is there
                s.load(0, 0);
                s.memory.kind = kind;
                s.memory.fault_at = s.memory.reads + n;
                const std::string found = s.caller(7);
                met = s.memory.reads >= s.memory.fault_at;
                EXPECT_EQ(found.substr(0, 4), met != 0 ? "IO: " : "7028") << found;
                EXPECT_TRUE(met != 0 || n > (padding == 0 ? 3 : 8));
            }
}

TEST(Unwind, Arguments)
{
    const auto arg = [](unsigned int n, const bytes &location) {
        return op(DW_CFA_VESK_arg_loc).uleb(n) + block(location);
    };
    function f = framed(KRV_ACTIVATION_AMD64);
    f.initial += op(DW_CFA_same_value).uleb(5) + arg(1, op(DW_OP_reg5)) + arg(3, op(DW_OP_breg7).sleb(8)) +
                 arg(4, op(DW_OP_fbreg).sleb(-16)) + arg(5, op(DW_OP_lit5) + op(DW_OP_stack_value)) +
                 arg(6, op(DW_OP_reg5) + op(DW_OP_piece).uleb(2) + op(DW_OP_piece).uleb(2)) +
                 arg(7, op(DW_OP_implicit_value) + block(bytes::hex("0a0b0c")));
    const struct {
        unsigned int n;
        bool fp; // whether the frame pointer has a value
        uint64_t size;
        const char *expected, *error;
    } rows[] = {
        {1, true, 8, "8877665544332211 ffffffffffffffff ffffffffffffffff", "NONE"},
        {1, true, 3, "332211 ffffff ffffff", "NONE"},
        {3, true, 4, "00007707 ffffffff 00000000", "NONE"}, // the caller's %rsp is the CFA
        {4, true, 8, "0000000000003303 ffffffffffffffff 0000000000000000", "NONE"},
        {4, false, 8, "unchanged",
         "IO: no DW_OP_fbreg substitution available | error executing instruction 0x91 (DW_OP_fbreg) at offset 32 | "
         "error executing location description | failed to obtain argument 4"},
        {5, true, 8, "0000000000000005 ffffffffffffffff 0000000000000000", "NONE"},
        {5, true, 4, "00000005 ffffffff 00000000",
         "NOSPACE: error executing instruction 0x9f (DW_OP_stack_value) at offset 38 | error executing location "
         "description | failed to obtain argument 5"},
        {6, true, 8, "????2211 0000ffff 0000ffff", "NONE"},
        {7, true, 3, "0c0b0a ffffff 000000", "NONE"},
        {2, true, 8, "unchanged",
         "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining | error decoding first instruction | error "
         "executing location description | failed to obtain argument 2"},
        {0, true, 8, "unchanged", "INVALID: 7 arguments available: argument 0 requested | failed to obtain argument 0"},
        {8, true, 8, "unchanged", "INVALID: 7 arguments available: argument 8 requested | failed to obtain argument 8"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(text("argument %u into %d bytes", row.n, static_cast<int>(row.size)));
        stopped s(f);
        s.load(5, 0x8877665544332211);
        if (row.fp)
            s.load(6, 0x7020);
        unsigned int argc = 0;
        EXPECT_EQ(korva_activation_get_argc(s.h, s.ap.get(), &argc), 0);
        EXPECT_EQ(argc, 7U);
        uint8_t out[3][9];
        std::memset(out, '?', sizeof(out));
        constexpr uint64_t unchanged = 99;
        uint64_t count = unchanged;
        const bool good = std::string(row.error) == "NONE";
        EXPECT_EQ(korva_activation_get_argv(s.h, s.ap.get(), row.n, out[0], out[1], out[2], row.size, &count),
                  good ? 0 : -1);
        EXPECT_EQ(s.h.error(), row.error);
        std::string found = "unchanged";
        if (count != unchanged) {
            found.clear();
            for (const auto &part : out) {
                for (uint64_t i = count; i-- > 0;)
                    found += part[i] == '?' ? "??" : text("%02x", part[i]);
                found += ' ';
            }
            found.pop_back();
        }
        EXPECT_EQ(found, row.expected);
        for (const auto &part : out)
            EXPECT_EQ(part[row.size], '?') << "wrote past the room";
    }

    stopped s(framed(KRV_ACTIVATION_AMD64));
    s.ap->sa_args.sa_argc = 7; // left by another function
    uint8_t byte = 0;
    uint64_t count = 0;
    EXPECT_TRUE(refuses(s.h, korva_activation_get_argv(s.h, s.ap.get(), 1, &byte, &byte, &byte, 1, &count),
                        "INVALID: 0 arguments available: argument 1 requested | failed to obtain argument 1"));
    s.load_pc(0x500);
    EXPECT_TRUE(refuses(s.h, korva_activation_get_argv(s.h, s.ap.get(), 1, &byte, &byte, &byte, 1, &count),
                        "NOTFOUND: unable to get FDE for PC 0x500 | unable to evaluate the activation's "
                        "instructions | failed to obtain argument 1"));
    unsigned int argc = 7;
    EXPECT_TRUE(korva_activation_get_argc(s.h, s.ap.get(), &argc) == -1 && argc == 7);
}
