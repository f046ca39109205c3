// SPDX-License-Identifier: Apache-2.0
//
// The call-frame machine (DWARF 4, 6.4). An instruction is decoded, its register numbers are checked, then it is
// executed; only execute() knows what instructions do.
#include "krv_cfa.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_mem.h"
#include "krv_names.h"

#include <cstring>

namespace
{

// Rule arrays of DW_CFA_remember_state, the latest on top. Frees what is left at the end.
class state_stack
{
public:
    explicit state_stack(size_t nslots) : bytes(nslots * sizeof(krv_cfarule_t)) {}
    ~state_stack()
    {
        while (top != nullptr)
            drop();
    }
    state_stack(const state_stack &) = delete;
    state_stack &operator=(const state_stack &) = delete;

    bool push(krv_handle_t *hp, const krv_cfarule_t *rules) // false: KRV_ERR_NOMEM
    {
        auto *fresh = static_cast<state *>(krv_alloc(hp, sizeof(state) + bytes));
        if (fresh == nullptr)
            return false;
        std::memcpy(fresh + 1, rules, bytes); // the rules follow the record
        fresh->below = top;
        top = fresh;
        return true;
    }

    bool pop(krv_cfarule_t *rules) // false: empty
    {
        if (top == nullptr)
            return false;
        std::memcpy(rules, top + 1, bytes);
        drop();
        return true;
    }

private:
    struct state {
        state *below;
    };

    void drop()
    {
        state *gone = top;
        top = gone->below;
        krv_free(gone);
    }

    size_t bytes;
    state *top = nullptr;
};

struct cfi_run {
    krv_handle_t *hp;
    krv_fd_t *fdp;
    uint64_t code_align;
    uint64_t data_align; // signed, but products wrap alike
    uint64_t pc;
    uint64_t location; // where the row in hand begins
    size_t nslots;
    const krv_cfarule_t *initialp; // NULL in a CIE
    krv_cfarule_t *currentp;
    krv_activation_args_t *argsp; // NULL in an FDE
    state_stack states;

    krv_cfarule_t *cfa() const { return &currentp[nslots - 1 - KRV_REG_CFA]; }
};

enum class row {
    next,    // keep going
    reached, // the rules in hand are those of the row that contains the program counter
    bad      // failed; messages pushed
};

} // namespace

// Instructions whose first operand is a register.
static bool names_register(uint8_t opcode)
{
    switch (opcode) {
    case DW_CFA_offset_extended:
    case DW_CFA_restore_extended:
    case DW_CFA_undefined:
    case DW_CFA_same_value:
    case DW_CFA_register:
    case DW_CFA_def_cfa:
    case DW_CFA_def_cfa_register:
    case DW_CFA_expression:
    case DW_CFA_offset_extended_sf:
    case DW_CFA_def_cfa_sf:
    case DW_CFA_val_offset:
    case DW_CFA_val_offset_sf:
    case DW_CFA_val_expression:
    case DW_CFA_offset:
    case DW_CFA_restore:
        return true;
    default:
        return false;
    }
}

// Whether the registers of an instruction have rules. The slots of the library registers cannot be named.
static bool registers_in_range(const cfi_run *run, const krv_operation_t *op)
{
    const uint64_t end = run->nslots - KRV_REG_MAX;
    const uint64_t first = op->operand[0].sa_u.su_unsigned;
    const uint64_t second = op->operand[1].sa_u.su_unsigned;
    if (op->opcode == DW_CFA_register && second >= end) {
        krv_note(run->hp, "register %lu out of range for DW_CFA_register", static_cast<unsigned long>(second));
        return false;
    }
    if (first >= end && names_register(op->opcode)) {
        const char *name = krv_print_define(KRV_DEF_CFA, op->opcode);
        krv_note(run->hp, "register %lu out of range for %s", static_cast<unsigned long>(first),
                 name == nullptr ? "(unknown)" : name);
        return false;
    }
    return true;
}

static row bad(cfi_run *run, int code, const char *message)
{
    krv_fail(run->hp, code, "%s", message);
    return row::bad;
}

static row new_row(cfi_run *run, uint64_t location)
{
    if (run->initialp == nullptr)
        return bad(run, KRV_ERR_CORRUPT, "row-creation instruction in CIE");
    if (location < run->location)
        return bad(run, KRV_ERR_CORRUPT, "decreasing location");
    if (location > run->pc)
        return row::reached;
    run->location = location;
    return row::next;
}

static row set_rule(cfi_run *run, uint64_t reg, krv_ruledesc_t desc, uint64_t arg)
{
    run->currentp[reg] = {desc, arg, 0, 0};
    return row::next;
}

static row restore_rule(cfi_run *run, uint64_t reg)
{
    if (run->initialp == nullptr) {
        krv_note(run->hp, "illegal instruction for CIE");
        return row::bad;
    }
    run->currentp[reg] = run->initialp[reg];
    return row::next;
}

static row set_cfa(cfi_run *run, uint64_t reg, uint64_t offset)
{
    *run->cfa() = {KRV_CFA_RULE_REG_OFFSET, reg << 32 | (offset & UINT32_MAX), 0, 0};
    return row::next;
}

// For the instructions that keep the CFA's register or its offset.
static bool cfa_has_parts(cfi_run *run)
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
    if (!krv_read_field(run->fdp, DW_FORM_udata, 0, &size, "failed to read expression length"))
        return false;
    *offsetp = run->fdp->sfd_offset;
    *sizep = size;
    return korva_fd_seek(run->fdp, size, KRV_FD_SEEK_CUR) == 0;
}

static row set_expression(cfi_run *run, krv_cfarule_t *rule, krv_ruledesc_t desc)
{
    uint64_t offset = 0, size = 0;
    if (!read_expression(run, &offset, &size))
        return row::bad;
    *rule = {desc, 0, offset, size};
    return row::next;
}

// Numbers beyond the table are no error.
static row set_argument(cfi_run *run, uint64_t number)
{
    if (run->argsp == nullptr)
        return bad(run, KRV_ERR_CORRUPT, "illegal instruction for FDE");
    krv_activation_arg_t arg = {};
    if (!read_expression(run, &arg.offset, &arg.size))
        return row::bad;
    if (number == 0 || number > KRV_MAX_ARGS)
        return row::next;
    run->argsp->sa_argv[number - 1] = arg;
    if (number > run->argsp->sa_argc)
        run->argsp->sa_argc = static_cast<unsigned int>(number);
    return row::next;
}

// Register numbers have been checked.
static row execute(cfi_run *run, const krv_operation_t *op)
{
    const uint64_t first = op->operand[0].sa_u.su_unsigned;
    const uint64_t second = op->operand[1].sa_u.su_unsigned;
    switch (op->opcode) {
    case DW_CFA_nop:
        return row::next;

    // 6.4.2.1 row creation
    case DW_CFA_set_loc:
        return new_row(run, first);
    case DW_CFA_advance_loc:
    case DW_CFA_advance_loc1:
    case DW_CFA_advance_loc2:
    case DW_CFA_advance_loc4:
        return new_row(run, run->location + first * run->code_align);

    // 6.4.2.2 CFA
    case DW_CFA_def_cfa:
        return set_cfa(run, first, second);
    case DW_CFA_def_cfa_sf:
        return set_cfa(run, first, second * run->data_align);
    case DW_CFA_def_cfa_register:
        return cfa_has_parts(run) ? set_cfa(run, first, run->cfa()->arg) : row::bad;
    case DW_CFA_def_cfa_offset:
        return cfa_has_parts(run) ? set_cfa(run, run->cfa()->arg >> 32, first) : row::bad;
    case DW_CFA_def_cfa_offset_sf:
        return cfa_has_parts(run) ? set_cfa(run, run->cfa()->arg >> 32, first * run->data_align) : row::bad;
    case DW_CFA_def_cfa_expression:
        return set_expression(run, run->cfa(), KRV_CFA_RULE_EXPRESSION);

    // 6.4.2.3 registers
    case DW_CFA_undefined:
        return set_rule(run, first, KRV_CFA_RULE_UNDEFINED, 0);
    case DW_CFA_same_value:
        return set_rule(run, first, KRV_CFA_RULE_SAME_VALUE, 0);
    case DW_CFA_offset:
    case DW_CFA_offset_extended:
    case DW_CFA_offset_extended_sf:
        return set_rule(run, first, KRV_CFA_RULE_OFFSET, second * run->data_align);
    case DW_CFA_val_offset:
    case DW_CFA_val_offset_sf:
        return set_rule(run, first, KRV_CFA_RULE_VAL_OFFSET, second * run->data_align);
    case DW_CFA_register:
        return set_rule(run, first, KRV_CFA_RULE_REGISTER, second);
    case DW_CFA_expression:
        return set_expression(run, &run->currentp[first], KRV_CFA_RULE_EXPRESSION);
    case DW_CFA_val_expression:
        return set_expression(run, &run->currentp[first], KRV_CFA_RULE_VAL_EXPRESSION);
    case DW_CFA_restore:
    case DW_CFA_restore_extended:
        return restore_rule(run, first);

    // 6.4.2.4 row states
    case DW_CFA_remember_state:
        return run->states.push(run->hp, run->currentp) ? row::next : row::bad;
    case DW_CFA_restore_state:
        if (run->states.pop(run->currentp))
            return row::next;
        return bad(run, KRV_ERR_CORRUPT, "DW_CFA_restore_state has no state to restore");

    case DW_CFA_VESK_arg_loc:
        return set_argument(run, first);

    default:
        krv_fail(run->hp, KRV_ERR_UNSUPPORTED, "unknown instruction 0x%hhx", op->opcode);
        return row::bad;
    }
}

int krv_generate_ruleset(krv_handle_t *hp, krv_fd_t *fdp, uint64_t code_align, uint64_t data_align, uint64_t pc,
                         uint64_t slocation, uint64_t arange, uint64_t nslots, const krv_cfarule_t *initialp,
                         krv_cfarule_t *currentp, krv_activation_args_t *argsp, const krv_augmentation_t *augp,
                         void *aug_arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(nslots > KRV_REG_MAX);
    KRV_ASSERT(currentp != NULL);
    KRV_ASSERT((initialp == NULL) != (argsp == NULL));
    KRV_ASSERT(initialp == NULL || (pc >= slocation && pc - slocation < arange));
    KRV_ASSERT(augp != NULL);

    cfi_run run = {
        .hp = hp,
        .fdp = fdp,
        .code_align = code_align,
        .data_align = data_align,
        .pc = pc,
        .location = slocation,
        .nslots = nslots,
        .initialp = initialp,
        .currentp = currentp,
        .argsp = argsp,
        .states = state_stack(nslots),
    };
    const uint64_t start = fdp->sfd_offset;
    while (fdp->sfd_remaining > 0) {
        krv_operation_t op; // cleared by its decoder
        row result = row::bad;
        const bool decoded =
            krv_frame_decode_short(fdp, &op) || krv_frame_get_next_op(hp, fdp, &op, augp, aug_arg) == 0;
        if (decoded && registers_in_range(&run, &op))
            result = execute(&run, &op);
        if (result == row::reached)
            break;
        if (result == row::bad)
            return krv_note(hp, "error at offset %lld in instruction stream",
                            static_cast<long long>(fdp->sfd_offset - start));
    }
    return 0;
}
