// SPDX-License-Identifier: Apache-2.0
#include "trace/process_traces.h"

#include <algorithm>
#include <utility>

namespace korva::program
{

// The function that was not inlined is named as its symbol is, like every function without lines.
void append_frames(std::vector<trace_frame> *frames, const stack_frame &f, const frame_place &at,
                   const place_request &wanted)
{
    trace_frame function = {.function = at.function, .file = at.path, .line = at.line};
    if (f.module != nullptr) {
        function.module = f.module->path;
        function.build_id = build_id_of(*f.module);
        function.address = f.lookup_pc - f.module->bias;
    }
    for (size_t i = 0; i < at.calls.size(); ++i) {
        const krv_elf_frame_t &call = at.calls[i];
        const bool is_inlined = i + 1 < at.calls.size();
        if (is_inlined || function.function.empty())
            function.function = call.function;
        function.file = path_of(call, wanted);
        function.line = wanted.no_source ? 0 : call.line;
        function.column = wanted.no_source ? 0 : call.column;
        function.is_inlined = is_inlined;
        if (is_inlined) {
            frames->push_back(function);
            function.function = at.function;
        }
    }
    function.is_signal_frame = f.is_signal_frame;
    frames->push_back(std::move(function));
}

// Without a build-id the path alone says which file it is, and of a live process not even that: another may be mapped there.
static std::string key_of(const process &proc, const krv_proc_module_t &module)
{
    std::string key = module.path;
    key.append(1, '\0').append(build_id_of(module));
    if (module.build_id_size == 0 && proc.info().kind != KRV_PROC_CORE)
        key += fmt::format("{}", proc.info().pid);
    if ((module.flags & KRV_PROC_MODULE_F_MISMATCH) != 0)
        key += "mismatch";
    return key;
}

const module_file &shared_modules::open(const std::shared_ptr<process> &proc, const krv_proc_module_t &module,
                                        const cost_bounds &bounds, const std::string &hint)
{
    const std::string key = key_of(*proc, module);
    auto at = m_entries.find(key);
    if (at == m_entries.end()) {
        if (m_entries.size() >= MOST_OPEN)
            m_entries.erase(std::min_element(m_entries.begin(), m_entries.end(), [](const auto &a, const auto &b) {
                return a.second.used < b.second.used;
            }));
        at = m_entries.try_emplace(key).first;
        at->second.file = open_module(*proc, module, bounds, hint);
        if (at->second.file.file != nullptr)
            at->second.through = proc;
    }
    at->second.used = ++m_time;
    return at->second.file;
}

void trace_collector::note(const std::string &text)
{
    constexpr size_t MOST_NOTES = 10;
    if (std::find(m_notes.begin(), m_notes.end(), text) != m_notes.end())
        return;
    if (m_notes.size() < MOST_NOTES)
        m_notes.push_back(text);
    else
        ++m_more_notes;
}

std::vector<std::string> trace_collector::notes() const
{
    std::vector<std::string> all = m_notes;
    if (m_more_notes != 0)
        all.push_back(fmt::format("{} further notes of this kind", m_more_notes));
    return all;
}

void trace_collector::add_stack(const std::string &name, const std::shared_ptr<process> &proc,
                                const thread_stack &stack)
{
    const std::string hint = m_wanted.exe.empty() ? "; say with -e FILE where the executable is" : "";
    trace made = {.end = end_name(stack.end), .status = status_of(stack, m_wanted.walk), .message = stack.message};
    for (const stack_frame &f : stack.frames) {
        frame_place at;
        if (f.module != nullptr)
            at = look_up(m_modules.open(proc, *f.module, m_wanted.bounds, hint), f, m_wanted.places);
        append_frames(&made.frames, f, at, m_wanted.places);
    }
    made.owners[{name, stack.tid, stack.name}] = 1;
    m_traces.add(std::move(made));
    count(stack, m_wanted.walk, &m_done);
}

void trace_collector::read(const std::string &name, const std::shared_ptr<process> &proc)
{
    if (!proc->set_files(m_wanted.flags, m_wanted.search))
        throw std::bad_alloc();
    bound_walks(proc.get(), m_wanted.bounds);
    const bool is_core = proc->info().kind == KRV_PROC_CORE;
    std::vector<thread_stack> stacks;
    for (const krv_proc_thread_t &thread : threads_of(*proc, m_wanted.tid, m_wanted.first_only)) {
        stacks.push_back(read_stack(*proc, thread, m_wanted.walk));
        if (!is_core)
            continue;
        add_stack(name, proc, stacks.back());
        stacks.clear();
    }
    proc->release();
    for (const thread_stack &stack : stacks)
        add_stack(name, proc, stack);
    for (const std::string &text : proc->notes())
        note(text.starts_with(name) ? text : fmt::format("{}: {}", name, text));
}

void trace_collector::add(const std::string &name, korva::result<process> opened)
{
    std::string fault;
    if (opened) {
        const kept_diagnostics kept;
        try {
            read(name, std::make_shared<process>(std::move(*opened)));
        } catch (const failure &f) {
            fault = fmt::format("{}: {}", name, f.what());
        }
        for (const std::string &text : kept.texts)
            note(text);
    } else {
        fault = opened.error().text();
    }
    if (fault.empty())
        return;
    diagnose(fault);
    m_done.missed();
    m_traces.add({.end = "error", .status = record_status::error, .message = fault, .owners = {{{name, 0, ""}, 1}}});
}

void trace_collector::add_process(int pid)
{
    add(fmt::format("{}", pid), process::attach(pid));
}

void trace_collector::add_core(const std::string &path)
{
    add(path, process::open_core(path.c_str(), m_wanted.exe.empty() ? nullptr : m_wanted.exe.c_str(), m_wanted.flags,
                                 m_wanted.search));
}

} // namespace korva::program
