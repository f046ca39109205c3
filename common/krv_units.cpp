// SPDX-License-Identifier: Apache-2.0
#include "krv_units.h"

#include "krv_abbrev.h"
#include "krv_budget.h"
#include "krv_build.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_hash.h"
#include "krv_info.h"
#include "krv_line.h"
#include "krv_mem.h"
#include "krv_peek.h"
#include "krv_search.h"
#include "krv_synch.h"

#include <memory>

static krv_ctu_t no_unit; // in place of one that a set names and that cannot be read

static void free_unit(krv_ctu_t *cu)
{
    if (cu->dcu_lnphp != nullptr)
        krv_lnph_free(cu->dcu_lnphp);
    krv_cu_free(cu);
}

// The unit that was made at this offset before the table, or NULL. It belongs to its set until a table has it.
static krv_ctu_t *find_made(const krv_handle_t *hp, uint64_t offset)
{
    if (hp->sh_sets == nullptr)
        return nullptr;
    const krv_set_t *set = krv_sets_find(hp->sh_sets, offset);
    return set == nullptr || set->set_made == &no_unit ? nullptr : set->set_made;
}

namespace
{

// The table while it is built; frees what was not published.
struct table_builder {
    krv_handle_t *hp;
    krv_ctu_t **units = nullptr;
    uint32_t size = 0, entries = 0;
    krv_kept_t kept = {};
    krv_peek_t peek = {};

    explicit table_builder(krv_handle_t *handle) : hp(handle) {}
    const krv_ctu_t *last() const { return entries == 0 ? nullptr : units[entries - 1]; }
    krv_ctu_t *unit_at(uint64_t offset)
    {
        krv_ctu_t *made = find_made(hp, offset);
        return made != nullptr ? made : krv_cu_alloc(hp, KRV_SEC_INFO, offset, last(), &peek);
    }
    void drop(krv_ctu_t *cu) const
    {
        if (cu != find_made(hp, cu->dcu_offset))
            free_unit(cu);
    }
    ~table_builder()
    {
        for (uint32_t i = 0; i < entries; ++i)
            drop(units[i]);
        krv_free(units);
    }
    table_builder(const table_builder &) = delete;
    table_builder &operator=(const table_builder &) = delete;
};

struct hash_deleter {
    void operator()(krv_hash_t *hash) const { krv_hash_destroy(hash); }
};

} // namespace

// What there is too much of in the units up to this one: attributes without bytes (DW_FORM_flag_present) by the million,
// or copies of strings that units share. NULL: nothing.
[[gnu::always_inline]] static inline const char *count_unit(const krv_handle_t *hp, krv_kept_t *kept,
                                                            const krv_ctu_t *cu)
{
    const krv_die_t *die = cu->dcu_compile_unit;
    kept->attributes += die->dwdie_abbrev_cache->dwa_nafpairs;
    kept->copied = krv_add_offset(kept->copied, die->dwdie_copied);
    if (kept->attributes > hp->sh_sec[KRV_SEC_INFO].sfd_size + KRV_KEPT_SLACK)
        return "attributes";
    return krv_may_copy(hp, kept->copied) ? nullptr : "bytes of strings";
}

// Reads unit after unit until one cannot be read: the end of the section, or a damaged header. Memory that ran out is
// no end: a later query tries again.
static bool read_units(table_builder *t)
{
    uint64_t offset = 0;
    while (krv_ctu_t *cu = t->unit_at(offset)) {
        if (!krv_spend(t->hp, cu->dcu_header_size)) {
            t->drop(cu);
            return false;
        }
        if (const char *much = count_unit(t->hp, &t->kept, cu)) {
            t->drop(cu);
            krv_fail(t->hp, KRV_ERR_CORRUPT, "too many %s in the units up to offset %lu", much,
                     static_cast<unsigned long>(offset));
            break;
        }
        if (!krv_table_grow(t->hp, &t->units, &t->size, t->entries, 1U)) {
            t->drop(cu);
            krv_note(t->hp, "unable to resize CU table");
            return false;
        }
        t->units[t->entries++] = cu;
        offset += cu->dcu_size; // ends within the section, as its header was checked to
    }
    if (krv_ran_out(t->hp))
        return false;
    if (t->hp->sh_ext != 0 && t->entries != 0 && offset < t->hp->sh_sec[KRV_SEC_INFO].sfd_size)
        krv_tell(t->hp, KRV_SEC_INFO, offset, true, ".debug_info cannot be read from offset 0x%lx on: %s",
                 static_cast<unsigned long>(offset), krv_cause(t->hp).text);
    if (t->entries == 0 || !krv_table_trim(t->hp, &t->units, &t->size, t->entries)) {
        krv_note(t->hp, "unable to resize CU table");
        return false;
    }
    return true;
}

int krv_lookup_build_cu_caches(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    if (krv_load(&hp->sh_cu_table) != nullptr)
        return 0;
    const krv_build_guard guard(hp); // also while what was not published is freed
    table_builder t(hp);
    if (guard.is_nested())
        return guard.refuse();
    if (hp->sh_cu_table != nullptr)
        return 0;
    if (!read_units(&t))
        return -1;
    hp->sh_cu_table_entries = t.entries;
    krv_store(&hp->sh_cu_table, t.units); // last: who sees the table sees its count
    t.units = nullptr;
    t.entries = 0;
    return 0;
}

static krv_hash_t *hash_units(krv_handle_t *hp)
{
    std::unique_ptr<krv_hash_t, hash_deleter> hash(krv_hash_create(hp, hp->sh_cu_table_entries, KRV_HASH_UINT64));
    if (hash == nullptr) {
        krv_note(hp, "unable to create CU lookup hash");
        return nullptr;
    }
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i) {
        krv_ctu_t *cu = hp->sh_cu_table[i];
        const krv_hash_key_t key = {.dwhk_u = cu->dcu_offset};
        if (krv_hash_insert(hp, hash.get(), &key, cu) != cu) {
            krv_note(hp, "error hashing offset");
            return nullptr;
        }
    }
    return hash.release();
}

// Units of the table by their start offsets: for the first who asks, since most never do. NULL: messages pushed.
static krv_hash_t *get_hash(krv_handle_t *hp)
{
    if (krv_hash_t *hash = krv_load(&hp->sh_cu_offset_hash))
        return hash;
    krv_hash_t *fresh = hash_units(hp);
    return fresh == nullptr ? nullptr : krv_publish(&hp->sh_cu_offset_hash, fresh, krv_hash_destroy);
}

// The table's unit at this offset, or NULL, without the hash.
static krv_ctu_t *find_in_table(const krv_handle_t *hp, uint64_t offset)
{
    const auto start = [](const krv_ctu_t *cu) { return cu->dcu_offset; };
    const size_t count = krv_count_not_above(hp->sh_cu_table, hp->sh_cu_table_entries, offset, start);
    krv_ctu_t *cu = count == 0 ? nullptr : hp->sh_cu_table[count - 1];
    return cu != nullptr && cu->dcu_offset == offset ? cu : nullptr;
}

// ---------------------------------------------------------------------------------------------------------------
// Units that sets name
// ---------------------------------------------------------------------------------------------------------------

// Reads the unit by itself, or takes it from the table. NULL: as krv_units_get_named.
static krv_ctu_t *make_named(krv_handle_t *hp, const krv_set_t *set)
{
    if (krv_ctu_t *unit = find_in_table(hp, set->set_unit))
        return unit;
    krv_sets *sets = hp->sh_sets;
    krv_peek_t peek;
    krv_ctu_t *cu = krv_cu_alloc(hp, KRV_SEC_INFO, set->set_unit, sets->ss_latest, &peek);
    if (cu == nullptr)
        return nullptr;
    if (const char *much = count_unit(hp, &sets->ss_kept, cu)) {
        krv_cu_free(cu);
        krv_fail(hp, KRV_ERR_CORRUPT, "too many %s in the units that .debug_aranges names", much);
        return nullptr;
    }
    sets->ss_latest = cu;
    return cu;
}

krv_ctu_t *krv_units_get_named(krv_handle_t *hp, krv_set_t *set)
{
    krv_ctu_t *cu = krv_load(&set->set_made);
    if (cu == nullptr) {
        const krv_build_guard guard(hp);
        if (guard.is_nested()) {
            guard.refuse();
            return nullptr;
        }
        cu = set->set_made == nullptr ? make_named(hp, set) : set->set_made;
        if (cu == nullptr) {
            if (krv_is_passing(hp))
                return nullptr;
            krv_tell(hp, KRV_SEC_ARANGES, set->set_offset, true,
                     "set at offset 0x%lx of .debug_aranges names no unit that can be read: %s",
                     static_cast<unsigned long>(set->set_offset), krv_cause(hp).text);
            cu = &no_unit;
        }
        krv_clear_error(hp);
        krv_store(&set->set_made, cu);
    }
    if (cu != &no_unit && cu->dcu_kind != 0)
        return cu;
    krv_errno(hp) = KRV_ERR_NOTFOUND;
    return nullptr;
}

// Frees those that the table does not have.
static void free_named(krv_handle_t *hp)
{
    krv_sets *sets = hp->sh_sets;
    for (uint32_t i = 0; sets != nullptr && i < sets->ss_entries; ++i) {
        krv_ctu_t *cu = sets->ss_sets[i].set_made;
        if (cu != nullptr && cu != &no_unit && find_in_table(hp, cu->dcu_offset) != cu)
            free_unit(cu);
    }
    krv_sets_destroy(hp);
}

// A section that was replaced.
struct krv_retired {
    krv_retired *next;
    char bytes[];
};

void krv_lookup_destroy_cu_caches(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    free_named(hp);
    table_builder t(hp);
    t.units = hp->sh_cu_table;
    t.entries = hp->sh_cu_table_entries;
    hp->sh_cu_table = nullptr;
    hp->sh_cu_table_entries = 0;
    if (hp->sh_cu_offset_hash != nullptr)
        krv_hash_destroy(hp->sh_cu_offset_hash);
    hp->sh_cu_offset_hash = nullptr;
    for (krv_retired *section = hp->sh_retired, *next; section != nullptr; section = next) {
        next = section->next;
        krv_free(section);
    }
    hp->sh_retired = nullptr;
}

// Calls visit(unit) for each unit that was read; for one that a set names and the table has, twice.
template <typename Visit>
static void visit_units(krv_handle_t *hp, const Visit &visit)
{
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        visit(hp->sh_cu_table[i]);
    for (uint32_t i = 0; hp->sh_sets != nullptr && i < hp->sh_sets->ss_entries; ++i)
        if (krv_ctu_t *cu = hp->sh_sets->ss_sets[i].set_made; cu != nullptr && cu != &no_unit)
            visit(cu);
}

static int parse_checked_tables(krv_handle_t *hp)
{
    bool sound = true;
    visit_units(hp, [&](krv_ctu_t *cu) {
        sound = sound && (krv_cu_abbrevs(hp, cu) != nullptr || !krv_ran_out(hp));
        cu->dcu_abbrev_size = 0; // whose bytes are no longer there to compare with
    });
    return sound ? krv_abbrev_forget_checks(hp) : -1;
}

// Moves the strings of the units from a section in memory into a copy of it.
static int keep_strings(krv_handle_t *hp, const krv_fd_t *section)
{
    if (hp->sh_cu_table_entries == 0 && hp->sh_sets == nullptr)
        return 0;
    auto *copy = static_cast<krv_retired *>(krv_alloc(hp, krv_add_offset(sizeof(krv_retired) + 1, section->sfd_size)));
    if (copy == nullptr)
        return -1;
    std::memcpy(copy->bytes, section->sfd_u.buf, section->sfd_size);
    copy->bytes[section->sfd_size] = '\0'; // whatever has become of the string at its end
    copy->next = hp->sh_retired;
    hp->sh_retired = copy;
    const auto from = reinterpret_cast<uintptr_t>(section->sfd_u.buf);
    const auto move = [&](char **text) {
        const uintptr_t offset = reinterpret_cast<uintptr_t>(*text) - from;
        if (offset < section->sfd_size)
            *text = copy->bytes + offset;
    };
    visit_units(hp, [&](krv_ctu_t *cu) { krv_cu_visit_strings(cu, move); });
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
    krv_hash_t *hash = get_hash(hp);
    const krv_hash_key_t key = {.dwhk_u = offset};
    return hash == nullptr ? nullptr : static_cast<krv_ctu_t *>(krv_hash_lookup(hp, hash, &key));
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
