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
#include <memory>
#include <unistd.h>

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

/** An answer as it is printed. Its texts are others'. */
struct answer {
    bool has_function = false;
    bool has_row = false; /**< of a line table; its path or line may be unknown all the same */
    std::string_view function;
    std::string_view path;
    source_view row;
    std::optional<unit> owner; /**< of the row */

    bool is_whole() const { return has_row && !path.empty() && row.line != 0; }
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

    void ask(std::string_view input);
    /** A blank line asks for nothing, and is answered so. */
    void answer_nothing(std::string_view input) { print({.text = input, .shown = {}, .address = {}}, {}); }
    int finish();

    answers &out() { return m_out; }

private:
    std::string why_no_address(const std::string &input);
    question question_for(std::string_view text, const input_address &parsed) const;
    void ask_for_names(std::string_view input);
    answer find(const question &q);
    void answer_one(const question &q);
    void print(const question &q, const answer &a);
    std::optional<std::string_view> unit_name(const answer &a);
    void add_text(const question &q, const answer &a);
    void add_gnu(const question &q, const answer &a);
    void add_json(const question &q, const answer &a);
    void add_address(uint64_t address) { append_hex(&m_line, address, m_digits); }

    const addr_options &m_options;
    object *m_object;
    address_reader m_reader;
    locator m_locator;
    answers m_out;
    std::optional<extent> m_section;
    std::optional<other_symbols> m_others; // read for the first message about a name
    tally m_done;
    const size_t m_digits = static_cast<size_t>(m_object->address_digits());
    const bool m_is_gnu = m_options.format == output_format::gnu;
    const bool m_shows_functions = !m_is_gnu || m_options.functions;
    std::string m_line;     // that is being made
    std::string m_function; // of the answer, demangled
    std::optional<unit> m_named;
    result<std::string> m_unit_name = error(); // of that one
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

question addr_run::question_for(std::string_view text, const input_address &parsed) const
{
    uint64_t value = parsed.value;
    if (m_digits == 8 && m_is_gnu)
        value &= UINT32_MAX; // as GNU addr2line takes it
    question q = {.text = text, .shown = value, .address = {}};
    if (!m_section || !parsed.is_number)
        q.address = value;
    else if (value < m_section->size)
        q.address = m_section->address + value;
    return q;
}

answer addr_run::find(const question &q)
{
    answer a;
    if (!q.address)
        return a;
    const location found = m_locator.find(*q.address, m_shows_functions);
    if (found.function != nullptr) {
        a.has_function = true;
        const char *symbol = found.function->name;
        if (m_options.demangle)
            a.function = m_function = m_is_gnu ? demangle_or_keep(symbol) : function_name(symbol, true);
        else // GNU addr2line shows it whole
            a.function = m_is_gnu ? symbol : unversioned(symbol);
    }
    if (found.source) {
        a.has_row = true;
        a.row = *found.source;
        a.path = a.row.path == nullptr ? "" : a.row.path;
        a.owner = found.owner;
    }
    if (m_options.basenames)
        a.path.remove_prefix(a.path.rfind('/') + 1); // npos + 1 is 0
    return a;
}

static void append_path(std::string *line, const answer &a)
{
    append_printable(line, a.path.empty() ? "??" : a.path);
}

static void append_line(std::string *line, const answer &a)
{
    if (a.row.line == 0) {
        *line += '?';
        return;
    }
    append_decimal(line, a.row.line);
    if (a.row.discriminator != 0) {
        *line += " (discriminator ";
        append_decimal(line, a.row.discriminator);
        *line += ')';
    }
}

// Of the unit of the answer; nothing when there is none, or it has none. Kept, since the next answer is often of that too.
std::optional<std::string_view> addr_run::unit_name(const answer &a)
{
    if (!a.owner)
        return {};
    if (!m_named || m_named->get() != a.owner->get()) {
        m_named = a.owner;
        m_unit_name = a.owner->name();
    }
    return m_unit_name ? std::optional<std::string_view>(*m_unit_name) : std::nullopt;
}

void addr_run::add_text(const question &q, const answer &a)
{
    if (q.shown)
        add_address(*q.shown);
    else
        append_printable(&m_line, q.text);
    m_line += "  ";
    append_printable(&m_line, a.has_function ? a.function : "??");
    m_line += "  ";
    if (a.has_row) {
        append_path(&m_line, a);
        m_line += ':';
        append_line(&m_line, a);
    } else
        m_line += "??:0";
    if (q.is_one_of_several) {
        m_line += "  (unit ";
        append_printable(&m_line, unit_name(a).value_or("??"));
        m_line += ')';
    }
    m_line += '\n';
}

// The layout of GNU addr2line, byte for byte. What it does not understand it takes for address 0.
void addr_run::add_gnu(const question &q, const answer &a)
{
    const bool pretty = m_options.pretty;
    if (m_options.addresses) {
        add_address(q.shown.value_or(0));
        m_line += pretty ? ": " : "\n";
    }
    if (m_options.functions) {
        append_printable(&m_line, a.has_function ? a.function : "??");
        m_line += !pretty ? "\n" : a.is_empty() ? " " : " at ";
    }
    if (a.is_empty()) {
        m_line += "??:0\n";
        return;
    }
    append_path(&m_line, a);
    m_line += ':';
    append_line(&m_line, a);
    m_line += '\n';
}

void addr_run::add_json(const question &q, const answer &a)
{
    const auto text = [this](const char *key, std::optional<std::string_view> value) {
        m_line += key;
        value ? append_json(&m_line, *value) : void(m_line += "null");
    };
    const auto number = [this](const char *key, uint64_t value, bool is_known) {
        m_line += key;
        is_known ? append_decimal(&m_line, value) : void(m_line += "null");
    };
    text("{\"input\":", q.text);
    const std::string address = q.address ? fmt::format("0x{:x}", *q.address) : "";
    text(",\"address\":", q.address ? std::optional<std::string_view>(address) : std::nullopt);
    text(",\"function\":", a.has_function ? std::optional(a.function) : std::nullopt);
    text(",\"file\":", a.path.empty() ? std::nullopt : std::optional(a.path));
    number(",\"line\":", a.row.line, a.row.line != 0);
    number(",\"column\":", a.row.column, a.row.column != 0);
    number(",\"discriminator\":", a.row.discriminator, a.has_row);
    text(",\"unit\":", unit_name(a));
    m_line += '}';
}

void addr_run::print(const question &q, const answer &a)
{
    m_line.clear();
    if (m_out.is_json()) {
        add_json(q, a);
        m_out.record_text(m_line);
        return;
    }
    if (m_is_gnu)
        add_gnu(q, a);
    else
        add_text(q, a);
    m_out.write(m_line);
}

void addr_run::answer_one(const question &q)
{
    const answer a = find(q);
    if (a.is_whole())
        m_done.answered();
    else if (a.is_empty())
        m_done.missed();
    else
        m_done.partly();
    print(q, a);
}

void addr_run::ask_for_names(std::string_view input)
{
    std::vector<input_address> found = m_reader.read(input);
    if (found.empty()) {
        m_object->diagnose(why_no_address(std::string(input)));
        answer_one({.text = input, .shown = {}, .address = {}});
        return;
    }
    if (m_is_gnu)
        found.resize(1); // who asks in that way expects one answer for one line
    for (const input_address &parsed : found) {
        question q = question_for(input, parsed);
        q.is_one_of_several = found.size() > 1;
        answer_one(q);
    }
}

void addr_run::ask(std::string_view input)
{
    if (const auto number = m_reader.read_number(input))
        answer_one(question_for(input, {*number, true}));
    else
        ask_for_names(input);
}

int addr_run::finish()
{
    m_out.finish();
    return m_done.status();
}

static std::unique_ptr<object> open_object(const addr_options &options)
{
    try {
        return std::make_unique<object>(options.file, options.flags(), options.debug_dirs);
    } catch (const failure &f) {
        throw failure(f.what() + (options.inputs.empty() ? "" : hint_at_exe(options, options.inputs[0])));
    }
}

static int run_addr(const addr_options &options)
{
    const std::unique_ptr<object> obj = open_object(options);
    addr_run run(options, obj.get());
    if (options.inputs.empty()) {
        line_reader lines(STDIN_FILENO);
        while (const auto line = lines.next([&] { run.out().flush(); }))
            if (trim(*line).empty())
                run.answer_nothing(*line);
            else
                run.ask(*line);
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
    verb->add_flag("-C,--demangle", options->demangle, "Show names of C++, Rust and D as these write them");
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
