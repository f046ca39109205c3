// SPDX-License-Identifier: Apache-2.0
#include "krv_side_units.h"

#include "krv_budget.h"
#include "krv_build.h"
#include "krv_error.h"
#include "krv_info.h"
#include "krv_mem.h"

#include <algorithm>

static void free_units(krv_side_units *units)
{
    for (size_t i = 0; i < units->su_count; ++i)
        if (uint64_t *ranges = units->su_units[i].dcu_aranges; ranges != nullptr)
            krv_free(krv_ranges_list(ranges));
    krv_free_die(units->su_no_die);
    krv_free(units->su_units);
    krv_free(units);
}

static krv_side_units **slot_of(krv_handle_t *hp, krv_secidx_t sec)
{
    return sec == KRV_SEC_TYPES ? &hp->sh_type_units : &hp->sh_alternate;
}

void krv_side_units_destroy(krv_handle_t *hp)
{
    for (krv_side_units **slot : {&hp->sh_type_units, &hp->sh_alternate})
        if (krv_side_units *units = krv_take(slot))
            free_units(units);
}

// Reads header after header; a damaged one ends the table. NULL: KRV_ERR_NOMEM.
static krv_side_units *read_units(krv_handle_t *hp, krv_secidx_t sec)
{
    std::unique_ptr<krv_side_units, decltype(&free_units)> units(krv_new<krv_side_units>(hp), free_units);
    if (units == nullptr)
        return nullptr;
    const uint64_t size = krv_section(hp, sec)->sfd_size;
    for (uint64_t offset = 0; offset < size;) {
        krv_ctu_t cu;
        if (!krv_spend(hp, 1) || krv_info_hdr_read(hp, &cu, sec, offset) != 0)
            break;
        offset += cu.dcu_size; // ends within the section, as its header was checked to
        if (!krv_table_grow(hp, &units->su_units, &units->su_size, units->su_count, size_t{8}))
            return nullptr;
        units->su_units[units->su_count++] = cu;
    }
    if (krv_ran_out(hp))
        return nullptr;
    if (units->su_count != 0 && (units->su_no_die = krv_alloc_no_die(hp, units->su_units)) == nullptr)
        return nullptr;
    for (size_t i = 0; i < units->su_count; ++i)
        units->su_units[i].dcu_compile_unit = units->su_no_die;
    return units.release();
}

const krv_side_units *krv_side_units_get(krv_handle_t *hp, krv_secidx_t sec)
{
    krv_side_units **slot = slot_of(hp, sec);
    if (const krv_side_units *units = krv_load(slot))
        return units;
    const krv_build_guard guard(hp);
    if (guard.is_nested()) {
        guard.refuse();
        return nullptr;
    }
    if (*slot == nullptr)
        if (krv_side_units *fresh = read_units(hp, sec))
            krv_store(slot, fresh);
    return *slot;
}

krv_ctu_t *krv_side_units_find(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset)
{
    const krv_side_units *side = krv_side_units_get(hp, sec);
    if (side == nullptr)
        return nullptr;
    krv_ctu_t *const units = side->su_units, *const last = units + side->su_count;
    krv_ctu_t *behind =
        std::upper_bound(units, last, offset, [](uint64_t o, const krv_ctu_t &cu) { return o < cu.dcu_offset; });
    if (behind == units || offset - behind[-1].dcu_offset >= behind[-1].dcu_size ||
        offset - behind[-1].dcu_offset < behind[-1].dcu_header_size || behind[-1].dcu_kind == 0) {
        krv_fail_code(hp, KRV_ERR_NOTFOUND);
        return nullptr;
    }
    return &behind[-1];
}
