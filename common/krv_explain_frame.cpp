// SPDX-License-Identifier: Apache-2.0
//
// How the caller of a frame is found: the records that krv_unwind reads for a program counter, and the rules that it makes
// of them.
#include "krv_eh_frame.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_unwind.h"

#include <cstring>

static uint64_t count_entries(const krv_reader_t *reader, const krv_fde_search &search)
{
    if (search.by_table) // there is no other reader with a table
        return static_cast<const krv_eh_frame_reader_data *>(reader->sr_data)->sefh_fde_count;
    const krv_linear_t *lt = krv_load(&reader->sr_lt);
    return lt == nullptr ? 0 : lt->sl_table_entries;
}

static void describe_records(const krv_fde_t *fde, const krv_fde_search &search, krv_frame_why_t *why)
{
    const krv_cie_t *cie = fde->sfde_cie;
    static_assert(sizeof(why->augmentation) == sizeof(cie->scie_augmentation_string), "the longest that there is");
    why->has_fde = 1;
    why->fde = search.offset;
    why->cie = fde->sfde_cie_offset;
    why->range = {fde->sfde_target_address, fde->sfde_target_address + fde->sfde_address_range};
    why->is_signal = cie->scie_signal ? 1 : 0;
    why->version = static_cast<uint8_t>(cie->scie_version);
    std::memcpy(why->augmentation, cie->scie_augmentation_string, sizeof(why->augmentation));
    why->augmentation[sizeof(why->augmentation) - 1] = '\0';
    why->code_alignment = cie->scie_code_alignment_factor;
    why->data_alignment = cie->scie_data_alignment_factor;
    why->return_register = cie->scie_return_address_register;
}

namespace
{

struct row_search {
    uint64_t pc;
    uint64_t behind; // of the rows that were visited
    krv_range_t found;
};

} // namespace

static void visit_row(void *arg, const krv_slots_t &, uint64_t start, uint64_t end)
{
    auto *s = static_cast<row_search *>(arg);
    if (start <= s->pc && s->pc < end)
        s->found = {start, end};
    s->behind = end;
}

// What the row of rules covers that has the program counter. False: memory ran out, or a read failed.
static bool find_row(krv_handle_t *hp, krv_activation_t *ap, krv_fde_t *fde, uint64_t pc, krv_range_t *row)
{
    row_search s = {pc, fde->sfde_target_address, {}};
    const bool is_whole = krv_generate_rows(hp, ap, fde, visit_row, &s) == 0;
    if (!is_whole && krv_is_passing(hp))
        return false;
    krv_clear_error(hp); // the rules at the program counter may be readable all the same
    *row = s.found;
    if (s.found.end == 0)
        *row = {s.behind, is_whole ? fde->sfde_target_address + fde->sfde_address_range : 0};
    return true;
}

static const char *register_name(const krv_activation_t *ap, uint64_t reg)
{
    for (unsigned int i = 0; i < ap->sa_mach_def->smd_n_defs; ++i) {
        const krv_reg_def_t *def = &ap->sa_mach_def->smd_defs[i];
        if (static_cast<uint64_t>(def->srd_dwarf) == reg)
            return def->srd_name + (def->srd_name[0] == '%' ? 1 : 0);
    }
    return "?";
}

static krv_rule_record_t make_rule(const krv_activation_t *ap, unsigned int slot, bool is_cfa, bool is_default)
{
    static_assert(KRV_RULE_REG_OFFSET == static_cast<int>(KRV_CFA_RULE_REG_OFFSET) &&
                      KRV_RULE_UNDEFINED == static_cast<int>(KRV_CFA_RULE_UNDEFINED) &&
                      KRV_RULE_REGISTER == static_cast<int>(KRV_CFA_RULE_REGISTER),
                  "clients see the same numbers");
    const krv_cfarule_t *rule = &ap->sa_current[slot];
    krv_rule_record_t made = {};
    made.reg = is_cfa ? KRV_RULE_CFA : slot;
    made.name = is_cfa ? "CFA" : register_name(ap, slot);
    made.kind = static_cast<uint32_t>(rule->desc);
    made.is_default = is_default ? 1 : 0;
    switch (rule->desc) {
    case KRV_CFA_RULE_OFFSET:
    case KRV_CFA_RULE_VAL_OFFSET:
        made.offset = static_cast<int64_t>(rule->arg);
        break;
    case KRV_CFA_RULE_REGISTER:
        made.base = static_cast<uint32_t>(rule->arg);
        made.base_name = register_name(ap, made.base);
        break;
    case KRV_CFA_RULE_REG_OFFSET:
        made.base = static_cast<uint32_t>(rule->arg >> 32);
        made.base_name = register_name(ap, made.base);
        made.offset = static_cast<int32_t>(rule->arg & UINT32_MAX);
        break;
    case KRV_CFA_RULE_EXPRESSION:
    case KRV_CFA_RULE_VAL_EXPRESSION:
        made.expression = ap->sa_cie_fd;
        if (krv_fd_seek(&made.expression, rule->offset) != 0 || krv_fd_truncate(&made.expression, rule->size) != 0)
            made.expression.sfd_remaining = 0; // it was read there a moment ago
        break;
    default:
        break;
    }
    return made;
}

static void list_rules(const krv_activation_t *ap, krv_rule_record_t *rules, size_t room, size_t *countp)
{
    const auto add = [=](const krv_rule_record_t &rule) {
        if (*countp < room)
            rules[*countp] = rule;
        ++*countp;
    };
    add(make_rule(ap, krv_library_slot(ap, KRV_REG_CFA), true, false));
    krv_slots_t listed = ap->sa_ruled;
    listed.add(ap->sa_current_changed);
    const krv_register_t *slots = ap->sa_current_registers->srs_metadata;
    listed.for_each([=](unsigned int slot) {
        const bool is_set = (ap->sa_current_changed.words[slot / 64] >> (slot % 64) & 1) != 0;
        if (slot < krv_dwarf_slots(ap) && (slots[slot].sr_flags & KRV_REG_FLAG_VALID) != 0)
            add(make_rule(ap, slot, false, !is_set));
        return true;
    });
}

int korva_explain_frame(krv_handle_t *hp, uint64_t pc, krv_frame_why_t *whyp, krv_rule_record_t *rules, size_t room,
                        size_t *countp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (whyp == nullptr || countp == nullptr || (rules == nullptr && room != 0))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    *whyp = {};
    *countp = 0;
    whyp->section = KRV_SEC_NONE;
    const krv_reader_t *reader = krv_need_reader(hp);
    const krv_activation_owner ap(reader == nullptr ? nullptr : korva_activation_alloc(hp));
    if (ap == nullptr)
        return -1;
    whyp->section = reader->sr_ops->sro_section;
    krv_fde_search search;
    const krv_fde_owner fde(krv_find_fde(hp, pc, &search), {hp});
    whyp->by_table = search.by_table ? 1 : 0;
    whyp->table_entries = count_entries(reader, search);
    whyp->near_start = search.near_start;
    whyp->near_end = search.near_end;
    if (fde == nullptr)
        return -1;
    describe_records(fde.get(), search, whyp);
    if (!find_row(hp, ap.get(), fde.get(), pc, &whyp->row) || krv_execute_rules(hp, ap.get(), fde.get(), pc) != 0)
        return -1;
    list_rules(ap.get(), rules, room, countp);
    return 0;
}
