// SPDX-License-Identifier: Apache-2.0
//
// A register of the caller is what it was when the function was called, if the function preserves it: then the rules that
// lead to the caller give it a value. The stack pointer is not: the return address was pushed.
#include "krv_expr_entry.h"

#include "krv_dwarf.h"
#include "krv_expr_decode.h"

// The register and the offset that a lone operation means. False: it is another one.
static bool take_register(const krv_expr_insn_t *insn, uint64_t *regp, uint64_t *offsetp)
{
    const uint8_t opcode = insn->op.opcode;
    const uint64_t first = insn->op.operand[0].sa_u.su_unsigned, second = insn->op.operand[1].sa_u.su_unsigned;
    if (opcode >= DW_OP_reg0 && opcode <= DW_OP_reg31) {
        *regp = opcode - DW_OP_reg0;
        *offsetp = 0;
    } else if (opcode >= DW_OP_breg0 && opcode <= DW_OP_breg31) {
        *regp = opcode - DW_OP_breg0;
        *offsetp = first;
    } else {
        *regp = first;
        *offsetp = second; // 0 of DW_OP_regx
    }
    return opcode == DW_OP_regx || opcode == DW_OP_bregx || (opcode >= DW_OP_reg0 && opcode <= DW_OP_breg31);
}
static_assert(DW_OP_reg31 + 1 == DW_OP_breg0);

const char *krv_expr_entry_value(krv_handle_t *hp, krv_activation_t *ap, krv_frame_registers_f *caller,
                                 const krv_fd_t *expression, uint64_t *valuep)
{
    krv_fd_t fd = *expression;
    fd.sfd_offset = 0;
    fd.sfd_remaining = fd.sfd_size;
    krv_expr_insn_t insn; // its block storage needs no initial value
    uint64_t reg = 0, offset = 0, value = 0;
    if (krv_expr_decode(hp, &fd, krv_expr_rows(hp), 0, &insn) != krv_expr_decoded::whole || fd.sfd_remaining != 0 ||
        !take_register(&insn, &reg, &offset))
        return "its expression is more than a register";
    const auto number = static_cast<uint32_t>(reg);
    size_t size = 0;
    if (reg > INT32_MAX || krv_activation_get_reg_size(hp, ap, KRV_ACTIVATION_REG_DWARF, number, &size) != 0)
        return "there is no such register";
    size = size > hp->sh_target_size ? hp->sh_target_size : size;
    if (krv_activation_read(hp, ap, caller, KRV_ACTIVATION_REG_DWARF, number, &value, size) != 0)
        return "the register is not known from the caller";
    const uint64_t stack_pointer = hp->sh_target_size == 4 ? 4 : 7;
    *valuep = value + offset - (reg == stack_pointer ? hp->sh_target_size : 0);
    return nullptr;
}
