/* SPDX-License-Identifier: Apache-2.0 */
/* locate: evaluates an expression, and reads a variable by its location description, in a frame made up here. */
#include <inttypes.h>
#include <libkorva.h>
#include <stdio.h>
#include <string.h>

/* The target's memory: 8 bytes at 0x1000. The library asks for what it needs, by target address. */
static int64_t read_memory(void *arg, void *buf, size_t count, uint64_t address)
{
    const uint8_t *bytes = arg;
    if (address < 0x1000 || address > 0x1008 || count > 0x1008 - address)
        return -1;
    memcpy(buf, bytes + (address - 0x1000), count);
    return (int64_t)count;
}

static int report(krv_handle_t *hp)
{
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    fprintf(stderr, "error %d: %s\n", korva_handle_get_errno(hp), count > 0 ? messages[0] : "");
    return 1;
}

static int evaluate(krv_handle_t *hp, krv_exprstack_t *stack, krv_activation_t *frame)
{
    /* DW_OP_breg3 8; DW_OP_lit2; DW_OP_plus: register 3 + 8 + 2 */
    uint8_t sum[] = {0x73, 8, 0x32, 0x22};
    /* DW_OP_reg3 DW_OP_piece 4; DW_OP_breg3 4 DW_OP_piece 2: four bytes in register 3, two in memory behind it */
    uint8_t pieces[] = {0x53, 0x93, 4, 0x73, 4, 0x93, 2};
    uint8_t object[6];
    krv_fd_t expression = {0}, out = {0};
    krv_fd_t *outputs[3] = {&out, NULL, NULL};
    uint64_t value;

    if (korva_fd_attach(hp, &expression, sizeof(sum), KRV_FD_TYPE_MEMORY, sum) != 0 ||
        korva_expr_execute_expression(hp, stack, frame, &expression, 0, NULL, NULL, NULL) != 0 ||
        korva_expr_stack_pop(hp, stack, &value) != 0)
        return report(hp);
    printf("value 0x%" PRIx64 "\n", value);

    if (korva_fd_attach(hp, &expression, sizeof(pieces), KRV_FD_TYPE_MEMORY, pieces) != 0 ||
        korva_fd_attach(hp, &out, sizeof(object), KRV_FD_TYPE_MEMORY, object) != 0 ||
        korva_expr_execute_expression(hp, stack, frame, &expression, KRV_EXPR_F_LOCATION, outputs, NULL, NULL) != 0)
        return report(hp);
    printf("object");
    for (uint64_t i = 0; i < out.sfd_offset; ++i)
        printf(" %02x", object[i]);
    printf("\n");
    return 0;
}

int main(void)
{
    uint8_t memory[8] = {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17};
    krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    if (hp == NULL)
        return 1;
    krv_exprstack_t *stack = korva_expr_alloc_stack(hp);
    krv_activation_t *frame = korva_activation_alloc(hp);
    int rc = 1;
    if (stack != NULL && frame != NULL && korva_attach_as(hp, read_memory, memory) == 0 &&
        korva_activation_set_greg(hp, frame, KRV_ACTIVATION_REG_DWARF, 3, 0x1000) == 0)
        rc = evaluate(hp, stack, frame);
    korva_activation_free(frame);
    korva_expr_free_stack(stack);
    korva_handle_release(hp);
    return rc;
}
