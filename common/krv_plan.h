// SPDX-License-Identifier: Apache-2.0
//
// How the entries of an abbreviation table are stepped over. Most values are of a fixed width: what stands between those
// that are not is one step, however many values it has. Made for a table and a format when entries are first walked.
#ifndef KRV_PLAN_H
#define KRV_PLAN_H

#include "krv_abbrev.h"
#include "krv_form.h"
#include "krv_info.h"
#include "krv_skip.h"

constexpr uint32_t KRV_MOST_ATTRIBUTES = 256; // of an entry that is walked; compilers write a tenth

struct krv_plan_step {
    uint32_t bytes;  // to pass
    krv_form_t form; // and then a value of this form; 0: none
};

// What has to be done to a number that was read, the commonest first; `other`: what was read is none.
enum class krv_then : uint8_t {
    nothing,
    in_unit,
    find_string, // in .debug_str
    is_set,
    other,
    in_unit_by_leb128,
    string_index,
    address_index,
    rnglist_index,
    loclist_index,
    in_alternate
};

// How a value is read, and what it then stands for.
struct krv_plan_value {
    krv_attribute_t attribute;
    uint16_t written; // the form's number
    uint8_t kind;     // KRV_ATTR_*
    krv_family_t family;
    uint8_t width; // of a number or an offset; of a block's length
    krv_then then;
};

enum krv_plan_flag_t : uint8_t {
    KRV_PLAN_CODE = 1,     // entries say where their code is
    KRV_PLAN_TOO_MANY = 2, // more than KRV_MOST_ATTRIBUTES: no entry is read
};

// One abbreviation.
struct krv_planned_t {
    const krv_plan *plan;
    const krv_abbrev_t *abbrev;
    const krv_plan_step *steps;
    const krv_plan_value *values;
    uint32_t step_count, value_count;
    uint8_t flags; // krv_plan_flag_t

    bool has_children() const { return (abbrev->dwa_flags & KRV_ABBREV_FLAG_PARENT) != 0; }
    bool has_code() const { return (flags & KRV_PLAN_CODE) != 0; }
};

// Those of a table, in its order; the steps are behind them, in the same allocation.
struct krv_plan {
    krv_au_t *sp_au;
    krv_encoding_t sp_encoding;
    krv_planned_t sp_planned[];
};

// How a value of a form is read; an unknown form has the family `unknown`.
krv_plan_value krv_plan_value_of(krv_attribute_t attribute, krv_form_t form, const krv_encoding_t &encoding);

// The plan of a unit's entries; it lives as its abbreviation table does. NULL on failure.
const krv_plan *krv_cu_plan(krv_handle_t *hp, krv_ctu_t *cu);

// The row of an abbreviation code. NULL: the table does not have it, KRV_ERR_CORRUPT.
const krv_planned_t *krv_plan_find_other(krv_handle_t *hp, const krv_plan *plan, uint64_t code);
inline const krv_planned_t *krv_plan_find(krv_handle_t *hp, const krv_plan *plan, uint64_t code)
{
    const bool is_index = plan->sp_au->sau_by_code == nullptr && code - 1 < plan->sp_au->sau_abbrev_table_entries;
    return is_index ? &plan->sp_planned[code - 1] : krv_plan_find_other(hp, plan, code);
}

// What follows the codes that stand behind DW_FORM_indirect, and the form that they lead to; NULL: cut off, or a form that has no
// value there.
const uint8_t *krv_plan_skip_indirect(const uint8_t *at, const uint8_t *end, const krv_encoding_t &encoding,
                                      krv_form_t *formp);

// What follows a value whose form may be DW_FORM_indirect.
const uint8_t *krv_plan_skip_form(const uint8_t *at, const uint8_t *end, krv_form_t form,
                                  const krv_encoding_t &encoding);

// What follows all values of an entry; NULL: they are cut off, or some cannot be read.
inline const uint8_t *krv_plan_skip(const krv_planned_t *planned, const uint8_t *at, const uint8_t *end,
                                    const krv_encoding_t &encoding)
{
    const krv_plan_step *step = planned->steps, *const last = step + planned->step_count;
    for (; step != last; ++step) {
        at = krv_skip_bytes(at, end, step->bytes);
        if (at != nullptr && step->form != 0)
            at = krv_plan_skip_form(at, end, step->form, encoding);
        if (at == nullptr)
            return nullptr;
    }
    return at;
}

#endif
