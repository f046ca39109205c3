// SPDX-License-Identifier: Apache-2.0
//
// The expression stack.
#ifndef KRV_EXPR_H
#define KRV_EXPR_H

#include "krv_types.h"

struct krv_exprstack {
    uint64_t *ses_stackp; // element 0 is the bottom
    uint64_t ses_size;    // capacity
    uint64_t ses_depth;   // elements in use
    uint8_t ses_register; // used by nothing
};

constexpr uint64_t KRV_EXPR_STACK_DEFAULT = 256;

// A value as wide as a target address.
inline uint64_t krv_expr_truncate(const krv_handle_t *hp, uint64_t value)
{
    return hp->sh_target_size == 4 ? value & UINT32_MAX : value;
}

#endif
