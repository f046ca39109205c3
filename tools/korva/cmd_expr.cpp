// SPDX-License-Identifier: Apache-2.0
//
// korva expr: lists and evaluates one DWARF expression.
#include "command.h"
#include "operations.h"
#include "output.h"
#include "visitor.h"

#include <korva.hpp>

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

/** The target's memory, as the command line gives it. */
struct target_memory {
    struct piece {
        uint64_t address;
        byte_string bytes;
    };
    std::vector<piece> pieces;

    bool operator()(uint64_t address, void *buf, size_t count) const;
};

} // namespace

[[noreturn]] static void usage(const std::string &text)
{
    throw CLI::ValidationError("expr", text);
}

static byte_string parse_bytes(const std::string &text)
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
    for (const std::string &text : arguments) {
        if (!text.starts_with("@")) {
            const byte_string part = parse_bytes(text);
            bytes.insert(bytes.end(), part.begin(), part.end());
            continue;
        }
        std::ifstream in(text.substr(1), std::ios::binary);
        if (!in)
            throw failure(fmt::format("{}: {}", text.substr(1), std::strerror(errno)), {.code = "KRV_ELF_ERR_SYSTEM"});
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

    template <typename F>
    result<bool> each_operation(F &visit) const
    {
        return korva::each_operation(*m_handle, m_bytes.data(), m_bytes.size(), visit);
    }
    result<void> evaluate();

    std::vector<uint64_t> stack() const { return m_stack->values(); } // top first
    const korva::stack::object &value() const { return m_value; }
    const byte_string &bytes() const { return m_bytes; }
    krv_handle_t *handle() const { return m_handle->get(); }
    int digits() const { return m_target == KRV_ACTIVATION_I386 ? 8 : 16; }

private:
    const expr_options &m_options;
    krv_activation_type_t m_target;
    byte_string m_bytes;
    target_memory m_memory;
    std::optional<korva::handle> m_handle;
    std::optional<activation> m_activation;
    std::optional<korva::stack> m_stack;
    korva::stack::object m_value;
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
        m_memory.pieces.push_back({address, parse_bytes(bytes)});
    }
    auto made = handle::make(m_target);
    if (!made)
        throw failure("no libkorva handle: out of memory, or disabled by LIBKORVA_OPTIONS");
    korva_handle_set_opt(made->get(), KRV_OPT_EXT_DWARF5, uint64_t{1});
    m_handle.emplace(std::move(*made));
    auto frame = activation::make(*m_handle);
    auto stack = stack::make(*m_handle);
    if (!m_handle->attach_memory(m_memory) || !frame || !stack)
        throw std::bad_alloc();
    m_activation.emplace(std::move(*frame));
    m_stack.emplace(std::move(*stack));
    for (const std::string &text : options.registers) {
        const auto [number, value] = parse_assignment(text);
        if (number > UINT32_MAX ||
            !m_activation->set_reg(KRV_ACTIVATION_REG_DWARF, static_cast<unsigned int>(number), parse_number(value)))
            usage(fmt::format("there is no DWARF register {}", number));
    }
    for (const std::string &text : options.initial)
        if (!m_stack->push(parse_number(text)))
            usage("too many initial values");
}

bool target_memory::operator()(uint64_t address, void *buf, size_t count) const
{
    for (const piece &p : pieces) {
        if (address < p.address || address - p.address > p.bytes.size() ||
            count > p.bytes.size() - (address - p.address))
            continue;
        std::memcpy(buf, p.bytes.data() + (address - p.address), count);
        return true;
    }
    return false;
}

result<void> evaluation::evaluate()
{
    return m_options.location ? m_stack->locate(*m_activation, m_bytes.data(), m_bytes.size(), m_options.size, &m_value)
                              : m_stack->evaluate(*m_activation, m_bytes.data(), m_bytes.size());
}

// The bytes of the value in order, each two digits, ?? where it is not known.
static std::string value_text(const stack::object &value)
{
    std::string text;
    for (size_t i = 0; i < value.bytes.size(); ++i)
        text += fmt::format("{}{}", i == 0 ? "" : " ", value.known[i] ? fmt::format("{:02x}", value.bytes[i]) : "??");
    return text;
}

namespace
{

/** Prints an expression operation by operation, then what came of it: a long one is not kept. */
class expression_printer
{
public:
    expression_printer(const expr_options &options, const evaluation &ev)
        : m_options(options), m_ev(ev), m_out(options.format)
    {
        if (m_out.is_json()) {
            m_out.open_record();
            m_out.write("{\"instructions\":[");
        }
    }

    void print(const operation &op);
    void finish(bool evaluated, const record_error *why);
    bool any() const { return m_any; }

private:
    const expr_options &m_options;
    const evaluation &m_ev;
    answers m_out;
    bool m_any = false; // operation was printed
};

} // namespace

void expression_printer::print(const operation &op)
{
    const uint8_t *expression = m_ev.bytes().data();
    if (m_out.is_json()) {
        const char *name = korva_print_define(m_ev.handle(), KRV_DEF_OP, op.opcode);
        json_value operands = json_value::array();
        for (const krv_operand_t &operand : op.operands)
            operands.push_back(operand_text(expression, op, operand));
        m_out.write(m_any ? "," : "");
        m_out.write(to_text({{"offset", hex(op.offset)}, {"operation", or_null(name)}, {"operands", operands}}));
    } else {
        m_out.print("0x{:04x}  {}\n", op.offset, operation_text(m_ev.handle(), expression, op));
    }
    m_any = true;
}

// How it ended is known last, and so stands last.
void expression_printer::finish(bool evaluated, const record_error *why)
{
    if (m_out.is_json()) {
        json_value stack, value;
        if (evaluated) {
            stack = json_value::array();
            for (const uint64_t entry : m_ev.stack())
                stack.push_back(hex(entry));
            if (m_options.location)
                value = value_text(m_ev.value());
        }
        std::string line = fmt::format("],\"stack\":{},\"value\":{},", to_text(stack), to_text(value));
        append_record_head(&line, status_of(why), why);
        m_out.write(line + "}");
        m_out.close_record();
    } else if (!m_options.list_only) {
        if (m_options.location)
            m_out.print("value: {}\n", value_text(m_ev.value()));
        for (size_t i = 0; const uint64_t entry : m_ev.stack())
            m_out.print("{} 0x{:0{}x}\n", i++ == 0 ? "stack:" : "      ", entry, m_ev.digits());
    }
    m_out.finish();
}

static int run_expr(const expr_options &options)
{
    evaluation ev(options);
    expression_printer out(options, ev);
    visitor print([&](const operation &op) { out.print(op); });
    const result<bool> listed = ev.each_operation(print);
    print.rethrow();
    const result<void> evaluated = options.list_only ? result<void>() : ev.evaluate();
    const record_error why = !listed      ? to_record_error(listed.error())
                             : !evaluated ? to_record_error(evaluated.error())
                                          : record_error();
    out.finish(evaluated && !options.list_only, listed && evaluated ? nullptr : &why);
    if (!listed)
        diagnose(fmt::format("the listing ends early: {}", listed.error().text()));
    if (!evaluated)
        diagnose(fmt::format("the evaluation fails: {}", evaluated.error().text()));
    tally done;
    done.add(static_cast<bool>(listed));
    if (out.any())
        done.answered();
    if (!options.list_only)
        done.add(static_cast<bool>(evaluated));
    return done.status();
}

void add_expr(CLI::App &app, int *status)
{
    auto options = std::make_shared<expr_options>();
    CLI::App *verb = app.add_subcommand("expr", "Lists and evaluates a DWARF expression");
    verb->add_option("BYTES", options->bytes, "Hexadecimal bytes, or @FILE for the bytes of a file")->required();
    verb->add_option("--target", options->target, "amd64 (when not given) or i386")
        ->check(CLI::IsMember({"amd64", "i386"}));
    verb->add_option("--push", options->initial, "Initial stack value; several: the last is the top")
        ->allow_extra_args(false);
    verb->add_option("--reg", options->registers, "DWARF register: NUMBER=VALUE")->allow_extra_args(false);
    verb->add_option("--memory", options->memory, "Memory of the target: ADDRESS=BYTES")->allow_extra_args(false);
    verb->add_flag("--location", options->location, "A location description: show the value described");
    verb->add_option("--size", options->size, "Bytes of that value, at most")->check(CLI::Range(1, 1 << 20));
    verb->add_flag("--list", options->list_only, "List only");
    add_format_option(verb, options.get(),
                      {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer("The stack is shown top first; ?? is a byte that the description leaves unavailable.\n"
                 "Examples:\n"
                 "  korva expr 33 34 1c                        DW_OP_lit3, DW_OP_lit4, DW_OP_minus\n"
                 "  korva expr 7708 --reg 7=0x7ffe00           8 bytes above the stack pointer\n"
                 "  korva expr 06 --push 0x1000 --memory 0x1000=0102030405060708\n"
                 "  korva expr --location --size 4 55 --reg 5=7");
    verb->callback([options, status] { *status = run_expr(*options); });
}

} // namespace korva::program
