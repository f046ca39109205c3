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
        return krv_then::in_unit;
    case DW_FORM_ref8:
    case DW_FORM_ref_udata:
        return krv_then::in_unit_by_wide_number;
    case DW_FORM_block1:
    case DW_FORM_block:
    case DW_FORM_exprloc:
        return krv_then::small_block;
    case DW_FORM_string:
        return krv_then::text;
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

using value_rows = std::array<krv_value_row, KRV_ALL_FORMS>;

consteval value_rows make_rows(const krv_encoding_t &encoding)
{
    value_rows rows{};
    for (size_t code = 0; code < rows.size(); ++code) {
        const krv_form_row_t form = krv_form_table[code];
        const size_t width = form.family == krv_family_t::block ? form.width : krv_form_width(form, encoding);
        rows[code] = {static_cast<uint16_t>(code),
                      kind_of(form.classes),
                      form.family == krv_family_t::implicit || form.family == krv_family_t::sleb128,
                      form.family,
                      static_cast<uint8_t>(width),
                      static_cast<uint8_t>((64 - 8 * width) % 64),
                      then_of(static_cast<uint8_t>(code), form)};
    }
#define KRV_ROW(name, number, code, ...) rows[code].written = (number);
    KRV_DW_FORM_EXT(KRV_ROW)
#undef KRV_ROW
    rows[DW_FORM_ref_sig8].kind = KRV_ATTR_SIGNATURE;
    return rows;
}

// Which of its encodings a value's width depends on, as a number. Versions from 3 on differ in no width.
constexpr size_t MANNERS = 8;
constexpr size_t manner_of(const krv_encoding_t &encoding)
{
    return (encoding.is_dwarf64 ? 1U : 0U) + (encoding.version == 2 ? 2U : 0U) + (encoding.address_size == 4 ? 4U : 0U);
}

consteval std::array<value_rows, MANNERS> make_all_rows()
{
    std::array<value_rows, MANNERS> all{};
    for (const bool is_dwarf64 : {false, true})
        for (const uint16_t version : {uint16_t{2}, uint16_t{4}})
            for (const uint8_t address_size : {uint8_t{4}, uint8_t{8}}) {
                const krv_encoding_t encoding = {is_dwarf64, address_size, version, KRV_ALL_FORMS};
                all[manner_of(encoding)] = make_rows(encoding);
            }
    return all;
}

constexpr std::array<value_rows, MANNERS> ROWS = make_all_rows();

} // namespace

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

static_assert(KRV_MOST_ATTRIBUTES * 16 <= UINT16_MAX, "a step's bytes");

// Fills in the row of an abbreviation, and its steps. Returns what follows them.
static krv_plan_step *plan_abbrev(const krv_plan *plan, const krv_abbrev_t &abbrev, krv_plan_step *steps,
                                  krv_planned_t *planned)
{
    *planned = {plan, abbrev.dwa_afpairs, steps, 0, 0, abbrev.dwa_tag, 0};
    if ((abbrev.dwa_flags & KRV_ABBREV_FLAG_PARENT) != 0)
        planned->flags |= KRV_PLAN_PARENT;
    if (abbrev.dwa_nafpairs > KRV_MOST_ATTRIBUTES) {
        planned->flags |= KRV_PLAN_TOO_MANY;
        return steps;
    }
    planned->pair_count = static_cast<uint16_t>(abbrev.dwa_nafpairs);
    krv_plan_step step = {};
    for (const krv_afpair_t *pair = planned->pairs, *const end = pair + planned->pair_count; pair != end; ++pair) {
        if (pair->dwafp_attribute == DW_AT_low_pc || pair->dwafp_attribute == DW_AT_ranges)
            planned->flags |= KRV_PLAN_CODE;
        const krv_value_row &row = plan->row(pair->dwafp_form);
        if (is_fixed(row.family)) {
            step.bytes = static_cast<uint16_t>(step.bytes + row.width);
            continue;
        }
        step.form = pair->dwafp_form;
        *steps++ = step;
        step = {};
    }
    if (step.bytes != 0)
        *steps++ = step;
    planned->step_count = static_cast<uint16_t>(steps - planned->steps);
    return steps;
}

static krv_plan *make_plan(krv_handle_t *hp, krv_au_t *au, const krv_encoding_t &encoding)
{
    const auto count = static_cast<size_t>(au->sau_abbrev_table_entries);
    const krv_plan like = {au, ROWS[manner_of(encoding)].data(), encoding};
    // At most a step for each pair, and one behind them. The sizes are of arrays that are in memory.
    const size_t rows_size = sizeof(krv_plan) + count * sizeof(krv_planned_t);
    const size_t steps_size = (au->sau_afpair_table_entries + count) * sizeof(krv_plan_step);
    auto *plan = static_cast<krv_plan *>(krv_alloc(hp, rows_size + steps_size));
    if (plan == nullptr)
        return nullptr;
    *plan = like;
    auto *step = reinterpret_cast<krv_plan_step *>(reinterpret_cast<uint8_t *>(plan) + rows_size);
    for (size_t i = 0; i < count; ++i)
        step = plan_abbrev(plan, au->sau_abbrev_table[i], step, &plan->sp_planned[i]);
    return plan;
}

const krv_plan *krv_cu_plan(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_au_t *au = krv_cu_abbrevs(hp, cu);
    if (au == nullptr)
        return nullptr;
    const krv_encoding_t encoding = krv_cu_encoding(hp, cu);
    krv_plan **slot =
        &au->sau_plans[manner_of(encoding) % std::size(au->sau_plans)]; // addresses of a handle have one width
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
