// SPDX-License-Identifier: Apache-2.0
#include "krv_cfa_decode.h"

#include "krv_error.h"

int krv_frame_get_next_op(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_augmentation_t *augp,
                          void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(op != NULL);
    KRV_ASSERT(augp != NULL);
    return augp->sa_ops->sao_gno(hp, fdp, op, arg);
}

static int get_forms(krv_handle_t *hp, uint8_t opcode, krv_form_t formsp[2])
{
    if (!krv_cfa_has_row(opcode))
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unknown instruction 0x%hhx", opcode);
    const krv_cfa_desc_t *row = &krv_cfa_table[krv_cfa_row(opcode)];
    if (row->version == 0 && krv_reads_as_written(hp) && krv_cfa_written_row(opcode) != nullptr)
        row = krv_cfa_written_row(opcode);
    formsp[0] = row->form[0];
    formsp[1] = row->form[1];
    return 0;
}

int krv_get_cfa_forms(krv_handle_t *hp, uint8_t opcode, krv_form_t formsp[2])
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(formsp != NULL);
    return get_forms(hp, opcode, formsp);
}

int krv_cfa_read_opcode(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, krv_form_t formsp[2])
{
    *op = {};
    if (!krv_read_field(fdp, DW_FORM_data1, &op->opcode, "unable to decode instruction") ||
        get_forms(hp, op->opcode, formsp) != 0)
        return -1;
    if ((op->opcode & KRV_CFA_PACKED) != 0) {
        op->operand[0].sa_u.su_unsigned = op->opcode & KRV_CFA_OPERAND;
        op->opcode &= KRV_CFA_PACKED;
    }
    return 0;
}

int krv_cfa_read_operands(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_form_t formsp[2])
{
    for (int i = 0; i < 2; ++i) {
        uint64_t *valuep = &op->operand[i].sa_u.su_unsigned;
        if (formsp[i] != 0 && krv_decode(fdp, formsp[i], valuep) != 0)
            return krv_note(hp, "failed to read operand %d", i);
    }
    return 0;
}
