// SPDX-License-Identifier: Apache-2.0
#include "record/walker.h"

#include <fmt/format.h>
#include <fstream>

namespace korva::program
{

static constexpr size_t MOST_FRAMES = 1024;
static constexpr int LOOKS_SHARE = 20; // a look at the mappings is followed by so many times its duration without one

// Mappings before modules, here and in refresh(): of what comes between them, the next look at the mappings tells.
stack_walker::stack_walker(process *proc) : m_proc(proc), m_code(mapped_code())
{
    (void)m_proc->refresh(); // of one that has ended, what was known stays
    read_modules();
}

stack_walker::~stack_walker() = default;

// The lines of /proc/PID/maps that are of code.
std::string stack_walker::mapped_code() const
{
    std::string all;
    std::ifstream maps(fmt::format("/proc/{}/maps", m_proc->info().pid));
    for (std::string line; std::getline(maps, line);)
        if (const size_t flags = line.find(' '); flags != std::string::npos && line.find('x', flags) == flags + 3)
            all += line + '\n';
    return all;
}

// Those of .eh_frame in memory; failing that, of the file.
stack_walker::table stack_walker::make_table(const krv_proc_module_t &module) const
{
    table made;
    const auto try_handle = [&](krv_handle_t *hp, uint64_t bias) {
        if (korva_handle_set_opt(hp, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1}) == 0 && korva_frames_prefill(hp) == 0)
            made.rules = {.handle = hp, .bias = bias};
    };
    if (const auto handle = m_proc->handle(module))
        try_handle(handle->get(), 0);
    if (made.rules.handle == nullptr)
        if (const auto file = m_proc->file(module))
            try_handle(file->handle().get(), module.bias);
    if (made.rules.handle != nullptr)
        made.activation = {korva_activation_alloc(made.rules.handle), korva_activation_free};
    return made;
}

void stack_walker::read_modules()
{
    m_modules.clear();
    m_signal_frames.clear();
    ++m_generation;
    const krv_activation_type_t target = m_proc->info().target;
    for (const krv_proc_module_t *module : m_proc->modules()) {
        if (module->target != target)
            continue;
        auto known = m_tables.find(module);
        if (known == m_tables.end())
            known = m_tables.emplace(module, make_table(*module)).first;
        if (known->second.rules.handle != nullptr)
            m_modules.push_back(known->second.rules);
    }
    m_proc->release(); // files that only the process leads to
}

void stack_walker::walk(const thread_registers &from, stack_memory *memory, raw_stack *out) const
{
    krv_stack_t stack = {};
    stack.modules = m_modules.data();
    stack.nmodules = m_modules.size();
    std::copy(std::begin(from.gregs), std::end(from.gregs), std::begin(stack.gregs));
    stack.mask = from.mask;
    stack.read = stack_memory::read;
    stack.arg = memory;
    krv_stack_end_t end = {.reason = KRV_STACK_NO_RULE, .pc = 0};
    out->addresses.resize(MOST_FRAMES);
    if (from.target != m_proc->info().target) // as a 64-bit program that has gone over to 32-bit code
        stack.nmodules = 0;
    out->addresses.resize(korva_stack_addresses(&stack, out->addresses.data(), MOST_FRAMES, &end));
    out->end = end.reason;
    if (out->addresses.empty())
        out->addresses.push_back(from.pc());
}

bool stack_walker::refresh()
{
    const auto begin = std::chrono::steady_clock::now();
    std::string code = mapped_code();
    const bool is_other = !code.empty() && code != m_code;
    if (is_other && m_proc->refresh()) {
        m_code = std::move(code);
        read_modules();
    }
    const auto end = std::chrono::steady_clock::now();
    m_next_look = end + LOOKS_SHARE * (end - begin);
    return is_other;
}

bool stack_walker::needs_modules(const raw_stack &stack) const
{
    return stack.end == KRV_STACK_NO_RULE && m_proc->module_of(stack.addresses.back()) == nullptr &&
           std::chrono::steady_clock::now() >= m_next_look;
}

// Whether the frame with this return address is that of a signal handler's return, and its caller was interrupted.
bool stack_walker::is_signal_frame(const krv_proc_module_t *module, uint64_t pc)
{
    const auto [known, fresh] = m_signal_frames.try_emplace(pc, false);
    const auto found = m_tables.find(module);
    if (!fresh || found == m_tables.end() || found->second.activation == nullptr)
        return known->second;
    krv_handle_t *hp = found->second.rules.handle;
    krv_activation_t *ap = found->second.activation.get();
    krv_frame_info_t info = {};
    if (korva_activation_reset(hp, ap) == 0 &&
        korva_activation_set_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC,
                                  static_cast<krv_greg_t>(pc - 1 - found->second.rules.bias)) == 0 &&
        korva_activation_get_frame_info(hp, ap, &info) == 0)
        known->second = info.is_signal != 0;
    return known->second;
}

std::vector<sampled_frame> stack_walker::resolve(const raw_stack &stack)
{
    std::vector<sampled_frame> frames;
    bool exact = true;
    for (const uint64_t pc : stack.addresses) {
        const uint64_t inside = exact ? pc : pc - 1;
        const krv_proc_module_t *module = m_proc->module_of(inside);
        const bool is_signal = !exact && module != nullptr && is_signal_frame(module, pc);
        const uint64_t place = is_signal ? pc : inside;
        exact = is_signal;
        if (module == nullptr || module->path != m_hidden)
            frames.push_back({module, module == nullptr ? place : place - module->bias, is_signal});
    }
    return frames;
}

} // namespace korva::program
