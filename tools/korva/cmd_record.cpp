// SPDX-License-Identifier: Apache-2.0
//
// korva record: where the threads of a process are, sampled at a rate.
#include "command.h"
#include "record/inside.h"
#include "record/places.h"
#include "trace/trace_options.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <memory>
#include <optional>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace korva::program
{

namespace
{

constexpr double MOST_HZ = 10000;
constexpr int LOOKS_AT_A_CHILD = 2000; // a millisecond each

struct record_options : common_options { // file: where the traces go; empty: to standard output
    int pid = 0;
    std::vector<std::string> command{};
    bool quiet = false;
    bool by_ptrace = false;
    sampling_request sampling{};
    place_request places{};
    frame_detail by = frame_detail::function;
};

/** A command that was started. Its end is collected by whoever sees it first. */
class child_process
{
public:
    /** With these texts added to its environment. */
    child_process(const std::vector<std::string> &command, const sigset_t &mask, std::vector<std::string> environment);

    int pid() const { return m_pid; }
    /** Whether it has ended; collects it then. */
    bool has_ended();
    void take_status(std::optional<int> status) { m_status = status ? status : m_status; }
    /** Tells how it ended, unless that was well, or it still runs. */
    void tell() const;

private:
    std::string m_name;
    pid_t m_pid = -1;
    std::optional<int> m_status{};
};

} // namespace

// As exec takes them. They are not written to.
static std::vector<char *> to_words(const std::vector<std::string> &texts)
{
    std::vector<char *> words;
    words.reserve(texts.size() + 1);
    for (const std::string &text : texts)
        words.push_back(const_cast<char *>(text.c_str()));
    words.push_back(nullptr);
    return words;
}

child_process::child_process(const std::vector<std::string> &command, const sigset_t &mask,
                             std::vector<std::string> environment)
    : m_name(command[0])
{
    const auto is_replaced = [&](std::string_view known) {
        const std::string_view name = known.substr(0, known.find('=') + 1);
        return std::any_of(environment.begin(), environment.end(),
                           [name](const std::string &text) { return text.starts_with(name); });
    };
    const size_t added = environment.size();
    std::vector<std::string> all = environment;
    for (char **known = environ; *known != nullptr; ++known)
        if (added == 0 || !is_replaced(*known))
            all.emplace_back(*known);
    const std::vector<char *> words = to_words(command), variables = to_words(all);
    sigset_t defaults; // what this program ignores
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &mask);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawnp(&m_pid, words[0], nullptr, &attributes, words.data(), variables.data());
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        throw failure(fmt::format("{}: cannot be run: {}", m_name, std::strerror(error)),
                      {.code = "KRV_ELF_ERR_SYSTEM"});
}

bool child_process::has_ended()
{
    int status = 0;
    if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid)
        m_status = status;
    return m_status.has_value();
}

void child_process::tell() const
{
    if (m_status && WIFSIGNALED(*m_status))
        diagnose(
            fmt::format("{}: ended by signal {} ({})", m_name, WTERMSIG(*m_status), strsignal(WTERMSIG(*m_status))));
    else if (m_status && WEXITSTATUS(*m_status) != 0)
        diagnose(fmt::format("{}: ended with status {}", m_name, WEXITSTATUS(*m_status)));
}

static void tell_cost(const recording_cost &cost, size_t threads, double hz, const char *how)
{
    const auto in_seconds = [](std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1e9; };
    const auto samples = static_cast<double>(cost.samples), due = samples + static_cast<double>(cost.missed);
    const double stopped = in_seconds(cost.stopped);
    std::string text =
        fmt::format("{} samples of {} thread{} {} in {:.2f} s at {:g} Hz, {} missed; threads stood still for at most "
                    "{:.1f} ms in all, {:.1f} us a sample, {:.3f} % of their time; this program used {:.2f} s of "
                    "processor time",
                    cost.samples, threads, threads == 1 ? "" : "s", how, in_seconds(cost.elapsed), hz, cost.missed,
                    stopped * 1e3, samples == 0 ? 0 : stopped * 1e6 / samples, due == 0 ? 0 : 100 * stopped * hz / due,
                    in_seconds(cost.processor));
    if (cost.refused != 0)
        text += fmt::format("; {} were missed because another program traced the thread", cost.refused);
    diagnose(text);
}

namespace
{

/** One recording: who is sampled, how, and where the traces go. */
class recording
{
public:
    explicit recording(const record_options &options);

    int run();

private:
    int record();
    void write_to_file();
    void start_child();
    bool sample_inside();
    void sample_by_ptrace();

    const record_options &m_options;
    answers m_out;
    int m_file = -1; // what the traces go to in place of standard output
    recording_signals m_signals{};
    std::string m_library{}; // empty: not inside
    std::optional<shared_ring> m_ring{};
    std::optional<child_process> m_child{};
    std::optional<process> m_proc{};
    profile m_samples{};
    recording_cost m_cost{};
};

} // namespace

// A file that cannot be written is told before anything is recorded.
recording::recording(const record_options &options) : m_options(options), m_out(options.format)
{
    if (options.file.empty())
        return;
    m_file = open(options.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (m_file < 0)
        throw failure(fmt::format("{}: {}", options.file, std::strerror(errno)));
}

void recording::start_child()
{
    std::vector<std::string> environment;
    if (!m_options.by_ptrace && !m_options.sampling.running_only)
        m_library = find_record_library();
    if (!m_library.empty()) {
        m_ring.emplace(m_options.sampling.hz);
        const char *others = std::getenv("LD_PRELOAD");
        environment.push_back(
            fmt::format("LD_PRELOAD={}{}{}", m_library, others == nullptr ? "" : ":", others == nullptr ? "" : others));
        environment.push_back(fmt::format("{}={}", RING_VARIABLE, m_ring->path()));
    }
    m_child.emplace(m_options.command, m_signals.before(), environment);
}

// False when the program is none that can be sampled so.
bool recording::sample_inside()
{
    if (m_library.empty() || !can_be_sampled_inside(*m_proc))
        return false;
    inside_sampler sampler(&*m_proc, &m_signals, m_options.sampling, &*m_ring, m_library);
    const bool came_up = sampler.run([this] { return m_child->has_ended(); });
    m_samples = std::move(sampler.samples);
    m_cost = sampler.cost;
    if (m_ring->refused_threads() != 0)
        diagnose(fmt::format("{} threads were not sampled: the system has no more timers for them",
                             m_ring->refused_threads()));
    return came_up;
}

// In a thread of its own: with it the system lets go of whoever is still held.
void recording::sample_by_ptrace()
{
    ptrace_sampler sampler(&*m_proc, &m_signals, m_options.sampling);
    std::async(std::launch::async, [&sampler] { sampler.run(); }).get();
    m_samples = std::move(sampler.samples);
    m_cost = sampler.cost;
    if (m_child)
        m_child->take_status(sampler.child_status());
}

static bool has_program(const process &proc)
{
    const auto modules = proc.modules();
    return std::any_of(modules.begin(), modules.end(),
                       [](const krv_proc_module_t *module) { return (module->flags & KRV_PROC_MODULE_F_MAIN) != 0; });
}

void recording::write_to_file()
{
    if (m_file >= 0 && dup2(m_file, STDOUT_FILENO) < 0)
        throw failure(fmt::format("{}: {}", m_options.file, std::strerror(errno)));
}

int recording::record()
{
    if (m_options.pid == 0)
        start_child();
    const int pid = m_child ? m_child->pid() : m_options.pid;
    auto proc = process::watch(pid);
    // The system lets a child go before its program is mapped.
    for (int look = 0; m_child && look < LOOKS_AT_A_CHILD && !(proc && has_program(*proc)) && !m_child->has_ended();
         ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        proc = process::watch(pid);
    }
    if (!proc && m_child)
        m_child->tell();
    if (!proc)
        throw failure(proc.error().text(), to_record_error(proc.error()));
    m_proc.emplace(std::move(*proc));
    if (!m_proc->set_files(m_options.flags(), m_options.search))
        throw std::bad_alloc();
    const bool is_inside = m_child && sample_inside();
    if (!is_inside) {
        if (m_ring)
            m_ring->end();
        sample_by_ptrace();
    }

    place_finder places(&*m_proc, m_options.places, m_options.bounds);
    const trace_set traces =
        m_samples.traces(m_proc->info().pid, [&](const sampled_frame &f) { return places.find(f); });
    write_to_file();
    write_traces(&m_out, traces, m_options.by);
    m_out.finish();
    if (m_child && m_child->has_ended())
        m_child->tell();
    if (!m_options.quiet)
        tell_cost(m_cost, m_samples.threads(), m_options.sampling.hz, is_inside ? "from inside" : "by ptrace");
    if (traces.is_empty())
        diagnose(fmt::format("process {}: no sample was taken", pid));
    return traces.is_empty() ? NOTHING : m_samples.is_whole() ? ANSWERED : PARTLY;
}

// A record of what ended it goes where traces would.
int recording::run()
{
    try {
        return record();
    } catch (const failure &) {
        write_to_file();
        throw;
    }
}

static int run_record(const record_options &options)
{
    if ((options.pid != 0) != options.command.empty())
        throw CLI::ValidationError("record", "give either -p PID or -- COMMAND");
    return recording(options).run();
}

void add_record(CLI::App &app, int *status)
{
    auto options = std::make_shared<record_options>();
    CLI::App *verb = app.add_subcommand("record", "Samples where the threads of a process are");
    verb->add_option("-p,--pid", options->pid, "Process")->check(CLI::PositiveNumber)->type_name("PID");
    verb->add_option("command", options->command, "Command to run, with its arguments, behind --");
    verb->add_option("--hz", options->sampling.hz, "Samples of each thread in a second; 99 when not given")
        ->check(number_within(0.01, MOST_HZ));
    verb->add_option("--seconds", options->sampling.seconds,
                     "How long; until the process ends, or an interrupt (^C), when not given")
        ->check(number_within(0.001, 1e7));
    verb->add_option("-o,--output", options->file, "File that the traces go to, in place of standard output")
        ->type_name("FILE");
    verb->add_flag("--ptrace", options->by_ptrace, "Sample a command as a process is sampled, not from inside");
    verb->add_flag("--running", options->sampling.running_only, "Leave out threads that sleep; they are not stopped");
    verb->add_flag("-C,--demangle", options->places.demangle, "Show names of C++, Rust and D as these write them");
    verb->add_flag("--no-inlines", options->places.no_inlines, "Leave out the calls that were inlined");
    verb->add_flag("-q,--quiet", options->quiet, "Leave out what the recording cost");
    add_by_option(verb, &options->by);
    add_common_options(verb, options.get(), trace_formats());
    verb->footer(
        "A process is sampled through ptrace, a command from inside, by a library that is loaded into it, while it\n"
        "uses a processor. What it cost is told at the end. Into a file traces are written as jsonl, for merge.\n"
        "Exit status: 0 every stack was walked to its outermost frame, 1 some ended early, 2 nothing.\n"
        "Examples:\n"
        "  korva record -p 4711 --seconds 10\n"
        "  korva record -p 4711 --hz 999 --seconds 10 --format=folded > out.folded\n"
        "  korva record -o traces.jsonl -- ./program with arguments");
    verb->callback([options, status, verb] {
        if (!options->file.empty() && verb->count("--format") == 0)
            set_output_format(options->format = output_format::jsonl);
        *status = run_record(*options);
    });
}

} // namespace korva::program
