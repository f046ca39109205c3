// SPDX-License-Identifier: Apache-2.0
#include "process/unwinder.h"

#include "failure.h"

#include <fmt/format.h>

namespace krv_elf_loader
{

namespace
{

// The i386 psABI preserves these across calls, but the library has no rule for a register that no instruction names.
constexpr unsigned i386_preserved[] = {KRV_HOST_RBX, KRV_HOST_RBP, KRV_HOST_RSI, KRV_HOST_RDI};

// Of expressions: some tens are what compilers and linkers need. A walk may still meet a frame that takes a million.
constexpr uint64_t instructions_a_frame = 1000;

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

} // namespace

// A process that runs may have loaded a library since its modules were listed.
loaded_module *unwinder::find_module(uint64_t pc)
{
    loaded_module *found = proc->modules.find(pc);
    if (found != nullptr || looked_again || proc->from->kind != KRV_PROC_SELF)
        return found;
    looked_again = true;
    proc->refresh();
    return proc->modules.find(pc);
}

place unwinder::locate(uint64_t pc, bool exact)
{
    const uint64_t lookup_pc = exact ? pc : pc - 1;
    return {lookup_pc, exact, find_module(lookup_pc)};
}

// A handle that the walk comes to for the first time may cost what is allowed, and take the time that the walk has left.
void unwinder::set_bounds(krv_handle_t *hp) const
{
    for (const auto &[bound, most] : proc->bounds) {
        uint64_t left = most;
        if (bound == KRV_OPT_EXT_TIMEOUT && most != 0) {
            const auto passed = std::chrono::steady_clock::now() - start;
            const auto spent = static_cast<uint64_t>(std::chrono::floor<std::chrono::milliseconds>(passed).count());
            left = spent < most ? most - spent : 1; // 0 is no bound
        }
        if (korva_handle_set_opt(hp, bound, left) != 0)
            throw std::bad_alloc();
    }
}

unwinder::~unwinder()
{
    for (const auto &[hp, ap] : activations)
        for (const auto &[bound, most] : proc->bounds)
            korva_handle_set_opt(hp, bound, uint64_t{0});
}

krv_activation_t *unwinder::load(krv_handle_t *hp, uint64_t pc, const register_set &registers)
{
    auto &slot = activations[hp];
    if (slot == nullptr) {
        slot.reset(korva_activation_alloc(hp));
        set_bounds(hp); // which an activation does not count in
    }
    krv_activation_t *ap = slot.get();
    if (ap == nullptr || korva_activation_set_budget(hp, ap, &budget) != 0 || korva_activation_reset(hp, ap) != 0 ||
        korva_activation_set_regs(hp, ap, registers.gregs, registers.mask,
                                  registers.has_fpregs ? &registers.fpregs : nullptr) != 0 ||
        korva_activation_set_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(pc)) != 0)
        throw std::bad_alloc();
    return ap;
}

departure unwinder::leave_by(krv_handle_t *hp, uint64_t pc, const register_set &registers, krv_proc_frame_t *frame)
{
    budget += instructions_a_frame;
    krv_activation_t *ap = load(hp, pc, registers);
    frame->handle = hp;
    frame->activation = ap;
    departure out;
    proc->from->unreadable.reset();
    const bool left =
        korva_activation_get_gregs(hp, ap, KRV_ACTIVATION_FRAME_CALLER, &out.caller.gregs, &out.caller.mask) == 0;
    if (!left) {
        out.code = korva_handle_get_errno(hp);
        out.kind = out.code == KRV_ERR_NOTFOUND ? departure::no_fde : departure::failed;
        out.message = out.code == KRV_ERR_IO && proc->from->unreadable
                          ? fmt::format("memory at {:#x} cannot be read{}", *proc->from->unreadable,
                                        proc->from->why_unreadable(*proc->from->unreadable))
                          : messages_of(hp);
    }
    korva_activation_get_frame_info(hp, ap, &out.function);
    if (!left)
        return out;
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

// A call through a pointer that leads to no code, as a null pointer, has pushed its return address and changed nothing
// else. False when what is at the top of the stack is the address of no module's code.
bool unwinder::assume_call(const register_set &registers, departure *out)
{
    if (!registers.has(KRV_HOST_RSP))
        return false;
    const auto sp = static_cast<uint64_t>(registers.gregs[KRV_HOST_RSP]);
    const size_t word = target == KRV_ACTIVATION_AMD64 ? 8 : 4;
    uint64_t pc = 0;
    if (!proc->from->bytes().read(sp, &pc, word) || pc == 0 || find_module(pc - 1) == nullptr)
        return false;
    const mapping *code = find_mapping(proc->from->mappings(), pc - 1);
    if (code == nullptr || !code->executable)
        return false;
    out->kind = departure::to_caller;
    out->assumed = true;
    out->caller = registers;
    out->caller.has_fpregs = false;
    out->caller.set(KRV_HOST_RIP, pc);
    out->caller.set(KRV_HOST_RSP, sp + word);
    return true;
}

// .eh_frame in memory; the file's .debug_frame where that has nothing for the function.
departure unwinder::leave_within(const place &at, uint64_t pc, const register_set &registers, krv_proc_frame_t *frame)
{
    frame->lookup_pc = pc;
    departure out = leave_by(at.module->handle(), pc, registers, frame);
    krv_handle_t *debug_frame = out.kind == departure::no_fde ? at.module->debug_frame_handle() : nullptr;
    if (debug_frame != nullptr) {
        const uint64_t bias = at.module->shown().bias;
        out = leave_by(debug_frame, pc - bias, registers, frame);
        out.bias = bias;
        return out;
    }
    if (out.kind == departure::no_fde && !at.module->problem().empty())
        out.message += " (" + at.module->problem() + ")";
    return out;
}

departure unwinder::leave(const place &at, const register_set &registers, krv_proc_frame_t *frame)
{
    frame->lookup_pc = at.lookup_pc;
    if (at.module == nullptr || at.module->shown().target != target) {
        departure out;
        if (at.module == nullptr && at.exact && assume_call(registers, &out)) {
            frame->cfa = static_cast<uint64_t>(out.caller.gregs[KRV_HOST_RSP]);
            return out;
        }
        out.kind = departure::no_fde;
        out.code = KRV_ERR_NOTFOUND;
        out.message = at.module == nullptr ? "no module covers it" : "it is code of another instruction set";
        if (at.module == nullptr && !proc->modules.problem().empty())
            out.message += " (" + proc->modules.problem() + ")";
        return out;
    }
    departure out = leave_within(at, at.lookup_pc, registers, frame);
    const uint64_t pc = registers.pc();
    const auto is_covered = [&](const departure &by) { return pc - by.bias - by.function.start < by.function.size; };
    if (!at.exact && !is_covered(out)) {
        // The function that made the call ends with it, or it was none, and this is where a signal handler returns to.
        departure here = leave_within(at, pc, registers, frame);
        if (here.function.is_signal != 0)
            out = std::move(here);
        else
            out = leave_within(at, at.lookup_pc, registers, frame);
    }
    frame->is_signal_frame = out.function.is_signal;
    if (out.function.is_signal != 0)
        frame->lookup_pc = pc;
    return out;
}

} // namespace krv_elf_loader
