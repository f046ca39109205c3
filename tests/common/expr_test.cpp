// SPDX-License-Identifier: Apache-2.0
//
// Expressions: the stack, the walk over instructions, and evaluation, of every operation on both targets.
#include "krv_dwarf.h"
#include "krv_fd.h"
#include "krv_names.h"
#include "support/activation.h"

#include <sstream>

using namespace krv_test;

using values = std::vector<uint64_t>; // a stack, bottom first

namespace
{

// An expression as text: names without DW_OP_, and bytes. "const1s -1 neg bra 3 0"
struct code : bytes {
    code(const char *words)
    {
        std::istringstream in(words);
        for (std::string word; in >> word;)
            u8(std::isalpha(word[0]) != 0 ? opcode(word) : static_cast<uint64_t>(std::stoll(word, nullptr, 0)));
    }
    code(const bytes &raw) : bytes(raw) {}

    static uint64_t opcode(const std::string &name)
    {
        for (unsigned op = 0; op <= DW_OP_stack_value; ++op)
            if ("DW_OP_" + name == krv_name_or_unknown(KRV_DEF_OP, op))
                return op;
        ADD_FAILURE() << "no operation " << name;
        return 0;
    }
};

constexpr krv_activation_type_t I386 = KRV_ACTIVATION_I386, AMD64 = KRV_ACTIVATION_AMD64;
constexpr unsigned BASE = 0x1000; // of the target's memory, whose byte at BASE + n is 0x80 + n
constexpr size_t LEAD = 3;        // bytes before the expression in its cursor; others lie behind it

struct stack_deleter {
    void operator()(krv_exprstack_t *esp) const { korva_expr_free_stack(esp); }
};
using stack_owner = std::unique_ptr<krv_exprstack_t, stack_deleter>;

// A target whose general register n holds BASE + n, except register 6, which has no value.
struct machine {
    explicit machine(krv_activation_type_t target, unsigned long capacity = 256)
        : h(target), size(h->sh_target_size), xmm0(size == 4 ? 21 : 17)
    {
        for (unsigned i = 0; i < 64; ++i)
            memory.contents.u8(0x80 + i);
        korva_attach_as(h, reader::read, &memory);
        korva_handle_set_opt(h, KRV_OPT_EXPR_STACK_SIZE, capacity);
        ap.reset(korva_activation_alloc(h));
        stack.reset(korva_expr_alloc_stack(h));
        for (unsigned n = 0; n < 10; ++n)
            if (n != 6)
                korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_DWARF, n, BASE + n);
        korva_activation_set_reg(h, ap.get(), KRV_ACTIVATION_REG_DWARF, xmm0, memory.contents.data());
        korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_CFA, 0x7f0);
    }

    // The stack afterwards, or the error state.
    std::string run(const code &expr, const values &initial = {}, uint32_t flags = 0, krv_fd_t **outputs = nullptr,
                    krv_expr_cb_f *func = nullptr, void *arg = nullptr)
    {
        fd = h.cursor(bytes().fill(LEAD, DW_OP_lit9).add(expr).fill(2, DW_OP_lit9));
        EXPECT_EQ(korva_fd_seek(&fd, LEAD, KRV_FD_SEEK_SET) | korva_fd_truncate(&fd, expr.size()), 0);
        korva_expr_reset_stack(h, stack.get());
        for (const uint64_t value : initial)
            EXPECT_EQ(korva_expr_stack_push(h, stack.get(), value), 0);
        if (korva_expr_execute_expression(h, stack.get(), ap.get(), &fd, flags, outputs, func, arg) != 0)
            return h.error();
        return contents();
    }

    std::string contents() const
    {
        uint64_t depth = 0, value = 0;
        EXPECT_EQ(korva_expr_get_stack_depth(h, stack.get(), &depth), 0);
        values list;
        for (; depth > 0 && korva_expr_stack_peek(h, stack.get(), depth - 1, &value) == 0; --depth)
            list.push_back(value);
        return dump(list);
    }

    // Numbers as text, as the target sees them; and as contents() shows them.
    values numbers(const std::string &line) const
    {
        const uint64_t mask = size == 4 ? UINT32_MAX : UINT64_MAX;
        values list;
        std::istringstream in(line);
        for (std::string word; in >> word;)
            list.push_back(mask & (word == "min" ? mask / 2 + 1 : std::strtoull(word.c_str(), nullptr, 0)));
        return list;
    }
    static std::string dump(const values &list)
    {
        std::string line;
        for (const uint64_t value : list)
            line += text("%lx ", value);
        return line;
    }

    reader memory{.contents = {}, .base = BASE};
    handle h;
    size_t size; // of an address
    unsigned xmm0;
    krv_activation_owner ap;
    stack_owner stack;
    krv_fd_t fd = {};
};

} // namespace

// The error state of a failure at the instruction that stands at `at`: code, messages, and the summary.
static std::string failure(const code &expr, size_t at, const std::string &error)
{
    const unsigned op = expr.data()[at];
    return error + (error.back() == ':' ? "" : " |") +
           text(" error executing instruction 0x%x (%s) at offset %zu", op, krv_name_or_unknown(KRV_DEF_OP, op),
                LEAD + at);
}

TEST(Expr, Stack)
{
    handle h(I386);
    stack_owner stacks[3];
    for (unsigned i = 0; const unsigned capacity : {256, 0, 3}) {
        stacks[i].reset(korva_expr_alloc_stack(h));
        korva_handle_set_opt(h, KRV_OPT_EXPR_STACK_SIZE, i == 0 ? 0UL : 3UL); // of the next
        unsigned count = 0;
        while (korva_expr_stack_push(h, stacks[i].get(), (uint64_t{1} << 32) + 10 * (count + 1)) == 0)
            ++count;
        EXPECT_EQ(count, capacity);
        EXPECT_EQ(h.error(), "NOSPACE: stack overflow");
        ++i;
    }
    krv_exprstack_t *esp = stacks[2].get();
    uint64_t value = 77;
    EXPECT_TRUE(
        refuses(h, korva_expr_stack_peek(h, esp, 3, &value), "INVALID: can't peek element 3 in 3-element stack"));
    EXPECT_TRUE(korva_expr_stack_peek(h, esp, 2, &value) == 0 && value == 10); // cut to 32 bits
    EXPECT_TRUE(korva_expr_stack_peek(h, esp, 0, &value) == 0 && value == 30);
    EXPECT_TRUE(korva_expr_stack_pop(h, esp, &value) == 0 && value == 30);
    EXPECT_TRUE(korva_expr_get_stack_depth(h, esp, &value) == 0 && value == 2);
    EXPECT_EQ(korva_expr_reset_stack(h, esp) | korva_expr_reset_stack(h, esp), 0);
    EXPECT_TRUE(korva_expr_stack_peek(h, esp, 0, &value) == -1 && h.error() == "INVALID: stack is empty");
    EXPECT_TRUE(korva_expr_stack_pop(h, esp, &value) == -1 && h.error() == "INVALID: stack is empty");
    EXPECT_TRUE(korva_expr_get_stack_depth(h, esp, nullptr) == -1 && krv_errno(h) == KRV_ERR_INVALID);
    korva_handle_set_opt(h, KRV_OPT_EXPR_STACK_SIZE, UINT64_MAX / 4); // times 8 does not fit
    EXPECT_TRUE(korva_expr_alloc_stack(h) == nullptr && h.error() == "NOMEM");
}

// "OPCODE(value:size:encoding ...) ..." and the result when it is not 0, or the error state.
static std::string walk(handle &h, krv_fd_t *fdp, size_t stop_at = SIZE_MAX)
{
    std::pair<std::string, size_t> state{"", stop_at};
    const auto visitor = [](krv_handle_t *, uint8_t opcode, krv_operand_t *operands, unsigned n, void *arg) {
        auto &[line, left] = *static_cast<std::pair<std::string, size_t> *>(arg);
        line += text("%x(", opcode);
        for (unsigned i = 0; i < n; ++i)
            line += text(i == 0 ? "%lld:%d:%d" : " %lld:%d:%d", static_cast<long long>(operands[i].sopt_operand),
                         static_cast<int>(operands[i].sopt_size), operands[i].sopt_encoding);
        line += ") ";
        return --left == 0 ? 7 : 0;
    };
    const int result = korva_expr_iter_instruction(h, fdp, KRV_EXPR_F_DWARF64, visitor, &state);
    return state.first + (result == 0 ? "" : result < 0 ? h.error() : text("result %d", result));
}

TEST(Expr, Walk)
{
    const std::pair<code, std::string> rows[] = {
        {"", ""},
        {"bregx 3 0x78", "92(3:8:7 -8:8:5) "},
        {"const1s -1 const1u -1", "9(-1:1:5) 8(255:1:7) "},
        {"const2s -1 -1 const2u -1 -1", "b(-1:2:5) a(65535:2:7) "},
        {"const4s -1 -1 -1 -1 const4u -1 -1 -1 -1", "d(-1:4:5) c(4294967295:4:7) "},
        {"const8s 2 0 0 0 0 0 0 0 const8u 3 0 0 0 0 0 0 0", "f(2:8:5) e(3:8:7) "},
        {"constu 0x80 1 consts 0x7f skip -3 -1", "10(128:8:7) 11(-1:8:5) 2f(-3:2:5) "},
        {"pick 1 fbreg 1 piece 4 regx 2", "15(1:1:7) 91(1:8:5) 93(4:8:7) 90(2:8:7) "},
        {"xderef_size call2 call4 call_ref bit_piece", "95() 98() 99() 9a() 9d() "},
        {"nop 0", "96() UNSUPPORTED: unsupported operation 0x0"},
        {"4", "UNSUPPORTED: unsupported operation 0x4"},
        {"0xa0", "UNSUPPORTED: unsupported operation 0xa0"},
        {"0xe0", "UNSUPPORTED: unsupported operation 0xe0"},
        {"implicit_value 2 1 2", "UNSUPPORTED: unexpected form"},
        {"implicit_value", "CORRUPT: DW_FORM_udata datum unterminated by end of section | "
                           "Failed to read block size for DW_FORM_block | error decoding operand 0"},
        {"bregx 3", "CORRUPT: DW_FORM_sdata datum unterminated by end of section | error decoding operand 1"},
    };
    const std::pair<code, std::string> extended[] = {
        {"0xa0 1 0 0 0 0 0 0 0 0x7f 0xf2 2 0 0 0 0 0 0 0 1", "a0(1:8:7 -1:8:5) f2(2:8:7 1:8:5) "},
        {"0xa1 5 0xa2 6 0xfb 7 0xfc 0x80 1", "a1(5:8:7) a2(6:8:7) fb(7:8:7) fc(128:8:7) "},
        {"0xa3 2 0x73 8 0xf3 1 0x53", "a3(2:0:7) f3(1:0:7) "},
        {"0xa4 0x30 2 1 2 0xf4 0x31 0", "a4(48:8:7 2:0:7) f4(49:8:7 0:0:7) "},
        {"0xa5 3 0x30 0xf5 3 0x30 0xa6 4 0x30 0xf6 4 0x30 0xa7 8 0x30",
         "a5(3:8:7 48:8:7) f5(3:8:7 48:8:7) a6(4:1:7 48:8:7) f6(4:1:7 48:8:7) a7(8:1:7 48:8:7) "},
        {"0xa8 0 0xa9 1 0xf7 2 0xf9 3 0xe0 0xf0", "a8(0:8:7) a9(1:8:7) f7(2:8:7) f9(3:8:7) e0() f0() "},
        {"0xfa 1 0 0 0 0xfd 9 0 0 0 0 0 0 0", "fa(1:4:7) fd(9:8:7) "},
        {"xderef_size 4 call2 1 0 call4 1 0 0 0 call_ref 7 0 0 0 0 0 0 0 bit_piece 3 4",
         "95(4:1:7) 98(1:2:7) 99(1:4:7) 9a(7:8:7) 9d(3:8:7 4:8:7) "},
        {"implicit_value 2 1 2", "9e(2:0:7) "},
        {"0xaa", "UNSUPPORTED: unsupported operation 0xaa"},
        {"0xa3 2 1", "CORRUPT: form DW_FORM_block requires 2 bytes for block;  1 remain | error decoding operand 0"},
    };
    for (const krv_activation_type_t target : both_targets) {
        handle h(target), h5(target);
        h5.extend(KRV_EXT_DWARF5);
        for (const auto &[expr, expected] : rows) {
            krv_fd_t fd = h.cursor(expr);
            EXPECT_EQ(walk(h, &fd), expected);
        }
        for (const auto &[expr, expected] : extended) {
            krv_fd_t fd = h5.cursor(expr);
            EXPECT_EQ(walk(h5, &fd), expected);
        }
        const unsigned size = h->sh_target_size;
        krv_fd_t fd = h.cursor(code("addr").uint(0x1234, size).add(code("dup drop")));
        EXPECT_EQ(walk(h, &fd, 2), text("3(4660:%u:7) 12() result 7", size));
        EXPECT_EQ(fd.sfd_offset, size + 2U); // just behind the instruction that stopped the walk
        reader broken{.contents = code("nop nop"), .kind = fault::fails, .fault_at = 2};
        fd = h.cursor(&broken);
        EXPECT_EQ(walk(h, &fd), "96() IO: read callback failed | error decoding instruction at offset &lld");
        EXPECT_EQ(korva_expr_iter_instruction(h, &fd, 0, nullptr, nullptr), -1);
        EXPECT_EQ(krv_errno(h), KRV_ERR_INVALID);
    }
}

namespace
{

// "what the instruction needs | instruction | what it leaves"; min is the most negative number of the target.
const char any_target[] = R"(
    |const1u -1| 255;  |const1s -1| -1;  |const2u -2 -1| 0xfffe;  |const2s -2 -1| -2;  |const4u -2 -1 -1 -1| 0xfffffffe;
    |const4s -2 -1 -1 -1| -2;  |const8u 1 2 3 4 5 6 7 8| 0x0807060504030201;  |const8s -3 -1 -1 -1 -1 -1 -1 -1| -3;
    |constu 0xe5 0x8e 0x26| 624485;  |consts 0xc0 0xbb 0x78| -123456;  |bregx 3 0x78| 0xffb;  |call_frame_cfa| 0x7f0;
    |bregx 0x83 0x80 0x80 0x80 0x10 1| 0x1004;  7 |dup| 7 7;  7 |drop|;  1 2 |over| 1 2 1;  1 2 |swap| 2 1;
    5 |pick 0| 5 5;  1 2 3 |pick 2| 1 2 3 1;  1 2 3 |rot| 3 1 2;  0x1008 |deref| 0x8f8e8d8c8b8a8988;
    0x1001 |deref_size 2| 0x8281;  0x1000 |deref_size 0| 0;  -5 |abs| 5;  5 |abs| 5;  min |abs| min;
    5 |neg| -5;  min |neg| min;  5 |not| -6;  12 10 |and| 8;  12 10 |or| 14;  12 10 |xor| 6;  -1 |plus_uconst 2| 1;
    -1 2 |plus| 1;  3 4 |minus| -1;  -3 5 |mul| -15;  7 2 |div| 3;  -7 2 |div| -3;  9 -1 |div| -9;  min -1 |div| min;
    9 5 |mod| 4;  3 31 |shl| 0x180000000;  1 33 |shl| 0x200000000;  1 65 |shl| 2;  8 66 |shr| 2;  8 33 |shr| 0;
    -16 2 |shra| -4;  -16 64 |shra| -16;  |skip 0 0|;  1 |bra 0 0|;  0 |bra 0x7f 0|;  |nop|;
    -1 1 |eq| 0;  4 4 |eq| 1;  1 -1 |eq| 0;  -1 1 |ne| 1;  4 4 |ne| 0;  1 -1 |ne| 1;
    -1 1 |lt| 1;  4 4 |lt| 0;  1 -1 |lt| 0;  -1 1 |gt| 0;  4 4 |gt| 0;  1 -1 |gt| 1;
    -1 1 |le| 1;  4 4 |le| 1;  1 -1 |le| 0;  -1 1 |ge| 0;  4 4 |ge| 1;  1 -1 |ge| 1;
)";
const char i386_only[] = R"(
    |addr 1 2 3 4| 0x04030201;  |breg21 1| 0x83828181;  0x80000001 |abs| 0x7fffffff;  0xfffffffe 2 |div| -1;
    -1 7 |mod| 3;  -1 4 |shr| 0x0fffffff;  -16 33 |shra| -8;  min 31 |shra| -1;  0x80000000 4 |shra| 0xf8000000;
    0xfffffffe 1 |lt| 1;  0xfffffffe 1 |gt| 0;  0xfffffffe 1 |le| 1;  0xfffffffe 1 |ge| 0;
    0xfffffffe -2 |eq| 1;  0xfffffffe -2 |ne| 0;
)";
const char amd64_only[] = R"(
    |addr 1 2 3 4 5 6 7 8| 0x0807060504030201;  |breg17 1| 0x8786858483828181;  0x80000001 |abs| 0x80000001;
    0xfffffffe 2 |div| 0x7fffffff;  -1 7 |mod| 1;  -1 4 |shr| 0x0fffffffffffffff;  -16 65 |shra| -8;  min 63 |shra| -1;
    0x80000000 4 |shra| 0x08000000;  0xfffffffe 1 |lt| 0;  0xfffffffe 1 |gt| 1;  0xfffffffe 1 |le| 0;
    0xfffffffe 1 |ge| 1;  0xfffffffe -2 |eq| 0;  0xfffffffe -2 |ne| 1;
)";

} // namespace

static std::vector<std::string> operations(const machine &m)
{
    std::string all = std::string(any_target) + (m.size == 4 ? i386_only : amd64_only);
    for (unsigned n = 0; n < 32; ++n)
        all += text("|lit%u| %u;", n, n);
    for (unsigned n = 0; n < 10; ++n)
        all += n == 6 ? "" : text("|breg%u 0x7f| %u;", n, BASE + n - 1);
    std::istringstream in(all);
    std::vector<std::string> rows;
    for (std::string row; std::getline(in >> std::ws, row, ';');)
        rows.push_back(row);
    return rows;
}

// Each operation, with one entry too few, with one entry of room too few, and cut short.
TEST(Expr, Operations)
{
    for (const krv_activation_type_t target : both_targets) {
        machine m(target);
        for (const std::string &row : operations(m)) {
            SCOPED_TRACE(text("%zu bytes: ", m.size) + row);
            const size_t bar = row.find('|'), last_bar = row.rfind('|');
            const values before = m.numbers(row.substr(0, bar)), after = m.numbers(row.substr(last_bar + 1));
            const code expr(row.substr(bar + 1, last_bar - bar - 1).c_str());
            EXPECT_EQ(m.run(expr, before), machine::dump(after));
            EXPECT_EQ(m.fd.sfd_remaining, 0U);
            if (!before.empty()) {
                const values one_less(before.begin() + 1, before.end());
                EXPECT_EQ(m.run(expr, one_less), failure(expr, 0, "CORRUPT: stack underflow"));
            }
            if (after.size() > before.size()) {
                EXPECT_EQ(machine(target, after.size()).run(expr, before), machine::dump(after));
                EXPECT_EQ(machine(target, after.size() - 1).run(expr, before),
                          failure(expr, 0, "NOSPACE: stack overflow"));
            }
            for_each_prefix(expr, [&](const bytes &prefix) {
                const std::string error = m.run(prefix, before);
                const int operand = expr.data()[0] == DW_OP_bregx && prefix.size() + 1 == expr.size();
                EXPECT_EQ(error.rfind("CORRUPT: ", 0), 0U) << error;
                EXPECT_EQ(error.substr(std::min(error.find(" | "), error.size())),
                          prefix.size() == 0 ? " | error decoding first instruction"
                                             : text(" | error decoding operand %d for first instruction", operand));
            });
        }
        EXPECT_FALSE(m.memory.strayed);
    }
}

TEST(Expr, Branches)
{
    for (const krv_activation_type_t target : both_targets) {
        machine m(target);
        EXPECT_EQ(m.run("lit1 bra 1 0 lit5 lit6"), "6 ");
        EXPECT_EQ(m.run("lit0 bra 1 0 lit5 lit6"), "5 6 ");
        EXPECT_EQ(m.run("skip 2 0 const1u 1 const1u 42 lit1"), "2a 1 ");
        EXPECT_EQ(m.run("lit3 skip 1 0 lit4"), "3 ");                       // to the end
        EXPECT_EQ(m.run("skip 4 0 lit4 skip 4 0 lit3 skip -8 -1"), "3 4 "); // forward, back, to the end
        EXPECT_EQ(m.run("const1u 200 lit1 minus dup bra -6 -1"), "0 ");     // a loop that ends
    }
    EXPECT_EQ(machine(AMD64).run("nop skip -3 -1"),
              failure("nop skip", 1, "EVAL: expression exceeds 1000000 instructions"));
}

TEST(Expr, Failures)
{
    const std::string beyond = "EVAL: attempted branch beyond text", denied = "EVAL: branch instruction denied",
                      by_zero = "EVAL: Attempt to divide by zero",
                      unknown = "UNSUPPORTED: unknown opcode for next instruction at offset ";
    const struct {
        code expr;
        size_t at; // of the failing instruction
        std::string error;
        uint32_t flags = 0;
    } rows[] = {
        {"lit7 lit0 div", 2, by_zero},
        {"lit7 lit0 mod", 2, by_zero},
        {"0", 0, "UNSUPPORTED: unsupported instruction"},
        {"nop 0xe0", 0, unknown + "4"},
        {"skip 1 0 0xe0 nop", 0, unknown + "6"}, // though it is jumped over
        {"skip 1 0 nop 0xe0", 0, unknown + "7"},
        {"nop const2u 1", 0,
         "CORRUPT: form DW_FORM_data2 requires 2 bytes;  1 remaining | "
         "error decoding operand 0 for next instruction at offset 4"},
        {"skip 1 0 nop bregx 1", 0,
         "CORRUPT: DW_FORM_sdata datum unterminated by end of section | "
         "error decoding operand 1 for next instruction at offset 7"},
        {"skip -4 -1", 0, beyond},
        {"skip 2 0 nop", 0, beyond},
        {"lit1 bra -1 0x7f", 1, beyond},
        {"skip 0 0", 0, denied, KRV_EXPR_F_NOBRANCH},
        {"lit0 bra 0 0", 1, denied, KRV_EXPR_F_NOBRANCH},
        {"call_frame_cfa", 0, "EVAL: instruction not valid for CFI expressions", KRV_EXPR_F_CFI},
        {"lit1 deref_size 9", 1, "EVAL: invalid data size"},
        {"lit1 deref", 1, "IO: reading 8 bytes from VA 0x1 returned -1"},
        {"breg6 0", 0, "NOTFOUND: register not present (6) | couldn't get register 6"},
        {"bregx 0xe3 0 0", 0, "INVALID: register (99) out of range (0..66) | couldn't get size of register 99"},
        {"bregx -1 -1 -1 -1 0x0f 0", 0,
         "INVALID: register (-1) out of range (0..66) | couldn't get size of register 4294967295"},
    };
    machine m(AMD64);
    for (const auto &r : rows)
        EXPECT_EQ(m.run(r.expr, {}, r.flags), failure(r.expr, r.at, r.error));
    for (const char *op : {"xderef", "xderef_size", "fbreg 0", "push_object_address", "call2", "call4", "call_ref",
                           "form_tls_address", "bit_piece"})
        EXPECT_EQ(m.run(op, {1, 1}), failure(op, 0, "UNSUPPORTED: unsupported opcode"));
    for (const char *op : {"reg0", "reg31", "regx 5", "piece 5", "implicit_value 0", "stack_value"})
        EXPECT_EQ(m.run(op), failure(op, 0, "EVAL: instruction valid only for location descriptions"));
    EXPECT_EQ(m.run("0xa0"), "UNSUPPORTED: unknown opcode");
    m.run("div", {7, 0});
    EXPECT_EQ(m.contents(), "7 "); // only the divisor is gone

    m.memory.base = UINT64_MAX - 63; // to the last byte of all; what wraps around is not asked for
    EXPECT_EQ(m.run("deref", {UINT64_MAX - 7}) + m.run("deref_size 1", {UINT64_MAX}), "bfbebdbcbbbab9b8 bf ");
    m.memory.reads = 0, m.memory.fault_at = 1, m.memory.kind = fault::short_, m.memory.base = BASE;
    EXPECT_EQ(m.run("deref", {UINT64_MAX - 6}),
              failure("deref", 0, "IO: reading 8 bytes from VA 0xfffffffffffffff9 returned -1"));
    EXPECT_EQ(m.memory.reads, 0U);
    EXPECT_EQ(m.run("deref", {BASE}), failure("deref", 0, "IO: reading 8 bytes from VA 0x1000 returned 7"));
    machine narrow(I386);
    EXPECT_EQ(narrow.run("deref_size 5", {1}), failure("deref_size", 0, "EVAL: invalid data size"));
    narrow.h->sh_as = {};
    EXPECT_EQ(narrow.run(""), "UNSUPPORTED: no as read callback found");

    const char *const unreadable[] = {"error decoding first instruction",
                                      "error decoding operand 0 for first instruction",
                                      "error decoding next instruction at offset 3", "error decoding instruction"};
    for (unsigned n = 0; n < 4; ++n) {
        reader source{code("skip 1 0 nop lit1"), 0, fault::fails, n + 1};
        krv_fd_t fd = m.h.cursor(&source);
        EXPECT_TRUE(refuses(
            m.h, korva_expr_execute_expression(m.h, m.stack.get(), m.ap.get(), &fd, 0, nullptr, nullptr, nullptr),
            std::string("IO: read callback failed | ") + unreadable[n] +
                (n < 2 ? "" : " | error executing instruction 0x2f (DW_OP_skip) at offset 0")));
    }
    EXPECT_EQ(korva_expr_execute_expression(m.h, m.stack.get(), nullptr, &m.fd, 0, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(krv_errno(m.h), KRV_ERR_INVALID);
}

// The bytes produced in each output cursor as hexadecimal digits; then the error state, if any.
static std::string locate(machine &m, const code &expr, size_t room, unsigned cursors)
{
    std::vector<uint8_t> buffers[3];
    krv_fd_t fds[3], *outputs[3] = {};
    for (unsigned i = 0; i < cursors; ++i) {
        buffers[i].assign(room, 0x55);
        krv_fd_attach_mem(m.h, outputs[i] = &fds[i], room, buffers[i].data());
    }
    const std::string result = m.run(expr, {}, KRV_EXPR_F_LOCATION, outputs);
    const std::string error = krv_errno(m.h) == KRV_ERR_NONE ? "" : " " + result;
    std::string line;
    for (unsigned i = 0; i < cursors; ++i) {
        line += i == 0 ? "" : "/";
        for (size_t n = 0; n < fds[i].sfd_offset; ++n)
            line += text("%02x", buffers[i][n]);
    }
    return line + error;
}

TEST(Expr, Locations)
{
    const struct {
        code expr;
        size_t room;
        std::string produced; // object, validity, origin
        std::string error = "";
        size_t at = 0;
        krv_activation_type_t target = AMD64;
    } rows[] = {
        {"reg5", 8, "0510000000000000/ffffffffffffffff/ffffffffffffffff"},
        {"reg5", 8, "05100000/ffffffff/ffffffff", "", 0, I386},
        {"regx 5", 3, "051000/ffffff/ffffff"},
        {"regx 17 piece 9", 9, "808182838485868788/ffffffffffffffffff/ffffffffffffffffff"},
        {"reg3 piece 4 piece 4", 16, "0310000055555555/ffffffff00000000/ffffffff00000000"},
        {"breg7 16", 5, "9798999a9b/ffffffffff/0000000000"},
        {"breg7 16 piece 2 reg1 piece 1 implicit_value 2 0xaa 0xbb piece 1 piece 0 breg0 1 piece 1", 9,
         "979801aa81/ffffffffff/0000ff0000"},
        {"lit1 breg0 1 piece 1 piece 1", 9, "8155/ff00/0000"}, // the 1 is dropped
        {"breg0 1 skip 1 0 nop piece 2", 9, "8182/ffff/0000"}, // the piece behind the branch
        {"breg0 1 skip 1 0 nop", 1, "81/ff/00"},
        {"lit1 stack_value lit2", 9, "0100000000000000/ffffffffffffffff/0000000000000000"},
        {"lit1 stack_value", 4, "01000000/ffffffff/00000000", "", 0, I386},
        {"lit1 stack_value", 4, "01000000/ffffffff/00000000", "NOSPACE:", 1},
        {"implicit_value 2 1 2 implicit_value 1 3", 9, "010203/ffffff/000000"}, // decoded one ahead of the other
        {code("implicit_value 0x80 2").fill(256, 1), 1, "//",
         "NOSPACE: cannot write 256 bytes; only 1 bytes remaining"},
        {"implicit_value 1 1 piece 2", 9, "//", "INVALID: cannot read 2 bytes; only 1 bytes remaining"},
        {"piece 2 reg3 piece 1", 9, "555503/0000ff/0000ff"}, // begins with nothing
        {"piece 2 piece 1", 2, "5555/0000/0000", "NOSPACE:"},
        {"breg0 1 piece 20", 2, "8182/ffff/0000", "NOSPACE:"},
        {"reg3 piece 4", 3, "//", "NOSPACE: cannot write 4 bytes; only 3 bytes remaining"},
        {"reg3 piece 9", 9, "//", "INVALID: 9 bytes requested by DW_OP_piece but register has only 8 bytes"},
        {"reg5 lit0", 9, "//", "CORRUPT: register is not alone"},
        {"lit0 reg5", 9, "//", "CORRUPT: register on occupied stack", 1},
        {"reg6", 9, "//", "NOTFOUND: register not present (6) | couldn't get register 6"},
        {"nop", 9, "//", "CORRUPT: location expression has terminated with empty stack"},
        {"lit1", 2, "//", "IO: reading 2 bytes from VA 0x1 returned -1"},
    };
    for (const auto &r : rows) {
        machine m(r.target);
        const std::string error = r.error.empty() ? "" : " " + failure(r.expr, r.at, r.error);
        EXPECT_EQ(locate(m, r.expr, r.room, 3), r.produced + error);
        EXPECT_EQ(locate(m, r.expr, r.room, 1), r.produced.substr(0, r.produced.find('/')) + error);
    }
    machine m(AMD64);
    EXPECT_EQ(locate(m, code("implicit_value 0x81 2").fill(257), 9, 1),
              " NOSPACE: block form DW_FORM_block requires 257;  storage offers 256 | "
              "error decoding operand 0 for first instruction");
    krv_fd_t source = m.h.cursor(&m.memory), *outputs[3] = {};
    for (krv_fd_t **none : {static_cast<krv_fd_t **>(nullptr), outputs})
        EXPECT_EQ(m.run("reg5", {}, KRV_EXPR_F_LOCATION, none), "INVALID: location description requires output buffer");
    outputs[0] = &source;
    EXPECT_EQ(m.run("reg5", {}, KRV_EXPR_F_LOCATION, outputs), "INVALID"); // no memory
    // The caller's registers are computed first, from what this handle does not have.
    EXPECT_EQ(m.run("breg1 0", {}, KRV_EXPR_F_CALLER).rfind("NOTFOUND", 0), 0U);
}

TEST(Expr, Callback)
{
    struct visit {
        int result;
        unsigned opcode;
        uint64_t operand;
        krv_fd_t *fdp;
        std::string seen = "";
    };
    const auto func = [](krv_handle_t *, krv_exprstack_t *, krv_activation_t *, uint32_t flags, krv_fd_t **,
                         krv_operation_t *op, void *arg) {
        auto *v = static_cast<visit *>(arg);
        uint64_t *operand = &op->operand[0].sa_u.su_unsigned;
        v->seen += text("%x:%d:%d:%u ", op->opcode, static_cast<int>(*operand),
                        static_cast<int>(v->fdp->sfd_offset - LEAD), flags);
        if (op->opcode == DW_OP_fbreg)
            op->opcode = static_cast<uint8_t>(v->opcode), *operand += v->operand;
        return v->result;
    };
    machine m(AMD64);
    const auto run = [&](int result, unsigned opcode, uint64_t operand) {
        visit v{result, opcode, operand, &m.fd};
        const std::string stack = m.run("fbreg 8 lit1", {}, KRV_EXPR_F_CFI, nullptr, func, &v);
        return v.seen + "> " + stack;
    };
    const auto fails = [](unsigned opcode, const char *error) {
        return "91:8:2:2 > " + failure(bytes().u8(opcode), 0, error);
    };
    // The cursor stands just behind the instruction; the change comes before the checks.
    EXPECT_EQ(run(0, DW_OP_const8u, 0x100), "91:8:2:2 31:0:3:2 > 108 1 ");
    EXPECT_EQ(run(0, DW_OP_call_frame_cfa, 0),
              fails(DW_OP_call_frame_cfa, "EVAL: instruction not valid for CFI expressions"));
    EXPECT_EQ(run(0, 0xa5, 0), fails(0xa5, "UNSUPPORTED: unknown opcode"));
    EXPECT_EQ(run(3, DW_OP_fbreg, 0), fails(DW_OP_fbreg, "IO:"));
    // Operands that no encoding has.
    EXPECT_EQ(run(0, DW_OP_skip, uint64_t{1} << 63), fails(DW_OP_skip, "EVAL: attempted branch beyond text"));
    EXPECT_EQ(run(0, DW_OP_pick, UINT64_MAX - 8), fails(DW_OP_pick, "CORRUPT: stack underflow"));
    visit no_block{0, DW_OP_implicit_value, 0, &m.fd};
    krv_fd_t out = m.h.cursor(bytes().fill(8)), *outputs[3] = {&out};
    EXPECT_EQ(m.run("fbreg 0", {}, KRV_EXPR_F_LOCATION, outputs, func, &no_block),
              failure("implicit_value", 0, "INVALID:"));
}

// The caller's registers are what the function was called with, where it preserves them.
TEST(Expr, OfExtensions)
{
    const std::string cannot = " cannot be evaluated: ", in = " | error executing instruction 0x";
    const std::string more = cannot + "its expression is more than a register" + in;
    const struct {
        code expr;
        std::string expected; // an error without its place
        uint32_t flags = 0;
    } rows[] = {
        {"0xa3 1 reg3", "2202 "},
        {"0xf3 2 breg3 8", "220a "},
        {"0xa3 2 regx 3 lit1 plus", "2203 "},
        {"0xa3 3 bregx 3 0x7f", "2201 "},
        {"0xa3 1 reg7", "7010 "}, // the return address was on top
        {"0xa3 1 reg5", "EVAL: register not present (5) | DW_OP_entry_value" + cannot +
                            "the register is not known from the caller" + in + "a3 (DW_OP_entry_value)"},
        {"0xa3 1 lit3", "EVAL: DW_OP_entry_value" + more + "a3 (DW_OP_entry_value)"},
        {"0xf3 2 reg3 nop", "EVAL: DW_OP_GNU_entry_value" + more + "f3 (DW_OP_GNU_entry_value)"},
        {"0xa3 0", "EVAL: form DW_FORM_data1 requires 1 byte;  0 remaining | DW_OP_entry_value" + more +
                       "a3 (DW_OP_entry_value)"},
        {"0xa3 1 reg3",
         "EVAL: DW_OP_entry_value" + cannot + "the caller's frame is not at hand" + in + "a3 (DW_OP_entry_value)",
         KRV_EXPR_F_CALLER},
        {"0xa3 1 reg3", "EVAL: instruction not valid for CFI expressions" + in + "a3 (DW_OP_entry_value)",
         KRV_EXPR_F_CFI},
        {"lit3 0xa8 0 0xf9 0", "3 "},
        {"lit3 0xa8 5", "EVAL: DW_OP_convert" + cannot + "its type is an entry of a unit that is not known" + in +
                            "a8 (DW_OP_convert)"},
        {"0xfb 5", "EVAL: DW_OP_GNU_addr_index" + cannot +
                       "its unit, which says where addresses are counted, is not known" + in +
                       "fb (DW_OP_GNU_addr_index)"},
        {"0xa5 3 0x30", "EVAL: DW_OP_regval_type" + cannot + "what it means stands in entries, which are not at hand" +
                            in + "a5 (DW_OP_regval_type)"},
        {"0xa0 1 0 0 0 0",
         "EVAL: instruction valid only for location descriptions" + in + "a0 (DW_OP_implicit_pointer)"},
        {"0xaa", "UNSUPPORTED: unsupported instruction" + in + "aa (unknown)"},
        {"call2 1 0", "UNSUPPORTED: unsupported opcode" + in + "98 (DW_OP_call2)"},
    };
    for (const auto &row : rows) {
        stopped s({.initial = op(DW_CFA_def_cfa).uleb(7).uleb(24).add(op(DW_CFA_offset, 16).uleb(1)),
                   .rows = op(DW_CFA_offset, 3).uleb(2)});
        s.h.extend(KRV_EXT_DWARF5);
        const stack_owner stack(korva_expr_alloc_stack(s.h));
        krv_fd_t fd = s.h.cursor(row.expr);
        std::string found;
        if (korva_expr_execute_expression(s.h, stack.get(), s.ap.get(), &fd, row.flags, nullptr, nullptr, nullptr) != 0)
            found = s.h.error();
        for (uint64_t value = 0; found.empty() && korva_expr_stack_pop(s.h, stack.get(), &value) == 0;)
            found = text("%lx ", value);
        EXPECT_EQ(found.substr(0, found.rfind(" at offset ")), row.expected);
    }
}
