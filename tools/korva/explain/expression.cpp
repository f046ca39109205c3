// SPDX-License-Identifier: Apache-2.0
#include "explain/expression.h"

#include "operations.h"
#include "visitor.h"

#include <fmt/format.h>

namespace korva::program::explanation
{

// Of one expression: a loop in one may execute a million.
constexpr size_t MOST_STEPS = 64;
constexpr uint64_t LONGEST_EXPRESSION = 4096;

namespace
{

/** What is known of an operation before it is executed. */
struct listed {
    uint8_t opcode;
    std::string text;
};

} // namespace

static std::vector<listed> read_operations(krv_handle_t *hp, const krv_fd_t &expression, std::string *failure)
{
    std::vector<listed> all;
    krv_fd_t from = expression;
    std::vector<uint8_t> bytes(std::min(from.sfd_remaining, LONGEST_EXPRESSION));
    if (bytes.empty() || korva_fd_to_mem(&from, bytes.data(), bytes.size()) != 0) {
        *failure = bytes.empty() ? "the expression is empty" : "the expression cannot be read";
        return all;
    }
    visitor add([&](const operation &op) {
        if (all.size() < MOST_STEPS)
            all.push_back({op.opcode, operation_text(hp, bytes.data(), op)});
    });
    const auto walked = each_operation(handle_view(hp), bytes.data(), bytes.size(), add);
    add.rethrow();
    if (!walked)
        *failure = walked.error().text();
    else if (all.size() == MOST_STEPS)
        *failure = fmt::format("more than {} operations", MOST_STEPS);
    return all;
}

explained_expression list_expression(krv_handle_t *hp, const krv_fd_t &expression)
{
    explained_expression e;
    for (listed &op : read_operations(hp, expression, &e.failure))
        e.steps.push_back({std::move(op.text)});
    return e;
}

namespace
{

/** An execution while it runs. */
struct execution {
    krv_handle_t *hp;
    const std::vector<listed> &operations;
    explained_expression *to;
    size_t next = 0; // of the operations

    std::vector<uint64_t> read_stack(krv_exprstack_t *stack) const
    {
        std::vector<uint64_t> values;
        uint64_t depth = 0, value = 0;
        korva_expr_get_stack_depth(hp, stack, &depth);
        for (uint64_t i = 0; i < std::min<uint64_t>(depth, 16); ++i)
            if (korva_expr_stack_peek(hp, stack, i, &value) == 0)
                values.push_back(value);
        return values;
    }
    void finish_last(krv_exprstack_t *stack) const
    {
        if (!to->steps.empty())
            to->steps.back().stack = read_stack(stack);
    }
    // Branches lead elsewhere: what comes then is told without operands.
    void begin(const krv_operation_t &op)
    {
        const char *name = korva_print_define(hp, KRV_DEF_OP, op.opcode);
        const bool is_next = next < operations.size() && operations[next].opcode == op.opcode;
        to->steps.push_back({is_next ? operations[next].text : name == nullptr ? "??" : name});
        next = is_next ? next + 1 : operations.size();
    }
};

} // namespace

static int before_operation(krv_handle_t *, krv_exprstack_t *stack, krv_activation_t *, uint32_t, krv_fd_t **,
                            krv_operation_t *op, void *arg) noexcept
{
    auto *run = static_cast<execution *>(arg);
    if (run->to->steps.size() > MOST_STEPS)
        return 0;
    run->finish_last(stack);
    run->begin(*op);
    return 0;
}

explained_expression execute_expression(krv_handle_t *hp, krv_activation_t *ap, const krv_fd_t &expression,
                                        std::optional<uint64_t> cfa)
{
    explained_expression e;
    const std::vector<listed> operations = read_operations(hp, expression, &e.failure);
    auto stack = stack::make(handle_view(hp));
    if (operations.empty() || !stack || (cfa && !stack->push(*cfa)))
        return e;
    if (cfa)
        e.steps.push_back({"the CFA"});
    execution run = {.hp = hp, .operations = operations, .to = &e};
    krv_fd_t from = expression;
    const int result =
        korva_expr_execute_expression(hp, stack->get(), ap, &from, KRV_EXPR_F_CFI, nullptr, before_operation, &run);
    e.failure = result == 0 ? "" : last_error(hp).text();
    run.finish_last(stack->get());
    if (result == 0 && !e.steps.empty() && e.steps.back().stack && !e.steps.back().stack->empty())
        e.value = e.steps.back().stack->front();
    return e;
}

} // namespace korva::program::explanation
