// SPDX-License-Identifier: Apache-2.0
//
// What a register held when the current frame's function was called (DWARF 5, 2.5.1.7).
#ifndef KRV_EXPR_ENTRY_H
#define KRV_EXPR_ENTRY_H

#include "krv_activation.h"

// The value of an expression that is a register, or one and an offset, from the registers of the caller's frame. NULL, or
// why it is not known.
const char *krv_expr_entry_value(krv_handle_t *hp, krv_activation_t *ap, krv_frame_registers_f *caller,
                                 const krv_fd_t *expression, uint64_t *valuep);

#endif
