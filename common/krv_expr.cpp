// SPDX-License-Identifier: Apache-2.0
#include "krv_expr.h"

#include "krv_error.h"
#include "krv_mem.h"

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
        krv_errno(hp) = KRV_ERR_NOMEM;
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
