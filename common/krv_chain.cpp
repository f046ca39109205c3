// SPDX-License-Identifier: Apache-2.0
//
// Chains of calls, from the functions and inlined calls of units and the rows of their line tables.
#include "krv_ascending.h"
#include "krv_calls.h"
#include "krv_dwarf.h"
#include "krv_entry_seek.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_line.h"
#include "krv_places.h"
#include "krv_ranges.h"

#include <algorithm>

constexpr size_t MOST_CALLS = 256; // of a chain that a visitor is shown

namespace
{

// What covers an address.
struct covering {
    krv_ctu_t *unit;
    krv_calls *calls;  // the unit's
    uint32_t function; // of these
    uint32_t inlined;  // the innermost of the function's, or KRV_NO_CALL
};

// What covered the last address, in a walk along ascending ones, and around it the addresses of which the same is true.
struct nearby {
    covering at = {nullptr, nullptr, KRV_NO_CALL, KRV_NO_CALL};
    krv_addr_span of_function, of_inlined;
};

// A row and what covers it.
struct chain {
    covering at; // without a unit: nothing does
    const krv_lnp_t *matrix;
    uint32_t row; // of the matrix, or KRV_NO_ROW
};

} // namespace

// Finds the function that covers an address of the unit. False: KRV_ERR_NOTFOUND, or with the error of reading the unit.
[[gnu::always_inline]] static inline bool find_function(krv_handle_t *hp, krv_ctu_t *cu, krv_addr_hint *hint,
                                                        uint64_t address, nearby *near, covering *found)
{
    if (near != nullptr && near->at.unit == cu && near->of_function.has(address)) {
        *found = near->at;
        return found->function != KRV_NO_CALL || krv_fail_code(hp, KRV_ERR_NOTFOUND) == 0;
    }
    krv_calls *calls = hint == nullptr ? nullptr : krv_load(&hint->sah_calls);
    if (calls == nullptr) {
        if ((calls = krv_calls_get(hp, cu)) == nullptr)
            return false;
        if (hint != nullptr)
            krv_store(&hint->sah_calls, calls);
    }
    *found = {cu, calls, krv_addr_map_find(&calls->sc_map, address, near == nullptr ? nullptr : &near->of_function),
              KRV_NO_CALL};
    if (near != nullptr) {
        near->at = *found;
        near->of_inlined = {};
    }
    if (found->function == KRV_NO_CALL) {
        krv_fail_code(hp, KRV_ERR_NOTFOUND);
        return false;
    }
    __builtin_prefetch(&calls->sc_functions[found->function]);
    return true;
}

// Finds the call in it. False: KRV_ERR_NOMEM, or the error of reading the unit.
[[gnu::always_inline]] static inline bool find_inlined(krv_handle_t *hp, uint64_t address, nearby *near,
                                                       covering *found)
{
    if (near != nullptr && near->of_inlined.has(address))
        return true; // find_function took it from there
    krv_function *of = &found->calls->sc_functions[found->function];
    if (of->has_inlined == 0)
        return true;
    krv_inlined_calls *inlined = krv_load(&of->inlined);
    if (inlined == nullptr && (inlined = krv_calls_get_inlined(hp, found->unit, found->calls, of)) == nullptr)
        return false;
    found->inlined = inlined->find(address, near == nullptr ? nullptr : &near->of_inlined);
    if (near != nullptr)
        near->at.inlined = found->inlined;
    return true;
}

// 0, or -1: KRV_ERR_NOTFOUND when no function covers the address.
static int find_covering(krv_handle_t *hp, uint64_t address, covering *found)
{
    krv_addr_stretch stretch;
    krv_ctu_t *cu = krv_addr_index_find(hp, address, KRV_LOOKUP_F_NONE, &stretch);
    return cu != nullptr && find_function(hp, cu, stretch.hint, address, nullptr, found) &&
                   find_inlined(hp, address, nullptr, found)
               ? 0
               : -1;
}

static void read_place_of_call(krv_handle_t *hp, krv_call_t *call)
{
    krv_place_t place;
    krv_attr_t attr;
    krv_entry_t entry = call->entry;
    if (!krv_entry_place(hp, entry.unit, &place))
        return;
    while (krv_entry_read_attr(hp, place, &entry, &attr) == 1) {
        const auto number = attr.number <= UINT32_MAX ? static_cast<uint32_t>(attr.number) : 0;
        switch (attr.attribute) {
        case DW_AT_call_file:
            call->call_unit = attr.number <= UINT32_MAX ? entry.unit : nullptr;
            call->call_file = number;
            break;
        case DW_AT_call_line:
            call->call_line = number;
            break;
        case DW_AT_call_column:
            call->call_column = number;
            break;
        case DW_AT_GNU_discriminator:
            call->discriminator = number;
            break;
        default:
            break;
        }
    }
}

[[gnu::always_inline]] static inline void take_names(const krv_function_names *names, krv_call_t *call)
{
    if (names == nullptr)
        return;
    call->name = names->name;
    call->linkage_name = names->linkage_name;
    call->name_size = names->name_size;
    call->linkage_name_size = names->linkage_name_size;
    __builtin_prefetch(names->linkage_name != nullptr ? names->linkage_name : names->name);
    call->decl_unit = names->decl_unit;
    call->decl_file = names->decl_file;
    call->decl_line = names->decl_line;
}

// The cursor on an entry of which take_head has kept what it needs. False: messages.
template <typename T>
[[gnu::always_inline]] static inline bool load_head(krv_handle_t *hp, const covering &at, uint64_t offset, uint32_t tag,
                                                    const T &from, krv_entry_t *entry)
{
    if (from.is_cut)
        return krv_entry_load_at(hp, at.unit, offset, entry) == 0;
    entry->unit = at.unit;
    entry->offset = offset;
    entry->tag = tag;
    entry->has_children = from.has_children;
    entry->is_alternate = at.calls->sc_is_alternate;
    entry->at = offset + from.code_size;
    entry->abbreviation = &at.calls->sc_plan->sp_planned[from.row];
    return true;
}

[[gnu::always_inline]] static inline int make_inlined(krv_handle_t *hp, const covering &at, uint64_t entry,
                                                      const krv_inlined_call &from, krv_call_t *call)
{
    *call = {};
    call->is_inlined = 1;
    call->language = at.calls->sc_language;
    take_names(from.names, call);
    if (!load_head(hp, at, entry, DW_TAG_inlined_subroutine, from, &call->entry))
        return -1;
    if (from.is_cut) {
        read_place_of_call(hp, call);
        return 0;
    }
    call->call_unit = from.has_file ? at.unit : nullptr;
    call->call_file = from.file;
    call->call_line = from.line;
    call->call_column = from.column;
    call->discriminator = from.discriminator;
    return 0;
}

// NULL: KRV_ERR_NOMEM.
[[gnu::noinline]] static const krv_function_names *keep_names(krv_handle_t *hp, const krv_entry_t &entry,
                                                              krv_function *of)
{
    krv_owner<krv_function_names> fresh(krv_new<krv_function_names>(hp));
    if (fresh == nullptr || !krv_function_names_find(hp, entry, fresh.get()))
        return nullptr;
    return krv_publish(&of->names, fresh.release(), krv_free);
}

[[gnu::always_inline]] static inline int make_function(krv_handle_t *hp, const covering &at, krv_function *from,
                                                       krv_call_t *call)
{
    *call = {};
    call->language = at.calls->sc_language;
    const uint64_t entry = at.calls->sc_offset + from->entry;
    if (!load_head(hp, at, entry, DW_TAG_subprogram, *from, &call->entry))
        return -1;
    const krv_function_names *names = krv_load(&from->names);
    if (names == nullptr && (names = keep_names(hp, call->entry, from)) == nullptr)
        return -1;
    take_names(names, call);
    call->start = from->start;
    return 0;
}

// Names lie all over memory: those of a call and its callers, up to one of these, are fetched together, and not each when its turn has
// come.
[[gnu::always_inline]] static inline void prefetch_names(const krv_inlined_call *inlined, uint32_t call, uint32_t end)
{
    for (; call != end; call = inlined[call].caller)
        __builtin_prefetch(inlined[call].names);
}

// The chain, from the innermost call on, and in *countp its length. What there is no room for is left out before the last,
// which is the function.
[[gnu::always_inline]] static inline int make_chain(krv_handle_t *hp, const covering &at, krv_call_t *calls,
                                                    size_t room, bool keeps_last, size_t *countp)
{
    krv_function *of = &at.calls->sc_functions[at.function];
    __builtin_prefetch(krv_load(&of->names));
    size_t count = 0;
    if (at.inlined != KRV_NO_CALL) {
        const krv_inlined_call *const inlined = krv_load(&of->inlined)->calls();
        prefetch_names(inlined, at.inlined, KRV_NO_CALL);
        const uint64_t entry = at.calls->sc_offset + of->entry;
        for (uint32_t i = at.inlined; i != KRV_NO_CALL; i = inlined[i].caller, ++count)
            if (count < room && make_inlined(hp, at, entry + inlined[i].entry, inlined[i], &calls[count]) != 0)
                return -1;
    }
    const size_t last = keeps_last && count >= room ? room - 1 : count;
    *countp = keeps_last ? last + 1 : count + 1;
    return last < room ? make_function(hp, at, of, &calls[last]) : 0;
}

namespace
{

// Chains that are shown one after another. Each lies at the end of the same room, so that the calls that the next one has in common with it,
// the outer ones, stay where they are.
class shown_calls
{
public:
    const krv_call_t *first;
    size_t count = 0;

    explicit shown_calls(krv_call_t *most_calls) : first(most_calls), room(most_calls) {}

    // Makes them the chain of what covers an address; a long one is cut before its last. False: as make_chain; there are none.
    bool make(krv_handle_t *hp, const covering &covers)
    {
        krv_function *of = &covers.calls->sc_functions[covers.function];
        krv_inlined_calls *in_function = krv_load(&of->inlined);
        const krv_inlined_call *const inlined = in_function == nullptr ? nullptr : in_function->calls();
        const bool is_same = at.calls == covers.calls && at.function == covers.function;
        // Callers have lower numbers, and KRV_NO_CALL, which stands for the function, has the lowest when one is added.
        size_t stay = is_same ? count : 0, come = 0;
        uint32_t common = is_same ? at.inlined : KRV_NO_CALL;
        for (uint32_t call = covers.inlined; call != common;) {
            if (call + 1 > common + 1) {
                ++come;
                call = inlined[call].caller;
            } else {
                --stay;
                common = inlined[common].caller;
            }
        }
        at.calls = nullptr; // until they are complete
        count = 0;
        if (stay + come >= MOST_CALLS) {
            first = room;
            return make_chain(hp, covers, room, MOST_CALLS, true, &count) == 0;
        }
        krv_call_t *const end = room + MOST_CALLS;
        krv_call_t *next = end - come - (is_same ? stay : 1);
        first = next;
        prefetch_names(inlined, covers.inlined, common);
        const uint64_t entry = covers.calls->sc_offset + of->entry;
        for (uint32_t call = covers.inlined; call != common; call = inlined[call].caller)
            if (make_inlined(hp, covers, entry + inlined[call].entry, inlined[call], next++) != 0)
                return false;
        if (!is_same && make_function(hp, covers, of, next) != 0)
            return false;
        at = covers;
        count = static_cast<size_t>(end - first);
        return true;
    }

private:
    krv_call_t *const room; // for MOST_CALLS
    covering at = {};       // without calls: what lies there is not to be used again
};

} // namespace

int korva_lookup_calls(krv_handle_t *hp, uint64_t address, krv_call_t *calls, size_t room, size_t *countp)
{
    if (hp == nullptr)
        return -1;
    if (countp == nullptr || (calls == nullptr && room != 0))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    *countp = 0;
    covering at;
    return find_covering(hp, address, &at) == 0 ? make_chain(hp, at, calls, room, false, countp) : -1;
}

// Whether what failed says something of the input, so that queries are answered without it. Else: KRV_ERR_NOMEM or KRV_ERR_IO.
static bool is_final(krv_handle_t *hp)
{
    if (krv_is_passing(hp))
        return false;
    krv_clear_error(hp);
    return true;
}

static inline void prefetch_inlined(const covering &at)
{
    if (const krv_inlined_calls *inlined = krv_load(&at.calls->sc_functions[at.function].inlined))
        __builtin_prefetch(inlined);
}

// Finds a chain, or a row alone. False: the walk ends, with the error set.
[[gnu::always_inline]] static inline bool find_chain(krv_place_walk *walk, nearby *near, bool has_calls,
                                                     uint64_t address, chain *found)
{
    if (!walk->enter(address))
        return false;
    // The row is looked for while the function and its calls are fetched.
    krv_handle_t *const hp = walk->hp;
    bool is_covered = has_calls && walk->unit != nullptr &&
                      find_function(hp, walk->unit, walk->stretch.hint, address, near, &found->at);
    found->matrix = walk->matrix;
    const uint32_t guess = walk->guess_row(address);
    if (is_covered)
        prefetch_inlined(found->at);
    found->row = walk->find_row(address, guess);
    is_covered = is_covered && find_inlined(hp, address, near, &found->at);
    if (is_covered)
        return true;
    found->at.unit = nullptr;
    return !has_calls || is_final(hp);
}

int korva_lookup_chain(krv_handle_t *hp, uint64_t addr, krv_row_t *rowp, krv_call_t *calls, size_t room, size_t *countp)
{
    if (hp == nullptr)
        return -1;
    if (rowp == nullptr || countp == nullptr || (calls == nullptr && room != 0))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const uint64_t bias = krv_line_bias(hp);
    krv_place_walk walk{.hp = hp, .flags = KRV_LOOKUP_F_NONE};
    chain found = {};
    *countp = 0;
    if (!find_chain(&walk, nullptr, true, addr - bias, &found))
        return -1;
    *rowp = krv_place_show(found.matrix, found.row, bias);
    if (found.at.unit == nullptr || make_chain(hp, found.at, calls, room, false, countp) == 0)
        return 0;
    *countp = 0;
    return is_final(hp) ? 0 : -1;
}

int korva_entry_get_call(krv_handle_t *hp, const krv_entry_t *entryp, krv_call_t *callp)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || callp == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_call_t call = {};
    if (krv_entry_load_at(hp, entryp->unit, entryp->offset, &call.entry) != 0)
        return -1;
    call.is_inlined = call.entry.tag == DW_TAG_inlined_subroutine;
    call.language = krv_cu_language(entryp->unit);
    if (call.is_inlined != 0)
        read_place_of_call(hp, &call);
    krv_function_names names;
    if (!krv_function_names_find(hp, call.entry, &names))
        return -1;
    take_names(&names, &call);
    *callp = call;
    return 0;
}

namespace
{

// Chains for a visitor.
struct chain_visit {
    krv_iter_chain_f *const fn;
    void *const arg;
    const uint64_t bias;
    const bool has_calls;
    shown_calls calls;
    krv_place_walk walk;
    nearby near = {};
    int result = 0; // of the visitor

    bool find(uint64_t addr, chain *found) { return find_chain(&walk, &near, has_calls, addr - bias, found); }

    // False: the visitor stops, or KRV_ERR_NOMEM or KRV_ERR_IO.
    bool show(size_t index, const chain &found)
    {
        const krv_row_t row = krv_place_show(found.matrix, found.row, bias);
        const bool has_some = found.at.unit != nullptr && calls.make(walk.hp, found.at);
        if (found.at.unit != nullptr && !has_some && !is_final(walk.hp))
            return false;
        result = fn(walk.hp, index, &row, calls.first, has_some ? calls.count : 0, arg);
        return result == 0;
    }
};

} // namespace

static bool visit_ascending(krv_handle_t *hp, const uint64_t *addrs, size_t count, chain_visit *to)
{
    return krv_visit_ascending(hp, addrs, count, [to](uint64_t addr, size_t index) {
        chain found = {};
        return to->find(addr, &found) && to->show(index, found);
    });
}

// Finds all of them first.
static bool visit_as_given(krv_handle_t *hp, const uint64_t *addrs, size_t count, chain_visit *to)
{
    const krv_owner<chain> found(static_cast<chain *>(krv_alloc(hp, count * sizeof(chain))));
    if (found == nullptr || !krv_visit_ascending(hp, addrs, count, [&](uint64_t addr, size_t index) {
            return to->find(addr, &found.get()[index]);
        }))
        return false;
    for (size_t i = 0; i < count; ++i)
        if (!to->show(i, found.get()[i]))
            return false;
    return true;
}

int korva_iter_chains(krv_handle_t *hp, const uint64_t *addrs, size_t count, unsigned int flags, krv_iter_chain_f *fn,
                      void *arg)
{
    if (hp == nullptr)
        return -1;
    if (fn == nullptr || (addrs == nullptr && count != 0) ||
        (flags & ~unsigned{KRV_CHAINS_F_ASCENDING | KRV_CHAINS_F_ROWS}) != 0)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (count > UINT32_MAX)
        return krv_fail(hp, KRV_ERR_INVALID, "more than %u addresses at once", UINT32_MAX);
    if (count == 0)
        return 0;
    const bool has_calls = (flags & KRV_CHAINS_F_ROWS) == 0;
    const krv_owner<krv_call_t> calls(
        has_calls ? static_cast<krv_call_t *>(krv_alloc(hp, MOST_CALLS * sizeof(krv_call_t))) : nullptr);
    if (has_calls && calls == nullptr)
        return -1;
    chain_visit to = {.fn = fn,
                      .arg = arg,
                      .bias = krv_line_bias(hp),
                      .has_calls = has_calls,
                      .calls = shown_calls(calls.get()),
                      .walk = {.hp = hp, .flags = KRV_LOOKUP_F_NONE}};
    const auto visit = (flags & KRV_CHAINS_F_ASCENDING) != 0 ? visit_ascending : visit_as_given;
    return visit(hp, addrs, count, &to) || to.result != 0 ? to.result : -1;
}

// One thread does it: the others go on with their units meanwhile, since all have to be done with before anything is promised.
static bool prefill_index(krv_handle_t *hp)
{
    if (krv_load(&hp->sh_is_indexed) || __atomic_exchange_n(&hp->sh_is_indexed, true, __ATOMIC_ACQ_REL))
        return true;
    krv_addr_stretch stretch;
    if (krv_addr_index_find(hp, UINT64_MAX, KRV_LOOKUP_F_NONE, &stretch) != nullptr || is_final(hp))
        return true;
    krv_store(&hp->sh_is_indexed, false);
    return false;
}

static bool prefill_rows(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_lnph_t *header = korva_line_get_cu_lnph(hp, cu);
    return (header != nullptr && krv_line_get_matrix(hp, header) != nullptr) || is_final(hp);
}

static bool prefill_function(krv_handle_t *hp, krv_ctu_t *cu, krv_calls *calls, krv_function *of)
{
    krv_call_t call;
    const covering at = {cu, calls, static_cast<uint32_t>(of - calls->sc_functions), KRV_NO_CALL};
    if (make_function(hp, at, of, &call) != 0 && !is_final(hp))
        return false;
    return of->has_inlined == 0 || krv_load(&of->inlined) != nullptr ||
           krv_calls_get_inlined(hp, cu, calls, of) != nullptr || is_final(hp);
}

int korva_cu_prefill(krv_handle_t *hp, krv_ctu_t *cup)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (!prefill_index(hp) || !prefill_rows(hp, cup))
        return -1;
    krv_calls *const calls = krv_calls_get(hp, cup);
    if (calls == nullptr)
        return is_final(hp) ? 0 : -1;
    for (uint32_t i = 0; i < calls->sc_count; ++i)
        if (!prefill_function(hp, cup, calls, &calls->sc_functions[i]))
            return -1;
    return 0;
}

int korva_cu_get_file(krv_handle_t *hp, krv_ctu_t *cup, uint64_t number, krv_lnfe_t **filep)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || filep == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_lnph_t *header = korva_line_get_cu_lnph(hp, cup);
    if (header == nullptr)
        return -1;
    *filep = krv_lnph_file(header, number);
    return *filep == nullptr ? krv_fail_code(hp, KRV_ERR_NOTFOUND) : 0;
}

int korva_entry_iter_ranges(krv_handle_t *hp, const krv_entry_t *entryp, krv_iter_range_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || fn == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_place_t place;
    krv_ranges_t ranges;
    if (!krv_entry_place(hp, entryp->unit, &place))
        return -1;
    const int begun = krv_ranges_begin_entry(hp, place, entryp, &ranges);
    if (begun != 1)
        return begun == 0 ? krv_fail_code(hp, KRV_ERR_NOTFOUND) : -1;
    krv_range_t range;
    int next;
    while ((next = krv_ranges_next(&ranges, &range.start, &range.end)) == 1)
        if (const int result = fn(hp, &range, arg))
            return result;
    return next;
}
