// SPDX-License-Identifier: Apache-2.0
//
// From frame to frame. Every module has a handle of its own, and an activation belongs to one handle, so the registers
// of a frame are loaded into an activation of the handle that knows the frame's function, whichever it is; what that
// computes for the caller are the registers of the next frame.
#include "process/proc.h"

#include "failure.h"

#include <fmt/format.h>
#include <map>
#include <ucontext.h>
#include <unistd.h>

using namespace krv_elf_loader;

namespace
{

constexpr unsigned DEFAULT_MAX_FRAMES = 4096;

// The i386 psABI preserves these across calls, but the library has no rule for a register that no instruction names.
constexpr unsigned i386_preserved[] = {KRV_HOST_RBX, KRV_HOST_RBP, KRV_HOST_RSI, KRV_HOST_RDI};

struct activation_deleter {
    void operator()(krv_activation_t *ap) const { korva_activation_free(ap); }
};

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

// What the library says of its last failure: one line, cause first.
std::string messages_of(krv_handle_t *hp)
{
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    std::string text;
    for (unsigned int i = 0; i < count; ++i) {
        text += i == 0 ? "" : ": ";
        for (const char *c = messages[i]; *c != '\0'; ++c)
            text += *c == '\n' ? "" : std::string(1, *c);
    }
    return text;
}

// How a frame is left.
struct departure {
    enum { to_caller, outermost, no_fde, failed } kind = failed;
    int code = KRV_ERR_NONE;
    std::string message;
    register_set caller; // of to_caller
};

class walk
{
public:
    walk(krv_proc_t *process, krv_activation_type_t instruction_set, krv_proc_end_t &told)
        : proc(process), target(instruction_set), end(told)
    {
    }

    // Visits frames from `registers` on, leaving out the first `skip`. Returns the visitor's result, or 0.
    int run(register_set registers, unsigned skip, unsigned most, krv_proc_frame_f *func, void *arg);

private:
    struct place {
        uint64_t lookup_pc;
        bool signal_frame;
        loaded_module *module; // NULL: none covers lookup_pc
    };

    loaded_module *find_module(uint64_t pc);
    place locate(uint64_t pc, bool exact);
    departure leave(const place &at, const register_set &registers, krv_proc_frame_t *frame);
    departure leave_by(krv_handle_t *hp, uint64_t pc, const register_set &registers, krv_proc_frame_t *frame);
    krv_activation_t *load(krv_handle_t *hp, uint64_t pc, const register_set &registers);
    void finish(int reason, int code, const std::string &message);

    krv_proc_t *proc;
    krv_activation_type_t target;
    krv_proc_end_t &end;
    bool looked_again = false;
    std::map<krv_handle_t *, std::unique_ptr<krv_activation_t, activation_deleter>> activations;
};

void walk::finish(int reason, int code, const std::string &message)
{
    end.reason = reason;
    end.code = code;
    std::snprintf(end.message, sizeof(end.message), "%s", message.c_str());
}

// A process that runs may have loaded a library since its modules were listed.
loaded_module *walk::find_module(uint64_t pc)
{
    loaded_module *found = proc->find(pc);
    if (found != nullptr || looked_again || proc->from->kind != KRV_PROC_SELF)
        return found;
    looked_again = true;
    proc->refresh();
    return proc->find(pc);
}

// `exact`: pc is where the frame was stopped, not where it will go on after a call.
walk::place walk::locate(uint64_t pc, bool exact)
{
    loaded_module *here = find_module(pc);
    if (here != nullptr && here->signal_frame(pc))
        return {pc, true, here};
    if (exact)
        return {pc, false, here};
    return {pc - 1, false, here != nullptr && here->covers(pc - 1) ? here : find_module(pc - 1)};
}

krv_activation_t *walk::load(krv_handle_t *hp, uint64_t pc, const register_set &registers)
{
    auto &slot = activations[hp];
    if (slot == nullptr)
        slot.reset(korva_activation_alloc(hp));
    krv_activation_t *ap = slot.get();
    if (ap == nullptr || korva_activation_reset(hp, ap) != 0 ||
        korva_activation_set_regs(hp, ap, registers.gregs, registers.mask,
                                  registers.has_fpregs ? &registers.fpregs : nullptr) != 0 ||
        korva_activation_set_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(pc)) != 0)
        throw std::bad_alloc();
    return ap;
}

departure walk::leave_by(krv_handle_t *hp, uint64_t pc, const register_set &registers, krv_proc_frame_t *frame)
{
    krv_activation_t *ap = load(hp, pc, registers);
    frame->handle = hp;
    frame->activation = ap;
    departure out;
    if (korva_activation_get_gregs(hp, ap, KRV_ACTIVATION_FRAME_CALLER, &out.caller.gregs, &out.caller.mask) != 0) {
        out.code = korva_handle_get_errno(hp);
        out.kind = out.code == KRV_ERR_NOTFOUND ? departure::no_fde : departure::failed;
        out.message = messages_of(hp);
        return out;
    }
    krv_greg_t cfa = 0, caller_pc = 0;
    const bool has_cfa = korva_activation_get_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_ACTIVATION_FRAME_CURRENT,
                                                   KRV_REG_CFA, &cfa) == 0;
    frame->cfa = static_cast<uint64_t>(cfa);
    const bool has_pc = korva_activation_get_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_ACTIVATION_FRAME_CALLER,
                                                  KRV_REG_PC, &caller_pc) == 0;
    if (!has_pc && !has_cfa) {
        out.message = "the frame address depends on a register whose value is not known";
        return out;
    }
    if (!has_pc || caller_pc == 0) {
        out.kind = departure::outermost;
        out.message = has_pc ? "the return address is 0" : "the return address is undefined";
        return out;
    }
    out.kind = departure::to_caller;
    out.caller.set(KRV_HOST_RIP, static_cast<uint64_t>(caller_pc));
    if (target == KRV_ACTIVATION_I386)
        for (const unsigned reg : i386_preserved)
            if (!out.caller.has(reg) && registers.has(reg))
                out.caller.set(reg, static_cast<uint64_t>(registers.gregs[reg]));
    return out;
}

// .eh_frame in memory; the file's .debug_frame where that has nothing for the function.
departure walk::leave(const place &at, const register_set &registers, krv_proc_frame_t *frame)
{
    if (at.module == nullptr || at.module->shown().target != target) {
        departure out;
        out.kind = departure::no_fde;
        out.code = KRV_ERR_NOTFOUND;
        out.message = at.module == nullptr ? "no module covers it" : "it is code of another instruction set";
        return out;
    }
    departure out = leave_by(at.module->handle(), at.lookup_pc, registers, frame);
    krv_handle_t *debug_frame = out.kind == departure::no_fde ? at.module->debug_frame_handle() : nullptr;
    if (debug_frame == nullptr) {
        if (out.kind == departure::no_fde && !at.module->file_problem().empty())
            out.message += " (" + at.module->file_problem() + ")";
        return out;
    }
    return leave_by(debug_frame, at.lookup_pc - at.module->shown().bias, registers, frame);
}

int walk::run(register_set registers, unsigned skip, unsigned most, krv_proc_frame_f *func, void *arg)
{
    repetition stack;
    for (bool exact = true;;) {
        const place at = locate(registers.pc(), exact);
        krv_proc_frame_t frame = {};
        frame.index = end.frames;
        frame.pc = registers.pc();
        frame.lookup_pc = at.lookup_pc;
        frame.is_signal_frame = at.signal_frame ? 1 : 0;
        frame.module = at.module == nullptr ? nullptr : &at.module->shown();
        departure out = leave(at, registers, &frame);
        const std::string here = fmt::format("{:#x}: ", frame.pc);
        if (stack.repeats(frame.pc, frame.cfa)) {
            finish(KRV_PROC_END_NO_PROGRESS, KRV_ERR_NONE, here + "the stack leads back to this frame");
            return 0;
        }
        if (skip != 0) {
            --skip;
        } else if (end.frames == most) {
            finish(KRV_PROC_END_LIMIT, KRV_ERR_NONE, fmt::format("more than {} frames", most));
            return 0;
        } else {
            ++end.frames;
            end.pc = frame.pc;
            if (const int result = func(proc, &frame, arg)) {
                finish(KRV_PROC_END_STOPPED, KRV_ERR_NONE, here + "the visitor stopped the walk");
                return result;
            }
        }
        if (out.kind != departure::to_caller) {
            const int reason = out.kind == departure::outermost ? KRV_PROC_END_OUTERMOST
                               : out.kind == departure::no_fde  ? KRV_PROC_END_NO_FDE
                                                                : KRV_PROC_END_ERROR;
            finish(reason, out.code, here + out.message);
            return reason == KRV_PROC_END_ERROR ? -1 : 0;
        }
        registers = out.caller;
        exact = at.signal_frame;
    }
}

// Runs a walk whose registers `start` delivers. A failure before its first frame, or in between, is told in the end.
template <typename F>
int walk_from(krv_proc_t *proc, unsigned skip, unsigned most, krv_proc_frame_f *func, void *arg, krv_proc_end_t *endp,
              F start)
{
    krv_elf_error_t error = {};
    krv_proc_end_t end = {};
    const int result = guarded<int>(&error, -1, [&] {
        const std::pair<register_set, krv_activation_type_t> begin = start();
        proc->from->forget_bytes();
        walk w(proc, begin.second, end);
        return w.run(begin.first, skip, most == 0 ? DEFAULT_MAX_FRAMES : most, func, arg);
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

int walk_own_context(krv_proc_t *proc, const void *ucontext, unsigned skip, unsigned most, krv_proc_frame_f *func,
                     void *arg, krv_proc_end_t *endp)
{
    return walk_from(proc, skip, most, func, arg, endp, [&] {
        if (proc->from->kind != KRV_PROC_SELF)
            throw failure(KRV_ELF_ERR_UNSUPPORTED, "a context describes a thread of the calling process only");
        return std::pair(registers_of_context(ucontext), proc->from->target);
    });
}

} // namespace

int korva_proc_walk_context(krv_proc_t *proc, const void *ucontext, unsigned int max_frames, krv_proc_frame_f *func,
                            void *arg, krv_proc_end_t *endp)
{
    return walk_own_context(proc, ucontext, 0, max_frames, func, arg, endp);
}

int korva_proc_walk(krv_proc_t *proc, int tid, unsigned int max_frames, krv_proc_frame_f *func, void *arg,
                    krv_proc_end_t *endp)
{
    if (proc->from->kind == KRV_PROC_SELF && (tid == 0 || tid == gettid())) {
        // Captured here, in a frame that lives as long as the walk; it is the one that is left out.
        ucontext_t context;
        getcontext(&context);
        return walk_own_context(proc, &context, 1, max_frames, func, arg, endp);
    }
    return walk_from(proc, 0, max_frames, func, arg, endp, [&] {
        krv_activation_type_t target = 0;
        for (const thread &t : proc->from->threads())
            if (t.tid == tid)
                target = t.target;
        register_set registers = proc->from->registers(tid);
        return std::pair(registers, target);
    });
}
