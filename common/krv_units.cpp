// SPDX-License-Identifier: Apache-2.0
#include "krv_units.h"

#include "krv_abbrev.h"
#include "krv_build.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_hash.h"
#include "krv_info.h"
#include "krv_line.h"
#include "krv_mem.h"

static void free_unit(krv_ctu_t *cu)
{
    if (cu->dcu_lnphp != nullptr)
        krv_lnph_free(cu->dcu_lnphp);
    krv_cu_free(cu);
}

namespace
{

// The table while it is built; frees what was not published.
struct table_builder {
    krv_handle_t *hp;
    krv_ctu_t **units = nullptr;
    uint32_t size = 0, entries = 0;
    krv_hash_t *hash = nullptr;
    uint64_t attributes = 0; // of the units' first entries, which are kept
    uint64_t copied = 0;     // bytes of their strings

    explicit table_builder(krv_handle_t *handle) : hp(handle) {}
    const krv_ctu_t *last() const { return entries == 0 ? nullptr : units[entries - 1]; }
    ~table_builder()
    {
        for (uint32_t i = 0; i < entries; ++i)
            free_unit(units[i]);
        krv_free(units);
        if (hash != nullptr)
            krv_hash_destroy(hash);
    }
    table_builder(const table_builder &) = delete;
    table_builder &operator=(const table_builder &) = delete;
};

} // namespace

// What there is too much of in the units up to this one: attributes without bytes (DW_FORM_flag_present) by the million,
// or copies of strings that units share. NULL: nothing.
static const char *count_unit(table_builder *t, const krv_ctu_t *cu)
{
    const krv_die_t *die = cu->dcu_compile_unit;
    t->attributes += die->dwdie_abbrev_cache->dwa_nafpairs;
    t->copied = krv_add_offset(t->copied, die->dwdie_copied);
    if (t->attributes > t->hp->sh_sec[KRV_SEC_INFO].sfd_size + KRV_KEPT_SLACK)
        return "attributes";
    return krv_may_copy(t->hp, t->copied) ? nullptr : "bytes of strings";
}

// Reads unit after unit until one cannot be read: the end of the section, or a damaged header. Memory that ran out is
// no end: a later query tries again.
static bool read_units(table_builder *t)
{
    uint64_t offset = 0;
    while (krv_ctu_t *cu = krv_cu_alloc(t->hp, KRV_SEC_INFO, offset, t->last())) {
        if (const char *much = count_unit(t, cu)) {
            krv_cu_free(cu);
            krv_fail(t->hp, KRV_ERR_CORRUPT, "too many %s in the units up to offset %lu", much,
                     static_cast<unsigned long>(offset));
            break;
        }
        if (!krv_table_grow(t->hp, &t->units, &t->size, t->entries, 1U)) {
            krv_cu_free(cu);
            krv_note(t->hp, "unable to resize CU table");
            return false;
        }
        t->units[t->entries++] = cu;
        offset += cu->dcu_size; // ends within the section, as its header was checked to
    }
    if (t->hp->sh_errno == KRV_ERR_NOMEM)
        return false;
    if (t->entries == 0 || !krv_table_trim(t->hp, &t->units, &t->size, t->entries)) {
        krv_note(t->hp, "unable to resize CU table");
        return false;
    }
    return true;
}

static bool hash_units(table_builder *t)
{
    t->hash = krv_hash_create(t->hp, t->entries, KRV_HASH_UINT64);
    if (t->hash == nullptr) {
        krv_note(t->hp, "unable to create CU lookup hash");
        return false;
    }
    for (uint32_t i = 0; i < t->entries; ++i) {
        const krv_hash_key_t key = {.dwhk_u = t->units[i]->dcu_offset};
        if (krv_hash_insert(t->hp, t->hash, &key, t->units[i]) != t->units[i]) {
            krv_note(t->hp, "error hashing offset");
            return false;
        }
    }
    return true;
}

int krv_lookup_build_cu_caches(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    if (krv_load(&hp->sh_cu_table) != nullptr)
        return 0;
    table_builder t(hp);
    const krv_build_guard guard(hp);
    if (guard.is_nested())
        return guard.refuse();
    if (hp->sh_cu_table != nullptr)
        return 0;
    if (!read_units(&t) || !hash_units(&t))
        return -1;
    hp->sh_cu_table_entries = t.entries;
    hp->sh_cu_offset_hash = t.hash;
    krv_store(&hp->sh_cu_table, t.units); // last: who sees the table sees its count and hash
    t.units = nullptr;
    t.entries = 0;
    t.hash = nullptr;
    return 0;
}

// A section that was replaced.
struct krv_retired {
    krv_retired *next;
    char bytes[];
};

void krv_lookup_destroy_cu_caches(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    table_builder t(hp);
    t.units = hp->sh_cu_table;
    t.entries = hp->sh_cu_table_entries;
    t.hash = hp->sh_cu_offset_hash;
    hp->sh_cu_table = nullptr;
    hp->sh_cu_table_entries = 0;
    hp->sh_cu_offset_hash = nullptr;
    for (krv_retired *section = hp->sh_retired, *next; section != nullptr; section = next) {
        next = section->next;
        krv_free(section);
    }
    hp->sh_retired = nullptr;
}

static int parse_checked_tables(krv_handle_t *hp)
{
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        if (krv_cu_abbrevs(hp, hp->sh_cu_table[i]) == nullptr && hp->sh_errno == KRV_ERR_NOMEM)
            return -1;
    return krv_abbrev_forget_checks(hp);
}

// Moves the strings of the units from a section in memory into a copy of it.
static int keep_strings(krv_handle_t *hp, const krv_fd_t *section)
{
    if (hp->sh_cu_table_entries == 0)
        return 0;
    auto *copy = static_cast<krv_retired *>(krv_alloc(hp, krv_add_offset(sizeof(krv_retired) + 1, section->sfd_size)));
    if (copy == nullptr)
        return -1;
    std::memcpy(copy->bytes, section->sfd_u.buf, section->sfd_size);
    copy->bytes[section->sfd_size] = '\0'; // whatever has become of the string at its end
    copy->next = hp->sh_retired;
    hp->sh_retired = copy;
    const auto from = reinterpret_cast<uintptr_t>(section->sfd_u.buf);
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        krv_cu_visit_strings(hp->sh_cu_table[i], [&](char **text) {
            const uintptr_t offset = reinterpret_cast<uintptr_t>(*text) - from;
            if (offset < section->sfd_size)
                *text = copy->bytes + offset;
        });
    return 0;
}

int krv_units_keep_section(krv_handle_t *hp, krv_secidx_t sec)
{
    const krv_fd_t *section = krv_section(hp, sec);
    if (section->sfd_size == 0 || krv_fd_is_cb(section))
        return 0;
    int result = 0;
    if (sec == KRV_SEC_ABBREV)
        result = parse_checked_tables(hp);
    else if (sec == KRV_SEC_INFO || sec == KRV_SEC_STR || sec == KRV_SEC_EXT_LINE_STR || sec == KRV_SEC_EXT_ALT_STR)
        result = keep_strings(hp, section);
    if (result == 0)
        krv_clear_error(hp);
    return result;
}

krv_ctu_t *korva_lookup_ctu_by_start_offset(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    if (krv_cu_check_section(hp, sec) != 0 || krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    const krv_hash_key_t key = {.dwhk_u = offset};
    return static_cast<krv_ctu_t *>(krv_hash_lookup(hp, hp->sh_cu_offset_hash, &key));
}

int korva_iter_cu(krv_handle_t *hp, krv_secidx_t sec, krv_iter_cu_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (fn == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (krv_cu_check_section(hp, sec) != 0 || krv_lookup_build_cu_caches(hp) != 0)
        return -1;
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        if (const int result = fn(hp, hp->sh_cu_table[i], arg))
            return result;
    return 0;
}
