// SPDX-License-Identifier: Apache-2.0
#include "krv_signature.h"

#include "krv_error.h"
#include "krv_mem.h"
#include "krv_side_units.h"
#include "krv_units.h"

#include <algorithm>

namespace
{

struct type_unit {
    uint64_t signature;
    krv_ctu_t *unit;
};

} // namespace

struct krv_signatures {
    type_unit *ss_types; // owned: by signature, those of .debug_info first
    size_t ss_size, ss_count;
};

static void free_signatures(krv_signatures *signatures)
{
    krv_free(signatures->ss_types);
    krv_free(signatures);
}

void krv_signatures_destroy(krv_handle_t *hp)
{
    if (krv_signatures *signatures = krv_take(&hp->sh_signatures))
        free_signatures(signatures);
}

static bool add(krv_handle_t *hp, krv_signatures *to, krv_ctu_t *cu)
{
    if (!krv_table_grow(hp, &to->ss_types, &to->ss_size, to->ss_count, size_t{16}))
        return false;
    to->ss_types[to->ss_count++] = {cu->dcu_type_signature, cu};
    return true;
}

static const krv_signatures *get_signatures(krv_handle_t *hp)
{
    if (const krv_signatures *known = krv_load(&hp->sh_signatures))
        return known;
    if (krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    const krv_side_units *side = krv_side_units_get(hp, KRV_SEC_TYPES);
    std::unique_ptr<krv_signatures, decltype(&free_signatures)> fresh(krv_new<krv_signatures>(hp), free_signatures);
    if (side == nullptr || fresh == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        if (hp->sh_cu_table[i]->dcu_kind == KRV_UNIT_TYPE && !add(hp, fresh.get(), hp->sh_cu_table[i]))
            return nullptr;
    for (size_t i = 0; i < side->su_count; ++i)
        if (!add(hp, fresh.get(), &side->su_units[i]))
            return nullptr;
    std::stable_sort(fresh->ss_types, fresh->ss_types + fresh->ss_count,
                     [](const type_unit &a, const type_unit &b) { return a.signature < b.signature; });
    return krv_publish(&hp->sh_signatures, fresh.release(), free_signatures);
}

int krv_signature_seek(krv_handle_t *hp, uint64_t signature, krv_entry_t *to)
{
    const krv_signatures *signatures = get_signatures(hp);
    if (signatures == nullptr)
        return -1;
    const type_unit *const last = signatures->ss_types + signatures->ss_count;
    const type_unit *found = std::lower_bound(signatures->ss_types, const_cast<type_unit *>(last), signature,
                                              [](const type_unit &a, uint64_t wanted) { return a.signature < wanted; });
    if (found == last || found->signature != signature)
        return krv_fail(hp, KRV_ERR_NOTFOUND, "no type unit has the signature 0x%lx",
                        static_cast<unsigned long>(signature));
    krv_ctu_t *cu = found->unit;
    if (cu->dcu_type_offset < cu->dcu_header_size || cu->dcu_type_offset >= cu->dcu_size)
        return krv_fail(hp, KRV_ERR_CORRUPT, "type of the signature 0x%lx leads out of its unit",
                        static_cast<unsigned long>(signature));
    return krv_entry_load_at(hp, cu, cu->dcu_offset + cu->dcu_type_offset, to);
}
