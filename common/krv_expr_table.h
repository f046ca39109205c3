// SPDX-License-Identifier: Apache-2.0
//
// What every operation of an expression looks like (DWARF 4, 7.7.1): one row an operation. What it does is a case in
// krv_expr_eval.cpp.
#ifndef KRV_EXPR_TABLE_H
#define KRV_EXPR_TABLE_H

#include "libkorva.h"

#include <array>

// What an operation is allowed in.
enum : uint32_t {
    KRV_OP_F_LOCATION = 0x1, // location descriptions only
    KRV_OP_F_NOT_CFI = 0x2,  // not in call-frame information
    KRV_OP_F_BRANCH = 0x4,
};

constexpr unsigned KRV_OP_OPERANDS = 2;

// One operation.
struct idata {
    uint32_t version; // of DWARF; 0: not defined
    uint32_t flags;   // KRV_OP_F_*
    uint32_t push;    // free entries that it needs
    uint32_t pop;     // entries that it needs
    struct {
        krv_form_t form; // 0: none, and none behind it
        uint32_t flags;  // of the form decoder
    } ff[KRV_OP_OPERANDS];
};

constexpr unsigned KRV_NOPERATIONS = 160;
extern const std::array<idata, KRV_NOPERATIONS> krv_expr_table; // by opcode

#endif
