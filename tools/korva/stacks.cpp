// SPDX-License-Identifier: Apache-2.0
#include "stacks.h"

#include "output.h"
#include "register_names.h"
#include "visitor.h"

#include <algorithm>

namespace korva::program
{

static const char *state_name(int letter)
{
    switch (letter) {
    case 'R':
        return "running";
    case 'S':
        return "sleeping";
    case 'D':
        return "in uninterruptible sleep";
    case 'T':
        return "stopped";
    case 't':
        return "traced";
    case 'I':
        return "idle";
    default:
        return nullptr;
    }
}

static std::vector<std::pair<const char *, uint64_t>> read_registers(const process &proc,
                                                                     const krv_proc_thread_t &thread)
{
    std::vector<std::pair<const char *, uint64_t>> all;
    const auto known = proc.regs(thread.tid);
    if (!known) // the walk says why
        return all;
    for (const register_name &row : register_names()) {
        const char *name = thread.target == KRV_ACTIVATION_I386 ? row.i386 : row.amd64;
        if (const auto value = known->get(row.host); value && name != nullptr)
            all.emplace_back(name, *value);
    }
    return all;
}

static std::vector<argument> read_arguments(const krv_proc_frame_t &frame, krv_activation_type_t target)
{
    std::vector<argument> all;
    unsigned int argc = 0;
    if (frame.activation == nullptr || korva_activation_get_argc(frame.handle, frame.activation, &argc) != 0)
        return all;
    const uint64_t size = target == KRV_ACTIVATION_I386 ? 4 : 8;
    for (unsigned int n = 1; n <= argc; ++n) {
        uint8_t value[8], valid[8], in_register[8];
        uint64_t count = 0;
        if (korva_activation_get_argv(frame.handle, frame.activation, n, value, valid, in_register, size, &count) != 0)
            count = 0;
        argument bytes;
        for (uint64_t i = 0; i < count; ++i)
            bytes.push_back(valid[i] != 0 ? std::optional<uint8_t>(value[i]) : std::nullopt);
        all.push_back(std::move(bytes));
    }
    return all;
}

std::vector<krv_proc_thread_t> threads_of(const process &proc, int tid, bool first_only)
{
    std::vector<krv_proc_thread_t> all = proc.threads();
    if (tid != 0)
        std::erase_if(all, [tid](const krv_proc_thread_t &thread) { return thread.tid != tid; });
    if (tid != 0 && all.empty())
        throw failure(fmt::format("no thread {}", tid), {.code = "KRV_ELF_ERR_NOTFOUND"});
    if (first_only && all.size() > 1)
        all.erase(all.begin() + 1, all.end());
    return all;
}

void bound_walks(process *proc, const cost_bounds &bounds)
{
    const std::pair<krv_opt_idx_t, uint64_t> all[] = {{KRV_OPT_EXT_MAX_STEPS, bounds.steps},
                                                      {KRV_OPT_EXT_MAX_BYTES, bounds.bytes},
                                                      {KRV_OPT_EXT_MAX_ROWS, bounds.rows},
                                                      {KRV_OPT_EXT_TIMEOUT, bounds.milliseconds}};
    for (const auto &[bound, most] : all)
        if (most != 0 && !proc->set_bound(bound, most))
            throw std::bad_alloc();
}

// Up to what can be read. Of the kernel's own object, which is in no file, all.
static memory_piece read_piece(const process &proc, uint64_t address, uint64_t size)
{
    constexpr uint64_t PIECE = 4096;
    memory_piece piece = {address, {}};
    while (piece.bytes.size() < size) {
        char bytes[PIECE];
        const uint64_t at = address + piece.bytes.size();
        const uint64_t count = std::min(PIECE - at % PIECE, size - piece.bytes.size());
        if (!proc.read(at, bytes, count))
            break;
        piece.bytes.append(bytes, count);
    }
    return piece;
}

static bool covers(const std::vector<memory_piece> &pieces, uint64_t address)
{
    return std::any_of(pieces.begin(), pieces.end(),
                       [address](const memory_piece &piece) { return address - piece.address < piece.bytes.size(); });
}

// Registers that were restored already may still be read from below the stack pointer.
static void read_stack_at(const process &proc, uint64_t pointer, uint64_t size, std::vector<memory_piece> *pieces)
{
    constexpr uint64_t RED_ZONE = 128;
    constexpr size_t MOST = 16; // stacks
    if (covers(*pieces, pointer) || pieces->size() == MOST)
        return;
    memory_piece piece = read_piece(proc, pointer - RED_ZONE, size);
    if (piece.bytes.size() <= RED_ZONE)
        piece = read_piece(proc, pointer, size);
    if (!piece.bytes.empty())
        pieces->push_back(std::move(piece));
}

// The stack pointer that the frame's caller had: frames may be on several stacks, as a signal handler's.
static std::optional<uint64_t> stack_of_caller(const krv_proc_frame_t &frame)
{
    krv_greg_t pointer = 0;
    if (frame.activation == nullptr ||
        korva_activation_get_greg(frame.handle, frame.activation, KRV_ACTIVATION_REG_HOST, KRV_ACTIVATION_FRAME_CALLER,
                                  KRV_HOST_RSP, &pointer) != 0)
        return {};
    return static_cast<uint64_t>(pointer);
}

thread_stack read_stack(const process &proc, const krv_proc_thread_t &thread, const stack_request &wanted)
{
    thread_stack stack = {
        .tid = thread.tid,
        .name = thread.name == nullptr ? "" : thread.name,
        .state = state_name(proc.state(thread.tid)),
    };
    if (wanted.registers)
        stack.registers = read_registers(proc, thread);
    if (wanted.raw_stack != 0) {
        for (const krv_proc_module_t *module : proc.modules())
            if ((module->flags & KRV_PROC_MODULE_F_VDSO) != 0)
                stack.raw.push_back(read_piece(proc, module->start, module->end - module->start));
        if (const auto known = proc.regs(thread.tid))
            if (const auto pointer = known->get(KRV_HOST_RSP))
                read_stack_at(proc, *pointer, wanted.raw_stack, &stack.raw);
    }
    visitor take([&](const krv_proc_frame_t &frame) {
        stack.frames.push_back(
            {.pc = frame.pc,
             .lookup_pc = frame.lookup_pc,
             .module = frame.module,
             .is_signal_frame = frame.is_signal_frame != 0,
             .arguments = wanted.arguments ? read_arguments(frame, thread.target) : std::vector<argument>(),
             .variables = wanted.variables ? read_variables(proc, frame) : std::vector<call_variables>()});
        if (const auto pointer = wanted.raw_stack != 0 ? stack_of_caller(frame) : std::nullopt)
            read_stack_at(proc, *pointer, wanted.raw_stack, &stack.raw);
    });
    const krv_proc_end_t end = proc.walk(thread.tid, take, wanted.max_frames);
    take.rethrow();
    stack.end = end.reason;
    stack.code = end.code;
    stack.message = end.message;
    return stack;
}

const char *end_name(int reason)
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

record_status status_of(const thread_stack &stack, const stack_request &wanted)
{
    const bool is_long = stack.end == KRV_PROC_END_LIMIT;
    if (stack.end == KRV_PROC_END_OUTERMOST || (is_long && wanted.max_frames != 0))
        return record_status::ok;
    return is_long || stack.code == KRV_ERR_EXT_LIMIT ? record_status::limit : record_status::error;
}

void count(const thread_stack &stack, const stack_request &wanted, tally *done)
{
    if (stack.frames.empty())
        done->missed();
    else if (status_of(stack, wanted) == record_status::ok)
        done->answered();
    else
        done->partly();
}

} // namespace korva::program
