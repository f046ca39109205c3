// SPDX-License-Identifier: Apache-2.0
//
// What every operation of an expression looks like (DWARF 4, 7.7.1; with extensions DWARF 5, 7.7.1): one row an operation.
// What it does is a case in krv_expr_eval.cpp.
#ifndef KRV_EXPR_TABLE_H
#define KRV_EXPR_TABLE_H

#include "krv_types.h"

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

// The operations that a handle knows.
struct krv_expr_rows_t {
    unsigned count;                // opcodes from here on are none
    std::array<idata, 0x100> rows; // by opcode
};
extern const krv_expr_rows_t krv_expr_base_rows, krv_expr_extended_rows;

inline const krv_expr_rows_t *krv_expr_rows(const krv_handle_t *hp)
{
    return (hp->sh_ext & KRV_EXT_DWARF5) == 0 ? &krv_expr_base_rows : &krv_expr_extended_rows;
}

#endif
