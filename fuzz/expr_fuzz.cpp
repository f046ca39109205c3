// SPDX-License-Identifier: Apache-2.0
//
// Expressions: listed, evaluated plainly and as location descriptions, with registers, memory and initial values.
#include "input.h"

#include <array>

static int list(krv_handle_t *, uint8_t, krv_operand_t *operands, unsigned int noperands, void *arg)
{
    for (unsigned int i = 0; i < noperands; ++i)
        *static_cast<uint64_t *>(arg) += operands[i].sopt_operand;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    const uint64_t registers = in.number(8);
    const auto flags = static_cast<uint32_t>(in.number(1) & 0x17); // every flag but the caller's frame
    const size_t room = in.number(1);
    krv_fuzz::source memory{in.part(), in.mode, 0};
    std::vector<uint8_t> bytes = in.rest();
    if (bytes.empty())
        return 0;
    korva_handle_set_opt(h, KRV_OPT_EXPR_STACK_SIZE, 16UL);
    korva_attach_as(h, krv_fuzz::source::read, &memory);
    krv_activation_t *ap = korva_activation_alloc(h);
    krv_exprstack_t *stack = korva_expr_alloc_stack(h);
    for (unsigned int reg = 0; reg < 9; ++reg)
        korva_activation_set_greg(h, ap, KRV_ACTIVATION_REG_DWARF, reg, static_cast<krv_greg_t>(registers >> reg));
    korva_expr_stack_push(h, stack, registers);

    krv_fd_t fd = {};
    uint64_t sum = 0;
    korva_fd_attach(h, &fd, bytes.size(), KRV_FD_TYPE_MEMORY, bytes.data());
    korva_expr_iter_instruction(h, &fd, flags, list, &sum);
    korva_fd_seek(&fd, 0, KRV_FD_SEEK_SET);

    std::array<std::vector<uint8_t>, 3> storage;
    std::array<krv_fd_t, 3> cursors = {};
    krv_fd_t *outputs[3];
    for (size_t i = 0; i < 3; ++i) {
        storage[i].resize(room + 1);
        korva_fd_attach(h, &cursors[i], room + 1, KRV_FD_TYPE_MEMORY, storage[i].data());
        outputs[i] = &cursors[i];
    }
    korva_expr_execute_expression(h, stack, ap, &fd, flags, outputs, nullptr, nullptr);
    korva_expr_free_stack(stack);
    korva_activation_free(ap);
    return 0;
}
