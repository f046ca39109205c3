// SPDX-License-Identifier: Apache-2.0
//
// korva stack: the stacks of a process or of a core file, frame by frame; or those of many, merged.
#include "base64.h"
#include "command.h"
#include "frame_place.h"
#include "frame_record.h"
#include "stacks.h"
#include "text_input.h"
#include "trace/trace_options.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <unordered_map>

namespace korva::program
{

namespace
{

struct stack_options : common_options {
    std::vector<int> pids;
    std::vector<std::string> cores;
    std::string cores_from; // a file that names more of them
    bool merge = false;
    frame_detail by = frame_detail::function;
    std::string exe;
    int tid = 0;
    bool first_only = false;
    bool quiet = false;
    place_request places;
    stack_request wanted;
};

class stack_run
{
public:
    explicit stack_run(const stack_options &options);

    int run();

private:
    void show(const thread_stack &stack);
    frame_place place_of(const stack_frame &f);
    void print_place(const std::string &path, uint32_t line);
    void print_variables(const call_variables &variables);
    void print_frame(size_t index, const stack_frame &f, const frame_place &at);
    void record_stack(const thread_stack &stack, const json_value &frames);
    void tell_notes();

    const stack_options &m_options;
    std::optional<process> m_proc;
    krv_proc_info_t m_info = {};
    std::unordered_map<const krv_proc_module_t *, module_file> m_modules; // freed before the process that they are of
    answers m_out;
    std::optional<kept_diagnostics> m_kept; // notes on modules: for the end
    tally m_done;                           // answered: walks that ended where they were to
    bool m_walked = false;                  // there was a frame
    bool m_arguments = false;               // there were some
};

} // namespace

stack_run::stack_run(const stack_options &options) : m_options(options), m_out(options.format), m_kept(std::in_place)
{
    const char *const exe = options.exe.empty() ? nullptr : options.exe.c_str();
    auto opened = options.cores.empty()
                      ? process::attach(options.pids[0])
                      : process::open_core(options.cores[0].c_str(), exe, options.flags(), options.search);
    if (!opened)
        throw failure(opened.error().text(), to_record_error(opened.error()));
    m_proc.emplace(std::move(*opened));
    m_info = m_proc->info();
    if (!m_proc->set_files(options.flags(), options.search))
        throw std::bad_alloc();
    bound_walks(&*m_proc, options.bounds);
}

frame_place stack_run::place_of(const stack_frame &f)
{
    if (f.module == nullptr)
        return {};
    const auto [at, is_fresh] = m_modules.try_emplace(f.module);
    if (is_fresh)
        at->second = open_module(*m_proc, *f.module, m_options.bounds,
                                 m_options.exe.empty() ? "; say with -e FILE where the executable is" : "");
    return look_up(at->second, f, m_options.places);
}

void stack_run::print_place(const std::string &path, uint32_t line)
{
    if (!path.empty())
        m_out.print("  {}:{}", printable(path), line);
}

void stack_run::print_variables(const call_variables &variables)
{
    for (const shown_variable &v : variables)
        m_out.print("       {} {} = {}\n", printable(v.type), printable(v.name.empty() ? "(unnamed)" : v.name),
                    printable(v.value));
}

void stack_run::print_frame(size_t index, const stack_frame &f, const frame_place &at)
{
    const int digits = m_info.target == KRV_ACTIVATION_I386 ? 8 : 16;
    m_out.print("#{:<3} 0x{:0{}x}  ", index, f.pc, digits);
    std::string path = at.path;
    uint32_t line = at.line;
    for (size_t i = 0; i + 1 < at.calls.size(); ++i) {
        m_out.write(printable(at.calls[i].function[0] == '\0' ? "??" : at.calls[i].function));
        print_place(path, line);
        m_out.write("  (inlined)\n");
        if (i < f.variables.size())
            print_variables(f.variables[i]);
        m_out.print("{:{}}", "", digits + 9); // as far as the function in the line above
        path = path_of(at.calls[i + 1], m_options.places);
        line = at.calls[i + 1].line;
    }
    if (at.function.empty())
        m_out.write("??");
    else
        m_out.print("{}+0x{:x}", printable(at.function), at.offset);
    print_place(path, line);
    if (f.module != nullptr && f.module->path[0] != '\0')
        m_out.print("  ({}{})", printable(basename_of(f.module->path)),
                    (f.module->flags & KRV_PROC_MODULE_F_DELETED) != 0 ? ", deleted" : "");
    m_out.write(f.is_signal_frame ? "  <signal handler called>\n" : "\n");
    for (size_t i = 0; i < f.arguments.size(); ++i)
        m_out.print("       argument {}: {}\n", i + 1, bytes_text(f.arguments[i]));
    if (!f.variables.empty())
        print_variables(f.variables.back());
}

// What `korva unwind` takes.
static void add_raw(const process &proc, const thread_stack &stack, krv_activation_type_t target, json_value *record)
{
    json_value modules = json_value::array(), pieces = json_value::array();
    for (const krv_proc_module_t *m : proc.modules())
        modules.push_back({{"path", m->path},
                           {"build_id", build_id_of(*m).empty() ? json_value(nullptr) : json_value(build_id_of(*m))},
                           {"start", hex(m->start)},
                           {"end", hex(m->end)},
                           {"bias", hex(m->bias)}});
    for (const memory_piece &piece : stack.raw)
        pieces.push_back({{"address", hex(piece.address)}, {"bytes", to_base64(piece.bytes)}});
    (*record)["target"] = target == KRV_ACTIVATION_I386 ? "i386" : "amd64";
    (*record)["modules"] = modules;
    (*record)["stack"] = pieces;
}

static json_value thread_record(int pid, const thread_stack &stack, const json_value &frames)
{
    json_value record = {{"pid", pid == 0 ? json_value(nullptr) : json_value(pid)},
                         {"tid", stack.tid},
                         {"name", stack.name},
                         {"state", or_null(stack.state)}};
    for (const auto &[name, value] : stack.registers)
        record["registers"][name] = hex(value);
    record["frames"] = frames;
    record["end"] = end_name(stack.end);
    record["message"] = stack.message;
    return record;
}

void stack_run::show(const thread_stack &stack)
{
    count(stack, m_options.wanted, &m_done);
    m_walked = m_walked || !stack.frames.empty();

    json_value frames = json_value::array();
    if (!m_out.is_json()) {
        m_out.print("thread {} ({}){}{}\n", stack.tid, printable(stack.name), stack.state == nullptr ? "" : ", ",
                    stack.state == nullptr ? "" : stack.state);
        for (size_t i = 0; i < stack.registers.size(); ++i)
            m_out.print("{}{:<6} 0x{:016x}{}", i % 4 == 0 ? "     " : "  ", stack.registers[i].first,
                        stack.registers[i].second, i % 4 == 3 || i + 1 == stack.registers.size() ? "\n" : "");
    }
    for (size_t i = 0; i < stack.frames.size(); ++i) {
        const stack_frame &f = stack.frames[i];
        const frame_place at = place_of(f);
        m_arguments = m_arguments || !f.arguments.empty();
        if (m_out.is_json())
            frames.push_back(frame_record(*m_proc, i, f, at, m_options.places));
        else
            print_frame(i, f, at);
    }
    if (m_out.is_json())
        record_stack(stack, frames);
    else
        m_out.print("     end: {}\n", printable(stack.message));
}

// A walk that ended early has its frames and the reason.
void stack_run::record_stack(const thread_stack &stack, const json_value &frames)
{
    const record_status status = status_of(stack, m_options.wanted);
    const record_error why = to_record_error({layer::library, stack.code, {stack.message}});
    json_value record = thread_record(m_info.pid, stack, frames);
    if (m_options.wanted.raw_stack != 0)
        add_raw(*m_proc, stack, m_info.target, &record);
    m_out.record(record, status, status == record_status::ok ? nullptr : &why);
}

// What is to be said of the whole is a line each, what is to be said of modules one for all of them.
void stack_run::tell_notes()
{
    std::vector<std::string> notes = m_proc->notes();
    if (m_options.wanted.arguments && !m_arguments && m_walked)
        notes.emplace_back("no frame has arguments: compilers write none into the call-frame information, and this "
                           "process has none there");
    constexpr size_t MOST = 10;
    const std::vector<std::string> kept = std::move(m_kept->texts);
    m_kept.reset();
    std::string of_modules;
    for (size_t i = 0; i < std::min(MOST, kept.size()); ++i)
        of_modules += (i == 0 ? "" : "; ") + kept[i];
    if (kept.size() > MOST)
        of_modules += fmt::format("; and {} more", kept.size() - MOST);
    if (!of_modules.empty())
        notes.push_back(of_modules);
    for (const std::string &note : notes)
        if (!m_options.quiet)
            diagnose(note);
}

// A live process is let go as soon as its stacks are read: looking them up takes longer, and writing them as long as
// their reader likes.
int stack_run::run()
{
    std::vector<thread_stack> stacks;
    for (const krv_proc_thread_t &thread : threads_of(*m_proc, m_options.tid, m_options.first_only)) {
        stacks.push_back(read_stack(*m_proc, thread, m_options.wanted));
        if (m_info.kind == KRV_PROC_CORE) {
            show(stacks.back());
            stacks.clear();
        }
    }
    m_proc->release();
    for (const thread_stack &stack : stacks)
        show(stack);
    m_out.finish();
    tell_notes();
    return m_done.status();
}

static int run_merged(const stack_options &options)
{
    answers out(options.format);
    trace_request wanted = request_of(options, options.places, options.exe);
    wanted.walk = options.wanted;
    wanted.tid = options.tid;
    wanted.first_only = options.first_only;
    trace_collector all(std::move(wanted));
    for (const int pid : options.pids)
        all.add_process(pid);
    for (const std::string &core : options.cores)
        all.add_core(core);
    if (!options.cores_from.empty()) {
        const text_input names(options.cores_from);
        line_reader lines(names.fd());
        while (const auto line = lines.next([] {}))
            if (!line->empty())
                all.add_core(std::string(*line));
        if (lines.error() != 0)
            throw failure(fmt::format("{}: {}", names.name(), std::strerror(lines.error())),
                          {.code = "KRV_ELF_ERR_SYSTEM"});
    }
    write_traces(&out, all.traces(), options.by);
    out.finish();
    if (!options.quiet)
        for (const std::string &note : all.notes())
            diagnose(note);
    return all.status();
}

static int run_stack(stack_options &options)
{
    const auto refuse = [](const char *why) { throw CLI::ValidationError("stack", why); };
    if (options.merge) {
        if (options.pids.empty() && options.cores.empty() && options.cores_from.empty())
            refuse("give -p PID, core files or --cores-from FILE");
        if (options.wanted.arguments || options.wanted.registers || options.wanted.variables ||
            options.wanted.raw_stack != 0)
            refuse("--merge goes without --arguments, --registers, --variables and --raw-stack");
        return run_merged(options);
    }
    if (options.pids.size() + options.cores.size() != 1 || !options.cores_from.empty())
        refuse("give either -p PID or --core CORE; several only with --merge");
    if (options.format == output_format::folded || options.format == output_format::speedscope)
        refuse("folded and speedscope are formats of --merge");
    if (options.wanted.raw_stack != 0 && options.format == output_format::text)
        refuse("--raw-stack stands in records alone: --format=json or jsonl");
    options.wanted.registers = options.wanted.registers || options.wanted.raw_stack != 0;
    return stack_run(options).run();
}

// Says what is wrong with a process or thread id; "" when nothing is.
static std::string check_id(const std::string &text)
{
    int id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    return error == std::errc() && end == text.data() + text.size() && id > 0
               ? ""
               : fmt::format("{} is no number of a process or thread", printable(text));
}

void add_stack(CLI::App &app, int *status)
{
    auto options = std::make_shared<stack_options>();
    CLI::App *verb = app.add_subcommand("stack", "Shows the stacks of a process or a core file");
    verb->add_option("-p,--pid", options->pids, "Process; with --merge may be repeated")
        ->check(check_id)
        ->allow_extra_args(false)
        ->type_name("PID");
    verb->add_option("--core", options->cores, "Core file; with --merge may be repeated")->allow_extra_args(false);
    verb->add_option("CORE", options->cores, "More of them");
    verb->add_option("--cores-from", options->cores_from,
                     "With --merge: core files that FILE names, one a line; - is standard input")
        ->type_name("FILE");
    verb->add_flag("-m,--merge", options->merge,
                   "Stacks of all processes and core files, where equal ones are one with a count and who has it");
    add_by_option(verb, &options->by);
    verb->add_option("-e,--exe", options->exe, "Executable of the core file, when it is not where it was");
    verb->add_option("-n,--max-frames", options->wanted.max_frames,
                     "Frames of a thread, at most (0: as many as there are, up to 4096)");
    verb->add_option("--tid", options->tid, "This thread only")->check(check_id)->type_name("TID");
    verb->add_flag("-1", options->first_only, "The first thread only: the main one, or the one that failed");
    verb->add_flag("-C,--demangle", options->places.demangle, "Show names of C++, Rust and D as these write them");
    verb->add_flag("-s,--basenames", options->places.basenames, "Show file names without folders");
    verb->add_flag("--no-inlines", options->places.no_inlines, "Leave out the calls that were inlined");
    verb->add_flag("--no-source", options->places.no_source, "Leave out files and lines");
    verb->add_flag("-a,--arguments", options->wanted.arguments,
                   "Show arguments where the call-frame information has them");
    verb->add_flag("-v,--variables", options->wanted.variables,
                   "Show parameters and variables with their values, where the debugging information has them");
    verb->add_flag("-r,--registers", options->wanted.registers, "Show the registers of each thread");
    verb->add_option("--raw-stack", options->wanted.raw_stack,
                     "Add what `korva unwind` takes: registers, modules, and so many bytes of the stack (JSON)")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(uint64_t{1}, uint64_t{1} << 30))
        ->type_name("SIZE");
    verb->add_flag("-q,--quiet", options->quiet, "Leave out the notes on what could not be read");
    add_common_options(verb, options.get(), trace_formats());
    verb->footer(
        "A process is stopped while its stacks are read, not while they are looked up and printed, and left as\n"
        "it was found. Each walk ends with its reason. Names may hold spaces: JSON is the form to parse.\n"
        "With --merge each process and core file is read by itself: one that cannot be read is told and counted.\n"
        "What it writes as jsonl is what korva merge reads; folded and speedscope are for --merge alone.\n"
        "Exit status: 0 every thread was walked to its outermost frame or as far as -n says, 1 some ended\n"
        "early, 2 nothing.\n"
        "Examples:\n"
        "  korva stack -p 4711 -C\n"
        "  korva stack --core core -e ./a.out -1\n"
        "  korva stack -p 4711 --format=jsonl | jq '.frames[0].function'\n"
        "  korva stack --merge core.*\n"
        "  korva stack --merge -p 4711 -p 4712 --format=folded | flamegraph.pl > flames.svg");
    verb->callback([options, status] { *status = run_stack(*options); });
}

} // namespace korva::program
