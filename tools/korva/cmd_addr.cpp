// SPDX-License-Identifier: Apache-2.0
//
// korva addr: function and source line of addresses.
#include "command.h"
#include "demangle.h"
#include "input.h"
#include "locate.h"
#include "progress.h"
#include "symbol_kind.h"

#include <filesystem>
#include <iostream>
#include <memory>

namespace korva::program
{

namespace
{

struct addr_options : common_options {
    std::vector<std::string> inputs;
    std::string section;
    bool addresses = false;
    bool functions = false;
    bool demangle = false;
    bool pretty = false;
    bool basenames = false;
    bool has_exe = false;
};

/** What one input asks for; a name that several functions have asks for each. */
struct question {
    std::string_view text;
    std::optional<uint64_t> shown;   /**< the address as the input gives it: with -j an offset */
    std::optional<uint64_t> address; /**< in the file */
    bool is_one_of_several = false;
};

/** An answer as it is printed. */
struct answer {
    bool has_function = false;
    bool has_row = false; /**< of a line table; its path or line may be unknown all the same */
    std::string function;
    std::string path;
    uint32_t line = 0;
    uint16_t column = 0;
    uint16_t discriminator = 0;
    const unit_record *unit = nullptr; /**< whose row it is */

    bool is_whole() const { return has_row && !path.empty() && line != 0; }
    bool is_empty() const { return !has_function && !has_row; }
};

/** One run: everything that answering one input needs. */
class addr_run
{
public:
    addr_run(const addr_options &options, object *obj)
        : m_options(options), m_object(obj), m_reader(*obj, options.format == output_format::gnu), m_locator(obj),
          m_out(options.format)
    {
        obj->diagnose_notes();
        if (!options.section.empty()) {
            m_section = obj->find_section(options.section);
            if (!m_section)
                throw failure(fmt::format("{}: no section {}", obj->path(), options.section));
        }
    }

    void ask(const std::string &input);
    /** A blank line asks for nothing, and is answered so. */
    void answer_nothing(const std::string &input) { print({.text = input, .shown = {}, .address = {}}, {}); }
    int finish();

    answers &out() { return m_out; }

private:
    std::string why_no_address(const std::string &input);
    std::vector<question> parse(const std::string &input);
    answer find(const question &q);
    void print(const question &q, const answer &a);
    void print_text(const question &q, const answer &a);
    void print_gnu(const question &q, const answer &a);
    void print_json(const question &q, const answer &a);
    std::string number(uint64_t address) const;

    const addr_options &m_options;
    object *m_object;
    address_reader m_reader;
    locator m_locator;
    answers m_out;
    std::optional<extent> m_section;
    std::optional<other_symbols> m_others; // read for the first message about a name
    tally m_done;
};

} // namespace

// `korva addr FILE 0x10`, as other tools take it.
static std::string hint_at_exe(const addr_options &options, const std::string &input)
{
    std::error_code none;
    if (options.has_exe || !std::filesystem::is_regular_file(input, none))
        return {};
    return fmt::format("; to ask the file \"{}\", write -e {}", input, input);
}

std::string addr_run::why_no_address(const std::string &input)
{
    if (!m_others)
        m_others = read_other_symbols(m_object->path());
    const std::string name(trim(input));
    const auto other = m_others->find(name.substr(0, name.rfind('+')));
    if (other != m_others->end())
        return fmt::format("\"{}\" {}", input, other->second);
    return fmt::format("\"{}\" is neither an address nor a function{}", input, hint_at_exe(m_options, input));
}

std::vector<question> addr_run::parse(const std::string &input)
{
    std::vector<input_address> found = m_reader.read(input);
    if (found.empty()) {
        m_object->diagnose(why_no_address(input));
        return {{.text = input, .shown = {}, .address = {}}};
    }
    const bool is_gnu = m_options.format == output_format::gnu;
    if (is_gnu)
        found.resize(1); // who asks in that way expects one answer for one line
    std::vector<question> all;
    for (const input_address &parsed : found) {
        uint64_t value = parsed.value;
        if (m_object->address_digits() == 8 && is_gnu)
            value &= UINT32_MAX; // as GNU addr2line takes it
        question q = {.text = input, .shown = value, .address = {}, .is_one_of_several = found.size() > 1};
        if (!m_section || !parsed.is_number)
            q.address = value;
        else if (value < m_section->size)
            q.address = m_section->address + value;
        all.push_back(q);
    }
    return all;
}

answer addr_run::find(const question &q)
{
    answer a;
    if (!q.address)
        return a;
    location found = m_locator.find(*q.address);
    if (found.function != nullptr) {
        a.has_function = true;
        const char *symbol = found.function->name;
        if (m_options.format != output_format::gnu)
            a.function = function_name(symbol, m_options.demangle);
        else // whole, as GNU addr2line shows it
            a.function = m_options.demangle ? demangle(symbol) : symbol;
    }
    if (found.source) {
        a.has_row = true;
        a.path = std::move(found.source->path);
        a.line = found.source->line;
        a.column = found.source->column;
        a.discriminator = found.source->discriminator;
        a.unit = found.unit;
    }
    if (m_options.basenames)
        a.path.erase(0, a.path.rfind('/') + 1); // npos + 1 is 0
    return a;
}

std::string addr_run::number(uint64_t address) const
{
    return fmt::format("0x{:0{}x}", address, m_object->address_digits());
}

static std::string line_text(const answer &a)
{
    if (a.line == 0)
        return "?";
    return a.discriminator == 0 ? fmt::format("{}", a.line)
                                : fmt::format("{} (discriminator {})", a.line, a.discriminator);
}

static std::string path_text(const answer &a)
{
    return a.path.empty() ? "??" : printable(a.path);
}

static std::optional<std::string> unit_name(const answer &a)
{
    const auto name = a.unit == nullptr ? result<std::string>(error{}) : a.unit->unit.name();
    return name ? std::optional(*name) : std::nullopt;
}

void addr_run::print_text(const question &q, const answer &a)
{
    m_out.print("{}  {}  {}", q.shown ? number(*q.shown) : printable(q.text),
                a.has_function ? printable(a.function) : "??",
                a.has_row ? fmt::format("{}:{}", path_text(a), line_text(a)) : "??:0");
    if (q.is_one_of_several)
        m_out.print("  (unit {})", printable(unit_name(a).value_or("??")));
    m_out.write("\n");
}

// The layout of GNU addr2line, byte for byte. What it does not understand it takes for address 0.
void addr_run::print_gnu(const question &q, const answer &a)
{
    const bool pretty = m_options.pretty;
    const bool found = a.has_function || a.has_row;
    if (m_options.addresses)
        m_out.print("{}{}", number(q.shown.value_or(0)), pretty ? ": " : "\n");
    if (m_options.functions)
        m_out.print("{}{}", a.has_function ? printable(a.function) : "??", !pretty ? "\n" : found ? " at " : " ");
    if (!found) {
        m_out.write("??:0\n");
        return;
    }
    m_out.print("{}:{}\n", path_text(a), line_text(a));
}

void addr_run::print_json(const question &q, const answer &a)
{
    const std::optional<std::string> unit = unit_name(a);
    m_out.record({{"input", q.text},
                  {"address", q.address ? hex(*q.address) : json_value(nullptr)},
                  {"function", a.has_function ? json_value(a.function) : json_value(nullptr)},
                  {"file", a.path.empty() ? json_value(nullptr) : json_value(a.path)},
                  {"line", or_null(a.line)},
                  {"column", or_null(a.column)},
                  {"discriminator", a.has_row ? json_value(a.discriminator) : json_value(nullptr)},
                  {"unit", unit ? json_value(*unit) : json_value(nullptr)}});
}

void addr_run::print(const question &q, const answer &a)
{
    if (m_out.is_json())
        print_json(q, a);
    else if (m_options.format == output_format::gnu)
        print_gnu(q, a);
    else
        print_text(q, a);
}

void addr_run::ask(const std::string &input)
{
    for (const question &q : parse(input)) {
        const answer a = find(q);
        if (a.is_whole())
            m_done.answered();
        else if (a.is_empty())
            m_done.missed();
        else
            m_done.partly();
        print(q, a);
    }
}

int addr_run::finish()
{
    m_out.finish();
    return m_done.status();
}

static std::unique_ptr<object> open_object(const addr_options &options)
{
    try {
        return std::make_unique<object>(options.file, options.raw, options.debug_dirs);
    } catch (const failure &f) {
        throw failure(f.what() + (options.inputs.empty() ? "" : hint_at_exe(options, options.inputs[0])));
    }
}

static int run_addr(const addr_options &options)
{
    const std::unique_ptr<object> obj = open_object(options);
    addr_run run(options, obj.get());
    if (options.inputs.empty()) {
        for (std::string line; std::getline(std::cin, line);) {
            if (trim(line).empty())
                run.answer_nothing(line);
            else
                run.ask(line);
            run.out().flush();
        }
        return run.finish();
    }
    progress shown(fmt::format("{}: addresses", options.file), options.inputs.size(), progress::mode::answering);
    for (const std::string &input : options.inputs) {
        run.ask(input);
        shown.step();
    }
    return run.finish();
}

void add_addr(CLI::App &app, int *status)
{
    auto options = std::make_shared<addr_options>();
    options->file = "a.out";
    CLI::App *verb = app.add_subcommand("addr", "Shows function and source line of addresses");
    verb->add_option("-e,--exe", options->file, "ELF file (a.out when not given)")->default_str("a.out");
    verb->add_option("ADDR", options->inputs,
                     "Hexadecimal address, with or without 0x, or symbol+offset; from standard input, one a line, when "
                     "none is given");
    verb->add_option("-j,--section", options->section, "Addresses are offsets into this section");
    verb->add_flag("-C,--demangle", options->demangle, "Show C++ functions by their C++ names");
    verb->add_flag("-s,--basenames", options->basenames, "Show file names without folders");
    verb->add_flag("-a,--addresses", options->addresses, "Show the address (gnu; the other formats always do)");
    verb->add_flag("-f,--functions", options->functions, "Show the function (gnu; the other formats always do)");
    verb->add_flag("-p,--pretty-print", options->pretty, "One line an address (gnu; text always does)");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text},
                        {"gnu", output_format::gnu},
                        {"json", output_format::json},
                        {"jsonl", output_format::jsonl}});
    verb->footer(
        "What is not known is ?? or line 0 in text, null in JSON. --format=gnu is the layout of GNU addr2line, with\n"
        "control characters as \\xNN. The line is that of the innermost inlined call, the function beside it that of\n"
        "the ELF symbol. A name that several functions have is answered for each, with its unit (gnu: the first).\n"
        "A text that could be both is a number: `add` is 0xadd, `add+0` the function. Offsets behind + are\n"
        "decimal, or hexadecimal with 0x. Bytes that are not UTF-8 become U+FFFD in JSON.\n"
        "Examples:\n"
        "  korva addr -e ./a.out 0x1139 main+0x10\n"
        "  korva addr -e ./a.out -C --format=json 1139\n"
        "  korva addr -e ./a.out -afp --format=gnu < addresses\n"
        "  korva addr -e libx.so -j .text 0x20");
    verb->callback([options, status, verb] {
        options->has_exe = verb->count("--exe") != 0;
        *status = run_addr(*options);
    });
}

} // namespace korva::program
