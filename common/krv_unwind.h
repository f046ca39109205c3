// SPDX-License-Identifier: Apache-2.0
//
// From the current frame of an activation to its caller.
#ifndef KRV_UNWIND_H
#define KRV_UNWIND_H

#include "krv_activation.h"
#include "krv_cfa.h"
#include "krv_frame.h"

// Fills the rules at a program counter: sa_initial, sa_current, sa_args and sa_cie_fd; *columnp is the return-address
// register. -1 with code and messages.
int krv_generate_rules(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc, uint64_t *columnp);

// Executes the instructions of a CIE. -1 with code and messages.
int krv_generate_initial_rules(krv_handle_t *hp, krv_activation_t *ap, krv_cie_t *cie);

// The two steps of it that read records: the FDE that covers a program counter, which tells how it was found, and the rules
// that its instructions give there. NULL and -1 with code and messages.
krv_fde_t *krv_find_fde(krv_handle_t *hp, uint64_t pc, krv_fde_search *searchp, krv_fde_room *room = nullptr);
int krv_execute_rules(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, uint64_t pc);

// Calls `row` for the rows of an FDE that is not empty, with their rules in sa_current, all but the last one, whose rules
// are there afterwards. -1 with code and messages when a row cannot be read; those before it were visited.
int krv_generate_rows(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, krv_row_f *row, void *arg);

// The same of all rows that the instructions make, wherever the FDE ends, as if it began at address 0.
int krv_generate_shared_rows(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, krv_row_f *row, void *arg);

// Fills sa_function, if that was spared.
int krv_find_function(krv_handle_t *hp, krv_activation_t *ap);

// Computes the caller's frame unless its outcome is known. -1 with code and messages, of a remembered failure without.
int krv_evaluate_activation(krv_handle_t *hp, krv_activation_t *ap);

// The caller's registers, computed unless they are known.
krv_frame_registers_f krv_caller_registers;

#endif
