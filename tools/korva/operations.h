// SPDX-License-Identifier: Apache-2.0
//
// How operations of expressions are shown.
#pragma once

#include <korva.hpp>

#include <cstdint>
#include <string>

namespace korva::program
{

/** An operand of an operation of @p expression. */
std::string operand_text(const uint8_t *expression, const operation &op, const krv_operand_t &operand);

/** A whole operation: its name, ?? when it has none, and its operands. */
std::string operation_text(krv_handle_t *hp, const uint8_t *expression, const operation &op);

} // namespace korva::program
