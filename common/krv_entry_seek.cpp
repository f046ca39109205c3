// SPDX-License-Identifier: Apache-2.0
#include "krv_entry_seek.h"

#include "krv_error.h"
#include "krv_ext.h"
#include "krv_side_units.h"
#include "krv_signature.h"
#include "krv_units.h"

#include <algorithm>

// The unit whose entries an offset of the section lies among, or NULL.
static krv_ctu_t *find_unit(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset)
{
    if (sec == KRV_SEC_EXT_ALT_INFO)
        return krv_side_units_find(hp, sec, offset);
    if (sec != KRV_SEC_INFO) {
        krv_fail(hp, KRV_ERR_INVALID, "invalid section (%d)", sec);
        return nullptr;
    }
    if (krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    krv_ctu_t **const units = hp->sh_cu_table, **const last = units + hp->sh_cu_table_entries;
    krv_ctu_t **behind =
        std::upper_bound(units, last, offset, [](uint64_t o, const krv_ctu_t *cu) { return o < cu->dcu_offset; });
    if (behind == units || offset - behind[-1]->dcu_offset >= behind[-1]->dcu_size ||
        offset - behind[-1]->dcu_offset < behind[-1]->dcu_header_size) {
        krv_fail_code(hp, KRV_ERR_NOTFOUND);
        return nullptr;
    }
    return behind[-1];
}

int krv_entry_seek(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, krv_entry_t *entry)
{
    krv_ctu_t *cu = find_unit(hp, sec, offset);
    return cu == nullptr ? -1 : krv_entry_load_at(hp, cu, offset, entry);
}

int krv_entry_follow(krv_handle_t *hp, const krv_entry_t *entry, const krv_attr_t *attr, krv_entry_t *to)
{
    if (attr->kind == KRV_ATTR_SIGNATURE)
        return krv_signature_seek(hp, attr->number, to);
    if (attr->kind != KRV_ATTR_REFERENCE)
        return krv_fail(hp, KRV_ERR_INVALID, "attribute 0x%x is no reference", attr->attribute);
    krv_ctu_t *cu = entry->unit;
    const bool is_here = attr->is_alternate == entry->is_alternate && attr->number >= cu->dcu_offset &&
                         attr->number - cu->dcu_offset < cu->dcu_size &&
                         attr->number - cu->dcu_offset >= cu->dcu_header_size;
    const krv_secidx_t sec = attr->is_alternate ? krv_secidx_t{KRV_SEC_EXT_ALT_INFO} : krv_secidx_t{KRV_SEC_INFO};
    return is_here ? krv_entry_load_at(hp, cu, attr->number, to) : krv_entry_seek(hp, sec, attr->number, to);
}

int korva_entry_at(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, krv_entry_t *entryp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return krv_entry_seek(hp, sec, offset, entryp);
}

int korva_entry_follow(krv_handle_t *hp, const krv_entry_t *entryp, const krv_attr_t *attrp, krv_entry_t *top)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || attrp == nullptr || top == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return krv_entry_follow(hp, entryp, attrp, top);
}
