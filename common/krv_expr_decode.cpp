// SPDX-License-Identifier: Apache-2.0
//
// The decoder, and the walk over an expression's operations.
#include "krv_expr_decode.h"

#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"

static bool is_block(krv_form_t form)
{
    return form == DW_FORM_block || form == DW_FORM_block1;
}

static int decode_operand(krv_handle_t *hp, krv_fd_t *fdp, krv_form_t form, uint32_t flags, krv_expr_insn_t *insn,
                          unsigned int i)
{
    krv_value_t *value = &insn->op.operand[i];
    const krv_encoding_t encoding = krv_encoding(fdp->sfd_hp, flags);
    if ((flags & KRV_FORM_F_SIGNED) != 0)
        return krv_decode(fdp, form, encoding, &value->sa_u.su_signed);
    if (!is_block(form))
        return krv_decode(fdp, form, encoding, &value->sa_u.su_unsigned);
    krv_fd_attach_mem(hp, &insn->block[i], KRV_EXPR_BLOCK_SIZE, insn->storage[i]);
    value->sa_u.su_addr = &insn->block[i];
    return krv_decode_form(fdp, form, encoding, false, &insn->block[i], KRV_EXPR_BLOCK_SIZE, nullptr);
}

krv_expr_decoded krv_expr_decode(krv_handle_t *hp, krv_fd_t *fdp, const krv_expr_rows_t *known, uint32_t form_flags,
                                 krv_expr_insn_t *insn)
{
    insn->op = {};
    insn->noperands = 0;
    if (fdp->sfd_hp == nullptr || krv_decode(fdp, DW_FORM_data1, &insn->op.opcode) != 0)
        return krv_expr_decoded::no_opcode;
    if (insn->op.opcode >= known->count)
        return krv_expr_decoded::no_row;
    const idata *row = &known->rows[insn->op.opcode];
    for (unsigned int &n = insn->noperands; n < KRV_OP_OPERANDS && row->ff[n].form != 0; ++n)
        if (decode_operand(hp, fdp, row->ff[n].form, row->ff[n].flags | form_flags, insn, n) != 0)
            return krv_expr_decoded::no_operand;
    return krv_expr_decoded::whole;
}

// Bytes of a decoded operand's value; 0 for a form that has no such width.
static uint64_t operand_size(const krv_handle_t *hp, krv_form_t form, uint32_t form_flags)
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
    case DW_FORM_sec_offset:
        return (form_flags & KRV_FORM_F_DWARF64) != 0 ? 8 : 4;
    case DW_FORM_data8:
    case DW_FORM_sdata:
    case DW_FORM_udata:
        return 8;
    default:
        return 0;
    }
}

// Decodes the operation at the cursor as the walk shows it; a block is stepped over, and then, unless the handle has
// extensions, refused for want of a width. 0 or -1.
static int read_instruction(krv_handle_t *hp, krv_fd_t *fdp, const krv_expr_rows_t *known, uint32_t form_flags,
                            krv_expr_insn_t *insn, krv_operand_t *operands)
{
    const krv_expr_decoded outcome = krv_expr_decode(hp, fdp, known, form_flags, insn);
    const uint8_t opcode = insn->op.opcode;
    if (outcome == krv_expr_decoded::no_opcode)
        return krv_note(hp, "error decoding instruction at offset &lld");
    if (outcome == krv_expr_decoded::no_row || known->rows[opcode].version == 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported operation 0x%hhx", opcode);
    if (outcome == krv_expr_decoded::no_operand)
        return krv_note(hp, "error decoding operand %d", static_cast<int>(insn->noperands));
    for (unsigned int i = 0; i < insn->noperands; ++i) {
        const auto &ff = known->rows[opcode].ff[i];
        const bool is_signed = ff.form == DW_FORM_sdata || (ff.flags & KRV_FORM_F_SIGNED) != 0;
        operands[i].sopt_operand = insn->op.operand[i].sa_u.su_unsigned;
        operands[i].sopt_size = operand_size(hp, ff.form, form_flags);
        operands[i].sopt_encoding = is_signed ? DW_ATE_signed : DW_ATE_unsigned;
        if (known == &krv_expr_extended_rows && is_block(ff.form))
            operands[i].sopt_operand = insn->block[i].sfd_size;
        else if (operands[i].sopt_size == 0)
            return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unexpected form");
    }
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
    const krv_expr_rows_t *known = krv_expr_rows(hp);
    krv_expr_insn_t insn; // its block storage needs no initial value
    if (!krv_spend(hp, fdp->sfd_remaining))
        return -1;
    while (fdp->sfd_remaining > 0) {
        krv_operand_t operands[KRV_OP_OPERANDS] = {};
        if (read_instruction(hp, fdp, known, form_flags, &insn, operands) != 0)
            return -1;
        if (const int result = func(hp, insn.op.opcode, operands, insn.noperands, arg))
            return result;
    }
    return 0;
}
