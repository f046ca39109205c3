// SPDX-License-Identifier: Apache-2.0
//
// korva unwind: the stacks of threads that records tell of, on another machine than theirs.
#include "command.h"
#include "frame_place.h"
#include "frame_record.h"
#include "json_line.h"
#include "module_cache.h"
#include "stacks.h"
#include "text_input.h"
#include "unwind/core_image.h"
#include "unwind/described.h"
#include "unwind/modules.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace korva::program
{

namespace
{

struct unwind_options : common_options {
    std::string input;
    size_t most_open = 64;
    place_request places;
    stack_request wanted;
};

/** Bytes under a path of their own, as long as it lives. */
class memory_file
{
public:
    explicit memory_file(std::string_view bytes);
    ~memory_file() { close(m_fd); }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    const std::string &path() const { return m_path; }

private:
    int m_fd;
    std::string m_path;
};

class unwind_run
{
public:
    explicit unwind_run(const unwind_options &options)
        : m_options(options),
          m_cache(options.most_open, options.flags(), options.search, for_each_alone(options.bounds)),
          m_out(options.format)
    {
    }

    int run();

private:
    void answer(std::string_view line);
    void refuse(const record_error &why);
    void answer_described(const described_process &of);
    json_value frame(const process &proc, const placed_modules &modules, size_t index, const stack_frame &f);

    const unwind_options &m_options;
    module_cache m_cache;
    answers m_out;
    tally m_done;
    json_line m_parsed;
    uint64_t m_line_number = 0;
    size_t m_told = 0;
};

} // namespace

memory_file::memory_file(std::string_view bytes)
    : m_fd(memfd_create("core", MFD_CLOEXEC)), m_path(fmt::format("/proc/self/fd/{}", m_fd))
{
    int error = m_fd < 0 ? errno : 0;
    while (error == 0 && !bytes.empty()) {
        const ssize_t count = write(m_fd, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            error = errno;
        bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    if (error == 0)
        return;
    if (m_fd >= 0)
        close(m_fd);
    throw failure(fmt::format("the record as a core file: {}", std::strerror(error)), {.code = "KRV_ELF_ERR_SYSTEM"});
}

void unwind_run::refuse(const record_error &why)
{
    constexpr size_t MOST_TOLD = 100;
    if (m_told <= MOST_TOLD)
        diagnose(m_told < MOST_TOLD ? fmt::format("line {}: {}", m_line_number, why.messages[0])
                                    : "further lines that cannot be answered are not named");
    ++m_told;
    m_done.missed();
    std::string line = "{";
    append_record_head(&line, status_of(&why), &why);
    m_out.record_text(line + ",\"id\":" + m_parsed.id() + '}');
}

// A blank line is no question.
void unwind_run::answer(std::string_view line)
{
    ++m_line_number;
    if (trim(line).empty())
        return;
    if (!m_parsed.read(line))
        return refuse({.code = "KRV_ERR_INVALID", .messages = {m_parsed.problem()}});
    try {
        answer_described(read_described(line));
    } catch (const failure &f) {
        refuse(f.why);
    }
}

// What is behind a module that is not there was found by a guess, or not at all.
static void end_where_missing(const placed_modules &modules, thread_stack *stack, record_error *why)
{
    for (size_t i = 0; i < stack->frames.size(); ++i) {
        const stack_frame &f = stack->frames[i];
        const placed_module *const missing = f.module == nullptr ? modules.find_missing(f.lookup_pc) : nullptr;
        if (missing == nullptr)
            continue;
        stack->frames.erase(stack->frames.begin() + static_cast<std::ptrdiff_t>(i) + 1, stack->frames.end());
        stack->end = KRV_PROC_END_NO_FDE;
        *why = *missing->missing;
        stack->message = fmt::format("{:#x}: {}", f.pc, why->messages[0]);
        why->messages[0] = stack->message;
        return;
    }
}

// The file of a module stays open for other records; of the kernel's own object there is none.
json_value unwind_run::frame(const process &proc, const placed_modules &modules, size_t index, const stack_frame &f)
{
    const placed_module *const placed =
        f.module == nullptr ? modules.find_missing(f.lookup_pc) : modules.find(*f.module);
    opened_module *const file = placed == nullptr || placed->path.empty() ? nullptr : m_cache.open(placed->path);
    m_cache.take_refusal();
    const uint64_t address = placed == nullptr ? 0 : f.lookup_pc - placed->bias;
    module_file vdso;
    frame_place at;
    if (file != nullptr)
        at = look_up(file->file(), file->lines(), f, address, m_options.places);
    else if (placed == nullptr && f.module != nullptr) {
        vdso = open_module(proc, *f.module, m_options.bounds, "");
        at = look_up(vdso, f, m_options.places);
    }
    json_value record = frame_record(proc, index, f, at, m_options.places);
    if (placed == nullptr)
        return record;
    record["module"] = placed->shown;
    if (f.module == nullptr) { // known, but not there
        record["build_id"] = placed->build_id.empty() ? json_value(nullptr) : json_value(placed->build_id);
        record["deleted"] = false;
        if (file != nullptr)
            record["address"] = hex(address);
    }
    return record;
}

void unwind_run::answer_described(const described_process &of)
{
    const placed_modules modules(of, &m_cache);
    const memory_file core(make_core(of, modules.parts(), modules.vdso()));
    auto opened = process::open_core(core.path().c_str());
    if (!opened)
        throw failure(opened.error().text(), to_record_error(opened.error()));
    if (!opened->set_files(m_options.flags(), m_options.search))
        throw std::bad_alloc();
    bound_walks(&*opened, m_options.bounds);
    thread_stack stack = read_stack(*opened, opened->threads().at(0), m_options.wanted);
    record_error why = to_record_error({layer::library, stack.code, {stack.message}});
    end_where_missing(modules, &stack, &why);
    for (std::string *text : {&stack.message, &why.messages[0]})
        for (size_t at; (at = text->find(core.path())) != std::string::npos;)
            text->replace(at, core.path().size(), "the record");
    const record_status status = status_of(stack, m_options.wanted);
    count(stack, m_options.wanted, &m_done);

    std::string line = "{";
    append_record_head(&line, status, status == record_status::ok ? nullptr : &why);
    line += ",\"id\":" + m_parsed.id() + ",\"frames\":[";
    for (size_t i = 0; i < stack.frames.size(); ++i)
        line += (i == 0 ? "" : ",") + to_text(frame(*opened, modules, i, stack.frames[i]));
    line += fmt::format("],\"end\":\"{}\",\"message\":", end_name(stack.end));
    append_json(&line, stack.message);
    m_out.record_text(line + '}');
}

int unwind_run::run()
{
    each_line(
        m_options.input, &m_out, &m_done, [this](std::string_view line) { answer(line); }, [this] { m_out.flush(); });
    m_out.finish();
    return m_done.status();
}

void add_unwind(CLI::App &app, int *status)
{
    auto options = std::make_shared<unwind_options>();
    options->format = output_format::jsonl;
    CLI::App *verb = app.add_subcommand("unwind", "Walks stacks that records tell of, on another machine than theirs");
    verb->add_option("FILE", options->input, "Records, a JSON object a line; - or none: standard input");
    verb->add_option("--cache", options->most_open, "How many files are open at a time")
        ->default_str("64")
        ->check(CLI::Range(1, 4096));
    verb->add_option("-n,--max-frames", options->wanted.max_frames,
                     "Frames of a record, at most (0: as many as there are, up to 4096)");
    verb->add_flag("-C,--demangle", options->places.demangle, "Show names of C++, Rust and D as these write them");
    verb->add_flag("-s,--basenames", options->places.basenames, "Show file names without folders");
    verb->add_flag("--no-inlines", options->places.no_inlines, "Leave out the calls that were inlined");
    verb->add_flag("--no-source", options->places.no_source, "Leave out files and lines");
    add_common_options(verb, options.get(), {{"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer(
        "A record has registers, modules (path or build_id, start, end, and bias or offset) and stack (address and\n"
        "bytes in base64), and may have id and target (amd64 or i386): `korva stack --raw-stack` writes such.\n"
        "Each is answered by a record with its id and its frames, in its place. Files are found by path, by\n"
        "build-id below /usr/lib/debug and --debug-dir, and nowhere else.\n"
        "Exit status: 0 every stack was walked to its outermost frame, 1 some ended early, 2 nothing.\n"
        "Examples:\n"
        "  korva unwind --debug-dir /srv/symbols < thread.jsonl\n"
        "  korva stack -p 4711 --format=jsonl --raw-stack 64K > thread.jsonl");
    verb->callback([options, status] {
        set_output_format(options->format);
        *status = unwind_run(*options).run();
    });
}

} // namespace korva::program
