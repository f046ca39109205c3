// SPDX-License-Identifier: Apache-2.0
#include "operations.h"

#include <fmt/format.h>

namespace korva::program
{

std::string operand_text(const uint8_t *expression, const operation &op, const krv_operand_t &operand)
{
    constexpr int32_t SIGNED = 5; // DW_ATE_signed
    if (operand.sopt_size == 0) { // a block
        const uint8_t *end = expression + op.offset + op.size;
        return fmt::format("[{:02x}]", fmt::join(end - operand.sopt_operand, end, " "));
    }
    if (operand.sopt_encoding == SIGNED)
        return fmt::format("{}", static_cast<int64_t>(operand.sopt_operand));
    return fmt::format("0x{:x}", operand.sopt_operand);
}

std::string operation_text(krv_handle_t *hp, const uint8_t *expression, const operation &op)
{
    const char *name = korva_print_define(hp, KRV_DEF_OP, op.opcode);
    std::string text = name == nullptr ? "??" : name;
    for (const krv_operand_t &operand : op.operands)
        text.append(" ").append(operand_text(expression, op, operand));
    return text;
}

} // namespace korva::program
