// SPDX-License-Identifier: Apache-2.0
//
// The register tables of both targets: which DWARF register numbers exist, how wide the registers are, where each is
// stored, and which rule it follows when no call-frame instruction speaks of it. All constant data; the rest of the
// library sees tables, never register names.
#ifndef KRV_ACTIVATION_ISA_H
#define KRV_ACTIVATION_ISA_H

#include "krv_types.h"

typedef int krv_ruledesc_t;
enum {
    KRV_CFA_RULE_UNDEFINED = 0,      // no value can be recovered; what a zero-filled rule says
    KRV_CFA_RULE_SAME_VALUE = 1,     // the current frame's value
    KRV_CFA_RULE_OFFSET = 2,         // saved at CFA + arg
    KRV_CFA_RULE_VAL_OFFSET = 3,     // is CFA + arg
    KRV_CFA_RULE_REGISTER = 4,       // is in the current frame's DWARF register arg
    KRV_CFA_RULE_EXPRESSION = 5,     // saved at the address that the expression computes
    KRV_CFA_RULE_VAL_EXPRESSION = 6, // is the value that the expression computes
    KRV_CFA_RULE_REG_OFFSET = 7,     // the CFA only: register arg >> 32 plus the low half of arg, signed
    KRV_CFA_RULE_MAX = 8
};

// How to find a register of the caller's frame, or the CFA.
struct krv_cfarule_t {
    krv_ruledesc_t desc;
    uint64_t arg;    // bytes from the CFA, signed and factored already; or see above
    uint64_t offset; // expressions: where they lie, as an offset of the CIE's cursor
    uint64_t size;   // expressions: their bytes
};

// The storage of one register set.
struct krv_registers_t {
    krv_gregset_t g;
    krv_fpregset_t f;
    krv_greg_t special[KRV_REG_MAX]; // the library registers, by KRV_REG_*
};

typedef int krv_rtype_t;
enum { KRV_RTYPE_GENERAL = 0, KRV_RTYPE_FLOAT = 1 };

typedef unsigned int krv_reg_def_flag_t;
enum {
    KRV_REG_DEF_FLAG_PIECE_HI = 1 // the value is at the high-order end of its storage; no register here
};

enum { KRV_REG_NO_HOST = -1 };

// One register, in the order in which the psABI's tables read.
struct krv_reg_def_t { // NOLINT(clang-analyzer-optin.performance.Padding)
    int srd_dwarf;
    const char *srd_name;
    krv_rtype_t srd_type;
    krv_reg_def_flag_t srd_flags;
    int srd_host;           // KRV_HOST_*, or KRV_REG_NO_HOST
    size_t srd_offset;      // within krv_registers_t
    size_t srd_size;        // bytes; 0 for registers without storage
    krv_cfarule_t srd_rule; // default rule
};

// One target. The rows ascend by DWARF number.
struct krv_mach_def_t {
    const krv_reg_def_t *smd_defs;
    unsigned int smd_n_defs;
    unsigned int smd_sp; // DWARF numbers of stack pointer,
    unsigned int smd_fp; // frame pointer,
    unsigned int smd_pc; // and return-address column
};

extern const krv_mach_def_t amd64_mach;
extern const krv_mach_def_t i386_mach;

// The table of the handle's target. Static: never freed.
const krv_mach_def_t *krv_activation_isa_alloc(const krv_handle_t *hp);

#endif
