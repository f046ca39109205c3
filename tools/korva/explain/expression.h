// SPDX-License-Identifier: Apache-2.0
//
// Expressions of call-frame information, operation by operation.
#pragma once

#include <korva.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korva::program::explanation
{

/** An operation, and what it left on the stack. */
struct expression_step {
    std::string operation;
    std::optional<std::vector<uint64_t>> stack{}; /**< top first; nothing: it was not executed */
};

struct explained_expression {
    std::vector<expression_step> steps{}; /**< as they were executed; without registers as they stand there */
    std::optional<uint64_t> value{};
    std::string failure{}; /**< why there are no more; empty: there are not */
};

/** Lists the operations of an expression. */
explained_expression list_expression(krv_handle_t *hp, const krv_fd_t &expression);

/** Executes it with the registers of @p ap's current frame; @p cfa is on the stack before, unless it is the CFA's own. */
explained_expression execute_expression(krv_handle_t *hp, krv_activation_t *ap, const krv_fd_t &expression,
                                        std::optional<uint64_t> cfa);

} // namespace korva::program::explanation
