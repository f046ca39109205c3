// SPDX-License-Identifier: Apache-2.0
//
// Functions and variables by name. All units are walked once, and the names kept by a hash of theirs; what has the hash is
// read again, and compared.
#include "krv_named.h"

#include "krv_dwarf.h"
#include "krv_entry_seek.h"
#include "krv_entry_walk.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_function_names.h"
#include "krv_mem.h"
#include "krv_units.h"

#include <algorithm>

namespace
{

struct named {
    uint64_t hash_and_kind; // KRV_NAMED_* in the lowest bits
    uint64_t entry;         // offset in .debug_info
};

constexpr uint64_t KIND = KRV_NAMED_FUNCTIONS | KRV_NAMED_VARIABLES;

} // namespace

struct krv_named {
    named *sn_names; // owned: ascending
    size_t sn_size, sn_count;
};

static void free_named(krv_named *names)
{
    krv_free(names->sn_names);
    krv_free(names);
}

void krv_named_destroy(krv_handle_t *hp)
{
    if (hp->sh_named != nullptr)
        free_named(hp->sh_named);
    hp->sh_named = nullptr;
}

// FNV-1a, whose lowest bits give way to the kind.
static uint64_t hash_of(const char *name)
{
    uint64_t hash = 0xcbf29ce484222325;
    for (const char *c = name; *c != '\0'; ++c)
        hash = (hash ^ static_cast<uint8_t>(*c)) * 0x100000001b3;
    return hash & ~KIND;
}

static bool add_name(krv_handle_t *hp, krv_named *to, const char *name, unsigned int kind, uint64_t entry)
{
    if (name == nullptr)
        return true;
    if (!krv_table_grow(hp, &to->sn_names, &to->sn_size, to->sn_count, size_t{1024}))
        return false;
    to->sn_names[to->sn_count++] = {hash_of(name) | kind, entry};
    return true;
}

static bool has(const krv_planned_t *planned, krv_attribute_t first, krv_attribute_t second)
{
    const krv_afpair_t *pairs = planned->abbrev->dwa_afpairs;
    return std::any_of(pairs, pairs + planned->abbrev->dwa_nafpairs, [=](krv_afpair_t pair) {
        return pair.dwafp_attribute == first || pair.dwafp_attribute == second;
    });
}

static unsigned int kind_of(const krv_planned_t *planned)
{
    if (planned->abbrev->dwa_tag == DW_TAG_subprogram)
        return KRV_NAMED_FUNCTIONS;
    if (planned->abbrev->dwa_tag == DW_TAG_variable && has(planned, DW_AT_location, DW_AT_const_value))
        return KRV_NAMED_VARIABLES;
    return 0;
}

// *function is the level of the function that the entry before lies in, or UINT32_MAX. False: KRV_ERR_NOMEM.
static bool add_entry(krv_handle_t *hp, const krv_entry_t &entry, uint32_t level, uint32_t *function, krv_named *to)
{
    const unsigned int kind = kind_of(krv_entry_planned(&entry));
    const bool is_in_function = level > *function;
    if (!is_in_function)
        *function = kind == KRV_NAMED_FUNCTIONS ? entry.depth : UINT32_MAX;
    if (kind == KRV_NAMED_VARIABLES ? !is_in_function : krv_entry_planned(&entry)->has_code()) {
        krv_function_names names;
        if (!krv_function_names_find(hp, entry, &names) || !add_name(hp, to, names.name, kind, entry.offset) ||
            !add_name(hp, to, names.linkage_name, kind, entry.offset))
            return false;
    }
    return true;
}

// Adds those of a unit. What cannot be read is left out. False: KRV_ERR_NOMEM.
static bool add_unit(krv_handle_t *hp, krv_ctu_t *cu, krv_named *to)
{
    krv_entry_t first;
    krv_place_t place;
    if (krv_entry_load_at(hp, cu, cu->dcu_offset + cu->dcu_header_size, &first) != 0 ||
        !krv_entry_place(hp, cu, &place))
        return hp->sh_errno != KRV_ERR_NOMEM;
    uint32_t function = UINT32_MAX;
    const int walked = krv_entry_walk(hp, place, first, kind_of, [&](const krv_entry_t &entry, uint32_t level) {
        return add_entry(hp, entry, level, &function, to) ? krv_step::next : krv_step::stop;
    });
    if (walked == -1 && hp->sh_errno != KRV_ERR_NOMEM)
        krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, false,
                 "names of the unit at offset 0x%lx of .debug_info are not all known: %s",
                 static_cast<unsigned long>(cu->dcu_offset), krv_cause(hp).text);
    return walked != 1 && hp->sh_errno != KRV_ERR_NOMEM;
}

static const krv_named *get_named(krv_handle_t *hp)
{
    if (const krv_named *names = krv_load(&hp->sh_named))
        return names;
    if (krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    std::unique_ptr<krv_named, decltype(&free_named)> names(krv_new<krv_named>(hp), free_named);
    if (names == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        if (!add_unit(hp, hp->sh_cu_table[i], names.get()))
            return nullptr;
    if (!krv_table_trim(hp, &names->sn_names, &names->sn_size, names->sn_count))
        return nullptr;
    std::sort(names->sn_names, names->sn_names + names->sn_count, [](const named &a, const named &b) {
        return a.hash_and_kind != b.hash_and_kind ? a.hash_and_kind < b.hash_and_kind : a.entry < b.entry;
    });
    krv_clear_error(hp);
    return krv_publish(&hp->sh_named, names.release(), free_named);
}

static bool is_called(const char *name, const char *wanted)
{
    return name != nullptr && std::strcmp(name, wanted) == 0;
}

int korva_iter_named_entries(krv_handle_t *hp, const char *name, unsigned int flags, krv_iter_entry_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (name == nullptr || fn == nullptr || (flags & ~KIND) != 0)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const krv_named *names = get_named(hp);
    if (names == nullptr)
        return -1;
    const uint64_t hash = hash_of(name);
    const named *const last = names->sn_names + names->sn_count;
    const named *at = std::lower_bound(names->sn_names, const_cast<named *>(last), hash,
                                       [](const named &n, uint64_t wanted) { return n.hash_and_kind < wanted; });
    for (uint64_t before = UINT64_MAX; at != last && (at->hash_and_kind & ~KIND) == hash; ++at) {
        if ((at->hash_and_kind & flags) == 0 || at->entry == before)
            continue;
        krv_entry_t entry;
        if (krv_entry_seek(hp, KRV_SEC_INFO, at->entry, &entry) != 0)
            return -1;
        krv_function_names found;
        if (!krv_function_names_find(hp, entry, &found))
            return -1;
        before = at->entry; // it may be there by both of its names
        if (!is_called(found.name, name) && !is_called(found.linkage_name, name))
            continue;
        if (const int result = fn(hp, &entry, arg))
            return result;
    }
    krv_clear_error(hp);
    return 0;
}
