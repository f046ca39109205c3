// SPDX-License-Identifier: Apache-2.0
//
// Functions and variables by name. Units are walked once, all of them or those that the indexes of the file leave, and the names
// kept by a hash of theirs; what has the hash is read again, and compared.
#include "krv_named.h"

#include "krv_budget.h"
#include "krv_dwarf.h"
#include "krv_entry_seek.h"
#include "krv_entry_walk.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_function_names.h"
#include "krv_mem.h"
#include "krv_name_index.h"
#include "krv_units.h"

#include <algorithm>

namespace
{

struct named {
    uint64_t hash_and_kind; // KRV_NAMED_* in the lowest bits
    uint64_t entry;         // offset in .debug_info
};

constexpr uint64_t KIND = KRV_NAMED_FUNCTIONS | KRV_NAMED_VARIABLES;

// Of one unit, or of all.
struct name_list {
    named *names; // owned: ascending
    size_t size, count;
};

} // namespace

struct krv_named {
    krv_name_index *sn_index; // owned
    name_list *sn_all;        // owned: made when no index tells which units have a name, published last
    name_list *sn_units[];    // owned, of each unit: made when it is walked for a name, published last
};

static void free_name_list(name_list *list)
{
    if (list != nullptr)
        krv_free(list->names);
    krv_free(list);
}

void krv_named_destroy(krv_handle_t *hp)
{
    krv_named *named = hp->sh_named;
    if (named == nullptr)
        return;
    for (uint32_t i = 0; i < hp->sh_cu_table_entries; ++i)
        free_name_list(named->sn_units[i]);
    free_name_list(named->sn_all);
    krv_name_index_free(named->sn_index);
    krv_free(named);
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

static bool add_name(krv_handle_t *hp, name_list *to, const char *name, unsigned int kind, uint64_t entry)
{
    if (name == nullptr)
        return true;
    if (!krv_table_grow(hp, &to->names, &to->size, to->count, size_t{16}))
        return false;
    to->names[to->count++] = {hash_of(name) | kind, entry};
    return true;
}

static unsigned int kind_of(const krv_planned_t *planned)
{
    if (planned->tag == DW_TAG_subprogram)
        return KRV_NAMED_FUNCTIONS;
    const bool is_variable =
        planned->tag == DW_TAG_variable && (krv_has_attribute(planned->abbrev(), DW_AT_location) ||
                                            krv_has_attribute(planned->abbrev(), DW_AT_const_value));
    return is_variable ? KRV_NAMED_VARIABLES : 0;
}

// *function is the level of the function that the entry before lies in, or UINT32_MAX. False: KRV_ERR_NOMEM.
static bool add_entry(krv_handle_t *hp, const krv_entry_t &entry, uint32_t level, uint32_t *function, name_list *to)
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
static bool add_unit(krv_handle_t *hp, krv_ctu_t *cu, name_list *to)
{
    krv_entry_t first;
    krv_place_t place;
    if (krv_entry_load_at(hp, cu, cu->dcu_offset + cu->dcu_header_size, &first) != 0 ||
        !krv_entry_place(hp, cu, &place))
        return !krv_ran_out(hp);
    uint32_t function = UINT32_MAX;
    const int walked = krv_entry_walk(hp, place, first, kind_of, [&](const krv_entry_t &entry, uint32_t level) {
        return add_entry(hp, entry, level, &function, to) ? krv_step::next : krv_step::stop;
    });
    if (walked == -1 && !krv_ran_out(hp))
        krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, false,
                 "names of the unit at offset 0x%lx of .debug_info are not all known: %s",
                 static_cast<unsigned long>(cu->dcu_offset), krv_cause(hp).text);
    return walked != 1 && !krv_ran_out(hp);
}

static bool comes_before(const named &a, const named &b)
{
    return a.hash_and_kind != b.hash_and_kind ? a.hash_and_kind < b.hash_and_kind : a.entry < b.entry;
}

// Those of the units from one number up to another, made once.
static const name_list *get_list(krv_handle_t *hp, name_list **slot, uint32_t first, uint32_t end)
{
    if (const name_list *list = krv_load(slot))
        return list;
    std::unique_ptr<name_list, decltype(&free_name_list)> list(krv_new<name_list>(hp), free_name_list);
    if (list == nullptr)
        return nullptr;
    for (uint32_t i = first; i < end; ++i)
        if (!add_unit(hp, hp->sh_cu_table[i], list.get()))
            return nullptr;
    if (!krv_table_trim(hp, &list->names, &list->size, list->count))
        return nullptr;
    std::sort(list->names, list->names + list->count, comes_before);
    krv_clear_error(hp);
    return krv_publish(slot, list.release(), free_name_list);
}

static const name_list *get_all(krv_handle_t *hp, krv_named *of)
{
    return get_list(hp, &of->sn_all, 0, hp->sh_cu_table_entries);
}

static const name_list *get_unit(krv_handle_t *hp, krv_named *of, uint32_t unit)
{
    return get_list(hp, &of->sn_units[unit], unit, unit + 1);
}

static krv_named *get_named(krv_handle_t *hp)
{
    if (krv_named *known = krv_load(&hp->sh_named))
        return known;
    if (krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    const size_t size = sizeof(krv_named) + hp->sh_cu_table_entries * sizeof(name_list *);
    krv_owner<krv_named> fresh(static_cast<krv_named *>(krv_zalloc(hp, size)));
    if (fresh == nullptr || (fresh->sn_index = krv_name_index_make(hp)) == nullptr)
        return nullptr;
    krv_clear_error(hp);
    return krv_publish(&hp->sh_named, fresh.release(), [](krv_named *late) {
        krv_name_index_free(late->sn_index);
        krv_free(late);
    });
}

static bool is_called(const char *name, const char *wanted)
{
    return name != nullptr && std::strcmp(name, wanted) == 0;
}

namespace
{

// One question, and what it has come to.
struct question {
    krv_handle_t *hp;
    const char *name;
    unsigned int flags;
    krv_iter_entry_f *fn;
    void *arg;
    uint64_t hash;
    bool has_answer;
};

} // namespace

// The first of a list with the hash.
static const named *find_first(const name_list &list, uint64_t hash)
{
    return std::lower_bound(list.names, list.names + list.count, hash,
                            [](const named &n, uint64_t wanted) { return n.hash_and_kind < wanted; });
}

static int visit_list(question *q, const name_list &list)
{
    krv_handle_t *hp = q->hp;
    const named *const last = list.names + list.count, *at = find_first(list, q->hash);
    for (uint64_t before = UINT64_MAX; at != last && (at->hash_and_kind & ~KIND) == q->hash; ++at) {
        if (!krv_spend(hp, 1))
            return -1;
        if ((at->hash_and_kind & q->flags & KIND) == 0 || at->entry == before)
            continue;
        krv_entry_t entry;
        if (krv_entry_seek(hp, KRV_SEC_INFO, at->entry, &entry) != 0)
            return -1;
        krv_function_names found;
        if (!krv_function_names_find(hp, entry, &found))
            return -1;
        before = at->entry; // it may be there by both of its names
        if (!is_called(found.name, q->name) && !is_called(found.linkage_name, q->name))
            continue;
        q->has_answer = true;
        if (const int result = q->fn(hp, &entry, q->arg))
            return result;
    }
    return 0;
}

// Whether the walk of their units has found the functions that an index lists. 1, 0, or -1.
static int are_there(const question &q, krv_named *of, const krv_name_choice &choice)
{
    for (size_t i = 0; i < choice.count; ++i) {
        const krv_listed_t &listed = choice.listed[i];
        const name_list *list = get_unit(q.hp, of, listed.unit);
        if (list == nullptr)
            return -1;
        if (std::binary_search(list->names, list->names + list->count,
                               named{q.hash | KRV_NAMED_FUNCTIONS, listed.entry}, comes_before))
            continue;
        krv_name_index_distrust(q.hp, of->sn_index, listed.entry);
        return 0;
    }
    return 1;
}

// The answers of the units that the indexes leave. *is_answered stays false when these cannot be relied on, and then
// nothing is visited.
static int visit_chosen(question *q, krv_named *of, bool *is_answered)
{
    krv_name_choice choice;
    if (krv_name_index_choose(q->hp, of->sn_index, q->name, q->flags, &choice) != 0)
        return -1;
    const std::unique_ptr<krv_name_choice, krv_choice_deleter> owner(&choice);
    const int are_right = choice.units == nullptr ? 0 : are_there(*q, of, choice);
    if (are_right != 1)
        return are_right;
    *is_answered = true;
    for (uint32_t i = 0; i < q->hp->sh_cu_table_entries; ++i) {
        if (choice.units[i] == 0)
            continue;
        const name_list *list = get_unit(q->hp, of, i);
        const int result = list == nullptr ? -1 : visit_list(q, *list);
        if (result != 0)
            return result;
    }
    return 0;
}

int korva_iter_named_entries(krv_handle_t *hp, const char *name, unsigned int flags, krv_iter_entry_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (name == nullptr || fn == nullptr || (flags & ~(KIND | KRV_NAMED_INDEXED)) != 0)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_named *of = get_named(hp);
    if (of == nullptr)
        return -1;
    question q = {hp, name, flags, fn, arg, hash_of(name), false};
    int result = 0;
    bool is_answered = false;
    if (krv_load(&of->sn_all) == nullptr)
        result = visit_chosen(&q, of, &is_answered);
    if (result == 0 && (!is_answered || ((flags & KRV_NAMED_INDEXED) != 0 && !q.has_answer))) {
        const name_list *all = get_all(hp, of);
        result = all == nullptr ? -1 : visit_list(&q, *all);
    }
    if (result == 0)
        krv_clear_error(hp);
    return result;
}
