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
    uint16_t bytes;  // to pass
    krv_form_t form; // and then a value of this form; 0: none
};

// What has to be done for a value, the commonest first; up to `text` krv_entry_attr.cpp reads it in a loop of its own.
enum class krv_then : uint8_t {
    nothing,     // it is a number, which says it all
    in_unit,     // a narrow number that counts from the unit
    find_string, // in .debug_str
    is_set,
    small_block, // whose length mostly takes a byte
    text,
    other, // what was read is no number
    in_unit_by_wide_number,
    string_index,
    address_index,
    rnglist_index,
    loclist_index,
    in_alternate
};

// How a value of a form is read, and what it then stands for.
struct krv_value_row {
    uint16_t written;  // the form's number
    uint8_t kind;      // KRV_ATTR_*
    uint8_t is_signed; // whether the form extends numbers by their sign
    krv_family_t family;
    uint8_t width;  // of a number or an offset; of a block's length
    uint8_t unused; // bits of 8 bytes that are not the value's
    krv_then then;
};

enum krv_plan_flag_t : uint8_t {
    KRV_PLAN_CODE = 1,     // entries say where their code is
    KRV_PLAN_TOO_MANY = 2, // more than KRV_MOST_ATTRIBUTES: no entry is read
    KRV_PLAN_PARENT = 4,   // entries have children
};

// One abbreviation, as far as stepping over entries needs it.
struct krv_planned_t {
    const krv_plan *plan;
    const krv_afpair_t *pairs;
    const krv_plan_step *steps;
    uint16_t step_count, pair_count;
    krv_tag_t tag;
    uint8_t flags; // krv_plan_flag_t

    bool has_children() const { return (flags & KRV_PLAN_PARENT) != 0; }
    bool has_code() const { return (flags & KRV_PLAN_CODE) != 0; }
    inline const krv_abbrev_t *abbrev() const;
};

// Those of a table, in its order; the steps are behind them, in the same allocation.
struct krv_plan {
    krv_au_t *sp_au;
    const krv_value_row *sp_rows; // by form
    krv_encoding_t sp_encoding;
    krv_planned_t sp_planned[];

    // An unknown form has the family `unknown`.
    const krv_value_row &row(krv_form_t form) const { return sp_rows[form < sp_encoding.forms ? form : 0]; }
};

inline const krv_abbrev_t *krv_planned_t::abbrev() const
{
    const krv_planned_t *const row = this;
    return &plan->sp_au->sau_abbrev_table[row - plan->sp_planned];
}

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
