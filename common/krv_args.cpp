// SPDX-License-Identifier: Apache-2.0
//
// Values of a function's arguments, whose locations its CIE records (DW_CFA_VESK_arg_loc). Locations speak of the
// registers as the caller had them; DW_OP_fbreg is relative to the current frame's frame pointer.
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_expr_eval.h"
#include "krv_fd.h"
#include "krv_unwind.h"

// Turns DW_OP_fbreg into the address it stands for. arg is the frame base, a uint64_t *, or NULL when there is none: then
// DW_OP_fbreg fails with a message.
static int krv_translate_fbreg(krv_handle_t *hp, krv_exprstack_t *esp, krv_activation_t *ap, uint32_t, krv_fd_t **,
                               krv_operation_t *op, void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(esp != NULL);
    KRV_ASSERT(ap != NULL);
    KRV_ASSERT(op != NULL);
    if (op->opcode != DW_OP_fbreg)
        return 0;
    if (arg == nullptr)
        return krv_note(hp, "no DW_OP_fbreg substitution available");
    op->opcode = DW_OP_const8u;
    op->operand[0].sa_u.su_unsigned += *static_cast<const uint64_t *>(arg);
    return 0;
}

// Stores the frame pointer of the current frame; 0 leaves *presentp false when it has no value.
static int get_frame_base(krv_handle_t *hp, krv_activation_t *ap, uint64_t *basep, bool *presentp)
{
    *basep = 0;
    const int result = krv_activation_read(hp, ap, krv_current_registers, KRV_ACTIVATION_REG_DWARF,
                                           ap->sa_mach_def->smd_fp, basep, sizeof(*basep));
    *presentp = result == 0;
    return result == 0 || krv_errno(hp) == KRV_ERR_NOTFOUND ? 0 : krv_note(hp, "error obtaining fp");
}

static int execute_location(krv_handle_t *hp, krv_activation_t *ap, krv_fd_t *fdp, uint64_t *framep, uint64_t *countp)
{
    uint64_t own_budget = KRV_EXPR_MAX_STEPS;
    const krv_expr_context_t context = {.stack = ap->sa_exprstack,
                                        .ap = ap,
                                        .frame = krv_caller_registers,
                                        .flags = KRV_EXPR_F_LOCATION | KRV_EXPR_F_CFI | KRV_EXPR_F_CALLER,
                                        .outputs = ap->sa_arg_fd,
                                        .func = krv_translate_fbreg,
                                        .arg = framep,
                                        .entry = nullptr,
                                        .budget = ap->sa_budget != nullptr ? ap->sa_budget : &own_budget};
    const int result = krv_expr_execute(hp, fdp, &context);
    if (result == 0 || krv_errno(hp) == KRV_ERR_NOSPACE)
        *countp = ap->sa_arg_fd[0]->sfd_offset; // what fitted is there also when more was wanted
    return result == 0 ? 0 : krv_note(hp, "error executing location description");
}

static int get_argument(krv_handle_t *hp, krv_activation_t *ap, unsigned int n, uint8_t *const buffers[3],
                        uint64_t size, uint64_t *countp)
{
    if (krv_evaluate_activation(hp, ap) != 0)
        return krv_note(hp, "unable to evaluate the activation's instructions");
    const krv_activation_args_t *args = &ap->sa_args;
    if (n == 0 || n > args->sa_argc)
        return krv_fail(hp, KRV_ERR_INVALID, "%d arguments available: argument %d requested",
                        static_cast<int>(args->sa_argc), static_cast<int>(n));
    uint64_t frame = 0;
    bool has_frame = false;
    if (get_frame_base(hp, ap, &frame, &has_frame) != 0)
        return -1;
    krv_fd_t fd = ap->sa_cie_fd;
    const krv_activation_arg_t *location = &args->sa_argv[n - 1];
    if (korva_fd_seek(&fd, location->offset, KRV_FD_SEEK_SET) != 0 || korva_fd_truncate(&fd, location->size) != 0)
        return krv_note(hp, "unable to seek to argument location instructions");
    if (korva_expr_reset_stack(hp, ap->sa_exprstack) != 0)
        return -1;
    for (int i = 0; i < 3; ++i)
        krv_fd_attach_mem(hp, ap->sa_arg_fd[i], size, buffers[i]);
    return execute_location(hp, ap, &fd, has_frame ? &frame : nullptr, countp);
}

int korva_activation_get_argc(krv_handle_t *hp, krv_activation_t *ap, unsigned int *argcp)
{
    if (hp == nullptr)
        return -1;
    if (ap == nullptr || argcp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (krv_evaluate_activation(hp, ap) != 0)
        return -1;
    *argcp = ap->sa_args.sa_argc;
    return 0;
}

int korva_activation_get_argv(krv_handle_t *hp, krv_activation_t *ap, unsigned int n, uint8_t *value, uint8_t *valid,
                              uint8_t *inreg, uint64_t size, uint64_t *countp)
{
    if (hp == nullptr)
        return -1;
    if (ap == nullptr || value == nullptr || valid == nullptr || inreg == nullptr || countp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    uint8_t *const buffers[3] = {value, valid, inreg};
    if (get_argument(hp, ap, n, buffers, size, countp) != 0)
        return krv_note(hp, "failed to obtain argument %d", static_cast<int>(n));
    return 0;
}
