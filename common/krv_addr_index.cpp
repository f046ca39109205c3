// SPDX-License-Identifier: Apache-2.0
//
// Ranges of different units may overlap, and then the first unit in section order is the answer. So the bounds of all
// ranges are sorted, and the ranges are painted onto the pieces between them in section order: a piece keeps its first
// colour.
#include "krv_addr_index.h"

#include "krv_error.h"
#include "krv_lookup.h"
#include "krv_mem.h"
#include "krv_search.h"
#include "krv_sets.h"
#include "krv_units.h"

#include <algorithm>
#include <numeric>

namespace
{

// One range of a unit that covers at least one address.
struct range {
    uint64_t start, end;
    uint32_t unit;
};

// One of the two bounds of a range, numbered in the order of the ranges: starts are even.
struct bound {
    uint64_t address;
    size_t number;
};

struct index_deleter {
    void operator()(krv_addr_index *index) const
    {
        krv_free(index->sai_bounds);
        krv_free(index->sai_units);
        krv_free(index->sai_unknown);
        krv_free(index);
    }
};
using index_owner = std::unique_ptr<krv_addr_index, index_deleter>;

// The ranges of all units in section order.
struct range_table {
    range *ranges = nullptr;
    size_t size = 0, entries = 0;

    range_table() = default;
    ~range_table() { krv_free(ranges); }
    range_table(const range_table &) = delete;
    range_table &operator=(const range_table &) = delete;
};

} // namespace

static inline bool append_range(krv_handle_t *hp, range_table *t, const range &r)
{
    if (r.start >= r.end)
        return true;
    if (!krv_table_grow(hp, &t->ranges, &t->size, t->entries, size_t{16}))
        return false;
    t->ranges[t->entries++] = r;
    return true;
}

// Asks every unit for its ranges; as written, every one that no set names. False: KRV_ERR_NOMEM.
static bool collect_ranges(krv_handle_t *hp, krv_lookup_flag_t flags, range_table *t, krv_addr_index *index)
{
    uint32_t unknown_size = 0;
    const krv_sets *sets = hp->sh_sets;
    for (uint32_t unit = 0; unit < hp->sh_cu_table_entries; ++unit) {
        if (sets != nullptr && krv_sets_find(sets, hp->sh_cu_table[unit]->dcu_offset) != nullptr)
            continue;
        uint64_t *pairs = nullptr;
        if (krv_lookup_get_ranges(hp, hp->sh_cu_table[unit], flags, &pairs) != 0)
            return false;
        if (pairs == nullptr) {
            if (!krv_table_grow(hp, &index->sai_unknown, &unknown_size, index->sai_unknown_units, 16U))
                return false;
            index->sai_unknown[index->sai_unknown_units++] = unit;
            continue;
        }
        const uint64_t count = krv_ranges_count(pairs);
        for (uint64_t i = 0; i < count; ++i)
            if (!append_range(hp, t, {pairs[2 * i], pairs[2 * i + 1], unit}))
                return false;
    }
    return true;
}

// The ranges of sets; as units count the first sets that name them.
static bool collect_sets(krv_handle_t *hp, const krv_sets *sets, range_table *t)
{
    uint32_t first = 0;
    for (uint32_t i = 0; i < sets->ss_entries; ++i) {
        const krv_set_t &set = sets->ss_sets[i];
        if (set.set_unit != sets->ss_sets[first].set_unit)
            first = i;
        for (size_t k = 0; k < set.set_entries; ++k)
            if (!append_range(hp, t, {set.set_ranges[k].start, set.set_ranges[k].end, first}))
                return false;
    }
    return true;
}

template <typename T>
static T *alloc_array(krv_handle_t *hp, size_t count)
{
    return static_cast<T *>(krv_alloc(hp, count * sizeof(T)));
}

// Sorts by address, digit after digit from the lowest: addresses of a program differ in few bytes, and comparisons of
// them could not be predicted. `spare` is as long. Returns the one of both that is sorted.
static bound *sort_bounds(bound *bounds, bound *spare, size_t count)
{
    uint64_t varying = 0; // bits in which any two differ
    for (size_t i = 1; i < count; ++i)
        varying |= bounds[i].address ^ bounds[0].address;
    for (unsigned int shift = 0; shift < 64; shift += 8) {
        if ((varying >> shift & 0xff) == 0)
            continue;
        size_t begin[257] = {}; // where the bounds with each digit go, once the counts are summed
        for (size_t i = 0; i < count; ++i)
            ++begin[(bounds[i].address >> shift & 0xff) + 1];
        std::partial_sum(begin, begin + 257, begin);
        for (size_t i = 0; i < count; ++i)
            spare[begin[bounds[i].address >> shift & 0xff]++] = bounds[i];
        std::swap(bounds, spare);
    }
    return bounds;
}

// Finds the pieces. Range i covers those from pieces[2 * i] to before pieces[2 * i + 1].
static bool find_pieces(krv_handle_t *hp, const range_table *t, krv_addr_index *index, size_t *pieces)
{
    const size_t count = 2 * t->entries;
    index->sai_bounds = alloc_array<uint64_t>(hp, count);
    const krv_owner<bound> room(alloc_array<bound>(hp, 2 * count));
    if (index->sai_bounds == nullptr || room == nullptr)
        return false;
    for (size_t i = 0; i < t->entries; ++i) {
        room.get()[2 * i] = {t->ranges[i].start, 2 * i};
        room.get()[2 * i + 1] = {t->ranges[i].end, 2 * i + 1};
    }
    const bound *sorted = count == 0 ? nullptr : sort_bounds(room.get(), room.get() + count, count);
    for (size_t i = 0; i < count; ++i) {
        if (i == 0 || sorted[i].address != sorted[i - 1].address)
            index->sai_bounds[index->sai_pieces++] = sorted[i].address;
        pieces[sorted[i].number] = index->sai_pieces - 1;
    }
    return true;
}

// The first piece at or behind `piece` that is not painted. next[] leads over painted ones, ever farther.
static size_t first_bare(size_t *next, size_t piece)
{
    size_t bare = piece;
    while (next[bare] != bare)
        bare = next[bare];
    while (next[piece] != bare) { // what was walked over once is not walked over again
        const size_t behind = next[piece];
        next[piece] = bare;
        piece = behind;
    }
    return bare;
}

static bool paint(krv_handle_t *hp, const range_table *t, krv_addr_index *index, const size_t *pieces)
{
    const size_t count = index->sai_pieces;
    index->sai_units = alloc_array<uint32_t>(hp, count);
    const krv_owner<size_t> next(alloc_array<size_t>(hp, count + 1));
    if (index->sai_units == nullptr || next == nullptr)
        return false;
    std::fill_n(index->sai_units, count, KRV_NO_UNIT);
    std::iota(next.get(), next.get() + count + 1, size_t{0});
    for (size_t i = 0; i < t->entries; ++i) {
        size_t piece = pieces[2 * i];
        while ((piece = first_bare(next.get(), piece)) < pieces[2 * i + 1]) {
            index->sai_units[piece] = t->ranges[i].unit;
            next.get()[piece] = piece + 1;
        }
    }
    return true;
}

// collect(table, index) fills the table.
template <typename Collect>
static krv_addr_index *build_index(krv_handle_t *hp, const Collect &collect)
{
    index_owner index(krv_new<krv_addr_index>(hp));
    range_table t;
    if (index == nullptr || !collect(&t, index.get()))
        return nullptr;
    const krv_owner<size_t> pieces(alloc_array<size_t>(hp, 2 * t.entries));
    if (pieces == nullptr || !find_pieces(hp, &t, index.get(), pieces.get()) ||
        !paint(hp, &t, index.get(), pieces.get()))
        return nullptr;
    krv_clear_error(hp); // of scans that found nothing
    return index.release();
}

// The index of units for the flags, published in the slot. NULL on failure.
[[gnu::noinline]] static const krv_addr_index *make_index(krv_handle_t *hp, krv_lookup_flag_t flags,
                                                          krv_addr_index **slot)
{
    if (krv_lookup_prepare_ranges(hp) != 0 || krv_lookup_build_cu_caches(hp) != 0)
        return nullptr;
    krv_addr_index *fresh = build_index(
        hp, [hp, flags](range_table *t, krv_addr_index *index) { return collect_ranges(hp, flags, t, index); });
    return fresh == nullptr ? nullptr : krv_publish(slot, fresh, index_deleter());
}

// The index for the flags; one of all units serves both. NULL on failure.
static const krv_addr_index *get_index(krv_handle_t *hp, krv_lookup_flag_t flags)
{
    if (const krv_addr_index *all = krv_load(&hp->sh_addr_all))
        return all;
    krv_addr_index **slot = (flags & KRV_LOOKUP_F_FAST) != 0 ? &hp->sh_addr_known : &hp->sh_addr_all;
    const krv_addr_index *known = krv_load(slot);
    return known != nullptr ? known : make_index(hp, flags, slot);
}

// The index of sets, likewise.
[[gnu::noinline]] static const krv_addr_index *make_sets_index(krv_handle_t *hp)
{
    if (krv_lookup_prepare_ranges(hp) != 0)
        return nullptr;
    krv_addr_index *fresh =
        build_index(hp, [hp](range_table *t, krv_addr_index *) { return collect_sets(hp, hp->sh_sets, t); });
    return fresh == nullptr ? nullptr : krv_publish(&hp->sh_addr_sets, fresh, index_deleter());
}

static uint32_t search(const krv_addr_index *index, uint64_t address)
{
    const auto bound = [](uint64_t start) { return start; };
    const size_t begun = krv_count_not_above(index->sai_bounds, index->sai_pieces, address, bound);
    return begun == 0 ? KRV_NO_UNIT : index->sai_units[begun - 1];
}

// A unit that was unknown to the index and before `unit`, whose ranges a scan has found since and cover the address;
// else `unit`.
static uint32_t search_scanned(const krv_handle_t *hp, const krv_addr_index *index, uint64_t address, uint32_t unit)
{
    for (uint32_t i = 0; i < index->sai_unknown_units && index->sai_unknown[i] < unit; ++i) {
        uint64_t *pairs = krv_load(&hp->sh_cu_table[index->sai_unknown[i]]->dcu_aranges);
        for (uint64_t k = 0; pairs != nullptr && k < krv_ranges_count(pairs); ++k)
            if (pairs[2 * k] <= address && address < pairs[2 * k + 1])
                return index->sai_unknown[i];
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

// The unit that a set names for the address, with nothing else read of .debug_info. NULL: KRV_ERR_NOTFOUND, or with the
// code of what failed.
static krv_ctu_t *find_by_sets(krv_handle_t *hp, uint64_t address)
{
    const krv_addr_index *index = krv_load(&hp->sh_addr_sets);
    if (index == nullptr && (index = make_sets_index(hp)) == nullptr)
        return nullptr;
    const uint32_t first = search(index, address);
    if (first != KRV_NO_UNIT)
        return krv_units_get_named(hp, &hp->sh_sets->ss_sets[first]);
    hp->sh_errno = KRV_ERR_NOTFOUND;
    return nullptr;
}

krv_ctu_t *korva_lookup_ctu_by_addr(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    if (krv_reads_as_written(hp)) {
        krv_ctu_t *cu = find_by_sets(hp, address);
        if (cu != nullptr || hp->sh_errno != KRV_ERR_NOTFOUND || hp->sh_nerrors != 0)
            return cu;
        krv_clear_error(hp);
    }
    const krv_addr_index *index = get_index(hp, flags);
    if (index == nullptr)
        return nullptr;
    uint32_t unit = search(index, address);
    if (index->sai_unknown_units != 0 && __atomic_load_n(&hp->sh_scanned_units, __ATOMIC_ACQUIRE) != 0)
        unit = search_scanned(hp, index, address, unit);
    if (unit != KRV_NO_UNIT)
        return hp->sh_cu_table[unit];
    hp->sh_errno = index->sai_unknown_units != 0 ? KRV_ERR_NONE : KRV_ERR_NOTFOUND;
    return nullptr;
}
