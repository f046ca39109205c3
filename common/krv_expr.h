// SPDX-License-Identifier: Apache-2.0
//
// Expressions: the stack, the table that describes every operation, the walk over instructions (krv_expr.cpp) and
// their evaluation (krv_expr_eval.cpp).
#ifndef KRV_EXPR_H
#define KRV_EXPR_H

#include "krv_types.h"

#include <array>

struct krv_exprstack {
    uint64_t *ses_stackp; // element 0 is the bottom
    uint64_t ses_size;    // capacity
    uint64_t ses_depth;   // elements in use
    uint8_t ses_register; // used by nothing
};

constexpr uint64_t KRV_EXPR_STACK_DEFAULT = 256;

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

// A block operand is read into storage of this size.
constexpr size_t KRV_EXPR_BLOCK_SIZE = 256;

constexpr unsigned KRV_EXPR_MAX_STEPS = 1000000; // instructions of one evaluation

// A value as wide as a target address.
inline uint64_t krv_expr_truncate(const krv_handle_t *hp, uint64_t value)
{
    return hp->sh_target_size == 4 ? value & UINT32_MAX : value;
}

#endif
