// SPDX-License-Identifier: Apache-2.0
//
// korva explain: how an answer is come by, step by step, or where it stops and why.
#include "command.h"
#include "explain/page.h"
#include "input.h"
#include "stacks.h"
#include "visitor.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <unistd.h>

namespace korva::program
{

namespace
{

using explanation::loaded_place;
using explanation::step;
using explanation::trail;

struct explain_options : common_options {
    std::vector<std::string> inputs;
    std::string core;
    int pid = 0;
    bool has_exe = false;
    bool demangle = false;
    unsigned int context = 2;

    bool is_of_process() const { return pid != 0 || !core.empty(); }
};

/** A file that is asked, with what is kept between questions. */
struct asked_file {
    explicit asked_file(std::unique_ptr<object> opened)
        : file(std::move(opened)), lines(std::make_unique<locator>(file.get())), reader(*file, false)
    {
    }
    std::unique_ptr<object> file;
    std::unique_ptr<locator> lines;
    address_reader reader;
};

/** What is written of one address. */
struct explained {
    std::string page = {};
    json_value record = {};
    record_status status = record_status::ok;
    std::optional<record_error> why = {};
};

class explain_run
{
public:
    explicit explain_run(const explain_options &options) : m_options(options), m_out(options.format) {}
    virtual ~explain_run() = default;
    virtual void ask(const std::string &input) = 0;
    virtual int finish();

protected:
    trail begin(const asked_file &of, uint64_t address) const;
    void explain(const std::string &input, trail &t);
    void tell_nothing(const std::string &input, std::optional<uint64_t> pc, const std::string &why, const char *code);
    virtual void put(explained e) { write(e); }
    void write(const explained &e);

    const explain_options &m_options;

private:
    answers m_out;
    tally m_done;
    bool m_any = false; // page was written
};

/** Addresses of one file. */
class file_run : public explain_run
{
public:
    explicit file_run(const explain_options &options)
        : explain_run(options),
          m_file(std::make_unique<object>(options.file, options.flags(), options.search, options.bounds))
    {
    }
    void ask(const std::string &input) override;

private:
    asked_file m_file;
};

/** Addresses in the memory of a process or core file. */
class process_run : public explain_run
{
public:
    explicit process_run(const explain_options &options);
    void ask(const std::string &input) override;
    int finish() override;
    /** Asks for the place where the first thread is. */
    void ask_for_first();

private:
    asked_file *open(const krv_proc_module_t *module, std::string *why_not);
    std::vector<uint64_t> read(const std::string &input);
    void ask_for(const std::string &input, uint64_t pc);
    void explain_at(const std::string &input, uint64_t pc, const krv_proc_frame_t *frame, int tid);
    void tell_no_module(const std::string &input, uint64_t pc);
    void put(explained e) override { m_held.push_back(std::move(e)); }

    std::optional<process> m_proc;
    std::map<const krv_proc_module_t *, std::unique_ptr<asked_file>> m_files;
    std::vector<explained> m_held; // until the process runs on: its reader may take his time
};

} // namespace

trail explain_run::begin(const asked_file &of, uint64_t address) const
{
    trail t = {.file = of.file.get(), .lines = of.lines.get(), .address = address};
    t.frame_flags = m_options.demangle ? KRV_ELF_FRAMES_F_DEMANGLE : KRV_ELF_FRAMES_F_NONE;
    t.context = m_options.context;
    return t;
}

void explain_run::explain(const std::string &input, trail &t)
{
    std::vector<std::string> notes;
    const std::vector<step> steps = explanation::take_steps(t, &notes);
    const bool has_line = !t.frames.empty() && t.frames[0].has_row != 0 && t.frames[0].line != 0;
    if (t.frames.empty())
        m_done.missed();
    else if (has_line && t.frames[0].file[0] != '\0')
        m_done.answered();
    else
        m_done.partly();
    explained e;
    if (m_out.is_json())
        e.record = explanation::make_record(input, t, steps, notes);
    else
        e.page = explanation::make_page(input, t, steps, notes);
    if (t.refusal != nullptr)
        e.why = *t.refusal;
    e.status = t.frames.empty() && !e.why ? record_status::not_found : status_of(e.why ? &*e.why : nullptr);
    put(std::move(e));
}

// Of what leads to no file that could be asked.
void explain_run::tell_nothing(const std::string &input, std::optional<uint64_t> pc, const std::string &why,
                               const char *code)
{
    m_done.missed();
    const std::string shown = pc ? fmt::format("0x{:016x}", *pc) : printable(input);
    explained e;
    e.page = fmt::format("{}\n  answer   nothing is known of it\n\n  stopped  {}\n", shown, printable(why));
    e.record = {{"input", input.empty() ? json_value(nullptr) : json_value(input)},
                {"pc", pc ? hex(*pc) : json_value(nullptr)},
                {"stopped", json_value::array({why})}};
    e.status = record_status::error;
    e.why = record_error{.code = code, .messages = {why}};
    put(std::move(e));
}

void explain_run::write(const explained &e)
{
    if (m_out.is_json()) {
        m_out.record(e.record, e.status, e.why ? &*e.why : nullptr);
        return;
    }
    m_out.write(m_any ? "\n" : "");
    m_out.write(e.page);
    m_any = true;
}

int explain_run::finish()
{
    m_out.finish();
    return m_done.status();
}

void file_run::ask(const std::string &input)
{
    const std::vector<input_address> found = m_file.reader.read(input);
    if (found.empty())
        tell_nothing(input, {},
                     fmt::format("\"{}\" is neither an address nor a function of {}", input, m_file.file->path()),
                     "KRV_ERR_INVALID");
    for (const input_address &at : found) {
        trail t = begin(m_file, at.value);
        explain(at.is_number ? "" : input, t);
    }
}

process_run::process_run(const explain_options &options) : explain_run(options)
{
    auto opened = options.core.empty()
                      ? process::attach(options.pid)
                      : process::open_core(options.core.c_str(), options.has_exe ? options.file.c_str() : nullptr,
                                           options.flags(), options.search);
    if (!opened)
        throw failure(opened.error().text(), to_record_error(opened.error()));
    m_proc.emplace(std::move(*opened));
    if (!m_proc->set_files(options.flags(), options.search))
        throw std::bad_alloc();
    bound_walks(&*m_proc, options.bounds);
}

int process_run::finish()
{
    m_proc->release();
    for (const explained &e : m_held)
        write(e);
    return explain_run::finish();
}

// NULL with the reason.
asked_file *process_run::open(const krv_proc_module_t *module, std::string *why_not)
{
    std::unique_ptr<asked_file> &opened = m_files[module];
    if (opened != nullptr)
        return opened.get();
    if (const auto file = m_proc->file(*module))
        opened = std::make_unique<asked_file>(std::make_unique<object>(*file, module->path, m_options.bounds));
    else
        *why_not = file.error().text();
    return opened.get();
}

// A number is an address in memory. A symbol is looked for in the modules, in the executable first.
std::vector<uint64_t> process_run::read(const std::string &input)
{
    if (const auto address = parse_hex(trim(input)))
        return {*address};
    std::vector<const krv_proc_module_t *> modules = m_proc->modules();
    std::stable_partition(modules.begin(), modules.end(), [](const krv_proc_module_t *module) {
        return (module->flags & KRV_PROC_MODULE_F_MAIN) != 0;
    });
    for (const krv_proc_module_t *module : modules) {
        std::string ignored;
        std::vector<uint64_t> all;
        if (asked_file *of = open(module, &ignored))
            for (const input_address &at : of->reader.read(input))
                all.push_back(at.value + module->bias);
        if (!all.empty())
            return all;
    }
    return {};
}

void process_run::tell_no_module(const std::string &input, uint64_t pc)
{
    const krv_proc_module_t *below = nullptr, *above = nullptr;
    for (const krv_proc_module_t *module : m_proc->modules())
        if (module->end <= pc)
            below = module;
        else if (above == nullptr && module->start > pc)
            above = module;
    std::vector<std::string> sides;
    if (below != nullptr)
        sides.push_back(fmt::format("{} ends 0x{:x} before, at 0x{:x}", below->path, pc - below->end, below->end));
    if (above != nullptr)
        sides.push_back(
            fmt::format("{} begins 0x{:x} behind, at 0x{:x}", above->path, above->start - pc, above->start));
    tell_nothing(
        input, pc,
        fmt::format("no module of the process covers it{}{}", sides.empty() ? "" : ": ", fmt::join(sides, "; ")),
        "KRV_ELF_ERR_NOTFOUND");
}

void process_run::explain_at(const std::string &input, uint64_t pc, const krv_proc_frame_t *frame, int tid)
{
    const uint64_t looked_up = frame != nullptr ? frame->lookup_pc : pc;
    const krv_proc_module_t *module = m_proc->module_of(looked_up);
    if (module == nullptr) {
        tell_no_module(input, pc);
        return;
    }
    std::string why_not;
    const asked_file *of = open(module, &why_not);
    if (of == nullptr) {
        tell_nothing(input, pc, why_not, "KRV_ELF_ERR_NOTFOUND");
        return;
    }
    trail t = begin(*of, looked_up - module->bias);
    t.loaded = loaded_place{&*m_proc, module, pc, frame, tid};
    explain(input, t);
}

// With the registers of the first thread that has a frame there, if one has.
void process_run::ask_for(const std::string &input, uint64_t pc)
{
    bool is_explained = false;
    for (const krv_proc_thread_t &thread : m_proc->threads()) {
        visitor visit([&](const krv_proc_frame_t &frame) {
            if (is_explained || (frame.pc != pc && frame.lookup_pc != pc))
                return;
            is_explained = true;
            explain_at(input, pc, &frame, thread.tid);
        });
        m_proc->walk(thread.tid, visit);
        visit.rethrow();
        if (is_explained)
            return;
    }
    explain_at(input, pc, nullptr, 0);
}

void process_run::ask(const std::string &input)
{
    const std::vector<uint64_t> found = read(input);
    if (found.empty())
        tell_nothing(input, {}, fmt::format("\"{}\" is neither an address nor a function of a module", input),
                     "KRV_ERR_INVALID");
    for (const uint64_t pc : found)
        ask_for(parse_hex(trim(input)) ? "" : input, pc);
}

void process_run::ask_for_first()
{
    const std::vector<krv_proc_thread_t> threads = m_proc->threads();
    bool any = false;
    visitor visit([&](const krv_proc_frame_t &frame) {
        any = true;
        explain_at("", frame.pc, &frame, threads[0].tid);
    });
    if (!threads.empty())
        m_proc->walk(threads[0].tid, visit, 1);
    visit.rethrow();
    if (!any)
        tell_nothing("", {}, "the first thread has no frame", "KRV_ELF_ERR_NOTFOUND");
}

static int run_explain(const explain_options &options)
{
    if (options.is_of_process()) {
        if (options.pid != 0 && !options.core.empty())
            throw CLI::ValidationError("explain", "give either -p PID or --core CORE");
        process_run run(options);
        for (const std::string &input : options.inputs)
            run.ask(input);
        if (options.inputs.empty())
            run.ask_for_first();
        return run.finish();
    }
    file_run run(options);
    for (const std::string &input : options.inputs)
        run.ask(input);
    if (options.inputs.empty())
        throw CLI::ValidationError("explain", "give an address");
    return run.finish();
}

// Says what is wrong with a process id; "" when nothing is.
static std::string check_process(const std::string &text)
{
    int id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    return error == std::errc() && end == text.data() + text.size() && id > 0
               ? ""
               : fmt::format("{} is no number of a process", printable(text));
}

void add_explain(CLI::App &app, int *status)
{
    auto options = std::make_shared<explain_options>();
    options->file = "a.out";
    CLI::App *verb = app.add_subcommand("explain", "Tells how an address's answer is come by, or why there is none");
    verb->add_option("-e,--exe", options->file, "ELF file (a.out when not given); of a core file its executable")
        ->default_str("a.out");
    verb->add_option("--core", options->core, "Core file: addresses are those of its process");
    verb->add_option("-p,--pid", options->pid, "Process: likewise")->check(check_process)->type_name("PID");
    verb->add_option("ADDR", options->inputs,
                     "Hexadecimal address, with or without 0x, or symbol+offset; of a process the first thread's "
                     "place when none is given");
    verb->add_flag("-C,--demangle", options->demangle, "Show names of C++, Rust and D as these write them");
    verb->add_option("--context", options->context, "Lines of source above and below (2; 0: no source)")
        ->check(CLI::Range(0, 100));
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer(
        "Each step says what it went by: section and segment, debug file, unit and what named it, line table and "
        "rows,\n"
        "functions and where their names stand, call-frame information and its rules. Of a process or core file the\n"
        "rules have their values where a thread has a frame at the address. What is not known has its reason at the\n"
        "end, and what would help.\n"
        "Exit status: as korva addr's.\n"
        "Examples:\n"
        "  korva explain -e ./a.out 0x1139\n"
        "  korva explain -e ./a.out --format=json main+0x10 | jq '.[0].unit.named_by'\n"
        "  korva explain --core core -e ./a.out\n"
        "  korva explain -p 4711 0x7f3c2a1b4d20");
    verb->callback([options, status, verb] {
        options->has_exe = verb->count("--exe") != 0;
        *status = run_explain(*options);
    });
}

} // namespace korva::program
