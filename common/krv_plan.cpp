// SPDX-License-Identifier: Apache-2.0
#include "krv_plan.h"

#include "krv_dwarf.h"
#include "krv_mem.h"

// Bytes of a value that its form alone tells. False: its bytes do.
static bool is_fixed(krv_form_t form, const krv_encoding_t &encoding, uint32_t *widthp)
{
    const krv_form_row_t row = krv_form_row(form, encoding.forms);
    switch (row.family) {
    case krv_family_t::number:
    case krv_family_t::strp:
    case krv_family_t::opaque:
    case krv_family_t::line_strp:
    case krv_family_t::alt_strp:
    case krv_family_t::bytes:
        *widthp = static_cast<uint32_t>(krv_form_width(row, encoding));
        return true;
    case krv_family_t::present:
    case krv_family_t::implicit:
        *widthp = 0;
        return true;
    default:
        return false;
    }
}

// Writes the steps of an abbreviation; NULL: only counts them.
static uint32_t make_steps(const krv_abbrev_t *abbrev, const krv_encoding_t &encoding, krv_plan_step *steps)
{
    uint32_t count = 0;
    krv_plan_step step = {};
    const auto end_step = [&](krv_form_t form) {
        step.form = form;
        if (steps != nullptr)
            steps[count] = step;
        ++count;
        step = {};
    };
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        const krv_form_t form = abbrev->dwa_afpairs[i].dwafp_form;
        uint32_t width = 0;
        if (is_fixed(form, encoding, &width))
            step.bytes += width;
        else
            end_step(form);
    }
    if (step.bytes != 0)
        end_step(0);
    return count;
}

static uint8_t flags_of(const krv_abbrev_t *abbrev)
{
    if (abbrev->dwa_nafpairs > KRV_MOST_ATTRIBUTES)
        return KRV_PLAN_TOO_MANY;
    uint8_t flags = 0;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        const krv_attribute_t attribute = abbrev->dwa_afpairs[i].dwafp_attribute;
        if (attribute == DW_AT_low_pc || attribute == DW_AT_ranges)
            flags |= KRV_PLAN_CODE;
    }
    return flags;
}

static krv_plan *make_plan(krv_handle_t *hp, krv_au_t *au, const krv_encoding_t &encoding)
{
    uint64_t steps = 0;
    const auto count = static_cast<size_t>(au->sau_abbrev_table_entries);
    for (size_t i = 0; i < count; ++i)
        if (const krv_abbrev_t *abbrev = &au->sau_abbrev_table[i]; flags_of(abbrev) != KRV_PLAN_TOO_MANY)
            steps += make_steps(abbrev, encoding, nullptr);
    // The sizes are of arrays that are in memory.
    const size_t rows_size = sizeof(krv_plan) + count * sizeof(krv_planned_t);
    auto *plan = static_cast<krv_plan *>(krv_alloc(hp, rows_size + steps * sizeof(krv_plan_step)));
    if (plan == nullptr)
        return nullptr;
    plan->sp_au = au;
    plan->sp_encoding = encoding;
    auto *step = reinterpret_cast<krv_plan_step *>(reinterpret_cast<uint8_t *>(plan) + rows_size);
    for (size_t i = 0; i < count; ++i) {
        krv_planned_t *row = &plan->sp_planned[i];
        *row = {&au->sau_abbrev_table[i], step, 0, flags_of(&au->sau_abbrev_table[i])};
        if (row->flags == KRV_PLAN_TOO_MANY)
            continue;
        row->step_count = make_steps(row->abbrev, encoding, step);
        step += row->step_count;
    }
    return plan;
}

const krv_plan *krv_cu_plan(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_au_t *au = krv_cu_abbrevs(hp, cu);
    if (au == nullptr)
        return nullptr;
    const krv_encoding_t encoding = krv_cu_encoding(hp, cu);
    // Versions from 3 on differ in no width.
    krv_plan **slot = &au->sau_plans[(encoding.is_dwarf64 ? 1 : 0) + (encoding.version == 2 ? 2 : 0)];
    if (const krv_plan *plan = krv_load(slot))
        return plan;
    krv_plan *fresh = make_plan(hp, au, encoding);
    return fresh == nullptr ? nullptr : krv_publish(slot, fresh, krv_free);
}

const krv_planned_t *krv_plan_find_other(krv_handle_t *hp, const krv_plan *plan, uint64_t code)
{
    // No abbreviation has a code of more than 32 bits, and 0 is none.
    const krv_abbrev_t *abbrev = krv_get_abbrev(hp, plan->sp_au, code <= UINT32_MAX ? static_cast<uint32_t>(code) : 0);
    return abbrev == nullptr ? nullptr : &plan->sp_planned[abbrev - plan->sp_au->sau_abbrev_table];
}

const uint8_t *krv_plan_skip_form(const uint8_t *at, const uint8_t *end, krv_form_t form,
                                  const krv_encoding_t &encoding)
{
    while (form == DW_FORM_indirect) {
        uint64_t written = 0;
        at = krv_skip_number(at, end, &written);
        if (at == nullptr)
            return nullptr;
        form = encoding.is_extended()     ? krv_extended_form(written)
               : written < KRV_BASE_FORMS ? static_cast<krv_form_t>(written)
                                          : KRV_BASE_FORMS;
        if (form == KRV_EXT_DW_FORM_implicit_const)
            return nullptr;
    }
    return krv_skip_value(at, end, form, encoding);
}
