// SPDX-License-Identifier: Apache-2.0
//
// What a target says of its registers, and where they are stored. The folder of a target fills such tables; the rest of
// the library sees tables, never register names.
#ifndef KRV_MACHINE_H
#define KRV_MACHINE_H

#include "krv_rule.h"
#include "krv_types.h"

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
    unsigned int smd_sp;      // DWARF numbers of stack pointer,
    unsigned int smd_fp;      // frame pointer,
    unsigned int smd_pc;      // and return-address column
    const uint8_t *smd_kept;  // DWARF numbers of the registers that calls preserve, the stack pointer apart, ascending,
    unsigned int smd_n_kept;  // and the return-address column behind them; KRV_MAX_KEPT at most
    unsigned int smd_kept_fp; // the place of the frame pointer among them
};

constexpr unsigned KRV_MAX_KEPT = 7;

#endif
