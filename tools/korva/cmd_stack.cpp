// SPDX-License-Identifier: Apache-2.0
//
// korva stack: the stacks of a process or of a core file, frame by frame.
#include "command.h"
#include "demangle.h"
#include "locate.h"

#include <libkorva-proc.h>

#include <memory>
#include <optional>
#include <unordered_map>

namespace korva::program
{

namespace
{

struct stack_options : common_options { // file: the core
    int pid = 0;
    std::string exe;
    unsigned int max_frames = 0;
    int tid = 0;
    bool first_only = false;
    bool demangle = false;
    bool arguments = false;
};

struct proc_closer {
    void operator()(krv_proc_t *proc) const { korva_proc_close(proc); }
};

/** A module's file with what is known of its lines; empty when it cannot be opened. */
struct module_file {
    std::unique_ptr<object> file;
    std::unique_ptr<locator> lines; // only with debugging information
};

/** One argument's bytes; nothing for a byte that is not known. */
using argument = std::vector<std::optional<uint8_t>>;

/** A frame, put into words. */
struct frame {
    unsigned int index;
    uint64_t pc;
    std::string module;   // empty when not known
    std::string function; // empty when not known
    uint64_t offset;      // of pc in the function
    std::optional<korva::source> source;
    bool is_signal_frame;
    std::vector<argument> arguments;
};

class stack_run
{
public:
    explicit stack_run(const stack_options &options);

    int run();

private:
    static int take_frame(krv_proc_t *proc, const krv_proc_frame_t *raw, void *arg);

    std::vector<krv_proc_thread_t> threads();
    void walk(const krv_proc_thread_t &thread);
    module_file &open_module(const krv_proc_module_t *module);
    frame describe(const krv_proc_frame_t &raw);
    std::vector<argument> arguments(const krv_proc_frame_t &raw) const;
    void print_frame(const frame &f);
    void print_json(const krv_proc_thread_t &thread, const krv_proc_end_t &end);

    const stack_options &m_options;
    std::unique_ptr<krv_proc_t, proc_closer> m_proc;
    krv_proc_info_t m_info = {};
    std::unordered_map<const krv_proc_module_t *, module_file> m_modules; // freed before the process that they are of
    answers m_out;
    std::vector<frame> m_frames; // JSON: of the thread at hand
    unsigned int m_walked = 0;   // threads with a frame
    bool m_whole = true;         // every walk reached its outermost frame
};

} // namespace

static std::string basename_of(const std::string &path)
{
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

static const char *end_name(int reason)
{
    switch (reason) {
    case KRV_PROC_END_OUTERMOST:
        return "outermost";
    case KRV_PROC_END_NO_FDE:
        return "no-fde";
    case KRV_PROC_END_NO_PROGRESS:
        return "no-progress";
    case KRV_PROC_END_LIMIT:
        return "limit";
    default:
        return "error";
    }
}

stack_run::stack_run(const stack_options &options) : m_options(options), m_out(options.format)
{
    krv_elf_error_t error = {};
    if (options.file.empty())
        m_proc.reset(korva_proc_attach(options.pid, &error));
    else
        m_proc.reset(
            korva_proc_open_core(options.file.c_str(), options.exe.empty() ? nullptr : options.exe.c_str(), &error));
    if (m_proc == nullptr)
        throw failure(error.message);
    korva_proc_get_info(m_proc.get(), &m_info);
}

std::vector<krv_proc_thread_t> stack_run::threads()
{
    std::vector<krv_proc_thread_t> all;
    korva_proc_iter_threads(
        m_proc.get(),
        [](krv_proc_t *, const krv_proc_thread_t *thread, void *arg) -> int {
            static_cast<std::vector<krv_proc_thread_t> *>(arg)->push_back(*thread);
            return 0;
        },
        &all);
    if (m_options.tid != 0)
        std::erase_if(all, [this](const krv_proc_thread_t &thread) { return thread.tid != m_options.tid; });
    if (m_options.tid != 0 && all.empty())
        throw failure(fmt::format("no thread {}", m_options.tid));
    if (m_options.first_only && all.size() > 1)
        all.resize(1);
    return all;
}

module_file &stack_run::open_module(const krv_proc_module_t *module)
{
    const auto [at, fresh] = m_modules.try_emplace(module);
    module_file &opened = at->second;
    if (!fresh)
        return opened;
    krv_elf_error_t error = {};
    krv_elf_t *elf = korva_proc_module_elf(m_proc.get(), module, &error);
    if (elf == nullptr) {
        diagnose(error.message);
        return opened;
    }
    opened.file = std::make_unique<object>(elf_view(elf), module->path);
    if (opened.file->has_debug_info())
        opened.lines = std::make_unique<locator>(opened.file.get());
    return opened;
}

std::vector<argument> stack_run::arguments(const krv_proc_frame_t &raw) const
{
    std::vector<argument> all;
    unsigned int argc = 0;
    if (raw.activation == nullptr || korva_activation_get_argc(raw.handle, raw.activation, &argc) != 0)
        return all;
    const uint64_t size = m_info.target == KRV_ACTIVATION_I386 ? 4 : 8;
    for (unsigned int n = 1; n <= argc; ++n) {
        uint8_t value[8], valid[8], in_register[8];
        uint64_t count = 0;
        if (korva_activation_get_argv(raw.handle, raw.activation, n, value, valid, in_register, size, &count) != 0)
            count = 0;
        argument bytes;
        for (uint64_t i = 0; i < count; ++i)
            bytes.push_back(valid[i] != 0 ? std::optional<uint8_t>(value[i]) : std::nullopt);
        all.push_back(std::move(bytes));
    }
    return all;
}

frame stack_run::describe(const krv_proc_frame_t &raw)
{
    frame f = {.index = raw.index,
               .pc = raw.pc,
               .module = {},
               .function = {},
               .offset = 0,
               .source = {},
               .is_signal_frame = raw.is_signal_frame != 0,
               .arguments = {}};
    if (m_options.arguments)
        f.arguments = arguments(raw);
    if (raw.module == nullptr)
        return f;
    f.module = raw.module->path;
    const module_file &opened = open_module(raw.module);
    if (opened.file == nullptr)
        return f;
    const uint64_t address = raw.lookup_pc - raw.module->bias;
    const krv_elf_symbol_t *symbol = opened.file->elf().symbol(address);
    if (opened.lines != nullptr)
        f.source = opened.lines->find(address).source;
    if (symbol != nullptr) {
        f.function = function_name(symbol->name, m_options.demangle);
        f.offset = raw.pc - raw.module->bias - symbol->address;
    }
    return f;
}

static std::string bytes_text(const argument &bytes)
{
    if (bytes.empty())
        return "??";
    std::string text;
    for (const std::optional<uint8_t> &byte : bytes)
        text += fmt::format("{}{}", text.empty() ? "" : " ", byte ? fmt::format("{:02x}", *byte) : "??");
    return text;
}

void stack_run::print_frame(const frame &f)
{
    m_out.print("#{:<3} 0x{:0{}x}  ", f.index, f.pc, m_info.target == KRV_ACTIVATION_I386 ? 8 : 16);
    if (f.function.empty())
        m_out.write("??");
    else
        m_out.print("{}+0x{:x}", printable(f.function), f.offset);
    if (f.source && !f.source->path.empty())
        m_out.print("  {}:{}", printable(f.source->path), f.source->line);
    if (!f.module.empty())
        m_out.print("  ({})", printable(basename_of(f.module)));
    m_out.write(f.is_signal_frame ? "  <signal handler called>\n" : "\n");
    for (size_t i = 0; i < f.arguments.size(); ++i)
        m_out.print("       argument {}: {}\n", i + 1, bytes_text(f.arguments[i]));
}

static json_value frame_record(const frame &f)
{
    const auto known = [](const std::string &text) { return text.empty() ? json_value(nullptr) : json_value(text); };
    json_value record = {{"index", f.index},
                         {"pc", hex(f.pc)},
                         {"module", known(f.module)},
                         {"function", known(f.function)},
                         {"offset", f.function.empty() ? json_value(nullptr) : json_value(f.offset)},
                         {"file", f.source ? known(f.source->path) : json_value(nullptr)},
                         {"line", f.source ? or_null(f.source->line) : json_value(nullptr)},
                         {"signal_frame", f.is_signal_frame}};
    if (f.arguments.empty())
        return record;
    json_value arguments = json_value::array();
    for (const argument &bytes : f.arguments)
        arguments.push_back(bytes.empty() ? json_value(nullptr) : json_value(bytes_text(bytes)));
    record["arguments"] = arguments;
    return record;
}

void stack_run::print_json(const krv_proc_thread_t &thread, const krv_proc_end_t &end)
{
    json_value frames = json_value::array();
    for (const frame &f : m_frames)
        frames.push_back(frame_record(f));
    m_out.record({{"pid", m_info.pid == 0 ? json_value(nullptr) : json_value(m_info.pid)},
                  {"tid", thread.tid},
                  {"name", or_null(thread.name)},
                  {"frames", frames},
                  {"end", end_name(end.reason)},
                  {"message", end.message}});
}

int stack_run::take_frame(krv_proc_t *, const krv_proc_frame_t *raw, void *arg)
{
    auto *self = static_cast<stack_run *>(arg);
    const frame f = self->describe(*raw);
    if (self->m_out.is_json())
        self->m_frames.push_back(f);
    else
        self->print_frame(f);
    return 0;
}

void stack_run::walk(const krv_proc_thread_t &thread)
{
    krv_proc_end_t end = {};
    m_frames.clear();
    if (!m_out.is_json())
        m_out.print("thread {} ({})\n", thread.tid, printable(thread.name == nullptr ? "" : thread.name));
    korva_proc_walk(m_proc.get(), thread.tid, m_options.max_frames, take_frame, this, &end);
    m_walked += end.frames != 0 ? 1 : 0;
    m_whole = m_whole && end.reason == KRV_PROC_END_OUTERMOST;
    if (m_out.is_json())
        print_json(thread, end);
    else
        m_out.print("     end: {}\n", printable(end.message));
}

int stack_run::run()
{
    for (const krv_proc_thread_t &thread : threads())
        walk(thread);
    m_out.finish();
    return m_walked == 0 ? NOTHING : m_whole ? ANSWERED : PARTLY;
}

static int run_stack(const stack_options &options)
{
    if ((options.pid != 0) != options.file.empty())
        throw CLI::ValidationError("stack", "give either -p PID or --core CORE");
    return stack_run(options).run();
}

void add_stack(CLI::App &app, int *status)
{
    auto options = std::make_shared<stack_options>();
    CLI::App *verb = app.add_subcommand("stack", "Shows the stacks of a process or a core file");
    verb->add_option("-p,--pid", options->pid, "Process")->check(CLI::PositiveNumber);
    verb->add_option("--core", options->file, "Core file");
    verb->add_option("-e,--exe", options->exe, "Executable of the core file, when it is not where it was");
    verb->add_option("-n,--max-frames", options->max_frames, "Frames of a thread, at most (0: as many as there are)");
    verb->add_option("--tid", options->tid, "This thread only")->check(CLI::PositiveNumber);
    verb->add_flag("-1", options->first_only, "The first thread only: the main one, or the one that failed");
    verb->add_flag("-C,--demangle", options->demangle, "Show C++ functions by their C++ names");
    verb->add_flag("-a,--arguments", options->arguments, "Show arguments where the call-frame information has them");
    add_format_option(verb, options.get(),
                      {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer("The process is stopped meanwhile, and left as it was found. Each walk ends with its reason.\n"
                 "Exit status: 0 every thread was walked to its outermost frame, 1 some ended early, 2 nothing.\n"
                 "Examples:\n"
                 "  korva stack -p 4711 -C\n"
                 "  korva stack --core core -e ./a.out -1\n"
                 "  korva stack -p 4711 --format=jsonl | jq '.frames[0].function'");
    verb->callback([options, status] { *status = run_stack(*options); });
}

} // namespace korva::program
