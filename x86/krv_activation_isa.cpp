// SPDX-License-Identifier: Apache-2.0
#include "krv_activation_isa.h"

#include <algorithm>
#include <cstddef>

// Clients pass register sets in and out whole.
static_assert(sizeof(krv_gregset_t) == 28 * 8 && sizeof(krv_fpregset_t) == 528, "register sets of the host");
static_assert(offsetof(krv_fpregset_t, mxcsr) == 24 && offsetof(krv_fpregset_t, st) == 32 &&
                  offsetof(krv_fpregset_t, xmm) == 160 && offsetof(krv_fpregset_t, status) == 512,
              "FXSAVE image");

namespace
{

constexpr krv_cfarule_t UNDEFINED = {KRV_CFA_RULE_UNDEFINED, 0, 0, 0};
constexpr krv_cfarule_t SAME = {KRV_CFA_RULE_SAME_VALUE, 0, 0, 0};   // preserved across calls
constexpr krv_cfarule_t IS_CFA = {KRV_CFA_RULE_VAL_OFFSET, 0, 0, 0}; // the caller's stack pointer is the CFA

constexpr size_t G = offsetof(krv_registers_t, g);
constexpr size_t F = offsetof(krv_registers_t, f);
constexpr size_t ST_SIZE = 10; // an 80-bit number in a slot of 16 bytes
constexpr size_t SLOT = sizeof(krv_fpregset_t::st[0]);
static_assert(SLOT == sizeof(krv_fpregset_t::xmm[0]), "x87 and SSE registers have slots of one size");

consteval krv_reg_def_t general(int dwarf, const char *name, int host, size_t size,
                                const krv_cfarule_t &rule = UNDEFINED)
{
    return {dwarf, name, KRV_RTYPE_GENERAL, 0, host, G + sizeof(krv_greg_t) * static_cast<size_t>(host), size, rule};
}

// Part of the FXSAVE image.
consteval krv_reg_def_t fxsave(int dwarf, const char *name, krv_rtype_t type, int host, size_t offset, size_t size)
{
    return {dwarf, name, type, 0, host, F + offset, size, UNDEFINED};
}

// AMD64: %mm(n) is the same storage as %st(n).
consteval krv_reg_def_t xmm(int dwarf, const char *name, size_t n, int host = KRV_REG_NO_HOST)
{
    return fxsave(dwarf, name, KRV_RTYPE_FLOAT, host, offsetof(krv_fpregset_t, xmm) + n * SLOT, SLOT);
}

consteval krv_reg_def_t st(int dwarf, const char *name, size_t n, int host = KRV_REG_NO_HOST)
{
    return fxsave(dwarf, name, KRV_RTYPE_FLOAT, host, offsetof(krv_fpregset_t, st) + n * SLOT, ST_SIZE);
}

consteval krv_reg_def_t mm(int dwarf, const char *name, size_t n, int host = KRV_REG_NO_HOST)
{
    return fxsave(dwarf, name, KRV_RTYPE_FLOAT, host, offsetof(krv_fpregset_t, st) + n * SLOT, SLOT);
}

// AMD64 psABI, figure 3.36: "DWARF Register Number Mapping". Callee-saved registers: figure 3.4.
constexpr krv_reg_def_t krv_def_amd64[] = {
    general(0, "%rax", KRV_HOST_RAX, 8),
    general(1, "%rdx", KRV_HOST_RDX, 8),
    general(2, "%rcx", KRV_HOST_RCX, 8),
    general(3, "%rbx", KRV_HOST_RBX, 8, SAME),
    general(4, "%rsi", KRV_HOST_RSI, 8),
    general(5, "%rdi", KRV_HOST_RDI, 8),
    general(6, "%rbp", KRV_HOST_RBP, 8, SAME),
    general(7, "%rsp", KRV_HOST_RSP, 8, IS_CFA),
    general(8, "%r8", KRV_HOST_R8, 8),
    general(9, "%r9", KRV_HOST_R9, 8),
    general(10, "%r10", KRV_HOST_R10, 8),
    general(11, "%r11", KRV_HOST_R11, 8),
    general(12, "%r12", KRV_HOST_R12, 8, SAME),
    general(13, "%r13", KRV_HOST_R13, 8, SAME),
    general(14, "%r14", KRV_HOST_R14, 8, SAME),
    general(15, "%r15", KRV_HOST_R15, 8, SAME),
    general(16, "%rip", KRV_HOST_RIP, 8), // "Return Address RA": the column, not the slot of KRV_REG_PC
    xmm(17, "%xmm0", 0),
    xmm(18, "%xmm1", 1),
    xmm(19, "%xmm2", 2),
    xmm(20, "%xmm3", 3),
    xmm(21, "%xmm4", 4),
    xmm(22, "%xmm5", 5),
    xmm(23, "%xmm6", 6),
    xmm(24, "%xmm7", 7),
    xmm(25, "%xmm8", 8),
    xmm(26, "%xmm9", 9),
    xmm(27, "%xmm10", 10),
    xmm(28, "%xmm11", 11),
    xmm(29, "%xmm12", 12),
    xmm(30, "%xmm13", 13),
    xmm(31, "%xmm14", 14),
    xmm(32, "%xmm15", 15),
    st(33, "%st0", 0),
    st(34, "%st1", 1),
    st(35, "%st2", 2),
    st(36, "%st3", 3),
    st(37, "%st4", 4),
    st(38, "%st5", 5),
    st(39, "%st6", 6),
    st(40, "%st7", 7),
    mm(41, "%mm0", 0),
    mm(42, "%mm1", 1),
    mm(43, "%mm2", 2),
    mm(44, "%mm3", 3),
    mm(45, "%mm4", 4),
    mm(46, "%mm5", 5),
    mm(47, "%mm6", 6),
    mm(48, "%mm7", 7),
    general(49, "%rFLAGS", KRV_HOST_RFLAGS, 8),
    general(50, "%es", KRV_HOST_ES, 8),
    general(51, "%cs", KRV_HOST_CS, 8),
    general(52, "%ss", KRV_HOST_SS, 8),
    general(53, "%ds", KRV_HOST_DS, 8),
    general(54, "%fs", KRV_HOST_FS, 8),
    general(55, "%gs", KRV_HOST_GS, 8),
    general(58, "%fs.base", KRV_HOST_FSBASE, 8),
    general(59, "%gs.base", KRV_HOST_GSBASE, 8),
    general(62, "%tr", 0, 0), // no storage
    general(63, "%ldtr", 0, 0),
    fxsave(64, "%mxcsr", KRV_RTYPE_GENERAL, KRV_REG_NO_HOST, offsetof(krv_fpregset_t, mxcsr), 4),
    fxsave(65, "%fcw", KRV_RTYPE_GENERAL, KRV_REG_NO_HOST, offsetof(krv_fpregset_t, cw), 2),
    fxsave(66, "%fsw", KRV_RTYPE_GENERAL, KRV_REG_NO_HOST, offsetof(krv_fpregset_t, sw), 2),
};

// i386 psABI, table 2.14: "DWARF Register Number Mapping". Floating-point rows carry host number 0.
constexpr krv_reg_def_t krv_def_i386[] = {
    general(0, "%eax", KRV_HOST_RAX, 4),
    general(1, "%ecx", KRV_HOST_RCX, 4), // %ecx and %edx, %esp and %ebp: not the order of AMD64
    general(2, "%edx", KRV_HOST_RDX, 4),
    general(3, "%ebx", KRV_HOST_RBX, 4),
    general(4, "%esp", KRV_HOST_RSP, 4, IS_CFA),
    general(5, "%ebp", KRV_HOST_RBP, 4),
    general(6, "%esi", KRV_HOST_RSI, 4),
    general(7, "%edi", KRV_HOST_RDI, 4),
    general(8, "%eip", KRV_HOST_RIP, 4),
    general(9, "%EFLAGS", KRV_HOST_RFLAGS, 4),
    st(11, "%st0", 0, 0),
    st(12, "%st1", 1, 0),
    st(13, "%st2", 2, 0),
    st(14, "%st3", 3, 0),
    st(15, "%st4", 4, 0),
    st(16, "%st5", 5, 0),
    st(17, "%st6", 6, 0),
    st(18, "%st7", 7, 0),
    xmm(21, "%xmm0", 0, 0),
    xmm(22, "%xmm1", 1, 0),
    xmm(23, "%xmm2", 2, 0),
    xmm(24, "%xmm3", 3, 0),
    xmm(25, "%xmm4", 4, 0),
    xmm(26, "%xmm5", 5, 0),
    xmm(27, "%xmm6", 6, 0),
    xmm(28, "%xmm7", 7, 0),
    mm(29, "%mm0", 0, 0),
    mm(30, "%mm1", 1, 0),
    mm(31, "%mm2", 2, 0),
    mm(32, "%mm3", 3, 0),
    mm(33, "%mm4", 4, 0),
    mm(34, "%mm5", 5, 0),
    mm(35, "%mm6", 6, 0),
    mm(36, "%mm7", 7, 0),
    fxsave(39, "%mxcsr", KRV_RTYPE_FLOAT, 0, offsetof(krv_fpregset_t, mxcsr), 4),
    general(40, "%es", KRV_HOST_ES, 4),
    general(41, "%cs", KRV_HOST_CS, 4),
    general(42, "%ss", KRV_HOST_SS, 4),
    general(43, "%ds", KRV_HOST_DS, 4),
    general(44, "%fs", KRV_HOST_FS, 4),
    general(45, "%gs", KRV_HOST_GS, 4),
    general(48, "%tr", 0, 0),
    general(49, "%ldtr", 0, 0),
};

constexpr size_t WIDEST = SLOT;

template <size_t N>
consteval bool table_sound(const krv_reg_def_t (&rows)[N], size_t count, int last, int pc)
{
    if (N != count || rows[0].srd_dwarf != 0 || rows[N - 1].srd_dwarf != last)
        return false;
    for (size_t i = 0; i < N; ++i) {
        if (i != 0 && rows[i].srd_dwarf <= rows[i - 1].srd_dwarf) // ascending, so none repeats
            return false;
        if (static_cast<int>(i) <= pc && (rows[i].srd_dwarf != static_cast<int>(i) || rows[i].srd_host < 0))
            return false; // walks find them by their numbers
        if (rows[i].srd_size > WIDEST || rows[i].srd_offset + WIDEST > offsetof(krv_registers_t, special))
            return false; // the unwinder copies from any register as many bytes as the other one is wide
        if (rows[i].srd_host < KRV_REG_NO_HOST || rows[i].srd_host >= KRV_HOST_MAX)
            return false;
    }
    return true;
}

static_assert(table_sound(krv_def_amd64, 63, 66, 16), "AMD64 register table");
static_assert(table_sound(krv_def_i386, 43, 49, 8), "32-bit x86 register table");

// %rbx %rbp %r12 to %r15; %ebx %ebp %esi %edi; and the return address.
constexpr uint8_t kept_amd64[] = {3, 6, 12, 13, 14, 15, 16};
constexpr uint8_t kept_i386[] = {3, 5, 6, 7, 8};

template <size_t N, size_t K>
consteval krv_mach_def_t machine(const krv_reg_def_t (&rows)[N], const uint8_t (&kept)[K], unsigned int sp,
                                 unsigned int fp)
{
    static_assert(K <= KRV_MAX_KEPT);
    return {rows, N, sp, fp, kept[K - 1], kept, K, static_cast<unsigned>(std::find(kept, kept + K, fp) - kept)};
}

} // namespace

constexpr krv_mach_def_t amd64_mach = machine(krv_def_amd64, kept_amd64, 7, 6);
constexpr krv_mach_def_t i386_mach = machine(krv_def_i386, kept_i386, 4, 5);

const krv_mach_def_t *krv_activation_isa_alloc(const krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(hp->sh_target == KRV_ACTIVATION_I386 || hp->sh_target == KRV_ACTIVATION_AMD64);
    return hp->sh_target == KRV_ACTIVATION_I386 ? &i386_mach : &amd64_mach;
}
