// SPDX-License-Identifier: Apache-2.0
//
// The expression stack, and the walk over an expression's instructions.
#include "krv_expr.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"

// ---------------------------------------------------------------------------------------------------------------
// Stack
// ---------------------------------------------------------------------------------------------------------------

// The contract of every stack operation: 0 when it may go on, with the error state cleared.
static int enter_stack(krv_handle_t *hp, const krv_exprstack_t *esp, const void *resultp)
{
    if (hp == nullptr)
        return -1;
    if (esp == nullptr || resultp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return 0;
}

krv_exprstack_t *korva_expr_alloc_stack(krv_handle_t *hp)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    krv_owner<krv_exprstack_t> esp(krv_new<krv_exprstack_t>(hp));
    if (esp == nullptr)
        return nullptr;
    const krv_opt_t *opt = &hp->sh_opts[KRV_OPT_EXPR_STACK_SIZE];
    esp->ses_size = opt->sopt_set == B_TRUE ? opt->sopt_u.o_ulong : KRV_EXPR_STACK_DEFAULT;
    if (esp->ses_size > SIZE_MAX / sizeof(uint64_t)) {
        hp->sh_errno = KRV_ERR_NOMEM;
        return nullptr;
    }
    esp->ses_stackp = static_cast<uint64_t *>(krv_zalloc(hp, esp->ses_size * sizeof(uint64_t)));
    return esp->ses_stackp == nullptr ? nullptr : esp.release();
}

void korva_expr_free_stack(krv_exprstack_t *esp)
{
    if (esp == nullptr)
        return;
    krv_free(esp->ses_stackp);
    krv_free(esp);
}

int korva_expr_get_stack_depth(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t *depthp)
{
    if (enter_stack(hp, esp, depthp) != 0)
        return -1;
    *depthp = esp->ses_depth;
    return 0;
}

int korva_expr_stack_push(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t value)
{
    if (enter_stack(hp, esp, esp) != 0)
        return -1;
    if (esp->ses_depth == esp->ses_size)
        return krv_fail(hp, KRV_ERR_NOSPACE, "stack overflow");
    esp->ses_stackp[esp->ses_depth++] = krv_expr_truncate(hp, value);
    return 0;
}

int korva_expr_stack_pop(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t *valuep)
{
    if (enter_stack(hp, esp, valuep) != 0)
        return -1;
    if (esp->ses_depth == 0)
        return krv_fail(hp, KRV_ERR_INVALID, "stack is empty");
    *valuep = esp->ses_stackp[--esp->ses_depth];
    return 0;
}

int korva_expr_stack_peek(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t index, uint64_t *valuep)
{
    if (enter_stack(hp, esp, valuep) != 0)
        return -1;
    if (esp->ses_depth == 0)
        return krv_fail(hp, KRV_ERR_INVALID, "stack is empty");
    if (index >= esp->ses_depth)
        return krv_fail(hp, KRV_ERR_INVALID, "can't peek element %lu in %lu-element stack",
                        static_cast<unsigned long>(index), static_cast<unsigned long>(esp->ses_depth));
    *valuep = esp->ses_stackp[esp->ses_depth - 1 - index];
    return 0;
}

int korva_expr_reset_stack(krv_handle_t *hp, krv_exprstack_t *esp)
{
    if (enter_stack(hp, esp, esp) != 0)
        return -1;
    esp->ses_depth = 0;
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Instructions
// ---------------------------------------------------------------------------------------------------------------

// Bytes of a decoded operand's value; 0 for a form that has no such width.
static uint64_t operand_size(const krv_handle_t *hp, krv_form_t form)
{
    switch (form) {
    case DW_FORM_addr:
        return hp->sh_target_size;
    case DW_FORM_data1:
        return 1;
    case DW_FORM_data2:
        return 2;
    case DW_FORM_data4:
        return 4;
    case DW_FORM_data8:
    case DW_FORM_sdata:
    case DW_FORM_udata:
        return 8;
    default:
        return 0;
    }
}

// Decodes one operand; a block is stepped over, and then refused for want of a width.
static int read_operand(krv_handle_t *hp, krv_fd_t *fdp, krv_form_t form, uint32_t flags, krv_operand_t *operand)
{
    operand->sopt_size = operand_size(hp, form);
    if (operand->sopt_size == 0) {
        uint8_t storage[KRV_EXPR_BLOCK_SIZE];
        krv_fd_t block;
        krv_fd_attach_mem(hp, &block, sizeof(storage), storage);
        return korva_decode_form(fdp, form, flags, &block, sizeof(storage), nullptr);
    }
    const bool is_signed = form == DW_FORM_sdata || (flags & KRV_FORM_F_SIGNED) != 0;
    operand->sopt_encoding = is_signed ? DW_ATE_signed : DW_ATE_unsigned;
    return korva_decode_form(fdp, form, flags, &operand->sopt_operand, sizeof(operand->sopt_operand), nullptr);
}

// Decodes the instruction at the cursor. 0 or -1.
static int read_instruction(krv_handle_t *hp, krv_fd_t *fdp, uint32_t form_flags, uint8_t *opcodep,
                            krv_operand_t *operands, unsigned int *noperandsp)
{
    if (korva_decode_form(fdp, DW_FORM_data1, form_flags, opcodep, sizeof(*opcodep), nullptr) != 0)
        return krv_note(hp, "error decoding instruction at offset &lld");
    if (*opcodep >= KRV_NOPERATIONS || krv_expr_table[*opcodep].version == 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported operation 0x%hhx", *opcodep);
    const idata *row = &krv_expr_table[*opcodep];
    unsigned int n = 0;
    for (; n < KRV_OP_OPERANDS && row->ff[n].form != 0; ++n) {
        if (read_operand(hp, fdp, row->ff[n].form, row->ff[n].flags | form_flags, &operands[n]) != 0)
            return krv_note(hp, "error decoding operand %d", static_cast<int>(n));
        if (operands[n].sopt_size == 0)
            return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unexpected form");
    }
    *noperandsp = n;
    return 0;
}

int korva_expr_iter_instruction(krv_handle_t *hp, krv_fd_t *fdp, uint32_t flags, krv_iter_exprloc_f *func, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (fdp == nullptr || func == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const uint32_t form_flags = (flags & KRV_EXPR_F_DWARF64) != 0 ? KRV_FORM_F_DWARF64 : 0;
    while (fdp->sfd_remaining > 0) {
        uint8_t opcode = 0;
        krv_operand_t operands[KRV_OP_OPERANDS] = {};
        unsigned int noperands = 0;
        if (read_instruction(hp, fdp, form_flags, &opcode, operands, &noperands) != 0)
            return -1;
        if (const int result = func(hp, opcode, operands, noperands, arg))
            return result;
    }
    return 0;
}
