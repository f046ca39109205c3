// SPDX-License-Identifier: Apache-2.0
//
// Evaluation of an expression.
#ifndef KRV_EXPR_EVAL_H
#define KRV_EXPR_EVAL_H

#include "krv_activation.h"

constexpr unsigned KRV_EXPR_MAX_STEPS = 1000000; // instructions of one evaluation

// What an expression is evaluated with.
struct krv_expr_context_t {
    krv_exprstack_t *stack;
    krv_activation_t *ap;
    krv_frame_registers_f *frame; // whose registers it reads
    uint32_t flags;               // KRV_EXPR_F_*
    krv_fd_t **outputs;           // those of korva_expr_execute_expression
    krv_expr_cb_f *func;          // called for every instruction, or NULL
    void *arg;                    // its argument
    krv_frame_registers_f *entry; // the registers of that frame's caller; NULL: they are not to be had
    uint64_t *budget; // instructions that may still be executed, here and by whoever shares it; counted down
};

// korva_expr_execute_expression behind its check of arguments. Consumes the cursor; allocates nothing.
int krv_expr_execute(krv_handle_t *hp, krv_fd_t *fdp, const krv_expr_context_t *context);

#endif
