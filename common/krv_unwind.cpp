// SPDX-License-Identifier: Apache-2.0
//
// From the current frame to its caller: the rules at the program counter, the CFA, every register by its rule, and the
// return address. Expressions are read through a copy of the CIE's cursor, memory through the address space.
#include "krv_unwind.h"

#include "krv_compact.h"
#include "krv_error.h"
#include "krv_expr_eval.h"
#include "krv_fd.h"
#include "krv_known_rows.h"

namespace
{

struct evaluation {
    krv_handle_t *hp;
    krv_activation_t *ap;
    krv_fd_t fd;      // reads expressions
    uint64_t *budget; // instructions of all expressions of the frame
    uint64_t column;  // return-address register
    bool has_cfa;     // false when a register that it depends on has no value
    uint64_t cfa;
};

} // namespace

// Sums of addresses wrap at the width of the target.
static uint64_t target_address(const krv_handle_t *hp, uint64_t value)
{
    return hp->sh_target_size == 4 ? value & UINT32_MAX : value;
}

static int place_cursor(krv_fd_t *fdp, uint64_t offset, uint64_t size)
{
    return krv_fd_seek(fdp, offset) == 0 && krv_fd_truncate(fdp, size) == 0 ? 0 : -1;
}

// What the instructions of a CIE and of its FDEs have in common.
static krv_ruleset_t rules_of(const krv_activation_t *ap, const krv_cie_t *cie, krv_cfarule_t *currentp)
{
    krv_ruleset_t rules = {};
    rules.code_align = cie->scie_code_alignment_factor;
    rules.data_align = static_cast<uint64_t>(cie->scie_data_alignment_factor);
    rules.augp = cie->scie_augmentation;
    rules.aug_arg = cie->scie_augmentation_data;
    rules.nslots = ap->sa_n_registers;
    rules.currentp = currentp;
    return rules;
}

// Of a CIE that is kept for all, the window is no place to note anything in.
static int execute_cie(krv_handle_t *hp, krv_activation_t *ap, const krv_cie_t *cie, krv_window_t *window)
{
    ap->sa_initial_of = 0;
    krv_fd_t fd = krv_fd_windowed(&cie->scie_fd, window);
    if (ap->sa_args.sa_argc != 0) // all is zero otherwise
        ap->sa_args = {};
    krv_copy_rules(ap->sa_initial, ap->sa_default, ap->sa_initial_changed);
    ap->sa_initial_changed = {};
    if (place_cursor(&fd, cie->scie_cfi_offset, cie->scie_cfi_size) != 0)
        return -1;
    krv_fd_read_ahead(&fd, cie->scie_cfi_size);
    krv_ruleset_t rules = rules_of(ap, cie, ap->sa_initial);
    rules.argsp = &ap->sa_args;
    const int result = krv_generate_ruleset(hp, &fd, &rules);
    ap->sa_initial_changed = rules.changed;
    if (result == 0)
        ap->sa_initial_of = cie->scie_decoding;
    return result;
}

static int generate_cie_rules(krv_handle_t *hp, krv_activation_t *ap, krv_cie_t *cie)
{
    if (cie->scie_decoding != 0 && cie->scie_decoding == ap->sa_initial_of)
        return 0; // the same instructions as the last time
    if (!cie->scie_is_kept)
        return execute_cie(hp, ap, cie, &cie->scie_window);
    krv_window_t window = cie->scie_window;
    return execute_cie(hp, ap, cie, &window);
}

namespace
{

struct extent {
    uint64_t start, size;
};

} // namespace

static int generate_fde_rules(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, extent code, uint64_t pc,
                              krv_row_f *row = nullptr, void *row_arg = nullptr)
{
    const krv_cie_t *cie = fde->sfde_cie;
    ap->sa_knows_kept = false;
    krv_fd_t fd = krv_fd_windowed(&cie->scie_fd, &fde->sfde_window);
    ap->sa_current_changed.add(ap->sa_initial_changed);
    krv_copy_rules(ap->sa_current, ap->sa_initial, ap->sa_current_changed);
    ap->sa_current_changed = ap->sa_initial_changed;
    if (place_cursor(&fd, fde->sfde_cfi_offset, fde->sfde_cfi_size) != 0)
        return -1;
    krv_fd_read_ahead(&fd, fde->sfde_cfi_size);
    krv_ruleset_t rules = rules_of(ap, cie, ap->sa_current);
    rules.initialp = ap->sa_initial;
    rules.pc = pc;
    rules.slocation = code.start;
    rules.arange = code.size;
    rules.row = row;
    rules.row_arg = row_arg;
    const int result = krv_generate_ruleset(hp, &fd, &rules);
    ap->sa_current_changed.add(rules.changed);
    return result;
}

// What the rules of an FDE are read by, and what is told of it.
static void enter_function(krv_activation_t *ap, const krv_fde_t *fde)
{
    ap->sa_cie_fd = fde->sfde_cie->scie_fd;
    ap->sa_function = {fde->sfde_target_address, fde->sfde_address_range, fde->sfde_cie->scie_signal ? 1 : 0};
}

static extent extent_of(const krv_fde_t *fde)
{
    return {fde->sfde_target_address, fde->sfde_address_range};
}

// For all FDEs that have the same instructions.
[[gnu::noinline]] static void learn_rows(krv_handle_t *hp, krv_activation_t *ap, krv_reader_t *reader, krv_fde_t *fde)
{
    krv_rows_key key;
    krv_rows_draft draft;
    if (krv_rows_key_of(fde, &key) && krv_rows_begin(&draft, hp, reader, ap, fde->sfde_cie, key))
        krv_rows_keep(&draft, key, krv_generate_shared_rows(hp, ap, fde, krv_rows_add, &draft) == 0);
}

// What the instructions said before, if they did not lead past the last address.
static bool apply_known_rows(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, uint64_t pc)
{
    krv_reader_t *reader = krv_load(&hp->sh_frame_reader);
    if (fde->sfde_target_address > UINT64_MAX - KRV_ROWS_SPAN)
        return false;
    if (krv_rows_apply(reader, ap, fde, pc - fde->sfde_target_address))
        return true;
    learn_rows(hp, ap, reader, fde);
    return false;
}

krv_fde_t *krv_find_fde(krv_handle_t *hp, uint64_t pc, krv_fde_search *searchp, krv_fde_room *room)
{
    krv_fde_owner fde(krv_search_fde(hp, pc, searchp, room), {hp});
    if (fde == nullptr) {
        krv_note(hp, "unable to get FDE for PC 0x%lx", static_cast<unsigned long>(pc));
        return nullptr;
    }
    // An empty FDE at address 0 passes for one that covers everything.
    if (pc >= fde->sfde_target_address && pc - fde->sfde_target_address < fde->sfde_address_range)
        return fde.release();
    krv_fail(hp, KRV_ERR_NOTFOUND, "unable to get FDE for PC 0x%lx", static_cast<unsigned long>(pc));
    return nullptr;
}

int krv_execute_rules(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, uint64_t pc)
{
    enter_function(ap, fde);
    if (generate_cie_rules(hp, ap, fde->sfde_cie) != 0)
        return krv_note(hp, "failed to generate CIE's rules");
    if (generate_fde_rules(hp, ap, fde, extent_of(fde), pc) != 0)
        return krv_note(hp, "failed to generate FDE's rules");
    return 0;
}

// What the records say.
static inline int read_rules(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc, uint64_t *columnp)
{
    krv_fde_search search;
    krv_fde_room room;
    const krv_fde_owner fde(krv_find_fde(hp, pc, &search, &room), {hp});
    if (fde == nullptr)
        return -1;
    enter_function(ap, fde.get());
    *columnp = fde->sfde_cie->scie_return_address_register;
    return apply_known_rows(hp, ap, fde.get(), pc) ? 0 : krv_execute_rules(hp, ap, fde.get(), pc);
}

int krv_generate_rules(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc, uint64_t *columnp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(ap != NULL);
    KRV_ASSERT(columnp != NULL);
    ap->sa_function.size = 0;
    ap->sa_spared_pc = 0;
    const bool is_constant = hp->sh_compact != nullptr;
    if (is_constant && pc != 0 && krv_compact_apply(hp, ap, pc, columnp)) {
        ap->sa_spared_pc = pc;
        return 0;
    }
    if (read_rules(hp, ap, pc, columnp) != 0)
        return -1;
    if (is_constant) // The column is stored. NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage)
        krv_compact_learn(hp, ap, pc, *columnp);
    return 0;
}

int krv_generate_initial_rules(krv_handle_t *hp, krv_activation_t *ap, krv_cie_t *cie)
{
    return generate_cie_rules(hp, ap, cie);
}

int krv_generate_shared_rows(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, krv_row_f *row, void *arg)
{
    enter_function(ap, fde);
    return generate_cie_rules(hp, ap, fde->sfde_cie) != 0
               ? -1
               : generate_fde_rules(hp, ap, fde, {0, KRV_ROWS_SPAN + 1}, KRV_ROWS_SPAN, row, arg);
}

int krv_generate_rows(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, krv_row_f *row, void *arg)
{
    KRV_ASSERT(fde->sfde_address_range != 0);
    enter_function(ap, fde);
    const uint64_t last = fde->sfde_target_address + fde->sfde_address_range - 1;
    return generate_cie_rules(hp, ap, fde->sfde_cie) != 0
               ? -1
               : generate_fde_rules(hp, ap, fde, extent_of(fde), last, row, arg);
}

int krv_find_function(krv_handle_t *hp, krv_activation_t *ap)
{
    if (ap->sa_function.size != 0 || ap->sa_spared_pc == 0)
        return 0;
    const krv_fde_owner fde(krv_get_fde_by_address(hp, ap->sa_spared_pc), {hp});
    if (fde == nullptr)
        return -1;
    enter_function(ap, fde.get());
    return 0;
}

// Makes ready to execute a rule's expression, on a stack that is empty or holds the CFA.
static int prepare_expression(evaluation *ev, const krv_cfarule_t *rule, bool push_cfa)
{
    krv_handle_t *hp = ev->hp;
    krv_exprstack_t *stack = ev->ap->sa_exprstack;
    if (korva_expr_reset_stack(hp, stack) != 0)
        return krv_note(hp, "couldn't reset expression stack");
    if (push_cfa && korva_expr_stack_push(hp, stack, ev->cfa) != 0)
        return krv_note(hp, "couldn't push CFA");
    if (place_cursor(&ev->fd, rule->offset, rule->size) != 0)
        return krv_note(hp, "couldn't seek to expression at offset %lu for length  %lu",
                        static_cast<unsigned long>(rule->offset), static_cast<unsigned long>(rule->size));
    return 0;
}

static int execute_expression(evaluation *ev)
{
    const krv_expr_context_t context = {.stack = ev->ap->sa_exprstack,
                                        .ap = ev->ap,
                                        .frame = krv_current_registers,
                                        .flags = KRV_EXPR_F_CFI,
                                        .outputs = nullptr,
                                        .func = nullptr,
                                        .arg = nullptr,
                                        .entry = nullptr,
                                        .budget = ev->budget};
    return krv_expr_execute(ev->hp, &ev->fd, &context);
}

static int compute_cfa_expression(evaluation *ev, const krv_cfarule_t *rule)
{
    if (prepare_expression(ev, rule, false) != 0)
        return -1;
    if (execute_expression(ev) != 0)
        return krv_note(ev->hp, "couldn't execute CFA expression");
    if (korva_expr_stack_pop(ev->hp, ev->ap->sa_exprstack, &ev->cfa) != 0)
        return krv_note(ev->hp, "unable to retrieve CFA expression result");
    return 0;
}

static int compute_register_expression(evaluation *ev, const krv_cfarule_t *rule, unsigned int reg, uint64_t *valuep)
{
    if (prepare_expression(ev, rule, true) != 0)
        return -1;
    if (execute_expression(ev) != 0)
        return krv_note(ev->hp, "couldn't execute expression for register %u\n", reg);
    if (korva_expr_stack_pop(ev->hp, ev->ap->sa_exprstack, valuep) != 0)
        return krv_note(ev->hp, "unable to retrieve expression result for register %u", reg);
    return 0;
}

// A register of the current frame, whose slot exists. Fails as korva_activation_get_greg does.
static int read_register(evaluation *ev, krv_reg_type_t type, unsigned int reg, unsigned int slot, uint64_t *valuep)
{
    if (krv_register_load(&ev->ap->sa_current_registers->srs_metadata[slot], valuep))
        return 0;
    *valuep = 0;
    return krv_activation_read(ev->hp, ev->ap, krv_current_registers, type, reg, valuep, sizeof(*valuep));
}

// Stores the CFA in the current frame, unless it depends on a register without a value.
static int compute_cfa(evaluation *ev)
{
    krv_handle_t *hp = ev->hp;
    krv_activation_t *ap = ev->ap;
    const unsigned int slot = krv_library_slot(ap, KRV_REG_CFA);
    const krv_cfarule_t *rule = &ap->sa_current[slot];
    ap->sa_current_registers->srs_metadata[slot].sr_flags &= ~KRV_REG_FLAG_PRESENT;
    switch (rule->desc) {
    case KRV_CFA_RULE_UNDEFINED:
        return 0;
    case KRV_CFA_RULE_REG_OFFSET: {
        const auto reg = static_cast<unsigned int>(rule->arg >> 32);
        const auto offset = static_cast<int32_t>(rule->arg & UINT32_MAX);
        uint64_t base = 0;
        if (read_register(ev, KRV_ACTIVATION_REG_DWARF, reg, reg, &base) != 0)
            return krv_errno(hp) == KRV_ERR_NOTFOUND ? 0 : -1;
        ev->cfa = base + static_cast<uint64_t>(int64_t{offset});
        break;
    }
    case KRV_CFA_RULE_EXPRESSION:
        if (compute_cfa_expression(ev, rule) != 0)
            return -1;
        break;
    default:
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported CFA rule (%d)", rule->desc);
    }
    ev->cfa = target_address(hp, ev->cfa);
    ev->has_cfa = true;
    krv_register_store(ap->sa_current_registers, slot, &ev->cfa, sizeof(ev->cfa));
    return 0;
}

// Gives a register of the caller the bytes that the target has at an address.
static int load_register(evaluation *ev, unsigned int reg, uint64_t address)
{
    const krv_fd_t *as = &ev->hp->sh_as;
    krv_regset_t *caller = ev->ap->sa_caller_registers;
    krv_register_t *to = &caller->srs_metadata[reg];
    caller->srs_written.add(reg); // also by a read that fails half-way
    const int64_t count = to->sr_size == 0 ? 0
                                           : as->sfd_u.cb.func(as->sfd_u.cb.arg, to->sr_contents, to->sr_size,
                                                               target_address(ev->hp, address));
    if (count != static_cast<int64_t>(to->sr_size))
        return krv_fail(ev->hp, KRV_ERR_IO, "error in AS-read call back");
    to->sr_flags |= KRV_REG_FLAG_PRESENT;
    return 0;
}

// Gives a register of the caller what one of either frame holds, if that has a value: as many bytes as the former is
// wide, beginning where the latter is stored. Every target's table leaves that many behind each register.
static void copy_register(krv_regset_t *caller, unsigned int reg, const krv_register_t *from)
{
    if ((from->sr_flags & KRV_REG_FLAG_PRESENT) != 0)
        krv_register_store(caller, reg, from->sr_contents, caller->srs_metadata[reg].sr_size);
}

// Rules that need the CFA leave a register without a value when there is none.
static int apply_rule(evaluation *ev, unsigned int reg)
{
    const krv_cfarule_t *rule = &ev->ap->sa_current[reg];
    const krv_register_t *current = ev->ap->sa_current_registers->srs_metadata;
    krv_regset_t *caller = ev->ap->sa_caller_registers;
    uint64_t value = ev->cfa + rule->arg;
    switch (rule->desc) {
    case KRV_CFA_RULE_UNDEFINED:
        return 0;
    case KRV_CFA_RULE_SAME_VALUE:
        copy_register(caller, reg, &current[reg]);
        return 0;
    case KRV_CFA_RULE_REGISTER: // in range: checked when the rule was made
        copy_register(caller, reg, &current[rule->arg]);
        return 0;
    case KRV_CFA_RULE_OFFSET:
        return ev->has_cfa ? load_register(ev, reg, value) : 0;
    case KRV_CFA_RULE_VAL_OFFSET:
        if (ev->has_cfa)
            krv_register_store(caller, reg, &value, sizeof(value));
        return 0;
    case KRV_CFA_RULE_EXPRESSION:
    case KRV_CFA_RULE_VAL_EXPRESSION:
        if (!ev->has_cfa)
            return 0;
        if (compute_register_expression(ev, rule, reg, &value) != 0)
            return -1;
        if (rule->desc == KRV_CFA_RULE_EXPRESSION)
            return load_register(ev, reg, value);
        krv_register_store(caller, reg, &value, sizeof(value));
        return 0;
    default:
        return krv_fail(ev->hp, KRV_ERR_UNSUPPORTED, "unsupported register rule (%d)", rule->desc);
    }
}

static int apply_rules(evaluation *ev)
{
    const krv_register_t *slots = ev->ap->sa_caller_registers->srs_metadata;
    const unsigned int end = krv_dwarf_slots(ev->ap);
    krv_regset_clear(ev->ap, ev->ap->sa_caller_registers); // values of an earlier frame must not show through
    krv_slots_t ruled = ev->ap->sa_ruled;                  // the rules of others leave them without a value
    ruled.add(ev->ap->sa_current_changed);
    const bool done = ruled.for_each([ev, slots, end](unsigned int reg) {
        return reg >= end || (slots[reg].sr_flags & KRV_REG_FLAG_VALID) == 0 || apply_rule(ev, reg) == 0;
    });
    return done ? 0 : -1;
}

// The return-address column becomes the caller's program counter.
static int return_to_caller(evaluation *ev)
{
    krv_regset_t *caller = ev->ap->sa_caller_registers;
    const krv_register_t *slots = caller->srs_metadata;
    if (ev->column >= krv_dwarf_slots(ev->ap) || (slots[ev->column].sr_flags & KRV_REG_FLAG_VALID) == 0)
        return krv_fail(ev->hp, KRV_ERR_CORRUPT, "CIE provides bogus RAR (%lu)",
                        static_cast<unsigned long>(ev->column));
    copy_register(caller, krv_library_slot(ev->ap, KRV_REG_PC), &slots[ev->column]);
    return 0;
}

static int evaluate(krv_handle_t *hp, krv_activation_t *ap)
{
    if (hp->sh_as.sfd_size == 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "no as read callback found");
    uint64_t own_budget = KRV_EXPR_MAX_STEPS;
    evaluation ev;
    ev.hp = hp;
    ev.ap = ap;
    ev.budget = ap->sa_budget != nullptr ? ap->sa_budget : &own_budget;
    ev.has_cfa = false;
    ev.cfa = 0;
    uint64_t pc = 0;
    if (read_register(&ev, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, krv_library_slot(ap, KRV_REG_PC), &pc) != 0)
        return krv_note(hp, "unable to get PC\n");
    if (krv_generate_rules(hp, ap, pc, &ev.column) != 0)
        return -1;
    ev.fd = ap->sa_cie_fd;
    if (compute_cfa(&ev) != 0 || apply_rules(&ev) != 0)
        return -1;
    return return_to_caller(&ev);
}

int krv_evaluate_activation(krv_handle_t *hp, krv_activation_t *ap)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(ap != NULL);
    if (ap->sa_state == KRV_EVALUATION_UNTRIED) {
        const bool done = evaluate(hp, ap) == 0;
        ap->sa_state = done ? KRV_EVALUATION_SUCCEEDED : KRV_EVALUATION_FAILED; // last: storing the CFA resets it
    }
    return ap->sa_state == KRV_EVALUATION_SUCCEEDED ? 0 : -1;
}

krv_regset_t *krv_caller_registers(krv_handle_t *hp, krv_activation_t *ap)
{
    return krv_evaluate_activation(hp, ap) == 0 ? ap->sa_caller_registers : nullptr;
}
