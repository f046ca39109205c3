// SPDX-License-Identifier: Apache-2.0
//
// The system's register layouts, translated into those of libkorva. The sizes of a layout tell 64 from 32 bits.
#ifndef KRV_PROC_REGISTERS_H
#define KRV_PROC_REGISTERS_H

#include "libkorva.h"

#include <cstddef>
#include <cstdint>

namespace krv_elf_loader
{

// The registers of a thread or frame.
struct register_set {
    krv_gregset_t gregs = {};
    uint64_t mask = 0; // bit n: gregs[n] has a value
    bool has_fpregs = false;
    krv_fpregset_t fpregs = {};

    uint64_t pc() const { return static_cast<uint64_t>(gregs[KRV_HOST_RIP]); }
    bool has(unsigned host) const { return (mask >> host & 1) != 0; }
    void set(unsigned host, uint64_t value)
    {
        gregs[host] = static_cast<krv_greg_t>(value);
        mask |= uint64_t{1} << host;
    }
};

constexpr size_t REGS_SIZE_AMD64 = 27 * 8; // struct user_regs_struct: NT_PRSTATUS as ptrace gives it
constexpr size_t REGS_SIZE_I386 = 17 * 4;  // that of a 32-bit program
constexpr size_t FXSAVE_SIZE = 512; // NT_FPREGSET of AMD64, NT_PRXFPREG of 32 bits, and the start of NT_X86_XSTATE

// The instruction set whose general registers have this size; 0 for neither.
krv_activation_type_t target_of_registers(size_t size);

// Fills gregs and mask from `bytes`, as many as the target's registers have.
void load_registers(register_set *set, krv_activation_type_t target, const uint8_t *bytes);

// Fills fpregs from an FXSAVE image of FXSAVE_SIZE bytes.
void load_fxsave(register_set *set, const uint8_t *bytes);

// From a ucontext_t of this process.
register_set registers_of_context(const void *ucontext);

} // namespace krv_elf_loader

#endif
