// SPDX-License-Identifier: Apache-2.0
//
// korva expr: lists and evaluates one DWARF expression.
#include "command.h"
#include "object.h"

#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>

namespace korva::program
{

namespace
{

using byte_string = std::vector<uint8_t>;

struct expr_options : common_options {
    std::vector<std::string> bytes;
    std::string target = "amd64";
    std::vector<std::string> initial;   // stack values, bottom first
    std::vector<std::string> registers; // NUMBER=VALUE
    std::vector<std::string> memory;    // ADDRESS=BYTES
    uint64_t size = 8;
    bool location = false;
    bool list_only = false;
};

/** A piece of the target's memory. */
struct memory_piece {
    uint64_t address;
    byte_string bytes;
};

struct handle_deleter {
    void operator()(krv_handle_t *hp) const { korva_handle_free(hp); }
};
struct stack_deleter {
    void operator()(krv_exprstack_t *esp) const { korva_expr_free_stack(esp); }
};
struct activation_deleter {
    void operator()(krv_activation_t *ap) const { korva_activation_free(ap); }
};

/** A listed instruction. */
struct listed {
    uint64_t offset;
    uint8_t opcode;
    std::vector<krv_operand_t> operands;
};

} // namespace

[[noreturn]] static void usage(const std::string &text)
{
    throw CLI::ValidationError("expr", text);
}

static byte_string parse_hex(const std::string &text)
{
    std::string digits;
    for (const char c : text)
        if (std::isspace(static_cast<unsigned char>(c)) == 0 && c != ',')
            digits += c;
    if (digits.starts_with("0x"))
        digits.erase(0, 2);
    if (digits.size() % 2 != 0)
        usage(fmt::format("\"{}\" has an odd number of hexadecimal digits", text));
    byte_string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        uint8_t byte = 0;
        const char *first = digits.data() + i;
        if (std::from_chars(first, first + 2, byte, 16).ptr != first + 2)
            usage(fmt::format("\"{}\" is not hexadecimal", text));
        bytes.push_back(byte);
    }
    return bytes;
}

// A number as C writes it: decimal, or hexadecimal behind 0x; a sign makes it two's complement.
static uint64_t parse_number(const std::string &text)
{
    const bool negative = text.starts_with("-");
    std::string digits = text.substr(negative ? 1 : 0);
    const bool is_hex = digits.starts_with("0x");
    if (is_hex)
        digits.erase(0, 2);
    uint64_t value = 0;
    const char *end = digits.data() + digits.size();
    const auto parsed = std::from_chars(digits.data(), end, value, is_hex ? 16 : 10);
    if (digits.empty() || parsed.ptr != end || parsed.ec != std::errc())
        usage(fmt::format("\"{}\" is not a number", text));
    return negative ? 0 - value : value;
}

static std::pair<uint64_t, std::string> parse_assignment(const std::string &text)
{
    const size_t at = text.find('=');
    if (at == std::string::npos)
        usage(fmt::format("\"{}\" lacks its =", text));
    return {parse_number(text.substr(0, at)), text.substr(at + 1)};
}

// "@FILE" is the bytes of a file; all else are hexadecimal digits.
static byte_string read_expression(const std::vector<std::string> &arguments)
{
    byte_string bytes;
    for (const std::string &argument : arguments) {
        if (!argument.starts_with("@")) {
            const byte_string part = parse_hex(argument);
            bytes.insert(bytes.end(), part.begin(), part.end());
            continue;
        }
        std::ifstream in(argument.substr(1), std::ios::binary);
        if (!in)
            throw failure(fmt::format("{}: {}", argument.substr(1), std::strerror(errno)));
        bytes.insert(bytes.end(), std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return bytes;
}

namespace
{

/** One expression and the little world in which it is evaluated. */
class evaluation
{
public:
    explicit evaluation(const expr_options &options);

    std::vector<listed> list(); // what can be listed; a diagnostic tells of the rest
    bool evaluate();            // false: a diagnostic tells why
    bool is_listed_whole() const { return m_listed; }

    std::vector<uint64_t> stack() const; // top first
    const byte_string &value() const { return m_value; }
    const byte_string &known() const { return m_known; }
    krv_handle_t *handle() const { return m_handle.get(); }
    int digits() const { return m_target == KRV_ACTIVATION_I386 ? 8 : 16; }

private:
    static int64_t read(void *self, void *buf, size_t count, uint64_t address);
    krv_fd_t cursor();
    void diagnose_failure(const char *what) const;

    const expr_options &m_options;
    krv_activation_type_t m_target;
    byte_string m_bytes;
    std::vector<memory_piece> m_memory;
    std::unique_ptr<krv_handle_t, handle_deleter> m_handle;
    std::unique_ptr<krv_activation_t, activation_deleter> m_activation;
    std::unique_ptr<krv_exprstack_t, stack_deleter> m_stack;
    byte_string m_value, m_known;
    bool m_listed = false;
};

} // namespace

evaluation::evaluation(const expr_options &options)
    : m_options(options), m_target(options.target == "i386" ? KRV_ACTIVATION_I386 : KRV_ACTIVATION_AMD64),
      m_bytes(read_expression(options.bytes))
{
    if (m_bytes.empty())
        usage("the expression is empty");
    for (const std::string &text : options.memory) {
        const auto [address, bytes] = parse_assignment(text);
        m_memory.push_back({address, parse_hex(bytes)});
    }
    m_handle.reset(korva_handle_alloc(m_target));
    if (m_handle == nullptr)
        throw failure("no libkorva handle: out of memory, or disabled by LIBKORVA_OPTIONS");
    korva_attach_as(handle(), read, this);
    m_activation.reset(korva_activation_alloc(handle()));
    m_stack.reset(korva_expr_alloc_stack(handle()));
    if (m_activation == nullptr || m_stack == nullptr)
        throw std::bad_alloc();
    for (const std::string &text : options.registers) {
        const auto [number, value] = parse_assignment(text);
        if (number > UINT32_MAX || korva_activation_set_greg(handle(), m_activation.get(), KRV_ACTIVATION_REG_DWARF,
                                                             static_cast<unsigned int>(number),
                                                             static_cast<krv_greg_t>(parse_number(value))) != 0)
            usage(fmt::format("there is no DWARF register {}", number));
    }
    for (const std::string &text : options.initial)
        if (korva_expr_stack_push(handle(), m_stack.get(), parse_number(text)) != 0)
            usage("too many initial values");
}

int64_t evaluation::read(void *self, void *buf, size_t count, uint64_t address)
{
    for (const memory_piece &piece : static_cast<const evaluation *>(self)->m_memory) {
        if (address < piece.address || address - piece.address > piece.bytes.size() ||
            count > piece.bytes.size() - (address - piece.address))
            continue;
        std::memcpy(buf, piece.bytes.data() + (address - piece.address), count);
        return static_cast<int64_t>(count);
    }
    return -1;
}

krv_fd_t evaluation::cursor()
{
    krv_fd_t fd = {};
    korva_fd_attach(handle(), &fd, m_bytes.size(), KRV_FD_TYPE_MEMORY, m_bytes.data());
    return fd;
}

void evaluation::diagnose_failure(const char *what) const
{
    diagnose(failure_text(handle(), what));
}

std::vector<listed> evaluation::list()
{
    struct state {
        krv_fd_t fd;
        uint64_t at;
        std::vector<listed> all;
    } s = {cursor(), 0, {}};
    const int result = korva_expr_iter_instruction(
        handle(), &s.fd, 0,
        [](krv_handle_t *, uint8_t opcode, krv_operand_t *operands, unsigned int noperands, void *arg) -> int {
            auto *st = static_cast<state *>(arg);
            st->all.push_back({st->at, opcode, {operands, operands + noperands}});
            st->at = st->fd.sfd_offset;
            return 0;
        },
        &s);
    m_listed = result == 0;
    if (!m_listed)
        diagnose_failure("the listing ends early");
    return s.all;
}

bool evaluation::evaluate()
{
    krv_fd_t fd = cursor();
    krv_fd_t value = {}, known = {};
    krv_fd_t *outputs[3] = {&value, &known, nullptr};
    uint32_t flags = 0;
    if (m_options.location) {
        flags |= KRV_EXPR_F_LOCATION;
        m_value.resize(m_options.size);
        m_known.resize(m_options.size);
        korva_fd_attach(handle(), &value, m_options.size, KRV_FD_TYPE_MEMORY, m_value.data());
        korva_fd_attach(handle(), &known, m_options.size, KRV_FD_TYPE_MEMORY, m_known.data());
    }
    const bool done = korva_expr_execute_expression(handle(), m_stack.get(), m_activation.get(), &fd, flags, outputs,
                                                    nullptr, nullptr) == 0;
    if (!done)
        diagnose_failure("the evaluation fails");
    m_value.resize(value.sfd_offset);
    m_known.resize(value.sfd_offset);
    return done;
}

std::vector<uint64_t> evaluation::stack() const
{
    std::vector<uint64_t> values;
    uint64_t depth = 0;
    korva_expr_get_stack_depth(handle(), m_stack.get(), &depth);
    for (uint64_t i = 0; i < depth; ++i) {
        uint64_t value = 0;
        korva_expr_stack_peek(handle(), m_stack.get(), i, &value);
        values.push_back(value);
    }
    return values;
}

static std::string operand_text(const krv_operand_t &operand)
{
    constexpr int32_t SIGNED = 5; // DW_ATE_signed
    if (operand.sopt_encoding == SIGNED)
        return fmt::format("{}", static_cast<int64_t>(operand.sopt_operand));
    return fmt::format("0x{:x}", operand.sopt_operand);
}

// The bytes of the value in order, each two digits, ?? where it is not known.
static std::string value_text(const evaluation &ev)
{
    std::string text;
    for (size_t i = 0; i < ev.value().size(); ++i)
        text += ev.known()[i] != 0 ? fmt::format("{}{:02x}", i == 0 ? "" : " ", ev.value()[i])
                                   : std::string(i == 0 ? "??" : " ??");
    return text;
}

static void print_text(answers &out, const evaluation &ev, const std::vector<listed> &all, std::optional<bool> done,
                       bool location)
{
    for (const listed &insn : all) {
        const char *name = korva_print_define(ev.handle(), KRV_DEF_OP, insn.opcode);
        std::string operands;
        for (const krv_operand_t &operand : insn.operands)
            operands += " " + operand_text(operand);
        out.print("0x{:04x}  {}{}\n", insn.offset, name == nullptr ? "??" : name, operands);
    }
    if (!done)
        return;
    if (location)
        out.print("value: {}\n", value_text(ev));
    for (size_t i = 0; const uint64_t value : ev.stack())
        out.print("{} 0x{:0{}x}\n", i++ == 0 ? "stack:" : "      ", value, ev.digits());
}

static void print_json(answers &out, const evaluation &ev, const std::vector<listed> &all, std::optional<bool> done,
                       bool location)
{
    json_value instructions = json_value::array();
    for (const listed &insn : all) {
        json_value operands = json_value::array();
        for (const krv_operand_t &operand : insn.operands)
            operands.push_back(operand_text(operand));
        instructions.push_back({{"offset", hex(insn.offset)},
                                {"operation", or_null(korva_print_define(ev.handle(), KRV_DEF_OP, insn.opcode))},
                                {"operands", operands}});
    }
    json_value record = {{"instructions", instructions}, {"stack", nullptr}, {"value", nullptr}};
    if (done.value_or(false)) {
        json_value stack = json_value::array();
        for (const uint64_t value : ev.stack())
            stack.push_back(hex(value));
        record["stack"] = stack;
        if (location)
            record["value"] = value_text(ev);
    }
    out.record(record);
}

static int run_expr(const expr_options &options)
{
    evaluation ev(options);
    answers out(options.format);
    const std::vector<listed> all = ev.list();
    std::optional<bool> done;
    if (!options.list_only)
        done = ev.evaluate();
    (out.is_json() ? print_json : print_text)(out, ev, all, done, options.location);
    out.finish();
    if (ev.is_listed_whole() && done.value_or(true))
        return ANSWERED;
    return all.empty() && !done.value_or(false) ? NOTHING : PARTLY;
}

void add_expr(CLI::App &app, int *status)
{
    auto options = std::make_shared<expr_options>();
    CLI::App *verb = app.add_subcommand("expr", "Lists and evaluates a DWARF expression");
    verb->add_option("BYTES", options->bytes, "Hexadecimal bytes, or @FILE for the bytes of a file")->required();
    verb->add_option("--target", options->target, "amd64 (when not given) or i386")
        ->check(CLI::IsMember({"amd64", "i386"}));
    verb->add_option("--push", options->initial, "Initial stack value; several: the last is the top");
    verb->add_option("--reg", options->registers, "DWARF register: NUMBER=VALUE");
    verb->add_option("--memory", options->memory, "Memory of the target: ADDRESS=BYTES");
    verb->add_flag("--location", options->location, "A location description: show the value described");
    verb->add_option("--size", options->size, "Bytes of that value, at most")->check(CLI::Range(1, 1 << 20));
    verb->add_flag("--list", options->list_only, "List only");
    add_format_option(verb, options.get(),
                      {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer("The stack is shown top first; ?? is a byte that the description leaves unavailable.\n"
                 "Examples:\n"
                 "  korva expr 33 34 1c                        DW_OP_lit3, DW_OP_lit4, DW_OP_minus\n"
                 "  korva expr 7708 --reg 7=0x7ffe00           8 bytes above the stack pointer\n"
                 "  korva expr 0600 --push 0x1000 --memory 0x1000=0102030405060708\n"
                 "  korva expr --location --size 4 55 --reg 5=7");
    verb->callback([options, status] { *status = run_expr(*options); });
}

} // namespace korva::program
