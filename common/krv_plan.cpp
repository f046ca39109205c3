// SPDX-License-Identifier: Apache-2.0
#include "krv_plan.h"

#include "krv_dwarf.h"
#include "krv_mem.h"

namespace
{

constexpr uint8_t kind_of(uint32_t classes)
{
    switch (classes) {
    case KRV_CLASS_ADDRESS:
        return KRV_ATTR_ADDRESS;
    case KRV_CLASS_BLOCK:
        return KRV_ATTR_BLOCK;
    case KRV_CLASS_CONSTANT:
        return KRV_ATTR_CONSTANT;
    case KRV_CLASS_EXPRLOC:
        return KRV_ATTR_EXPRESSION;
    case KRV_CLASS_FLAG:
        return KRV_ATTR_FLAG;
    case KRV_CLASS_REFERENCE:
        return KRV_ATTR_REFERENCE;
    case KRV_CLASS_STRING:
        return KRV_ATTR_STRING;
    default:
        return KRV_ATTR_SECTION;
    }
}

constexpr bool is_text(krv_family_t family)
{
    return family == krv_family_t::string || family == krv_family_t::strp || family == krv_family_t::line_strp ||
           family == krv_family_t::alt_strp;
}

constexpr krv_then then_of(uint8_t code, const krv_form_row_t &row)
{
    switch (code) {
    case KRV_EXT_DW_FORM_loclistx:
        return krv_then::loclist_index;
    case KRV_EXT_DW_FORM_rnglistx:
        return krv_then::rnglist_index;
    case KRV_EXT_DW_FORM_GNU_ref_alt:
    case KRV_EXT_DW_FORM_ref_sup4:
    case KRV_EXT_DW_FORM_ref_sup8:
        return krv_then::in_alternate;
    case DW_FORM_ref1:
    case DW_FORM_ref2:
    case DW_FORM_ref4:
    case DW_FORM_ref8:
        return krv_then::in_unit;
    case DW_FORM_ref_udata:
        return krv_then::in_unit_by_leb128;
    case DW_FORM_addr:
        return krv_then::nothing;
    default:
        break;
    }
    if (row.family == krv_family_t::strp)
        return krv_then::find_string;
    if (row.family == krv_family_t::present)
        return krv_then::is_set;
    if (row.classes == KRV_CLASS_ADDRESS)
        return krv_then::address_index;
    if (row.classes == KRV_CLASS_STRING && !is_text(row.family))
        return krv_then::string_index;
    return row.family == krv_family_t::number || row.family == krv_family_t::opaque ? krv_then::nothing
                                                                                    : krv_then::other;
}

// What a value of each form comes to, but for its width; by code.
using value_table = std::array<krv_plan_value, KRV_ALL_FORMS>;

consteval value_table make_values()
{
    value_table rows{};
    for (size_t code = 0; code < rows.size(); ++code)
        rows[code] = {0,
                      static_cast<uint16_t>(code),
                      kind_of(krv_form_table[code].classes),
                      krv_form_table[code].family,
                      0,
                      then_of(static_cast<uint8_t>(code), krv_form_table[code])};
#define KRV_ROW(name, number, code, ...) rows[code].written = (number);
    KRV_DW_FORM_EXT(KRV_ROW)
#undef KRV_ROW
    rows[DW_FORM_ref_sig8].kind = KRV_ATTR_SIGNATURE;
    return rows;
}

constexpr value_table VALUES = make_values();

} // namespace

krv_plan_value krv_plan_value_of(krv_attribute_t attribute, krv_form_t form, const krv_encoding_t &encoding)
{
    const krv_form_row_t row = krv_form_row(form, encoding.forms);
    krv_plan_value value = VALUES[row.family == krv_family_t::unknown ? 0 : form];
    value.attribute = attribute;
    value.width = row.family == krv_family_t::block ? row.width : static_cast<uint8_t>(krv_form_width(row, encoding));
    return value;
}

static bool is_fixed(krv_family_t family)
{
    switch (family) {
    case krv_family_t::number:
    case krv_family_t::strp:
    case krv_family_t::opaque:
    case krv_family_t::line_strp:
    case krv_family_t::alt_strp:
    case krv_family_t::bytes:
    case krv_family_t::present:
    case krv_family_t::implicit:
        return true;
    default:
        return false;
    }
}

// Fills in how the values of an abbreviation are read, and the steps over them. Returns the number of steps.
static uint32_t plan_values(const krv_abbrev_t *abbrev, const krv_encoding_t &encoding, krv_plan_value *values,
                            krv_plan_step *steps)
{
    uint32_t count = 0;
    krv_plan_step step = {};
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        const krv_afpair_t pair = abbrev->dwa_afpairs[i];
        values[i] = krv_plan_value_of(pair.dwafp_attribute, pair.dwafp_form, encoding);
        if (is_fixed(values[i].family)) {
            step.bytes += values[i].width;
            continue;
        }
        step.form = pair.dwafp_form;
        steps[count++] = step;
        step = {};
    }
    if (step.bytes != 0)
        steps[count++] = step;
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
    const auto count = static_cast<size_t>(au->sau_abbrev_table_entries);
    // At most a step for each pair, and one behind them.
    const uint64_t values = au->sau_afpair_table_entries, steps = values + count;
    // The sizes are of arrays that are in memory.
    const size_t rows_size = sizeof(krv_plan) + count * sizeof(krv_planned_t);
    const size_t steps_size = steps * sizeof(krv_plan_step);
    auto *plan = static_cast<krv_plan *>(krv_alloc(hp, rows_size + steps_size + values * sizeof(krv_plan_value)));
    if (plan == nullptr)
        return nullptr;
    plan->sp_au = au;
    plan->sp_encoding = encoding;
    auto *step = reinterpret_cast<krv_plan_step *>(reinterpret_cast<uint8_t *>(plan) + rows_size);
    auto *value = reinterpret_cast<krv_plan_value *>(reinterpret_cast<uint8_t *>(step) + steps_size);
    for (size_t i = 0; i < count; ++i) {
        krv_planned_t *row = &plan->sp_planned[i];
        const krv_abbrev_t *abbrev = &au->sau_abbrev_table[i];
        *row = {plan, abbrev, step, value, 0, 0, flags_of(abbrev)};
        if (row->flags == KRV_PLAN_TOO_MANY)
            continue;
        row->step_count = plan_values(abbrev, encoding, value, step);
        row->value_count = abbrev->dwa_nafpairs;
        step += row->step_count;
        value += row->value_count;
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

const uint8_t *krv_plan_skip_indirect(const uint8_t *at, const uint8_t *end, const krv_encoding_t &encoding,
                                      krv_form_t *formp)
{
    for (*formp = DW_FORM_indirect; *formp == DW_FORM_indirect;) {
        uint64_t written = 0;
        at = krv_skip_number(at, end, &written);
        if (at == nullptr)
            return nullptr;
        *formp = encoding.is_extended()     ? krv_extended_form(written)
                 : written < KRV_BASE_FORMS ? static_cast<krv_form_t>(written)
                                            : KRV_BASE_FORMS;
    }
    return *formp == KRV_EXT_DW_FORM_implicit_const ? nullptr : at;
}

const uint8_t *krv_plan_skip_form(const uint8_t *at, const uint8_t *end, krv_form_t form,
                                  const krv_encoding_t &encoding)
{
    if (form == DW_FORM_indirect)
        at = krv_plan_skip_indirect(at, end, encoding, &form);
    return at == nullptr ? nullptr : krv_skip_value(at, end, form, encoding);
}
