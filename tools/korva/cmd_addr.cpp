// SPDX-License-Identifier: Apache-2.0
//
// korva addr: functions and source lines of addresses.
#include "addr/fields.h"
#include "addr/files.h"
#include "addr/in_order.h"
#include "command.h"
#include "input.h"
#include "locate.h"
#include "progress.h"
#include "symbol_kind.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <numeric>
#include <span>
#include <unistd.h>
#include <unordered_set>

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
    bool inlines = false;
    bool no_inlines = false;
    bool has_exe = false;
    bool jsonl = false;
    file_questions asked; // with --jsonl
};

/** What one input asks for; a name that several functions have asks for each. */
struct question {
    std::string_view text;
    std::optional<uint64_t> shown;   /**< the address as the input gives it: with -j an offset */
    std::optional<uint64_t> address; /**< in the file */
    bool is_one_of_several = false;
    const record_error *why = nullptr; /**< why there is no address */
};

/** A question about an address that waits for others, and the text of its answer. */
struct waiting_question {
    std::string input;
    question asked; // but for its text
};

/** One run: everything that answering one input needs. */
class addr_run
{
public:
    addr_run(const addr_options &options, object *obj)
        : m_options(options), m_object(obj), m_reader(*obj, options.format == output_format::gnu), m_locator(obj),
          m_fields(*obj, options.basenames), m_out(options.format)
    {
        obj->diagnose_notes();
        if (!options.section.empty()) {
            m_section = obj->find_section(options.section);
            if (!m_section)
                throw failure(fmt::format("{}: no section {}", obj->path(), options.section),
                              {.code = "KRV_ERR_NOTFOUND", .section = options.section});
        }
    }

    /** Asks; the answer may wait. */
    void ask(std::string_view input);
    void answer_waiting();
    /** A blank line asks for nothing, and is answered so. */
    void answer_nothing(std::string_view input);
    int finish();

    answers &out() { return m_out; }

private:
    std::string why_no_address(const std::string &input);
    question question_for(std::string_view text, const input_address &parsed) const;
    void ask_for_names(std::string_view input);
    bool needs_functions() const { return !m_is_gnu || m_options.functions || m_most_frames != 1; }
    answer find(const question &q);
    void trim_file();
    void answer_one(const question &q);
    void make_answer(const question &q);
    void make_text(const question &q, answer a);
    void print(std::string_view text);
    void add_place(const krv_elf_frame_t &frame, uint32_t discriminator);
    void add_text(const question &q, answer a);
    void add_gnu_function(const krv_elf_frame_t &frame);
    void add_gnu(const question &q, answer a);
    void add_json(const question &q, answer a);
    void add_address(uint64_t address) { append_hex(&m_line, address, m_digits); }

    const addr_options &m_options;
    object *m_object;
    address_reader m_reader;
    locator m_locator;
    address_fields m_fields;
    answers m_out;
    std::optional<extent> m_section;
    std::optional<other_symbols> m_others; // read for the first message about a name
    tally m_done;
    const size_t m_digits = static_cast<size_t>(m_object->address_digits());
    const bool m_is_gnu = m_options.format == output_format::gnu;
    const size_t m_most_frames = (m_is_gnu ? m_options.inlines : !m_options.no_inlines) ? SIZE_MAX : 1;
    std::string m_line; // that is being made
    std::vector<waiting_question> m_waiting;
    ordered_answers m_ordered;
    std::unordered_set<const krv_ctu_t *> m_seen; // units of answers
    size_t m_untrimmed_answers = 0, m_untrimmed_units = 0;
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
    if (!q.address)
        return {};
    const unsigned int names = needs_functions() ? KRV_ELF_FRAMES_F_NONE : KRV_ELF_FRAMES_F_NO_FUNCTIONS;
    const unsigned int demangled = m_options.demangle ? KRV_ELF_FRAMES_F_DEMANGLE : KRV_ELF_FRAMES_F_NONE;
    return m_locator.frames(*q.address, names | demangled, m_most_frames);
}

void addr_run::add_place(const krv_elf_frame_t &frame, uint32_t discriminator)
{
    const std::string_view path = m_fields.path_of(frame);
    append_printable(&m_line, path.empty() ? "??" : path);
    m_line += ':';
    if (frame.line == 0) {
        m_line += '?';
        return;
    }
    append_decimal(&m_line, frame.line);
    if (discriminator != 0) {
        m_line += " (discriminator ";
        append_decimal(&m_line, discriminator);
        m_line += ')';
    }
}

void addr_run::add_text(const question &q, answer a)
{
    if (q.shown)
        add_address(*q.shown);
    else
        append_printable(&m_line, q.text);
    const bool has_function = !a.empty() && a[0].function[0] != '\0';
    m_line += "  ";
    append_printable(&m_line, has_function ? a[0].function : "??");
    m_line += "  ";
    if (!a.empty() && a[0].has_row != 0)
        add_place(a[0], a[0].discriminator);
    else
        m_line += "??:0";
    if (q.is_one_of_several) {
        m_line += "  (unit ";
        append_printable(&m_line, m_fields.unit_name(a).value_or("??"));
        m_line += ')';
    }
    m_line += '\n';
    for (const krv_elf_frame_t &caller : a.subspan(std::min<size_t>(a.size(), 1))) {
        m_line += m_digits == 8 ? "(inlined by)  " : "      (inlined by)  "; // as wide as an address
        append_printable(&m_line, caller.function[0] == '\0' ? "??" : caller.function);
        m_line += "  ";
        add_place(caller, caller.discriminator);
        m_line += '\n';
    }
}

// GNU addr2line shows the versions of symbols.
void addr_run::add_gnu_function(const krv_elf_frame_t &frame)
{
    const std::string_view whole(frame.linkage_name);
    const size_t version = frame.origin == KRV_ELF_FRAME_SYMBOLS ? whole.find('@') : std::string_view::npos;
    append_printable(&m_line, frame.function[0] == '\0' ? "??" : frame.function);
    if (version != std::string_view::npos)
        append_printable(&m_line, whole.substr(version));
}

// The layout of GNU addr2line, byte for byte. What it does not understand it takes for address 0.
void addr_run::add_gnu(const question &q, answer a)
{
    const bool pretty = m_options.pretty;
    if (m_options.addresses) {
        add_address(q.shown.value_or(0));
        m_line += pretty ? ": " : "\n";
    }
    if (a.empty()) {
        if (m_options.functions)
            m_line += pretty ? "?? " : "??\n";
        m_line += "??:0\n";
        return;
    }
    for (const krv_elf_frame_t &frame : a) {
        if (pretty && &frame != a.data())
            m_line += " (inlined by) ";
        if (m_options.functions) {
            add_gnu_function(frame);
            m_line += pretty ? " at " : "\n";
        }
        add_place(frame, a[0].discriminator); // it shows that of the innermost frame beside each
        m_line += '\n';
    }
}

void addr_run::add_json(const question &q, answer a)
{
    const record_error *why = q.address ? m_locator.refusal() : q.why;
    m_line += '{';
    append_record_head(&m_line, a.empty() && why == nullptr ? record_status::not_found : status_of(why), why);
    append_text(&m_line, ",\"input\":", q.text);
    m_fields.append(&m_line, q.address, a);
    m_line += '}';
}

void addr_run::make_text(const question &q, answer a)
{
    m_line.clear();
    if (m_out.is_json())
        add_json(q, a);
    else if (m_is_gnu)
        add_gnu(q, a);
    else
        add_text(q, a);
}

void addr_run::print(std::string_view text)
{
    if (m_out.is_json())
        m_out.record_text(text);
    else
        m_out.write(text);
}

void addr_run::make_answer(const question &q)
{
    const answer a = find(q);
    if (!a.empty() && m_seen.insert(a[0].unit).second)
        ++m_untrimmed_units;
    count(a, &m_done);
    make_text(q, a);
}

// What was read of the file is given back after some answers, and sooner while units are met whose line numbers had to be read.
void addr_run::trim_file()
{
    constexpr size_t MANY_ANSWERS = 512, MANY_UNITS = 4;
    if (++m_untrimmed_answers < MANY_ANSWERS && m_untrimmed_units < MANY_UNITS)
        return;
    m_object->elf().trim();
    m_untrimmed_answers = m_untrimmed_units = 0;
}

void addr_run::answer_one(const question &q)
{
    make_answer(q);
    print(m_line);
}

void addr_run::answer_waiting()
{
    for (auto &waiting : m_waiting)
        waiting.asked.text = waiting.input;
    m_ordered.answer(
        m_waiting.size(),
        [this](uint32_t a, uint32_t b) { return m_waiting[a].asked.address < m_waiting[b].asked.address; },
        [this](uint32_t number) -> const std::string & {
            trim_file();
            make_answer(m_waiting[number].asked);
            return m_line;
        },
        [this](std::string_view text) { print(text); });
    m_waiting.clear();
}

void addr_run::ask_for_names(std::string_view input)
{
    std::vector<input_address> found = m_reader.read(input);
    if (found.empty()) {
        const record_error why = {.code = "KRV_ERR_INVALID", .messages = {why_no_address(std::string(input))}};
        m_object->diagnose(why.messages[0]);
        answer_one({.text = input, .shown = {}, .address = {}, .why = &why});
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
    // Places have no more in common than the line numbers of a unit; functions have more.
    const size_t most_waiting = needs_functions() ? 8192 : 256;
    if (const auto number = m_reader.read_number(input)) {
        m_waiting.push_back({std::string(input), question_for({}, {*number, true})});
        if (m_waiting.size() >= most_waiting)
            answer_waiting();
    } else {
        answer_waiting();
        ask_for_names(input);
    }
}

void addr_run::answer_nothing(std::string_view input)
{
    answer_waiting();
    make_text({.text = input, .shown = {}, .address = {}}, {});
    print(m_line);
}

int addr_run::finish()
{
    answer_waiting();
    m_object->record_faults(&m_out);
    m_out.finish();
    return m_done.status();
}

static std::unique_ptr<object> open_object(const addr_options &options)
{
    try {
        return std::make_unique<object>(options.file, options.flags(), options.search, options.bounds);
    } catch (const failure &f) {
        throw failure(f.what() + (options.inputs.empty() ? "" : hint_at_exe(options, options.inputs[0])), f.why);
    }
}

static int run_addr(addr_options &options)
{
    if (options.jsonl) {
        options.asked.names = options.demangle ? KRV_ELF_FRAMES_F_DEMANGLE : KRV_ELF_FRAMES_F_NONE;
        options.asked.most_frames = options.no_inlines ? 1 : SIZE_MAX;
        options.asked.basenames = options.basenames;
        return answer_files(options, options.asked);
    }
    const std::unique_ptr<object> obj = open_object(options);
    addr_run run(options, obj.get());
    if (options.inputs.empty()) {
        line_reader lines(STDIN_FILENO);
        const auto before_reading = [&] {
            if (lines.is_ready())
                return;
            run.answer_waiting();
            run.out().flush();
        };
        while (const auto line = lines.next(before_reading))
            if (trim(*line).empty())
                run.answer_nothing(*line);
            else
                run.ask(*line);
        return run.finish();
    }
    progress shown(fmt::format("{}: addresses", options.file), options.inputs.size(), progress::mode::answering);
    for (const std::string &input : options.inputs) {
        run.ask(input);
        run.answer_waiting();
        shown.step();
    }
    return run.finish();
}

// Questions about many files, in place of those about one.
static void add_jsonl(CLI::App *verb, addr_options *options)
{
    CLI::Option *jsonl = verb->add_flag_callback(
        "--jsonl",
        [options, verb] {
            if (verb->count("--format") == 0)
                options->format = output_format::jsonl;
            if (options->format != output_format::json && options->format != output_format::jsonl)
                throw CLI::ValidationError("--jsonl", "its answers are records: --format=json or jsonl");
            set_output_format(options->format);
            options->jsonl = true;
        },
        "Questions are a JSON object a line: id, module or build_id, and addr");
    for (const char *other :
         {"--exe", "ADDR", "--section", "--inlines", "--addresses", "--functions", "--pretty-print"})
        jsonl->excludes(verb->get_option(other));
    verb->add_option("--input", options->asked.input, "Where the questions are (--jsonl), in place of standard input")
        ->type_name("FILE")
        ->needs(jsonl);
    verb->add_option("--cache", options->asked.most_open, "How many files are open at a time (--jsonl)")
        ->default_str("64")
        ->check(CLI::Range(1, 4096))
        ->needs(jsonl);
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
    CLI::Option *inlines = verb->add_flag("-i,--inlines", options->inlines,
                                          "Show the functions that an inlined one stands in (gnu; the others do)");
    verb->add_flag("-n,--no-inlines", options->no_inlines, "Show the innermost function alone")->excludes(inlines);
    verb->add_flag("-s,--basenames", options->basenames, "Show file names without folders");
    verb->add_flag("-a,--addresses", options->addresses, "Show the address (gnu; the other formats always do)");
    verb->add_flag("-f,--functions", options->functions, "Show the function (gnu; the other formats always do)");
    verb->add_flag("-p,--pretty-print", options->pretty, "One line an address (gnu; text always does)");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text},
                        {"gnu", output_format::gnu},
                        {"json", output_format::json},
                        {"jsonl", output_format::jsonl}});
    add_jsonl(verb, options.get());
    verb->footer(
        "What is not known is ?? or line 0 in text, null in JSON. --format=gnu is the layout of GNU addr2line, with\n"
        "control characters as \\xNN. Functions that others were inlined into follow, each with the line of the call.\n"
        "A name that several functions have is answered for each, with its unit (gnu: the first).\n"
        "A text that could be both is a number: `add` is 0xadd, `add+0` the function. Offsets behind + are\n"
        "decimal, or hexadecimal with 0x. Bytes that are not UTF-8 become U+FFFD in JSON.\n"
        "Examples:\n"
        "  korva addr -e ./a.out 0x1139 main+0x10\n"
        "  korva addr -e ./a.out -C --format=json 1139\n"
        "  korva addr -e ./a.out -afp --format=gnu < addresses\n"
        "  korva addr -e libx.so -j .text 0x20\n"
        "  echo '{\"id\":7,\"module\":\"/bin/ls\",\"addr\":\"0x4a10\"}' | korva addr --jsonl");
    verb->callback([options, status, verb] {
        options->has_exe = verb->count("--exe") != 0;
        *status = run_addr(*options);
    });
}

} // namespace korva::program
