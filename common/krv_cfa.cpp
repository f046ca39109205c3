// SPDX-License-Identifier: Apache-2.0
//
// The call-frame machine (DWARF 4, 6.4). An instruction is decoded, its register numbers are checked, then it is
// executed; only execute() knows what instructions do.
#include "krv_cfa.h"

#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_mem.h"
#include "krv_names.h"

namespace
{

// What every change of a rule since DW_CFA_remember_state has replaced, so that a state is restored by undoing them: far
// less than the rules of all slots.
class change_log
{
public:
    change_log() = default;
    ~change_log() { krv_free(entries); }
    change_log(const change_log &) = delete;
    change_log &operator=(const change_log &) = delete;

    bool remember(krv_handle_t *hp) // false: KRV_ERR_NOMEM
    {
        if (!push(hp, STATE, {}))
            return false;
        ++states;
        return true;
    }

    // Before the rule of a slot changes. False: KRV_ERR_NOMEM.
    bool keep(krv_handle_t *hp, uint64_t slot, const krv_cfarule_t *rules)
    {
        return states == 0 || push(hp, slot, rules[slot]);
    }

    bool restore(krv_cfarule_t *rules) // false: no state
    {
        if (states == 0)
            return false;
        --states;
        while (entries[--count].slot != STATE)
            rules[entries[count].slot] = entries[count].rule;
        return true;
    }

private:
    struct entry {
        uint64_t slot; // or STATE, where a state was remembered
        krv_cfarule_t rule;
    };
    static constexpr uint64_t STATE = UINT64_MAX;

    [[gnu::noinline]] bool push(krv_handle_t *hp, uint64_t slot, const krv_cfarule_t &rule)
    {
        if (!krv_table_grow(hp, &entries, &capacity, count, uint64_t{16}))
            return false;
        entries[count++] = {slot, rule};
        return true;
    }

    entry *entries = nullptr;
    uint64_t count = 0, capacity = 0, states = 0;
};

struct cfi_run {
    krv_handle_t *hp;
    krv_fd_t *fdp;
    krv_ruleset_t *rules;
    uint64_t location; // where the row in hand begins
    change_log log;

    bool is_cie() const { return rules->initialp == nullptr; }
    uint64_t cfa_slot() const { return rules->nslots - 1 - KRV_REG_CFA; }
    const krv_cfarule_t *cfa() const { return &rules->currentp[cfa_slot()]; }
};

enum class row {
    next,    // keep going
    reached, // the rules in hand are those of the row that contains the program counter
    bad      // failed; messages pushed
};

} // namespace

static bool has_flag(uint8_t opcode, uint32_t flag)
{
    return (krv_cfa_table[krv_cfa_row(opcode)].flags & flag) != 0;
}

[[gnu::noinline, gnu::cold]] static row out_of_range(cfi_run *run, uint8_t opcode, uint64_t reg)
{
    const char *name = krv_print_known(run->hp, KRV_DEF_CFA, opcode);
    krv_note(run->hp, "register %lu out of range for %s", static_cast<unsigned long>(reg),
             name == nullptr ? "(unknown)" : name);
    return row::bad;
}

[[gnu::noinline, gnu::cold]] static row bad(cfi_run *run, int code, const char *message)
{
    krv_fail(run->hp, code, "%s", message);
    return row::bad;
}

static row new_row(cfi_run *run, uint64_t location)
{
    if (run->is_cie())
        return bad(run, KRV_ERR_CORRUPT, "row-creation instruction in CIE");
    if (location < run->location)
        return bad(run, KRV_ERR_CORRUPT, "decreasing location");
    if (location > run->rules->pc)
        return row::reached;
    if (run->rules->row != nullptr && location != run->location)
        run->rules->row(run->rules->row_arg, run->rules->changed, run->location, location);
    run->location = location;
    return row::next;
}

static inline row set_rule(cfi_run *run, uint64_t slot, const krv_cfarule_t &rule)
{
    if (!run->log.keep(run->hp, slot, run->rules->currentp))
        return row::bad;
    run->rules->currentp[slot] = rule;
    run->rules->changed.add(slot);
    return row::next;
}

static inline row restore_rule(cfi_run *run, uint64_t reg)
{
    if (!run->is_cie())
        return set_rule(run, reg, run->rules->initialp[reg]);
    krv_note(run->hp, "illegal instruction for CIE");
    return row::bad;
}

static inline row set_cfa(cfi_run *run, uint64_t reg, uint64_t offset)
{
    return set_rule(run, run->cfa_slot(), {KRV_CFA_RULE_REG_OFFSET, reg << 32 | (offset & UINT32_MAX), 0, 0});
}

// For the instructions that keep the CFA's register or its offset.
static bool cfa_has_parts(const cfi_run *run)
{
    if (run->cfa()->desc == KRV_CFA_RULE_REG_OFFSET)
        return true;
    krv_note(run->hp, "CFA rule not reg + offset");
    return false;
}

// Reads the length of an expression and steps over its bytes.
static bool read_expression(cfi_run *run, uint64_t *offsetp, uint64_t *sizep)
{
    uint64_t size = 0;
    if (!krv_read_field(run->fdp, DW_FORM_udata, &size, "failed to read expression length"))
        return false;
    *offsetp = run->fdp->sfd_offset;
    *sizep = size;
    return korva_fd_seek(run->fdp, size, KRV_FD_SEEK_CUR) == 0;
}

[[gnu::noinline]] static row set_expression(cfi_run *run, uint64_t slot, krv_ruledesc_t desc)
{
    uint64_t offset = 0, size = 0;
    if (!read_expression(run, &offset, &size))
        return row::bad;
    return set_rule(run, slot, {desc, 0, offset, size});
}

// Numbers beyond the table are no error.
[[gnu::noinline]] static row set_argument(cfi_run *run, uint64_t number)
{
    krv_activation_args_t *args = run->rules->argsp;
    if (args == nullptr)
        return bad(run, KRV_ERR_CORRUPT, "illegal instruction for FDE");
    krv_activation_arg_t arg = {};
    if (!read_expression(run, &arg.offset, &arg.size))
        return row::bad;
    if (number == 0 || number > KRV_MAX_ARGS)
        return row::next;
    args->sa_argv[number - 1] = arg;
    if (number > args->sa_argc)
        args->sa_argc = static_cast<unsigned int>(number);
    return row::next;
}

// What the base rows do not define.
[[gnu::noinline, gnu::cold]] static row execute_written(cfi_run *run, uint8_t opcode, uint64_t first, uint64_t second)
{
    const krv_cfa_desc_t *known = krv_reads_as_written(run->hp) ? krv_cfa_written_row(opcode) : nullptr;
    if (known == nullptr) {
        krv_fail(run->hp, KRV_ERR_UNSUPPORTED, "unknown instruction 0x%hhx", opcode);
        return row::bad;
    }
    if ((known->flags & KRV_CFA_F_REGISTER) == 0)
        return row::next; // DW_CFA_GNU_args_size is for landing pads
    if (first >= run->rules->nslots - KRV_REG_MAX)
        return out_of_range(run, opcode, first);
    return set_rule(run, first, {KRV_CFA_RULE_OFFSET, 0 - second * run->rules->data_align, 0, 0});
}

// Registers must have rules; the slots of the library registers cannot be named.
[[gnu::always_inline]] static inline row execute(cfi_run *run, uint8_t opcode, uint64_t first, uint64_t second)
{
    const uint64_t end = run->rules->nslots - KRV_REG_MAX;
    if (second >= end && has_flag(opcode, KRV_CFA_F_SECOND))
        return out_of_range(run, opcode, second);
    if (first >= end && has_flag(opcode, KRV_CFA_F_REGISTER))
        return out_of_range(run, opcode, first);
    switch (opcode) {
    case DW_CFA_nop:
        return row::next;

    // 6.4.2.1 row creation
    case DW_CFA_set_loc:
        return new_row(run, first);
    case DW_CFA_advance_loc:
    case DW_CFA_advance_loc1:
    case DW_CFA_advance_loc2:
    case DW_CFA_advance_loc4:
        return new_row(run, run->location + first * run->rules->code_align);

    // 6.4.2.2 CFA
    case DW_CFA_def_cfa:
        return set_cfa(run, first, second);
    case DW_CFA_def_cfa_sf:
        return set_cfa(run, first, second * run->rules->data_align);
    case DW_CFA_def_cfa_register:
        return cfa_has_parts(run) ? set_cfa(run, first, run->cfa()->arg) : row::bad;
    case DW_CFA_def_cfa_offset:
        return cfa_has_parts(run) ? set_cfa(run, run->cfa()->arg >> 32, first) : row::bad;
    case DW_CFA_def_cfa_offset_sf:
        return cfa_has_parts(run) ? set_cfa(run, run->cfa()->arg >> 32, first * run->rules->data_align) : row::bad;
    case DW_CFA_def_cfa_expression:
        return set_expression(run, run->cfa_slot(), KRV_CFA_RULE_EXPRESSION);

    // 6.4.2.3 registers
    case DW_CFA_undefined:
        return set_rule(run, first, {KRV_CFA_RULE_UNDEFINED, 0, 0, 0});
    case DW_CFA_same_value:
        return set_rule(run, first, {KRV_CFA_RULE_SAME_VALUE, 0, 0, 0});
    case DW_CFA_offset:
    case DW_CFA_offset_extended:
    case DW_CFA_offset_extended_sf:
        return set_rule(run, first, {KRV_CFA_RULE_OFFSET, second * run->rules->data_align, 0, 0});
    case DW_CFA_val_offset:
    case DW_CFA_val_offset_sf:
        return set_rule(run, first, {KRV_CFA_RULE_VAL_OFFSET, second * run->rules->data_align, 0, 0});
    case DW_CFA_register:
        return set_rule(run, first, {KRV_CFA_RULE_REGISTER, second, 0, 0});
    case DW_CFA_expression:
        return set_expression(run, first, KRV_CFA_RULE_EXPRESSION);
    case DW_CFA_val_expression:
        return set_expression(run, first, KRV_CFA_RULE_VAL_EXPRESSION);
    case DW_CFA_restore:
    case DW_CFA_restore_extended:
        return restore_rule(run, first);

    // 6.4.2.4 row states
    case DW_CFA_remember_state:
        return run->log.remember(run->hp) ? row::next : row::bad;
    case DW_CFA_restore_state:
        if (run->log.restore(run->rules->currentp))
            return row::next;
        return bad(run, KRV_ERR_CORRUPT, "DW_CFA_restore_state has no state to restore");

    case DW_CFA_VESK_arg_loc:
        return set_argument(run, first);

    default:
        return execute_written(run, opcode, first, second);
    }
}

// Executes instructions where they are, as long as they can be decoded there; the cursor follows.
static row run_in_memory(cfi_run *run)
{
    const krv_view_t view = krv_fd_view(run->fdp);
    const uint8_t *const end = view.bytes + view.size, *at = view.bytes;
    row result = row::next;
    while (at != end) {
        krv_cfa_op_t op;
        const uint8_t *next = krv_cfa_scan(at, end, &op);
        if (next == nullptr)
            break;
        at = next;
        result = execute(run, op.opcode, op.first, op.second);
        if (result != row::next)
            break;
    }
    krv_fd_advance(run->fdp, static_cast<uint64_t>(at - view.bytes));
    return result;
}

// Executes one instruction, whatever it is.
[[gnu::noinline]] static row run_one(cfi_run *run)
{
    krv_operation_t op;
    if (krv_frame_get_next_op(run->hp, run->fdp, &op, run->rules->augp, run->rules->aug_arg) != 0)
        return row::bad;
    return execute(run, op.opcode, op.operand[0].sa_u.su_unsigned, op.operand[1].sa_u.su_unsigned);
}

static row run_instructions(cfi_run *run)
{
    row result = row::next;
    while (result == row::next && run->fdp->sfd_remaining > 0) {
        krv_clear_error(run->hp); // as decoding does
        result = run_in_memory(run);
        if (result == row::next && run->fdp->sfd_remaining > 0)
            result = run_one(run);
    }
    return result;
}

int krv_generate_ruleset(krv_handle_t *hp, krv_fd_t *fdp, krv_ruleset_t *rules)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(rules->nslots > KRV_REG_MAX);
    KRV_ASSERT(rules->nslots <= KRV_MAX_SLOTS);
    KRV_ASSERT(rules->currentp != NULL);
    KRV_ASSERT((rules->initialp == NULL) != (rules->argsp == NULL));
    KRV_ASSERT(rules->initialp == NULL ||
               (rules->pc >= rules->slocation && rules->pc - rules->slocation < rules->arange));
    KRV_ASSERT(rules->augp != NULL);

    rules->changed = {};
    if (!krv_spend(hp, fdp->sfd_remaining))
        return -1;
    cfi_run run = {.hp = hp, .fdp = fdp, .rules = rules, .location = rules->slocation, .log = {}};
    const uint64_t start = fdp->sfd_offset;
    if (run_instructions(&run) != row::bad)
        return 0;
    return krv_note(hp, "error at offset %lld in instruction stream", static_cast<long long>(fdp->sfd_offset - start));
}
