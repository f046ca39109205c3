/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: DWARF expressions, listed and evaluated. */
#ifndef LIBKORVA_EXPRESSIONS_H
#define LIBKORVA_EXPRESSIONS_H

#include "forms.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Expressions
 * ------------------------------------------------------------------------------------------------------------ */

/** The stack on which expressions are evaluated: 64-bit values, a fixed capacity. One evaluation uses it at a time. */
typedef struct krv_exprstack krv_exprstack_t;

/** A decoded operand, as korva_expr_iter_instruction shows it. */
typedef struct krv_operand {
    uint64_t sopt_operand; /**< the value, sign-extended where the operand is signed */
    uint64_t sopt_size; /**< bytes of the value: 1, 2, 4 or 8, not of its encoding; LEB128 numbers have 8; 0: a block */
    int32_t sopt_encoding; /**< DW_ATE_signed (5) or DW_ATE_unsigned (7) */
} krv_operand_t;

/**
 * A decoded instruction: of an expression, as a krv_expr_cb_f sees it, or of call-frame information. Only the value
 * member of an operand is filled. The operand of DW_OP_implicit_value is a pointer (su_addr) to a memory krv_fd_t over
 * the block, of at most 256 bytes, valid until the instruction has been executed.
 */
typedef struct krv_operation {
    uint8_t opcode;
    krv_value_t operand[2]; /**< in stream order */
} krv_operation_t;

/** Flags of korva_expr_execute_expression (all but the fourth) and korva_expr_iter_instruction (the fourth). */
enum {
    KRV_EXPR_F_LOCATION = 0x1, /**< a location description: its pieces go to the output cursors */
    KRV_EXPR_F_CFI = 0x2,      /**< from call-frame information: DW_OP_call_frame_cfa is refused */
    KRV_EXPR_F_NOBRANCH = 0x4, /**< DW_OP_skip and DW_OP_bra are refused */
    KRV_EXPR_F_DWARF64 = 0x10, /**< from a unit of the 64-bit DWARF format */
    KRV_EXPR_F_CALLER = 0x20   /**< registers are the caller frame's, not the current frame's */
};

/**
 * Visitor of korva_expr_iter_instruction: one instruction with @p noperands (0, 1 or 2) decoded operands; what
 * stands beyond them means nothing.
 */
typedef int krv_iter_exprloc_f(krv_handle_t *hp, uint8_t opcode, krv_operand_t *operands, unsigned int noperands,
                               void *arg);

/**
 * Call-back of korva_expr_execute_expression: one instruction, decoded but not yet validated or executed; it may
 * change opcode and operands in place; to make it DW_OP_implicit_value it supplies the cursor that operand points to.
 * Non-zero fails the evaluation with KRV_ERR_IO.
 */
typedef int krv_expr_cb_f(krv_handle_t *hp, krv_exprstack_t *esp, krv_activation_t *ap, uint32_t flags,
                          krv_fd_t **outputs, krv_operation_t *op, void *arg);

/**
 * A new, empty stack of KRV_OPT_EXPR_STACK_SIZE entries (256 while unset). NULL: KRV_ERR_NOMEM. Free it with
 * korva_expr_free_stack, before its handle.
 */
KORVA_API krv_exprstack_t *korva_expr_alloc_stack(krv_handle_t *hp);

/** Frees a stack. NULL is ignored. */
KORVA_API void korva_expr_free_stack(krv_exprstack_t *esp);

/** Stores the number of entries in use. */
KORVA_API int korva_expr_get_stack_depth(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t *depthp);

/** Pushes a value, cut to 32 bits on a target with 4-byte addresses. Errors: KRV_ERR_NOSPACE when the stack is full. */
KORVA_API int korva_expr_stack_push(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t value);

/** Removes the top entry and stores it. Errors: KRV_ERR_INVALID when the stack is empty. */
KORVA_API int korva_expr_stack_pop(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t *valuep);

/** Stores the entry @p index places below the top, which is 0. Errors: KRV_ERR_INVALID when there is none. */
KORVA_API int korva_expr_stack_peek(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t index, uint64_t *valuep);

/** Empties a stack. */
KORVA_API int korva_expr_reset_stack(krv_handle_t *hp, krv_exprstack_t *esp);

/**
 * Calls @p func for every instruction of the expression that the cursor holds from its position on; @p flags is 0 or
 * KRV_EXPR_F_DWARF64. The cursor is left behind the last byte consumed. DW_OP_xderef_size, DW_OP_call2, DW_OP_call4,
 * DW_OP_call_ref and DW_OP_bit_piece are shown without operands and the walk goes on at their operand bytes;
 * DW_OP_implicit_value ends it with KRV_ERR_UNSUPPORTED.
 * With KRV_OPT_EXT_DWARF5 all operations of DWARF 5 and of GNU tools are shown with their operands; of a block, which is of
 * at most 256 bytes and ends where its operation does, the value is the number of bytes.
 *
 * Returns 0, the call-back's non-zero result, or -1.
 * Errors: KRV_ERR_UNSUPPORTED (an operation that DWARF 4 does not define, or above 0x9f), and the decoder's.
 */
KORVA_API int korva_expr_iter_instruction(krv_handle_t *hp, krv_fd_t *fdp, uint32_t flags, krv_iter_exprloc_f *func,
                                          void *arg);

/**
 * Evaluates the expression that the cursor holds from its position to its end on a stack that may hold initial
 * values, in the context of an activation. The handle must have an address space (korva_attach_as).
 *
 * Without KRV_EXPR_F_LOCATION the result is what the stack holds afterwards, and @p outputs is not used (may be NULL).
 * With it, the described object is written to the cursors in @p outputs, an array of three: [0], a memory cursor, its
 * bytes in target order; [1], or NULL, one byte each, 0xff where the byte is known and 0x00 where it is not; [2], or
 * NULL, one byte each, 0xff where the byte came from a register, else 0x00. The offset of [0] is then the number of
 * bytes produced, also after KRV_ERR_NOSPACE. A description that ends with an address fills all the room of [0].
 *
 * @p func, or NULL, is called before each instruction. At most one million instructions are executed. DW_OP_div of the
 * most negative value by -1 wraps. A description that begins with DW_OP_piece begins with unavailable bytes. Nothing is
 * rolled back on failure.
 *
 * With KRV_OPT_EXT_DWARF5, DW_OP_entry_value of a register, or of one and an offset, is evaluated where the caller's frame
 * tells what the register was, and DW_OP_convert and DW_OP_reinterpret to the stack's own type; what else DWARF 5 and GNU
 * tools add fails with KRV_ERR_EVAL and a message that names the operation.
 *
 * Errors: KRV_ERR_EVAL (not allowed in this kind of expression, branch out of it, division by zero, a dereference
 * wider than an address, too many instructions), KRV_ERR_CORRUPT (stack underflow; pieces that make no sense),
 * KRV_ERR_NOSPACE (stack overflow, too little room in an output cursor), KRV_ERR_UNSUPPORTED (an operation that is
 * not evaluated; no address space), KRV_ERR_IO (target memory, or @p func), KRV_ERR_INVALID (arguments; a piece longer
 * than its register), and those of the decoder and of korva_activation_get_reg.
 */
KORVA_API int korva_expr_execute_expression(krv_handle_t *hp, krv_exprstack_t *esp, krv_activation_t *ap, krv_fd_t *fdp,
                                            uint32_t flags, krv_fd_t **outputs, krv_expr_cb_f *func, void *arg);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_EXPRESSIONS_H */
