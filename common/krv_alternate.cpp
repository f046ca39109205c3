// SPDX-License-Identifier: Apache-2.0
#include "krv_alternate.h"

#include "krv_build.h"
#include "krv_error.h"
#include "krv_info.h"
#include "krv_mem.h"

#include <algorithm>

struct krv_alternate {
    krv_ctu_t *sa_units; // owned: in section order
    size_t sa_size, sa_count;
    krv_die_t *sa_no_die; // owned: in place of the first entry of each, which nobody reads into a record
};

static void free_alternate(krv_alternate *alternate)
{
    for (size_t i = 0; i < alternate->sa_count; ++i)
        if (uint64_t *ranges = alternate->sa_units[i].dcu_aranges; ranges != nullptr)
            krv_free(krv_ranges_list(ranges));
    krv_free_die(alternate->sa_no_die);
    krv_free(alternate->sa_units);
    krv_free(alternate);
}

void krv_alternate_destroy(krv_handle_t *hp)
{
    if (hp->sh_alternate != nullptr)
        free_alternate(hp->sh_alternate);
    hp->sh_alternate = nullptr;
}

// Reads header after header; a damaged one ends the table. NULL: KRV_ERR_NOMEM.
static krv_alternate *read_units(krv_handle_t *hp)
{
    std::unique_ptr<krv_alternate, decltype(&free_alternate)> units(krv_new<krv_alternate>(hp), free_alternate);
    if (units == nullptr)
        return nullptr;
    const uint64_t size = krv_section(hp, KRV_SEC_EXT_ALT_INFO)->sfd_size;
    for (uint64_t offset = 0; offset < size;) {
        krv_ctu_t cu;
        if (krv_info_hdr_read(hp, &cu, KRV_SEC_EXT_ALT_INFO, offset) != 0)
            break;
        offset += cu.dcu_size; // ends within the section, as its header was checked to
        if (!krv_table_grow(hp, &units->sa_units, &units->sa_size, units->sa_count, size_t{8}))
            return nullptr;
        units->sa_units[units->sa_count++] = cu;
    }
    if (hp->sh_errno == KRV_ERR_NOMEM)
        return nullptr;
    if (units->sa_count != 0 && (units->sa_no_die = krv_alloc_no_die(hp, units->sa_units)) == nullptr)
        return nullptr;
    for (size_t i = 0; i < units->sa_count; ++i)
        units->sa_units[i].dcu_compile_unit = units->sa_no_die;
    return units.release();
}

static krv_alternate *get_units(krv_handle_t *hp)
{
    if (krv_alternate *units = krv_load(&hp->sh_alternate))
        return units;
    const krv_build_guard guard(hp);
    if (guard.is_nested()) {
        guard.refuse();
        return nullptr;
    }
    if (hp->sh_alternate == nullptr)
        if (krv_alternate *fresh = read_units(hp))
            krv_store(&hp->sh_alternate, fresh);
    return hp->sh_alternate;
}

krv_ctu_t *krv_alternate_find(krv_handle_t *hp, uint64_t offset)
{
    krv_alternate *alternate = get_units(hp);
    if (alternate == nullptr)
        return nullptr;
    krv_ctu_t *const units = alternate->sa_units, *const last = units + alternate->sa_count;
    krv_ctu_t *behind =
        std::upper_bound(units, last, offset, [](uint64_t o, const krv_ctu_t &cu) { return o < cu.dcu_offset; });
    if (behind == units || offset - behind[-1].dcu_offset >= behind[-1].dcu_size ||
        offset - behind[-1].dcu_offset < behind[-1].dcu_header_size || behind[-1].dcu_kind == 0) {
        krv_fail_code(hp, KRV_ERR_NOTFOUND);
        return nullptr;
    }
    return &behind[-1];
}
