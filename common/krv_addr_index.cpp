// SPDX-License-Identifier: Apache-2.0
//
// Ranges of different units may overlap, and then the first unit in section order is the answer.
#include "krv_addr_index.h"

#include "krv_error.h"
#include "krv_lookup.h"
#include "krv_mem.h"
#include "krv_sets.h"
#include "krv_units.h"

#include <algorithm>

namespace
{

struct index_deleter {
    void operator()(krv_addr_index *index) const
    {
        if (index->sai_layers != nullptr)
            krv_addr_layers_free(index->sai_layers);
        krv_addr_map_free(&index->sai_map);
        krv_free(index->sai_unknown);
        krv_free(index->sai_hints);
        krv_free(index);
    }
};
using index_owner = std::unique_ptr<krv_addr_index, index_deleter>;

} // namespace

// False: KRV_ERR_NOMEM.
static bool append_pairs(krv_handle_t *hp, uint64_t *pairs, uint32_t unit, krv_addr_ranges *t)
{
    const uint64_t count = krv_ranges_count(pairs);
    for (uint64_t i = 0; i < count; ++i)
        if (!t->append(hp, {pairs[2 * i], pairs[2 * i + 1], unit}))
            return false;
    return true;
}

// Asks every unit for its ranges. False: KRV_ERR_NOMEM.
static bool collect_ranges(krv_handle_t *hp, krv_lookup_flag_t flags, krv_addr_ranges *t, krv_addr_index *index)
{
    uint32_t unknown_size = 0;
    for (uint32_t unit = 0; unit < hp->sh_cu_table_entries; ++unit) {
        uint64_t *pairs = nullptr;
        if (krv_lookup_get_ranges(hp, hp->sh_cu_table[unit], flags, &pairs) != 0)
            return false;
        if (pairs == nullptr) {
            if (!krv_table_grow(hp, &index->sai_unknown, &unknown_size, index->sai_unknown_units, 16U))
                return false;
            index->sai_unknown[index->sai_unknown_units++] = unit;
            continue;
        }
        if (!append_pairs(hp, pairs, unit, t))
            return false;
    }
    return true;
}

// The layers of an index, of the ranges that it was made of: those of units that were known. NULL: KRV_ERR_NOMEM.
static const krv_addr_layers *get_layers(krv_handle_t *hp, krv_addr_index *index)
{
    if (const krv_addr_layers *layers = krv_load(&index->sai_layers))
        return layers;
    krv_addr_ranges t;
    const uint32_t *unknown = index->sai_unknown, *const end = unknown + index->sai_unknown_units;
    for (uint32_t unit = 0; unit < hp->sh_cu_table_entries; ++unit)
        if (unknown != end && *unknown == unit)
            ++unknown;
        else if (!append_pairs(hp, krv_load(&hp->sh_cu_table[unit]->dcu_aranges), unit, &t))
            return nullptr;
    krv_addr_layers *fresh = krv_addr_layers_make(hp, &index->sai_map, t);
    return fresh == nullptr ? nullptr : krv_publish(&index->sai_layers, fresh, krv_addr_layers_free);
}

// The ranges of sets; as units count the first sets that name them.
static bool collect_sets(krv_handle_t *hp, const krv_sets *sets, krv_addr_ranges *t)
{
    uint32_t first = 0;
    for (uint32_t i = 0; i < sets->ss_entries; ++i) {
        const krv_set_t &set = sets->ss_sets[i];
        if (set.set_unit != sets->ss_sets[first].set_unit)
            first = i;
        for (size_t k = 0; k < set.set_entries; ++k)
            if (!t->append(hp, {set.set_ranges[k].start, set.set_ranges[k].end, first}))
                return false;
    }
    return true;
}

// collect(table, index) fills the table.
template <typename Collect>
static krv_addr_index *build_index(krv_handle_t *hp, const Collect &collect)
{
    index_owner index(krv_new<krv_addr_index>(hp));
    krv_addr_ranges t;
    if (index == nullptr || !collect(&t, index.get()) || !krv_addr_map_make(hp, t, krv_paint::first, &index->sai_map) ||
        !krv_addr_map_add_blocks(hp, &index->sai_map))
        return nullptr;
    index->sai_hints = static_cast<krv_addr_hint *>(krv_zalloc(hp, index->sai_map.sam_pieces * sizeof(krv_addr_hint)));
    if (index->sai_hints == nullptr && index->sai_map.sam_pieces != 0)
        return nullptr;
    krv_clear_error(hp); // of scans that found nothing
    return index.release();
}

// The index of units for the flags, published in the slot. NULL on failure.
[[gnu::noinline]] static krv_addr_index *make_index(krv_handle_t *hp, krv_lookup_flag_t flags, krv_addr_index **slot)
{
    if (krv_lookup_prepare_ranges(hp) != 0 || krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    krv_addr_index *fresh = build_index(
        hp, [hp, flags](krv_addr_ranges *t, krv_addr_index *index) { return collect_ranges(hp, flags, t, index); });
    return fresh == nullptr ? nullptr : krv_publish(slot, fresh, index_deleter());
}

// The index for the flags; one of all units serves both. NULL on failure.
static krv_addr_index *get_index(krv_handle_t *hp, krv_lookup_flag_t flags)
{
    if (krv_addr_index *all = krv_load(&hp->sh_addr_all))
        return all;
    krv_addr_index **slot = (flags & KRV_LOOKUP_F_FAST) != 0 ? &hp->sh_addr_known : &hp->sh_addr_all;
    krv_addr_index *known = krv_load(slot);
    return known != nullptr ? known : make_index(hp, flags, slot);
}

// The index of sets, likewise.
[[gnu::noinline]] static const krv_addr_index *make_sets_index(krv_handle_t *hp)
{
    if (krv_lookup_prepare_ranges(hp) != 0)
        return nullptr;
    krv_addr_index *fresh =
        build_index(hp, [hp](krv_addr_ranges *t, krv_addr_index *) { return collect_sets(hp, hp->sh_sets, t); });
    return fresh == nullptr ? nullptr : krv_publish(&hp->sh_addr_sets, fresh, index_deleter());
}

// A unit from `first` on, that was unknown to the index and before `unit`, whose ranges a scan has found since and cover
// the address; else `unit`.
[[gnu::noinline]] static uint32_t search_scanned(const krv_handle_t *hp, const krv_addr_index *index, uint64_t address,
                                                 uint32_t first, uint32_t unit)
{
    const uint32_t *const unknown = index->sai_unknown, *const end = unknown + index->sai_unknown_units;
    for (const uint32_t *i = std::lower_bound(unknown, end, first); i != end && *i < unit; ++i) {
        uint64_t *pairs = krv_load(&hp->sh_cu_table[*i]->dcu_aranges);
        for (uint64_t k = 0; pairs != nullptr && k < krv_ranges_count(pairs); ++k)
            if (pairs[2 * k] <= address && address < pairs[2 * k + 1])
                return *i;
    }
    return unit;
}

void krv_addr_index_destroy(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    for (krv_addr_index **slot : {&hp->sh_addr_sets, &hp->sh_addr_known, &hp->sh_addr_all}) {
        if (*slot != nullptr)
            index_deleter()(*slot);
        *slot = nullptr;
    }
}

static inline uint32_t owner_of(const krv_addr_index *index, size_t begun)
{
    return begun == 0 ? KRV_ADDR_NOTHING : krv_addr_map_owner(&index->sai_map, begun - 1);
}

// The unit that a set names for the address, with nothing else read of .debug_info. NULL: none does, as *nonep tells, or with
// the code of what failed.
static krv_ctu_t *find_by_sets(krv_handle_t *hp, uint64_t address, krv_addr_stretch *stretch, bool *nonep)
{
    *nonep = false;
    const krv_addr_index *index = krv_load(&hp->sh_addr_sets);
    if (index == nullptr && (index = make_sets_index(hp)) == nullptr)
        return nullptr;
    const size_t begun = krv_addr_index_piece(index, address, stretch);
    krv_ctu_t *known = begun == 0 ? nullptr : krv_load(&stretch->hint->sah_unit);
    if (known != nullptr)
        return known;
    const uint32_t first = owner_of(index, begun);
    if (first == KRV_ADDR_NOTHING) {
        *nonep = true;
        return nullptr;
    }
    krv_ctu_t *cu = krv_units_get_named(hp, &hp->sh_sets->ss_sets[first]);
    if (cu != nullptr)
        krv_store(&stretch->hint->sah_unit, cu);
    *nonep = cu == nullptr && krv_errno(hp) == KRV_ERR_NOTFOUND && krv_error_of(hp)->count == 0;
    return cu;
}

// The number of units up to this one.
static uint32_t count_units_to(const krv_handle_t *hp, const krv_ctu_t *cu)
{
    const auto offset = [](const krv_ctu_t *unit) { return unit->dcu_offset; };
    return static_cast<uint32_t>(krv_count_not_above(hp->sh_cu_table, hp->sh_cu_table_entries, cu->dcu_offset, offset));
}

// The answer of an index, `unit` or KRV_ADDR_NOTHING, of the units from `first` on.
[[gnu::always_inline]] static inline krv_ctu_t *answer(krv_handle_t *hp, const krv_addr_index *index, uint64_t address,
                                                       uint32_t first, uint32_t unit)
{
    if (index->sai_unknown_units != 0 && __atomic_load_n(&hp->sh_scanned_units, __ATOMIC_ACQUIRE) != 0)
        unit = search_scanned(hp, index, address, first, unit);
    if (unit != KRV_ADDR_NOTHING)
        return hp->sh_cu_table[unit];
    krv_errno(hp) = index->sai_unknown_units != 0 ? KRV_ERR_NONE : KRV_ERR_NOTFOUND;
    return nullptr;
}

krv_ctu_t *krv_addr_index_find(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags, krv_addr_stretch *stretch)
{
    *stretch = {0, UINT64_MAX, nullptr, false};
    if (krv_reads_as_written(hp)) {
        bool none;
        krv_ctu_t *cu = find_by_sets(hp, address, stretch, &none);
        stretch->is_answered = cu != nullptr;
        if (!none)
            return cu;
        krv_clear_error(hp);
    }
    const krv_addr_index *index = get_index(hp, flags);
    if (index == nullptr)
        return nullptr;
    krv_addr_stretch piece;
    const uint32_t unit = owner_of(index, krv_addr_index_piece(index, address, &piece));
    if (index->sai_unknown_units != 0) // whose ranges a scan may find meanwhile
        *stretch = {address, address, nullptr, true};
    else
        *stretch = {std::max(stretch->first, piece.first), std::min(stretch->last, piece.last), piece.hint, true};
    return answer(hp, index, address, 0, unit);
}

bool krv_addr_index_neighbours(krv_handle_t *hp, uint64_t address, krv_addr_neighbours *found)
{
    *found = {};
    const krv_addr_index *index = get_index(hp, KRV_LOOKUP_F_NONE);
    if (index == nullptr)
        return false;
    const krv_addr_map *map = &index->sai_map;
    const size_t behind = krv_addr_map_count(map, address); // pieces of no unit lie between two of units
    for (size_t i = behind; i < map->sam_pieces && found->after == nullptr; ++i)
        if (const uint32_t owner = krv_addr_map_owner(map, i); owner != KRV_ADDR_NOTHING) {
            found->after = hp->sh_cu_table[owner];
            found->after_start = krv_addr_map_bound(map, i);
        }
    for (size_t i = behind; i-- > 0 && found->before == nullptr;)
        if (const uint32_t owner = krv_addr_map_owner(map, i); owner != KRV_ADDR_NOTHING) {
            found->before = hp->sh_cu_table[owner];
            found->before_end = i + 1 < map->sam_pieces ? krv_addr_map_bound(map, i + 1) : UINT64_MAX;
        }
    return true;
}

krv_ctu_t *korva_lookup_ctu_by_addr(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    krv_addr_stretch stretch;
    return krv_addr_index_find(hp, address, flags, &stretch);
}

krv_ctu_t *korva_lookup_next_ctu_by_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t address, krv_lookup_flag_t flags)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    krv_addr_index *index = get_index(hp, flags);
    const krv_addr_layers *layers = index == nullptr ? nullptr : get_layers(hp, index);
    if (layers == nullptr)
        return nullptr;
    const uint32_t first = cup == nullptr ? 0 : count_units_to(hp, cup);
    return answer(hp, index, address, first, krv_addr_layers_find(layers, address, first));
}
