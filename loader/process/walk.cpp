// SPDX-License-Identifier: Apache-2.0
//
// Which frames of a stack are visited, and why a walk ends. How each is left, the unwinder knows.
#include "failure.h"
#include "process/unwinder.h"

#include <fmt/format.h>
#include <ucontext.h>
#include <unistd.h>

using namespace krv_elf_loader;

namespace
{

constexpr unsigned DEFAULT_MAX_FRAMES = 4096;

// Finds a repetition in a sequence in constant space (Brent): no two frames of a stack have both the same frame address
// and the same program counter.
class repetition
{
public:
    bool repeats(uint64_t pc, uint64_t cfa)
    {
        if (seen && pc == kept_pc && cfa == kept_cfa)
            return true;
        if (!seen || ++steps == until) {
            seen = true;
            kept_pc = pc;
            kept_cfa = cfa;
            until *= 2;
            steps = 0;
        }
        return false;
    }

private:
    bool seen = false;
    uint64_t kept_pc = 0, kept_cfa = 0;
    unsigned steps = 0, until = 1;
};

struct visitor {
    krv_proc_frame_f *func;
    void *arg;
};

class walk
{
public:
    // Leaves out the first `skip` frames and visits at most `most`.
    walk(krv_proc_t *process, krv_activation_type_t target, visitor visits, unsigned skip, unsigned most,
         krv_proc_end_t &told)
        : proc(process), frames(process, target), visit(visits), left_out(skip), limit(most), end(told)
    {
    }

    // From the frame that `registers` are of. Returns what korva_proc_walk does.
    int run(register_set registers);

private:
    bool show(const krv_proc_frame_t &frame); // false when the walk ends with it
    void finish(int reason, int code, const std::string &message);

    krv_proc_t *proc;
    unwinder frames;
    visitor visit;
    unsigned left_out;
    unsigned limit;
    krv_proc_end_t &end;
    int result = 0;
    repetition stack;
    std::string assumption; // on which the frames stand; else ""
};

void walk::finish(int reason, int code, const std::string &message)
{
    end.reason = reason;
    end.code = code;
    std::snprintf(end.message, sizeof(end.message), "%s%s", message.c_str(), assumption.c_str());
    if (reason == KRV_PROC_END_ERROR)
        result = -1;
}

bool walk::show(const krv_proc_frame_t &frame)
{
    if (stack.repeats(frame.pc, frame.cfa)) {
        finish(KRV_PROC_END_NO_PROGRESS, KRV_ERR_NONE,
               fmt::format("{:#x}: the stack leads back to this frame", frame.pc));
        return false;
    }
    if (left_out != 0) {
        --left_out;
        return true;
    }
    if (end.frames == limit) {
        finish(KRV_PROC_END_LIMIT, KRV_ERR_NONE, fmt::format("more than {} frames", limit));
        return false;
    }
    ++end.frames;
    end.pc = frame.pc;
    result = visit.func(proc, &frame, visit.arg);
    if (result != 0)
        finish(KRV_PROC_END_STOPPED, KRV_ERR_NONE, fmt::format("{:#x}: the visitor stopped the walk", frame.pc));
    return result == 0;
}

int reason_of(const departure &out)
{
    switch (out.kind) {
    case departure::outermost:
        return KRV_PROC_END_OUTERMOST;
    case departure::no_fde:
        return KRV_PROC_END_NO_FDE;
    default:
        return KRV_PROC_END_ERROR;
    }
}

int walk::run(register_set registers)
{
    for (bool exact = true;;) {
        const place at = frames.locate(registers.pc(), exact);
        krv_proc_frame_t frame = {};
        frame.index = end.frames;
        frame.pc = registers.pc();
        frame.module = at.module == nullptr ? nullptr : &at.module->shown();
        const departure out = frames.leave(at, registers, &frame);
        if (!show(frame))
            return result;
        if (out.kind != departure::to_caller) {
            finish(reason_of(out), out.code, fmt::format("{:#x}: {}", frame.pc, out.message));
            return result;
        }
        if (out.assumed)
            assumption = fmt::format("; assumed: {:#x}, which no module covers, was called from the address at the top "
                                     "of the stack",
                                     frame.pc);
        registers = out.caller;
        exact = frame.is_signal_frame != 0;
    }
}

// Runs a walk whose registers `start` delivers. A failure before its first frame, or in between, is told in the end.
template <typename F>
int walk_from(krv_proc_t *proc, unsigned skip, unsigned most, visitor visits, krv_proc_end_t *endp, F start)
{
    krv_elf_error_t error = {};
    krv_proc_end_t end = {};
    const int result = guarded<int>(&error, -1, [&] {
        const std::pair<register_set, krv_activation_type_t> begin = start();
        proc->from->forget_bytes();
        walk w(proc, begin.second, visits, skip, most == 0 ? DEFAULT_MAX_FRAMES : most, end);
        return w.run(begin.first);
    });
    if (end.reason == 0) {
        end.reason = KRV_PROC_END_ERROR;
        end.code = error.code == KRV_ELF_ERR_NOMEM ? KRV_ERR_NOMEM : KRV_ERR_NONE;
        std::snprintf(end.message, sizeof(end.message), "%s", error.message);
    }
    if (endp != nullptr)
        *endp = end;
    return result;
}

int walk_own_context(krv_proc_t *proc, const void *ucontext, unsigned skip, unsigned most, visitor visits,
                     krv_proc_end_t *endp)
{
    return walk_from(proc, skip, most, visits, endp, [&] {
        if (proc->from->kind != KRV_PROC_SELF)
            throw failure(KRV_ELF_ERR_UNSUPPORTED, "a context describes a thread of the calling process only");
        return std::pair(registers_of_context(ucontext), proc->from->target);
    });
}

} // namespace

int korva_proc_walk_context(krv_proc_t *proc, const void *ucontext, unsigned int max_frames, krv_proc_frame_f *func,
                            void *arg, krv_proc_end_t *endp)
{
    return walk_own_context(proc, ucontext, 0, max_frames, {func, arg}, endp);
}

int korva_proc_walk(krv_proc_t *proc, int tid, unsigned int max_frames, krv_proc_frame_f *func, void *arg,
                    krv_proc_end_t *endp)
{
    if (proc->from->kind == KRV_PROC_SELF && (tid == 0 || tid == gettid())) {
        // Captured here, in a frame that lives as long as the walk; it is the one that is left out.
        ucontext_t context;
        getcontext(&context);
        return walk_own_context(proc, &context, 1, max_frames, {func, arg}, endp);
    }
    return walk_from(proc, 0, max_frames, {func, arg}, endp, [&] {
        const thread *t = proc->from->threads.find(tid);
        return std::pair(proc->from->registers(tid), t == nullptr ? 0 : t->target);
    });
}
