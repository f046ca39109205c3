// SPDX-License-Identifier: Apache-2.0
//
// From the current frame of an activation to its caller.
#ifndef KRV_UNWIND_H
#define KRV_UNWIND_H

#include "krv_activation.h"

// Fills the rules at a program counter: sa_initial, sa_current, sa_args and sa_cie_fd; *columnp is the return-address
// register. -1 with code and messages.
int krv_generate_rules(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc, uint64_t *columnp);

// Computes the caller's frame unless its outcome is known. -1 with code and messages, of a remembered failure without.
int krv_evaluate_activation(krv_handle_t *hp, krv_activation_t *ap);

// The caller's registers, computed unless they are known.
krv_frame_registers_f krv_caller_registers;

#endif
