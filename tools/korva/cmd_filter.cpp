// SPDX-License-Identifier: Apache-2.0
//
// korva filter: a log, with function, file and line behind each address that is known.
#include "command.h"
#include "filter/log_places.h"
#include "filter/log_text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace korva::program
{

namespace
{

enum class returns { as_format_says, all, none };
enum class addition { behind_line, behind_address, in_its_place };

struct filter_options : common_options {
    std::vector<std::string> inputs;
    std::vector<std::string> maps;
    std::vector<std::string> modules;
    place_options places;
    int pid = 0;
    returns return_addresses = returns::as_format_says;
    addition add = addition::behind_line;
    bool basenames = false;
    bool no_inlines = false;
    bool no_open_paths = false;
    bool quiet = false;
};

constexpr size_t MOST_TEXT = size_t{1} << 14; // bytes that are added for one address
constexpr size_t MOST_CALLED = 256;           // functions of one

class filter_run
{
public:
    explicit filter_run(const filter_options &options);

    void read(const std::string &path);
    int finish();

private:
    void read_maps(const std::string &path);
    void read_modules(const std::string &path);
    void read_process();
    void read_process_again(uint64_t address);

    bool note_modules(const log_line &line);
    void answer_line(const log_line &line, size_t passed);
    std::optional<log_place> look_up(const log_address &a);
    bool is_return(const log_address &a);
    std::string_view path_of(const krv_elf_frame_t &frame) const;
    void make_text(std::span<const krv_elf_frame_t> frames, std::string_view line);
    void record(const log_line &line, const log_address &a, const log_place &at, bool is_return,
                std::span<const krv_elf_frame_t> frames);

    const filter_options &m_options;
    std::optional<kept_diagnostics> m_unheard; // with --quiet
    log_places m_places;
    answers m_out;
    tally m_done;
    std::string m_input; // that is being read; empty: standard input
    std::vector<log_address> m_addresses;
    std::string m_text;   // of one answer
    std::string m_line;   // that is being made
    std::string m_failed; // what failed last in the Java machine
    bool m_is_behind_signal = false;
    std::chrono::steady_clock::time_point m_read_process{};
};

} // namespace

static place_options places_of(const filter_options &options)
{
    place_options places = options.places;
    places.search = options.search;
    places.bounds = options.bounds;
    places.flags = options.flags();
    places.open_paths = !options.no_open_paths;
    if (options.pid != 0 && places.search.sysroot.empty()) {
        const std::string root = fmt::format("/proc/{}/root", options.pid);
        struct stat its = {}, ours = {};
        if (stat((root + "/.").c_str(), &its) == 0 && stat("/", &ours) == 0 &&
            (its.st_dev != ours.st_dev || its.st_ino != ours.st_ino))
            places.search.sysroot = root;
    }
    return places;
}

filter_run::filter_run(const filter_options &options)
    : m_options(options), m_places(options.places), m_out(options.format)
{
    if (options.quiet)
        m_unheard.emplace();
    for (const std::string &path : options.maps)
        read_maps(path);
    for (const std::string &path : options.modules)
        read_modules(path);
    if (options.pid != 0)
        read_process();
}

// What users give is read whole, by lines.
template <typename F>
static void each_line_of(const std::string &path, F &&func)
{
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line))
        func(line);
    if (!file.eof())
        throw failure(fmt::format("{}: {}", path, std::strerror(errno)));
}

void filter_run::read_maps(const std::string &path)
{
    each_line_of(path, [this](const std::string &line) {
        if (auto mapping = read_mapping(line))
            m_places.given().add(std::move(*mapping));
    });
}

void filter_run::read_modules(const std::string &path)
{
    size_t number = 0;
    each_line_of(path, [&](const std::string &line) {
        ++number;
        try {
            if (!trim(line).empty())
                m_places.given().add(read_module_record(line));
        } catch (const failure &f) {
            throw failure(fmt::format("{}: line {} {}", path, number, f.what()));
        }
    });
}

void filter_run::read_process()
{
    read_maps(fmt::format("/proc/{}/maps", m_options.pid));
    m_read_process = std::chrono::steady_clock::now();
}

// It may have loaded more since.
void filter_run::read_process_again(uint64_t address)
{
    if (m_options.pid == 0 || address < UINT16_MAX || m_places.given().find(address) != nullptr ||
        std::chrono::steady_clock::now() - m_read_process < std::chrono::seconds(1))
        return;
    try {
        read_process();
    } catch (const failure &) { // it has ended: what is known of it stays
        m_read_process = std::chrono::steady_clock::now();
    }
}

std::string_view filter_run::path_of(const krv_elf_frame_t &frame) const
{
    return m_options.basenames ? name_of(frame.file) : std::string_view(frame.file);
}

// Nothing where the line says as much.
void filter_run::make_text(std::span<const krv_elf_frame_t> frames, std::string_view line)
{
    m_text.clear();
    const bool has_place = !frames.empty() && frames[0].line != 0;
    if (frames.empty() ||
        (!has_place && frames.size() == 1 &&
         line.find(frames[0].function[0] == '\0' ? "" : frames[0].function) != std::string_view::npos))
        return;
    for (const krv_elf_frame_t &frame : frames) {
        if (m_text.size() > MOST_TEXT) {
            m_text += ", ...";
            break;
        }
        m_text += m_text.empty() ? "[" : ", inlined by ";
        append_printable(&m_text, frame.function[0] == '\0' ? "??" : frame.function);
        if (frame.file[0] == '\0')
            continue;
        m_text += " at ";
        append_printable(&m_text, path_of(frame));
        m_text += ':';
        frame.line == 0 ? void(m_text += '?') : append_decimal(&m_text, frame.line);
    }
    m_text += ']';
}

static json_value known_or_null(std::string_view text)
{
    return text.empty() ? json_value(nullptr) : json_value(text);
}

void filter_run::record(const log_line &line, const log_address &a, const log_place &at, bool is_return,
                        std::span<const krv_elf_frame_t> frames)
{
    json_value all = json_value::array();
    for (const krv_elf_frame_t &frame : frames)
        all.push_back({{"function", known_or_null(frame.function)},
                       {"linkage_name", known_or_null(frame.linkage_name)},
                       {"from", frame.origin == KRV_ELF_FRAME_ENTRIES   ? json_value("entries")
                                : frame.origin == KRV_ELF_FRAME_SYMBOLS ? json_value("symbols")
                                                                        : json_value(nullptr)},
                       {"inlined", frame.is_inlined != 0},
                       {"file", known_or_null(path_of(frame))},
                       {"line", or_null(frame.line)},
                       {"column", or_null(frame.column)}});
    const json_value fields = {
        {"input", known_or_null(m_input)},
        {"input_line", number(line.number)},
        {"input_column", a.text.data() - line.text.data() + 1},
        {"text", a.text},
        {"module", at.module == nullptr ? known_or_null(a.module) : json_value(at.module->path())},
        {"build_id", known_or_null(at.module == nullptr ? a.build_id : std::string_view(at.module->build_id()))},
        {"address", at.module == nullptr ? json_value(nullptr) : hex(at.address)},
        {"return_address", is_return},
        {"frames", all}};
    const auto refusal = m_places.take_refusal();
    const record_error *const why = at.module != nullptr ? at.module->refusal() : refusal ? &*refusal : nullptr;
    m_out.record(fields,
                 why != nullptr   ? status_of(why)
                 : frames.empty() ? record_status::not_found
                                  : record_status::ok,
                 why);
}

// Behind the frame of a signal handler stands where the signal came, and where the Java machine failed nothing was called.
bool filter_run::is_return(const log_address &a)
{
    const bool is_behind_signal = std::exchange(m_is_behind_signal, false);
    if (m_options.return_addresses != returns::as_format_says)
        return m_options.return_addresses == returns::all;
    return a.is_return && !is_behind_signal && a.text != m_failed;
}

std::optional<log_place> filter_run::look_up(const log_address &a)
{
    if (a.of == log_address::kind::memory)
        read_process_again(a.value);
    return m_places.find(a);
}

// What a line says of modules; false: nothing.
bool filter_run::note_modules(const log_line &line)
{
    auto mapping = (line.triggers & TRIGGER_MAPPING) != 0 ? read_mapping(line.text) : std::nullopt;
    const auto module = (line.triggers & TRIGGER_BUILD_ID) != 0 ? read_build_id(line.text) : std::nullopt;
    if (mapping)
        m_places.seen().add(std::move(*mapping));
    else if (module)
        m_places.seen().add(*module);
    return mapping || module;
}

void filter_run::answer_line(const log_line &line, size_t passed)
{
    if (!note_modules(line))
        scan_line(line, &m_addresses);
    m_line.clear();
    size_t written = 0;
    if (line.text.starts_with("# "))
        m_failed.clear();
    for (const log_address &a : m_addresses) {
        const auto found = look_up(a);
        if (!found)
            continue;
        if (line.text.starts_with("# "))
            m_failed = a.text;
        log_place at = *found;
        const bool returns = is_return(a) && at.address != 0;
        at.address -= returns ? 1 : 0;
        const auto frames = at.module == nullptr ? std::span<const krv_elf_frame_t>()
                                                 : at.module->frames(at.address, KRV_ELF_FRAMES_F_DEMANGLE,
                                                                     m_options.no_inlines ? 1 : MOST_CALLED);
        m_is_behind_signal = !frames.empty() && frames.back().function == std::string_view("__restore_rt");
        frames.empty() ? m_done.missed() : frames[0].line != 0 ? m_done.answered() : m_done.partly();
        if (m_out.is_json()) {
            record(line, a, at, returns, frames);
            continue;
        }
        make_text(frames, line.text);
        if (m_text.empty())
            continue;
        const auto begin = static_cast<size_t>(a.text.data() - line.text.data());
        if (m_options.add == addition::behind_line) {
            m_line += m_line.empty() ? "  " : " ";
        } else {
            const size_t end = begin + (m_options.add == addition::behind_address ? a.text.size() : 0);
            m_line += line.text.substr(written, end - written);
            m_line += m_options.add == addition::behind_address ? " " : "";
            written = begin + a.text.size();
        }
        m_line += m_text;
    }
    m_addresses.clear();
    if (m_unheard)
        m_unheard->texts.clear();
    if (m_out.is_json())
        return;
    if (m_options.add == addition::behind_line) {
        m_out.write(line.text.substr(std::min(passed, line.text.size())));
        m_out.write(m_line);
    } else {
        m_out.write(m_line);
        m_out.write(line.text.substr(written));
    }
}

void filter_run::read(const std::string &path)
{
    m_input = path == "-" ? "" : path;
    const int fd = m_input.empty() ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const std::string name = m_input.empty() ? "standard input" : path;
    int error = errno;
    if (fd >= 0) {
        m_places.seen().clear();
        log_flow flow({.pass =
                           [this](std::string_view text) {
                               if (!m_out.is_json())
                                   m_out.write(text);
                           },
                       .line = [this](const log_line &line, size_t passed) { answer_line(line, passed); },
                       .wait = [this] { m_out.flush(); }},
                      m_options.add == addition::behind_line, m_out.is_json());
        error = flow.read_all(fd);
        if (fd != STDIN_FILENO)
            close(fd);
    }
    if (error == 0)
        return;
    m_done.missed();
    const record_error why = {.code = "KRV_ELF_ERR_SYSTEM",
                              .messages = {fmt::format("{}: {}", name, std::strerror(error))}};
    m_out.record_failure(why);
    diagnose(why.messages[0]);
}

int filter_run::finish()
{
    m_out.finish();
    return m_done.status();
}

static int run_filter(filter_options &options)
{
    options.places = places_of(options);
    filter_run run(options);
    for (const std::string &path : options.inputs)
        run.read(path);
    if (options.inputs.empty())
        run.read("-");
    return run.finish();
}

template <typename T>
static void add_choice(CLI::App *verb, const char *name, T *value, const char *text,
                       const std::map<std::string, T> &choices)
{
    std::vector<std::string> names;
    names.reserve(choices.size());
    for (const auto &[choice, meaning] : choices)
        names.push_back(choice);
    verb->add_option_function<std::string>(
            name, [=](const std::string &choice) { *value = choices.at(choice); }, text)
        ->check(CLI::IsMember(names));
}

void add_filter(CLI::App &app, int *status)
{
    auto options = std::make_shared<filter_options>();
    CLI::App *verb = app.add_subcommand("filter", "Copies a log and adds functions and source lines of its addresses");
    verb->add_option("FILE", options->inputs, "Log to read; - or none: standard input");
    verb->add_option(
            "-e,--exe", options->places.files,
            "ELF file to ask for the modules of its name or build-id, wherever the log has them; a program that is "
            "not moved, at its own addresses; vmlinux and NAME.ko for traces of a kernel; may be repeated")
        ->allow_extra_args(false);
    verb->add_option("--maps", options->maps,
                     "What lies where in the process: a copy of /proc/PID/maps; may be repeated")
        ->allow_extra_args(false)
        ->type_name("FILE");
    verb->add_option("-p,--pid", options->pid, "The process: its /proc/PID/maps are read, also again")
        ->check(CLI::PositiveNumber);
    verb->add_option("--modules", options->modules,
                     "What lies where, a JSON object a line: path or build_id, start, size, and bias or offset")
        ->allow_extra_args(false)
        ->type_name("FILE");
    verb->add_flag("--no-open-paths", options->no_open_paths, "Open no file that the log alone names");
    verb->add_option("--cache", options->places.most_open, "How many files are open at a time")
        ->default_str("64")
        ->check(CLI::Range(1, 4096));
    add_choice(verb, "--return-addresses", &options->return_addresses,
               "Which are return addresses: the call before is shown",
               {{"auto", returns::as_format_says}, {"yes", returns::all}, {"no", returns::none}});
    add_choice(
        verb, "--add", &options->add, "Where: behind the line, behind each address, or in its place",
        {{"line", addition::behind_line}, {"address", addition::behind_address}, {"replace", addition::in_its_place}});
    verb->add_flag("-n,--no-inlines", options->no_inlines, "Show the innermost function alone");
    verb->add_flag("-s,--basenames", options->basenames, "Show file names without folders");
    verb->add_flag("-q,--quiet", options->quiet, "Do not tell which modules cannot be read");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer(
        "Lines without a known address are copied byte for byte; JSON has a record for each address alone.\n"
        "Known are, of reports of sanitizers, backtrace(), gdb, systemd-coredump, valgrind, perf script, Java and the\n"
        "kernel: module+offset, and addresses whose module a maps block in the log or an option tells.\n"
        "A log can make this open any file that its reader may read: see --no-open-paths.\n"
        "Examples:\n"
        "  korva filter --debug-dir /srv/symbols crash.log\n"
        "  ./server 2>&1 | korva filter\n"
        "  korva filter --maps maps.txt -e ./server.debug --format=jsonl < crash.log\n"
        "  dmesg -w | korva filter -e ./server");
    verb->callback([options, status] { *status = run_filter(*options); });
}

} // namespace korva::program
