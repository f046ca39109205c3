// SPDX-License-Identifier: Apache-2.0
//
// Evaluation of an expression. An instruction is decoded one ahead of its execution, because what a location
// description does depends on whether DW_OP_piece follows; it is then checked against its row of the table, executed,
// and, in a location description, may produce a piece. Nothing is allocated; the cursor given is consumed.
#include "krv_expr_eval.h"

#include "krv_budget.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_expr.h"
#include "krv_expr_decode.h"
#include "krv_expr_entry.h"
#include "krv_fd.h"
#include "krv_names.h"

#include <utility>

namespace
{

constexpr size_t REGISTER_SIZE = 16; // the widest register

enum class place { first, next, target }; // where a decoded instruction stands; for messages

enum class step {
    next,    // go on
    piece,   // go on; the instruction has produced its piece itself
    finished // the evaluation is over
};

struct evaluator {
    krv_handle_t *hp;
    krv_fd_t *fdp;
    krv_exprstack_t *stack; // what the context gives
    krv_activation_t *ap;
    krv_frame_registers_f *frame;
    uint32_t flags;
    krv_fd_t **outputs;
    krv_expr_cb_f *func;
    void *arg;
    krv_frame_registers_f *entry;
    uint64_t *budget;
    const krv_expr_rows_t *known;

    uint64_t start;       // cursor offset of the expression
    uint64_t at;          // of the current instruction
    uint64_t next_offset; // just behind the current instruction
    uint64_t next_left;   // bytes of the expression from there
    bool first;           // nothing came before the current instruction
    bool last;            // nothing follows it
    krv_expr_insn_t *current;
    krv_expr_insn_t *ahead;
    krv_expr_insn_t slots[2];

    bool is_location() const { return (flags & KRV_EXPR_F_LOCATION) != 0; }
    bool piece_follows() const { return !last && ahead->op.opcode == DW_OP_piece; }
    uint64_t operand(unsigned i = 0) const { return current->op.operand[i].sa_u.su_unsigned; }
    uint64_t piece_size() const { return ahead->op.operand[0].sa_u.su_unsigned; }

    // The stack. Depth and room have been checked against the table.
    uint64_t &top(uint64_t below = 0) { return stack->ses_stackp[stack->ses_depth - 1 - below]; }
    uint64_t pop() { return stack->ses_stackp[--stack->ses_depth]; }
    void push(uint64_t value) { stack->ses_stackp[stack->ses_depth++] = krv_expr_truncate(hp, value); }
};

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Decoding
// ---------------------------------------------------------------------------------------------------------------

static int unknown_opcode(evaluator *ev, place where, uint64_t offset)
{
    if (where == place::first)
        return krv_fail(ev->hp, KRV_ERR_UNSUPPORTED, "unknown opcode");
    return krv_fail(ev->hp, KRV_ERR_UNSUPPORTED, "unknown opcode for next instruction at offset %ld",
                    static_cast<long>(offset));
}

static int bad_opcode(evaluator *ev, place where, uint64_t offset)
{
    switch (where) {
    case place::first:
        return krv_note(ev->hp, "error decoding first instruction");
    case place::target:
        return krv_note(ev->hp, "error decoding instruction");
    case place::next:
        break;
    }
    return krv_note(ev->hp, "error decoding next instruction at offset %ld", static_cast<long>(offset));
}

static int bad_operand(evaluator *ev, place where, uint64_t offset, unsigned int i)
{
    if (where == place::first)
        return krv_note(ev->hp, "error decoding operand %d for first instruction", static_cast<int>(i));
    return krv_note(ev->hp, "error decoding operand %d for next instruction at offset %ld", static_cast<int>(i),
                    static_cast<long>(offset));
}

// Decodes the instruction at the cursor. An undefined one is refused when its turn comes.
static int decode(evaluator *ev, krv_expr_insn_t *insn, place where)
{
    const uint64_t offset = ev->fdp->sfd_offset;
    switch (krv_expr_decode(ev->hp, ev->fdp, ev->known, 0, insn)) {
    case krv_expr_decoded::no_opcode:
        return bad_opcode(ev, where, offset);
    case krv_expr_decoded::no_row:
        return unknown_opcode(ev, where, offset);
    case krv_expr_decoded::no_operand:
        return bad_operand(ev, where, offset, insn->noperands);
    case krv_expr_decoded::whole:
        break;
    }
    return 0;
}

static int look_ahead(evaluator *ev)
{
    ev->next_offset = ev->fdp->sfd_offset;
    ev->next_left = ev->fdp->sfd_remaining;
    ev->last = ev->next_left == 0;
    return ev->last ? 0 : decode(ev, ev->ahead, place::next);
}

// ---------------------------------------------------------------------------------------------------------------
// Checks
// ---------------------------------------------------------------------------------------------------------------

// What the table knows of an instruction, so that no case below repeats it.
static int check(evaluator *ev)
{
    krv_handle_t *hp = ev->hp;
    const uint8_t opcode = ev->current->op.opcode;
    if (opcode >= ev->known->count)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unknown opcode");
    const idata *row = &ev->known->rows[opcode];
    if (row->version == 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported instruction");
    if ((row->flags & KRV_OP_F_LOCATION) != 0 && !ev->is_location())
        return krv_fail(hp, KRV_ERR_EVAL, "instruction valid only for location descriptions");
    if ((row->flags & KRV_OP_F_NOT_CFI) != 0 && (ev->flags & KRV_EXPR_F_CFI) != 0)
        return krv_fail(hp, KRV_ERR_EVAL, "instruction not valid for CFI expressions");
    if ((row->flags & KRV_OP_F_BRANCH) != 0 && (ev->flags & KRV_EXPR_F_NOBRANCH) != 0)
        return krv_fail(hp, KRV_ERR_EVAL, "branch instruction denied");
    if (row->push > ev->stack->ses_size - ev->stack->ses_depth)
        return krv_fail(hp, KRV_ERR_NOSPACE, "stack overflow");
    if (row->pop > ev->stack->ses_depth)
        return krv_fail(hp, KRV_ERR_CORRUPT, "stack underflow");
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Arithmetic, as wide as a target address
// ---------------------------------------------------------------------------------------------------------------

static int64_t as_signed(const evaluator *ev, uint64_t value)
{
    return ev->hp->sh_target_size == 4 ? static_cast<int32_t>(value & UINT32_MAX) : static_cast<int64_t>(value);
}

static uint64_t absolute(const evaluator *ev, uint64_t value)
{
    return as_signed(ev, value) < 0 ? 0 - value : value;
}

// The most negative value by -1 wraps to itself.
static uint64_t quotient(const evaluator *ev, uint64_t dividend, uint64_t divisor)
{
    const int64_t by = as_signed(ev, divisor);
    if (by == -1)
        return 0 - dividend;
    return static_cast<uint64_t>(as_signed(ev, dividend) / by);
}

static uint64_t shift_arithmetically(const evaluator *ev, uint64_t value, uint64_t by)
{
    const unsigned bits = 8 * ev->hp->sh_target_size;
    return static_cast<uint64_t>(as_signed(ev, value) >> (by % bits));
}

static bool compare(const evaluator *ev, uint8_t opcode, uint64_t second, uint64_t top)
{
    const int64_t a = as_signed(ev, second);
    const int64_t b = as_signed(ev, top);
    switch (opcode) {
    case DW_OP_eq:
        return a == b;
    case DW_OP_ne:
        return a != b;
    case DW_OP_lt:
        return a < b;
    case DW_OP_gt:
        return a > b;
    case DW_OP_le:
        return a <= b;
    default: // DW_OP_ge
        return a >= b;
    }
}

static int divide_by_zero(evaluator *ev)
{
    return krv_fail(ev->hp, KRV_ERR_EVAL, "Attempt to divide by zero");
}

// Binary operations on the second and the top entry. 0 or -1.
static int execute_binary(evaluator *ev, uint8_t opcode)
{
    const uint64_t top = ev->pop();
    if (as_signed(ev, top) == 0 && (opcode == DW_OP_div || opcode == DW_OP_mod))
        return divide_by_zero(ev);
    const uint64_t second = ev->pop();
    switch (opcode) {
    case DW_OP_and:
        return ev->push(second & top), 0;
    case DW_OP_or:
        return ev->push(second | top), 0;
    case DW_OP_xor:
        return ev->push(second ^ top), 0;
    case DW_OP_plus:
        return ev->push(second + top), 0;
    case DW_OP_minus:
        return ev->push(second - top), 0;
    case DW_OP_mul:
        return ev->push(second * top), 0;
    case DW_OP_div:
        return ev->push(quotient(ev, second, top)), 0;
    case DW_OP_mod:
        return ev->push(second % top), 0;
    case DW_OP_shl:
        return ev->push(second << (top % 64)), 0;
    case DW_OP_shr:
        return ev->push(second >> (top % 64)), 0;
    case DW_OP_shra:
        return ev->push(shift_arithmetically(ev, second, top)), 0;
    default:
        return ev->push(compare(ev, opcode, second, top) ? 1 : 0), 0;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Memory and registers
// ---------------------------------------------------------------------------------------------------------------

// Reads target memory, up to its last byte; what would wrap around is not asked for. 0 or -1.
static int read_memory(evaluator *ev, void *dst, uint64_t count, uint64_t address)
{
    const krv_fd_t *as = &ev->hp->sh_as;
    int64_t delivered = -1;
    if (count == 0 || address <= UINT64_MAX - (count - 1))
        delivered = as->sfd_u.cb.func(as->sfd_u.cb.arg, dst, count, address);
    if (delivered >= 0 && static_cast<uint64_t>(delivered) == count)
        return 0;
    return krv_fail(ev->hp, KRV_ERR_IO, "reading %ld bytes from VA 0x%llx returned %ld", static_cast<long>(count),
                    static_cast<unsigned long long>(address), static_cast<long>(delivered));
}

static int dereference(evaluator *ev, uint64_t size)
{
    if (size > ev->hp->sh_target_size)
        return krv_fail(ev->hp, KRV_ERR_EVAL, "invalid data size");
    uint64_t value = 0;
    if (read_memory(ev, &value, size, ev->pop()) != 0)
        return -1;
    ev->push(value);
    return 0;
}

static int get_register_size(evaluator *ev, uint32_t reg, size_t *sizep)
{
    if (krv_activation_get_reg_size(ev->hp, ev->ap, KRV_ACTIVATION_REG_DWARF, reg, sizep) != 0)
        return krv_note(ev->hp, "couldn't get size of register %u", reg);
    return 0;
}

static int get_register(evaluator *ev, krv_reg_type_t type, uint32_t reg, void *buf, size_t size)
{
    if (krv_activation_read(ev->hp, ev->ap, ev->frame, type, reg, buf, size) != 0)
        return krv_note(ev->hp, "couldn't get register %u", reg);
    return 0;
}

static int push_register(evaluator *ev, uint32_t reg, uint64_t offset)
{
    size_t size = 0;
    if (get_register_size(ev, reg, &size) != 0)
        return -1;
    uint64_t value = 0;
    if (size > ev->hp->sh_target_size)
        size = ev->hp->sh_target_size;
    if (get_register(ev, KRV_ACTIVATION_REG_DWARF, reg, &value, size) != 0)
        return -1;
    ev->push(value + offset);
    return 0;
}

static int push_cfa(evaluator *ev)
{
    uint64_t value = 0;
    if (get_register(ev, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_CFA, &value, ev->hp->sh_target_size) != 0)
        return -1;
    ev->push(value);
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Pieces of a location description
// ---------------------------------------------------------------------------------------------------------------

// Says of the `count` bytes just produced whether they are known, and whether they came from a register.
static int mark(evaluator *ev, uint64_t count, int known, int from_register)
{
    krv_fd_t *validity = ev->outputs[1];
    krv_fd_t *origin = ev->outputs[2];
    if (validity != nullptr && korva_fd_set(validity, known, count) != 0)
        return -1;
    return origin == nullptr ? 0 : korva_fd_set(origin, from_register, count);
}

// A piece in memory at the address on the stack, unavailable when there is none. Cut to the room that is left, and
// then a failure.
static int emit_memory(evaluator *ev, uint64_t count)
{
    krv_fd_t *out = ev->outputs[0];
    const bool cut = count > out->sfd_remaining;
    if (cut)
        count = out->sfd_remaining;
    const bool known = ev->stack->ses_depth != 0;
    if (known && read_memory(ev, out->sfd_u.buf + out->sfd_offset, count, ev->pop()) != 0)
        return -1;
    krv_fd_advance(out, count);
    if (mark(ev, count, known ? 0xff : 0x00, 0x00) != 0)
        return -1;
    return cut ? krv_fail_code(ev->hp, KRV_ERR_NOSPACE) : 0;
}

static int emit_register(evaluator *ev, uint32_t reg)
{
    krv_handle_t *hp = ev->hp;
    if (ev->stack->ses_depth != 0)
        return krv_fail(hp, KRV_ERR_CORRUPT, "register on occupied stack");
    if (!ev->last && !ev->piece_follows())
        return krv_fail(hp, KRV_ERR_CORRUPT, "register is not alone");
    size_t size = 0;
    if (get_register_size(ev, reg, &size) != 0)
        return -1;
    krv_fd_t *out = ev->outputs[0];
    uint64_t count = size < out->sfd_remaining ? size : out->sfd_remaining;
    if (!ev->last) {
        count = ev->piece_size();
        if (count > size)
            return krv_fail(hp, KRV_ERR_INVALID, "%lu bytes requested by DW_OP_piece but register has only %zu bytes",
                            static_cast<unsigned long>(count), size);
    }
    uint8_t bytes[REGISTER_SIZE] = {};
    KRV_ASSERT(size <= sizeof(bytes));
    if (get_register(ev, KRV_ACTIVATION_REG_DWARF, reg, bytes, count) != 0 || korva_fd_from_mem(out, bytes, count) != 0)
        return -1;
    return mark(ev, count, 0xff, 0xff);
}

static int emit_block(evaluator *ev)
{
    auto *block = static_cast<krv_fd_t *>(ev->current->op.operand[0].sa_u.su_addr);
    if (block == nullptr) // the call-back has made this opcode of another one
        return krv_fail_code(ev->hp, KRV_ERR_INVALID);
    const uint64_t count = ev->piece_follows() ? ev->piece_size() : block->sfd_size;
    if (korva_fd_cpy(ev->outputs[0], block, count) != 0)
        return -1;
    return mark(ev, count, 0xff, 0x00);
}

static int emit_value(evaluator *ev)
{
    const uint64_t value = ev->pop();
    krv_fd_t *out = ev->outputs[0];
    const uint64_t size = ev->hp->sh_target_size;
    const uint64_t count = size < out->sfd_remaining ? size : out->sfd_remaining;
    if (korva_fd_from_mem(out, &value, count) != 0 || mark(ev, count, 0xff, 0x00) != 0)
        return -1;
    return count < size ? krv_fail_code(ev->hp, KRV_ERR_NOSPACE) : 0;
}

// What an instruction that has not produced a piece itself leaves for the description.
static int emit_address(evaluator *ev)
{
    if (ev->piece_follows())
        return emit_memory(ev, ev->piece_size());
    if (!ev->last || ev->current->op.opcode == DW_OP_piece)
        return 0;
    if (ev->stack->ses_depth == 0)
        return krv_fail(ev->hp, KRV_ERR_CORRUPT, "location expression has terminated with empty stack");
    return emit_memory(ev, ev->outputs[0]->sfd_remaining);
}

// DW_OP_piece: its bytes were produced by the instruction before it, or, when there is none, are unavailable.
static int end_piece(evaluator *ev)
{
    ev->stack->ses_depth = 0;
    return ev->first ? emit_memory(ev, ev->operand()) : 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Control flow
// ---------------------------------------------------------------------------------------------------------------

// Moves to the instruction that lies `operand` bytes, signed, behind the branch, and decodes it as the next one.
static int branch(evaluator *ev)
{
    const auto by = static_cast<int64_t>(ev->operand());
    const uint64_t distance = by < 0 ? 0 - static_cast<uint64_t>(by) : static_cast<uint64_t>(by);
    if (distance > (by < 0 ? ev->next_offset - ev->start : ev->next_left))
        return krv_fail(ev->hp, KRV_ERR_EVAL, "attempted branch beyond text");
    ev->next_offset += static_cast<uint64_t>(by);
    ev->next_left -= static_cast<uint64_t>(by);
    ev->fdp->sfd_offset = ev->next_offset;
    ev->fdp->sfd_remaining = ev->next_left;
    ev->last = ev->next_left == 0;
    return ev->last ? 0 : decode(ev, ev->ahead, place::target);
}

// ---------------------------------------------------------------------------------------------------------------
// Extensions
// ---------------------------------------------------------------------------------------------------------------

static const char *operation_name(const evaluator *ev)
{
    const char *name = krv_print_known(ev->hp, KRV_DEF_OP, ev->current->op.opcode);
    return name == nullptr ? "unknown" : name;
}

[[gnu::noinline, gnu::cold]] static int not_evaluated(evaluator *ev, const char *why)
{
    return krv_fail(ev->hp, KRV_ERR_EVAL, "%s cannot be evaluated: %s", operation_name(ev), why);
}

[[gnu::noinline, gnu::cold]] static int push_entry_value(evaluator *ev)
{
    const auto *block = static_cast<krv_fd_t *>(ev->current->op.operand[0].sa_u.su_addr);
    if (block == nullptr) // the call-back has made this opcode of another one
        return krv_fail_code(ev->hp, KRV_ERR_INVALID);
    uint64_t value = 0;
    const char *why = ev->entry == nullptr ? "the caller's frame is not at hand"
                                           : krv_expr_entry_value(ev->hp, ev->ap, ev->entry, block, &value);
    return why != nullptr ? not_evaluated(ev, why) : (ev->push(value), 0);
}

// Operations of extensions. The types that an expression names are entries of its unit, as are the addresses that it
// counts, and neither is at hand; the type at 0 is that of the stack.
[[gnu::noinline, gnu::cold]] static int execute_extended(evaluator *ev, uint8_t opcode)
{
    if (ev->known != &krv_expr_extended_rows || opcode < KRV_NOPERATIONS)
        return krv_fail(ev->hp, KRV_ERR_UNSUPPORTED, "unsupported opcode");
    switch (opcode) {
    case DW_OP_entry_value:
    case DW_OP_GNU_entry_value:
        return push_entry_value(ev);
    case DW_OP_convert:
    case DW_OP_GNU_convert:
    case DW_OP_reinterpret:
    case DW_OP_GNU_reinterpret:
        return ev->operand() == 0 ? 0 : not_evaluated(ev, "its type is an entry of a unit that is not known");
    case DW_OP_addrx:
    case DW_OP_GNU_addr_index:
    case DW_OP_constx:
    case DW_OP_GNU_const_index:
        return not_evaluated(ev, "its unit, which says where addresses are counted, is not known");
    default:
        return not_evaluated(ev, "what it means stands in entries, which are not at hand");
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Execution
// ---------------------------------------------------------------------------------------------------------------

static int pick(evaluator *ev, uint64_t index)
{
    if (index >= ev->stack->ses_depth)
        return krv_fail(ev->hp, KRV_ERR_CORRUPT, "stack underflow");
    ev->push(ev->top(index));
    return 0;
}

static void rotate(evaluator *ev)
{
    const uint64_t old_top = ev->top();
    ev->top() = ev->top(1);
    ev->top(1) = ev->top(2);
    ev->top(2) = old_top;
}

// Operations that may stand in any expression. 0 or -1.
static int execute_plain(evaluator *ev, uint8_t opcode)
{
    switch (opcode) {
    // 2.5.1.1 literal encodings
    case DW_OP_addr:
    case DW_OP_const1u:
    case DW_OP_const1s:
    case DW_OP_const2u:
    case DW_OP_const2s:
    case DW_OP_const4u:
    case DW_OP_const4s:
    case DW_OP_const8u:
    case DW_OP_const8s:
    case DW_OP_constu:
    case DW_OP_consts:
        return ev->push(ev->operand()), 0;

    // 2.5.1.2 register based addressing
    case DW_OP_bregx:
        return push_register(ev, static_cast<uint32_t>(ev->operand()), ev->operand(1));

    // 2.5.1.3 stack operations
    case DW_OP_dup:
        return ev->push(ev->top()), 0;
    case DW_OP_drop:
        return ev->pop(), 0;
    case DW_OP_pick:
        return pick(ev, ev->operand());
    case DW_OP_over:
        return ev->push(ev->top(1)), 0;
    case DW_OP_swap: {
        const uint64_t old_top = ev->top();
        ev->top() = ev->top(1);
        ev->top(1) = old_top;
        return 0;
    }
    case DW_OP_rot:
        return rotate(ev), 0;
    case DW_OP_deref:
        return dereference(ev, ev->hp->sh_target_size);
    case DW_OP_deref_size:
        return dereference(ev, ev->operand());
    case DW_OP_call_frame_cfa:
        return push_cfa(ev);

    // 2.5.1.4 arithmetic and logical operations, 2.5.1.5 comparisons
    case DW_OP_abs:
        return ev->push(absolute(ev, ev->pop())), 0;
    case DW_OP_neg:
        return ev->push(0 - ev->pop()), 0;
    case DW_OP_not:
        return ev->push(~ev->pop()), 0;
    case DW_OP_plus_uconst:
        return ev->push(ev->pop() + ev->operand()), 0;
    case DW_OP_and:
    case DW_OP_or:
    case DW_OP_xor:
    case DW_OP_plus:
    case DW_OP_minus:
    case DW_OP_mul:
    case DW_OP_div:
    case DW_OP_mod:
    case DW_OP_shl:
    case DW_OP_shr:
    case DW_OP_shra:
    case DW_OP_eq:
    case DW_OP_ne:
    case DW_OP_lt:
    case DW_OP_gt:
    case DW_OP_le:
    case DW_OP_ge:
        return execute_binary(ev, opcode);

    // 2.5.1.5 control flow, 2.5.1.6 special operations
    case DW_OP_skip:
        return branch(ev);
    case DW_OP_bra:
        return ev->pop() != 0 ? branch(ev) : 0;
    case DW_OP_nop:
        return 0;

    default:
        if (opcode >= DW_OP_lit0 && opcode <= DW_OP_lit31)
            return ev->push(opcode - DW_OP_lit0), 0;
        if (opcode >= DW_OP_breg0 && opcode <= DW_OP_breg31)
            return push_register(ev, opcode - DW_OP_breg0, ev->operand());
        return execute_extended(ev, opcode);
    }
}

// Executes the current instruction. 0 with what comes next, or -1.
static int execute(evaluator *ev, step *stepp)
{
    const uint8_t opcode = ev->current->op.opcode;
    *stepp = step::piece;
    if (opcode >= DW_OP_reg0 && opcode <= DW_OP_reg31)
        return emit_register(ev, opcode - DW_OP_reg0);
    switch (opcode) {
    case DW_OP_regx:
        return emit_register(ev, static_cast<uint32_t>(ev->operand()));
    case DW_OP_implicit_value:
        return emit_block(ev);
    case DW_OP_stack_value:
        *stepp = step::finished;
        return emit_value(ev);
    case DW_OP_piece:
        *stepp = step::next;
        return end_piece(ev);
    default:
        *stepp = step::next;
        return execute_plain(ev, opcode);
    }
}

// One turn: the instruction decoded ahead becomes the current one. 0 with what comes next, or -1.
static int run_instruction(evaluator *ev, step *stepp)
{
    if (ev->func != nullptr &&
        ev->func(ev->hp, ev->stack, ev->ap, ev->flags, ev->outputs, &ev->current->op, ev->arg) != 0)
        return krv_fail_code(ev->hp, KRV_ERR_IO);
    if (check(ev) != 0 || look_ahead(ev) != 0 || execute(ev, stepp) != 0)
        return -1;
    if (*stepp == step::next && ev->is_location())
        return emit_address(ev);
    return 0;
}

static int run(evaluator *ev)
{
    for (unsigned int steps = 0;; ++steps) {
        step next = step::next;
        int result = -1;
        if (steps == KRV_EXPR_MAX_STEPS)
            krv_fail(ev->hp, KRV_ERR_EVAL, "expression exceeds %u instructions", KRV_EXPR_MAX_STEPS);
        else if (*ev->budget == 0)
            krv_fail(ev->hp, KRV_ERR_EVAL, "expression has no instructions left");
        else if (krv_spend(ev->hp, 1)) {
            --*ev->budget;
            result = run_instruction(ev, &next);
        }
        if (result != 0)
            return krv_note(ev->hp, "error executing instruction 0x%hhx (%s) at offset %ld", ev->current->op.opcode,
                            operation_name(ev), static_cast<long>(ev->at));
        if (next == step::finished || ev->last)
            return 0;
        std::swap(ev->current, ev->ahead);
        ev->first = false;
        ev->at = ev->next_offset;
    }
}

int krv_expr_execute(krv_handle_t *hp, krv_fd_t *fdp, const krv_expr_context_t *context)
{
    krv_clear_error(hp);
    if ((context->flags & KRV_EXPR_F_LOCATION) != 0) {
        if (context->outputs == nullptr || context->outputs[0] == nullptr)
            return krv_fail(hp, KRV_ERR_INVALID, "location description requires output buffer");
        if (krv_fd_is_cb(context->outputs[0]))
            return krv_fail_code(hp, KRV_ERR_INVALID); // target memory is read straight into its buffer
    }
    if (hp->sh_as.sfd_size == 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "no as read callback found");

    evaluator ev; // its block storage needs no initial value
    ev.hp = hp;
    ev.fdp = fdp;
    ev.stack = context->stack;
    ev.ap = context->ap;
    ev.frame = context->frame;
    ev.flags = context->flags;
    ev.outputs = context->outputs;
    ev.func = context->func;
    ev.arg = context->arg;
    ev.entry = context->entry;
    ev.budget = context->budget;
    ev.known = krv_expr_rows(hp);
    ev.start = fdp->sfd_offset;
    ev.at = ev.start;
    ev.next_offset = ev.start;
    ev.next_left = fdp->sfd_remaining;
    ev.first = true;
    ev.last = false;
    ev.current = &ev.slots[0];
    ev.ahead = &ev.slots[1];
    return decode(&ev, ev.current, place::first) != 0 ? -1 : run(&ev);
}
