// SPDX-License-Identifier: Apache-2.0
//
// What clients ask of both frames of an activation: registers, the step to the caller, and expressions over either
// frame's registers. The caller's frame is computed when it is first asked for.
#include "krv_error.h"
#include "krv_expr_eval.h"
#include "krv_unwind.h"

#include <utility>

static krv_regset_t *frame_registers(krv_handle_t *hp, krv_activation_t *ap, krv_frame_type_t frame)
{
    switch (frame) {
    case KRV_ACTIVATION_FRAME_CURRENT:
        return krv_current_registers(hp, ap);
    case KRV_ACTIVATION_FRAME_CALLER:
        return krv_caller_registers(hp, ap);
    default:
        krv_fail(hp, KRV_ERR_INVALID, "invalid frame type (%d)", frame);
        return nullptr;
    }
}

int korva_activation_get_reg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, krv_frame_type_t frame,
                             unsigned int reg, void *buf, size_t size)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr || buf == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    unsigned int slot = 0;
    if (krv_get_reg_index(hp, ap, type, static_cast<int>(reg), &slot) != 0)
        return -1;
    const krv_regset_t *set = frame_registers(hp, ap, frame);
    return set == nullptr ? -1 : krv_regset_read(hp, set, slot, reg, buf, size);
}

int korva_activation_get_greg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, krv_frame_type_t frame,
                              unsigned int reg, krv_greg_t *valuep)
{
    krv_greg_t value = 0;
    if (korva_activation_get_reg(hp, ap, type, frame, reg, valuep == nullptr ? nullptr : &value, sizeof(value)) != 0)
        return -1;
    *valuep = value;
    return 0;
}

int korva_activation_get_gregs(krv_handle_t *hp, krv_activation_t *ap, krv_frame_type_t frame, krv_gregset_t *gregsp,
                               uint64_t *maskp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr || gregsp == nullptr || maskp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    const krv_regset_t *set = frame_registers(hp, ap, frame);
    if (set == nullptr)
        return -1;
    *maskp = krv_regset_copy_gregs(ap, set, gregsp);
    return 0;
}

int korva_activation_unwind(krv_handle_t *hp, krv_activation_t *ap)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    if (krv_evaluate_activation(hp, ap) != 0)
        return -1;
    std::swap(ap->sa_current_registers, ap->sa_caller_registers);
    ap->sa_state = KRV_EVALUATION_UNTRIED;
    return 0;
}

int korva_expr_execute_expression(krv_handle_t *hp, krv_exprstack_t *esp, krv_activation_t *ap, krv_fd_t *fdp,
                                  uint32_t flags, krv_fd_t **outputs, krv_expr_cb_f *func, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (esp == nullptr || ap == nullptr || fdp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    const bool is_caller = (flags & KRV_EXPR_F_CALLER) != 0;
    krv_frame_registers_f *frame = is_caller ? krv_caller_registers : krv_current_registers;
    krv_frame_registers_f *entry = is_caller ? nullptr : krv_caller_registers;
    uint64_t budget = KRV_EXPR_MAX_STEPS;
    const krv_expr_context_t context = {esp, ap, frame, flags, outputs, func, arg, entry, &budget};
    return krv_expr_execute(hp, fdp, &context);
}

int korva_activation_get_frame_info(krv_handle_t *hp, krv_activation_t *ap, krv_frame_info_t *infop)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr || infop == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    if (ap->sa_state == KRV_EVALUATION_UNTRIED) {
        ap->sa_function.size = 0;
        ap->sa_spared_pc = 0;
        if (krv_evaluate_activation(hp, ap) != 0 && ap->sa_function.size == 0 && ap->sa_spared_pc == 0)
            return -1;
    }
    if (krv_find_function(hp, ap) != 0)
        return -1;
    if (ap->sa_function.size == 0)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    krv_clear_error(hp); // of registers that could not be computed
    *infop = ap->sa_function;
    return 0;
}

int korva_activation_set_budget(krv_handle_t *hp, krv_activation_t *ap, uint64_t *instructions)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    ap->sa_budget = instructions;
    return 0;
}
