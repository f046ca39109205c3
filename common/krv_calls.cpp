// SPDX-License-Identifier: Apache-2.0
#include "krv_calls.h"

#include "krv_addr_map.h"
#include "krv_ascending.h"
#include "krv_dwarf.h"
#include "krv_entry_walk.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_function_names.h"
#include "krv_line.h"
#include "krv_places.h"
#include "krv_ranges.h"

#include <algorithm>

namespace
{

constexpr uint32_t NONE = KRV_ADDR_NOTHING;
constexpr uint64_t MOST_READINGS = 4; // of a byte of range lists, on the average
constexpr size_t MOST_CALLS = 256;    // of a chain that a visitor is shown

// A call that was inlined into a function, as its entry says. They stand in section order: callers before what they inline.
struct inlined_call {
    const krv_function_names *names; // NULL: it has none
    uint32_t entry;                  // offset from the function's
    uint32_t caller;                 // the call that it was inlined into; NONE: the function
    uint32_t row;                    // of the abbreviation, in the unit's plan
    uint32_t line;
    uint16_t file, column, discriminator;
    uint8_t code_size; // bytes of the abbreviation's code
    bool is_cut : 1;   // the numbers are larger than these fields: they are read again
    bool has_children : 1, has_file : 1;
};

// In one block, so that what an address needs of it lies together: the pieces of an address map, and the calls.
struct inlined_calls {
    uint64_t base;
    uint32_t pieces;
    uint32_t count : 31, is_far : 1; // as krv_addr_map

    template <typename T>
    krv_addr_piece<T> *map()
    {
        return reinterpret_cast<krv_addr_piece<T> *>(this + 1);
    }
    inlined_call *calls()
    {
        return is_far != 0 ? reinterpret_cast<inlined_call *>(map<uint64_t>() + pieces)
                           : reinterpret_cast<inlined_call *>(map<uint32_t>() + pieces);
    }
    // The innermost call that covers the address, or NONE.
    uint32_t find(uint64_t address)
    {
        return address < base ? NONE : is_far != 0 ? find<uint64_t>(address - base) : find<uint32_t>(address - base);
    }

private:
    template <typename T>
    uint32_t find(uint64_t distance)
    {
        const size_t begun = krv_addr_pieces_count(map<T>(), pieces, distance);
        return begun == 0 ? NONE : map<T>()[begun - 1].owner;
    }
};

struct function {
    const krv_function_names *names; // NULL until they are asked for
    uint64_t start;                  // of its first range
    inlined_calls *inlined;          // owned: NULL until it is asked for
    uint32_t entry;                  // offset from the unit's
    uint32_t row : 23;               // as those of inlined_call
    uint32_t code_size : 6;
    uint32_t is_cut : 1, has_children : 1, has_inlined : 1;
};
static_assert(sizeof(inlined_call) == 32 && sizeof(function) == 32, "two lie in a cache line");

} // namespace

struct krv_calls {
    krv_addr_map sc_map;
    function *sc_functions; // owned
    const krv_plan *sc_plan;
    uint64_t sc_offset;   // of the unit
    uint32_t sc_language; // DW_LANG_* of the unit, or 0
    bool sc_is_alternate;
    uint32_t sc_size, sc_count;
    krv_calls *sc_next; // of the handle's
};

static void free_calls(krv_calls *calls)
{
    for (uint32_t i = 0; i < calls->sc_count; ++i)
        krv_free(calls->sc_functions[i].inlined);
    krv_free(calls->sc_functions);
    krv_addr_map_free(&calls->sc_map);
    krv_free(calls);
}

namespace
{

struct calls_deleter {
    void operator()(krv_calls *calls) const { free_calls(calls); }
};

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Collecting
// ---------------------------------------------------------------------------------------------------------------

static uint64_t most_list_bytes(krv_handle_t *hp)
{
    const uint64_t size =
        krv_add_offset(krv_section(hp, KRV_SEC_EXT_RANGES)->sfd_size, krv_section(hp, KRV_SEC_EXT_RNGLISTS)->sfd_size);
    return size > UINT64_MAX / MOST_READINGS ? UINT64_MAX : MOST_READINGS * size;
}

// Adds ranges. What can be read of a list that is damaged counts. False: KRV_ERR_NOMEM.
static bool add_ranges(krv_handle_t *hp, const krv_ctu_t *cu, const krv_code_place_t &code, uint32_t owner,
                       krv_addr_ranges *to)
{
    krv_ranges_t ranges;
    if (krv_ranges_begin_at(hp, cu, code, &ranges) != 1)
        return !krv_ran_out(hp);
    const uint64_t most = most_list_bytes(hp), read = hp->sh_calls_read;
    uint64_t left = read < most ? most - read : 0, start, end;
    const uint64_t allowed = left;
    ranges.sr_left = &left;
    while (krv_ranges_next(&ranges, &start, &end) == 1)
        if (!to->append(hp, {start, end, owner}))
            return false;
    hp->sh_calls_read = read + (allowed - left);
    return !krv_ran_out(hp);
}

// What could not be walked is not known, and told.
static void tell_of_rest(krv_handle_t *hp, const krv_ctu_t *cu)
{
    krv_tell(hp, cu->dcu_section, cu->dcu_offset, false,
             "functions and inlined calls of the unit at offset 0x%lx of %s are not all known: %s",
             static_cast<unsigned long>(cu->dcu_offset), krv_section_name(cu->dcu_section), krv_cause(hp).text);
    krv_clear_error(hp);
}

static bool is_inlined_with_code(const krv_planned_t *planned)
{
    return planned->tag == DW_TAG_inlined_subroutine && planned->has_code();
}

// What makes a cursor of an entry, without a look at its bytes.
template <typename T>
static void take_head(const krv_place_t &place, const krv_entry_t &entry, T *to)
{
    const uint64_t row = static_cast<uint64_t>(krv_entry_planned(&entry) - place.plan->sp_planned);
    const uint64_t code_size = entry.at - entry.offset;
    constexpr uint64_t ROWS = 1 << 23, SIZES = 1 << 6;
    to->is_cut = row >= ROWS || code_size >= SIZES; // padded, or of a huge table
    to->row = static_cast<uint32_t>(row % ROWS);
    to->code_size = static_cast<uint8_t>(code_size % SIZES);
    to->has_children = entry.has_children != 0;
}

namespace
{

// The functions of a unit while they are collected.
struct collected_functions {
    krv_calls *calls;
    // Those around the entry that was met last, innermost last, with their levels.
    struct level {
        uint32_t function, depth;
    };
    level *around = nullptr;
    uint32_t size = 0, count = 0;
    krv_addr_ranges ranges;

    explicit collected_functions(krv_calls *of) : calls(of) {}
    ~collected_functions() { krv_free(around); }
    collected_functions(const collected_functions &) = delete;
    collected_functions &operator=(const collected_functions &) = delete;
};

} // namespace

// Adds a function, or notes of the one around it that it has inlined calls.
static bool add_function(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &entry, uint32_t level,
                         collected_functions *to)
{
    krv_calls *calls = to->calls;
    while (to->count != 0 && to->around[to->count - 1].depth >= level)
        --to->count;
    if (entry.tag != DW_TAG_subprogram) {
        if (to->count != 0)
            calls->sc_functions[to->around[to->count - 1].function].has_inlined = true;
        return true;
    }
    if (!krv_table_grow(hp, &to->around, &to->size, to->count, 16U) ||
        !krv_table_grow(hp, &calls->sc_functions, &calls->sc_size, calls->sc_count, 16U))
        return false;
    const uint32_t number = calls->sc_count++;
    function *added = &calls->sc_functions[number];
    *added = {};
    added->entry = static_cast<uint32_t>(entry.offset - calls->sc_offset);
    take_head(place, entry, added);
    to->around[to->count++] = {number, entry.depth};
    krv_entry_t reading = entry;
    krv_code_place_t code = {};
    krv_attr_t attr;
    while (krv_entry_read_attr(hp, place, &reading, &attr) == 1)
        code.take(attr);
    const size_t before = to->ranges.entries;
    if (!add_ranges(hp, entry.unit, code, number, &to->ranges))
        return false;
    if (to->ranges.entries != before)
        added->start = to->ranges.ranges[before].start;
    return true;
}

// DW_LANG_* of a unit, or 0.
static uint32_t language_of(const krv_ctu_t *cu)
{
    const krv_abbrev_t *abbrev = cu->dcu_compile_unit->dwdie_abbrev_cache;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i)
        if (abbrev->dwa_afpairs[i].dwafp_attribute == DW_AT_language)
            return static_cast<uint32_t>(cu->dcu_compile_unit->dwdie_attrs[i].sa_u.su_unsigned);
    return 0;
}

// NULL: KRV_ERR_NOMEM, or the unit's entries are not in memory.
static krv_calls *collect_functions(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &first)
{
    std::unique_ptr<krv_calls, calls_deleter> calls(krv_new<krv_calls>(hp));
    if (calls == nullptr)
        return nullptr;
    calls->sc_plan = place.plan;
    calls->sc_offset = first.unit->dcu_offset;
    calls->sc_language = language_of(first.unit);
    calls->sc_is_alternate = first.is_alternate != 0;
    collected_functions found(calls.get());
    const int walked = krv_entry_walk(
        hp, place, first,
        [](const krv_planned_t *planned) {
            return planned->has_code() &&
                   (planned->tag == DW_TAG_subprogram || planned->tag == DW_TAG_inlined_subroutine);
        },
        [&](const krv_entry_t &entry, uint32_t level) {
            if (entry.offset - calls->sc_offset > UINT32_MAX)
                return krv_step::skip;
            return add_function(hp, place, entry, level, &found) ? krv_step::next : krv_step::stop;
        });
    if (walked == 1 || (walked == -1 && krv_ran_out(hp)))
        return nullptr;
    if (walked == -1)
        tell_of_rest(hp, first.unit);
    if (!krv_table_trim(hp, &calls->sc_functions, &calls->sc_size, calls->sc_count) ||
        !krv_addr_map_make(hp, found.ranges, krv_paint::last, &calls->sc_map) ||
        !krv_addr_map_add_blocks(hp, &calls->sc_map))
        return nullptr;
    return krv_forgive(hp) ? calls.release() : nullptr; // ranges that are damaged
}

namespace
{

// The inlined calls of a function while they are collected.
struct collected_calls {
    struct one {
        inlined_call call;
        uint32_t depth;
    };
    one *calls = nullptr;
    uint32_t size = 0, count = 0;
    uint32_t innermost = NONE; // that was met last
    krv_addr_ranges ranges;

    collected_calls() = default;
    ~collected_calls() { krv_free(calls); }
    collected_calls(const collected_calls &) = delete;
    collected_calls &operator=(const collected_calls &) = delete;
};

} // namespace

// Takes a number of an attribute into a field that may be too small for it. False: it is.
template <typename T>
static bool take_number(const krv_attr_t &attr, T *field)
{
    *field = static_cast<T>(attr.number);
    return *field == attr.number;
}

// Reads what an entry says of the call. False: KRV_ERR_NOMEM.
static bool read_inlined(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &entry, inlined_call *call,
                         krv_code_place_t *code)
{
    krv_entry_t reading = entry;
    krv_attr_t attr;
    while (krv_entry_read_attr(hp, place, &reading, &attr) == 1) {
        switch (attr.attribute) {
        case DW_AT_call_file:
            call->is_cut |= !take_number(attr, &call->file);
            call->has_file = true;
            break;
        case DW_AT_call_line:
            call->is_cut |= !take_number(attr, &call->line);
            break;
        case DW_AT_call_column:
            call->is_cut |= !take_number(attr, &call->column);
            break;
        case DW_AT_GNU_discriminator:
            call->is_cut |= !take_number(attr, &call->discriminator);
            break;
        case DW_AT_abstract_origin:
            if (attr.kind == KRV_ATTR_REFERENCE)
                call->names = krv_function_names_keep(hp, entry, attr);
            break;
        default:
            code->take(attr);
            break;
        }
    }
    return !krv_ran_out(hp);
}

static bool add_inlined(krv_handle_t *hp, const krv_place_t &place, uint64_t function_entry, const krv_entry_t &entry,
                        uint32_t level, collected_calls *to)
{
    while (to->innermost != NONE && to->calls[to->innermost].depth >= level)
        to->innermost = to->calls[to->innermost].call.caller;
    if (!krv_table_grow(hp, &to->calls, &to->size, to->count, 16U))
        return false;
    inlined_call call = {};
    krv_code_place_t code = {};
    call.entry = static_cast<uint32_t>(entry.offset - function_entry);
    call.caller = to->innermost;
    take_head(place, entry, &call);
    if (!read_inlined(hp, place, entry, &call, &code))
        return false;
    to->calls[to->count] = {call, entry.depth};
    to->innermost = to->count++;
    return add_ranges(hp, entry.unit, code, to->innermost, &to->ranges);
}

static inlined_calls *pack_inlined(krv_handle_t *hp, const collected_calls &found)
{
    struct owned_map : krv_addr_map {
        ~owned_map() { krv_addr_map_free(this); }
    } map;
    if (!krv_addr_map_make(hp, found.ranges, krv_paint::last, &map))
        return nullptr;
    const size_t pieces = map.sam_pieces;
    if (pieces > UINT32_MAX || found.count > INT32_MAX) {
        krv_fail(hp, KRV_ERR_NOMEM, "too many ranges of inlined calls");
        return nullptr;
    }
    const size_t of_pieces = pieces * (map.sam_is_far ? sizeof(*map.sam_far) : sizeof(*map.sam_near));
    auto *inlined = static_cast<inlined_calls *>(
        krv_alloc(hp, sizeof(inlined_calls) + of_pieces + found.count * sizeof(inlined_call)));
    if (inlined == nullptr)
        return nullptr;
    *inlined = {};
    inlined->base = map.sam_base;
    inlined->pieces = static_cast<uint32_t>(pieces);
    inlined->count = found.count & INT32_MAX;
    inlined->is_far = map.sam_is_far;
    if (map.sam_is_far)
        std::copy_n(map.sam_far, pieces, inlined->map<uint64_t>());
    else
        std::copy_n(map.sam_near, pieces, inlined->map<uint32_t>());
    for (uint32_t i = 0; i < found.count; ++i)
        inlined->calls()[i] = found.calls[i].call;
    if (krv_forgive(hp))
        return inlined;
    krv_free(inlined);
    return nullptr;
}

static inlined_calls *collect_inlined(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &of)
{
    collected_calls found;
    const int walked = krv_entry_walk(
        hp, place, of,
        [](const krv_planned_t *planned) { return planned->tag == DW_TAG_subprogram || is_inlined_with_code(planned); },
        [&](const krv_entry_t &entry, uint32_t level) {
            if (entry.tag == DW_TAG_subprogram || entry.offset - of.offset > UINT32_MAX)
                return krv_step::skip; // another function, which is asked for itself
            return add_inlined(hp, place, of.offset, entry, level, &found) ? krv_step::next : krv_step::stop;
        });
    if (walked == 1 || (walked == -1 && krv_ran_out(hp)))
        return nullptr;
    if (walked == -1)
        tell_of_rest(hp, of.unit);
    return pack_inlined(hp, found);
}

// ---------------------------------------------------------------------------------------------------------------
// Answers
// ---------------------------------------------------------------------------------------------------------------

namespace
{

// What covers an address.
struct covering {
    krv_ctu_t *unit;
    krv_calls *calls;  // the unit's
    uint32_t function; // of these
    uint32_t inlined;  // the innermost of the function's, or NONE
};

// A row and what covers it.
struct chain {
    covering at; // without a unit: nothing does
    const krv_lnp_t *matrix;
    uint32_t row; // of the matrix, or KRV_NO_ROW
};

} // namespace

static void keep_calls(krv_handle_t *hp, krv_calls *calls)
{
    calls->sc_next = krv_load(&hp->sh_calls);
    while (
        !__atomic_compare_exchange_n(&hp->sh_calls, &calls->sc_next, calls, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        ;
}

void krv_calls_destroy(krv_handle_t *hp)
{
    for (krv_calls *calls = hp->sh_calls, *next; calls != nullptr; calls = next) {
        next = calls->sc_next;
        free_calls(calls);
    }
    hp->sh_calls = nullptr;
}

[[gnu::noinline]] static krv_calls *get_calls(krv_handle_t *hp, krv_ctu_t *cu)
{
    if (krv_calls *calls = krv_load(&cu->dcu_calls))
        return calls;
    krv_entry_t first;
    krv_place_t place;
    if (krv_entry_load_at(hp, cu, cu->dcu_offset + cu->dcu_header_size, &first) != 0 ||
        !krv_entry_place(hp, cu, &place))
        return nullptr;
    krv_calls *fresh = collect_functions(hp, place, first);
    krv_calls *calls = fresh == nullptr ? nullptr : krv_publish(&cu->dcu_calls, fresh, free_calls);
    if (calls == fresh && fresh != nullptr)
        keep_calls(hp, fresh);
    return calls;
}

[[gnu::noinline]] static inlined_calls *make_inlined_calls(krv_handle_t *hp, krv_ctu_t *cu, const krv_calls *calls,
                                                           function *of)
{
    krv_entry_t entry;
    krv_place_t place;
    if (krv_entry_load_at(hp, cu, calls->sc_offset + of->entry, &entry) != 0 || !krv_entry_place(hp, cu, &place))
        return nullptr;
    inlined_calls *fresh = collect_inlined(hp, place, entry);
    return fresh == nullptr ? nullptr : krv_publish(&of->inlined, fresh, krv_free);
}

// Finds the function that covers an address of the unit. False: KRV_ERR_NOTFOUND, or with the error of reading the unit.
[[gnu::always_inline]] static inline bool find_function(krv_handle_t *hp, krv_ctu_t *cu, krv_addr_hint *hint,
                                                        uint64_t address, covering *found)
{
    krv_calls *calls = hint == nullptr ? nullptr : krv_load(&hint->sah_calls);
    if (calls == nullptr) {
        if ((calls = get_calls(hp, cu)) == nullptr)
            return false;
        if (hint != nullptr)
            krv_store(&hint->sah_calls, calls);
    }
    *found = {cu, calls, krv_addr_map_find(&calls->sc_map, address), NONE};
    if (found->function == NONE) {
        krv_fail_code(hp, KRV_ERR_NOTFOUND);
        return false;
    }
    __builtin_prefetch(&calls->sc_functions[found->function]);
    return true;
}

// Finds the call in it. False: KRV_ERR_NOMEM, or the error of reading the unit.
[[gnu::always_inline]] static inline bool find_inlined(krv_handle_t *hp, uint64_t address, covering *found)
{
    function *of = &found->calls->sc_functions[found->function];
    if (of->has_inlined == 0)
        return true;
    inlined_calls *inlined = krv_load(&of->inlined);
    if (inlined == nullptr && (inlined = make_inlined_calls(hp, found->unit, found->calls, of)) == nullptr)
        return false;
    found->inlined = inlined->find(address);
    return true;
}

// 0, or -1: KRV_ERR_NOTFOUND when no function covers the address.
static int find_covering(krv_handle_t *hp, uint64_t address, covering *found)
{
    krv_addr_stretch stretch;
    krv_ctu_t *cu = krv_addr_index_find(hp, address, KRV_LOOKUP_F_NONE, &stretch);
    return cu != nullptr && find_function(hp, cu, stretch.hint, address, found) && find_inlined(hp, address, found)
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
                                                      const inlined_call &from, krv_call_t *call)
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

[[gnu::always_inline]] static inline int make_function(krv_handle_t *hp, const covering &at, function *from,
                                                       krv_call_t *call)
{
    *call = {};
    call->language = at.calls->sc_language;
    const uint64_t entry = at.calls->sc_offset + from->entry;
    if (!load_head(hp, at, entry, DW_TAG_subprogram, *from, &call->entry))
        return -1;
    const krv_function_names *names = krv_load(&from->names);
    if (names == nullptr) {
        krv_attr_t itself = {};
        itself.kind = KRV_ATTR_REFERENCE;
        itself.number = entry;
        names = krv_function_names_keep(hp, call->entry, itself);
        if (names == nullptr)
            return -1;
        krv_store(&from->names, names);
    }
    take_names(names, call);
    call->start = from->start;
    return 0;
}

// The chain, from the innermost call on, and in *countp its length. What there is no room for is left out before the last,
// which is the function.
[[gnu::always_inline]] static inline int make_chain(krv_handle_t *hp, const covering &at, krv_call_t *calls,
                                                    size_t room, bool keeps_last, size_t *countp)
{
    function *of = &at.calls->sc_functions[at.function];
    // Names lie all over memory: they are fetched together, and not each when its turn has come.
    __builtin_prefetch(krv_load(&of->names));
    size_t count = 0;
    if (at.inlined != NONE) {
        const inlined_call *const inlined = krv_load(&of->inlined)->calls();
        for (uint32_t i = at.inlined; i != NONE; i = inlined[i].caller)
            __builtin_prefetch(inlined[i].names);
        const uint64_t entry = at.calls->sc_offset + of->entry;
        for (uint32_t i = at.inlined; i != NONE; i = inlined[i].caller, ++count)
            if (count < room && make_inlined(hp, at, entry + inlined[i].entry, inlined[i], &calls[count]) != 0)
                return -1;
    }
    const size_t last = keeps_last && count >= room ? room - 1 : count;
    *countp = keeps_last ? last + 1 : count + 1;
    return last < room ? make_function(hp, at, of, &calls[last]) : 0;
}

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

// Finds a chain. False: the walk ends, with the error set.
[[gnu::always_inline]] static inline bool find_chain(krv_place_walk *walk, uint64_t address, chain *found)
{
    if (!walk->enter(address))
        return false;
    // The row is looked for while the function is fetched.
    krv_handle_t *const hp = walk->hp;
    bool is_covered = walk->unit != nullptr && find_function(hp, walk->unit, walk->stretch.hint, address, &found->at);
    found->matrix = walk->matrix;
    found->row = walk->find_row(address);
    is_covered = is_covered && find_inlined(hp, address, &found->at);
    if (is_covered)
        return true;
    found->at.unit = nullptr;
    if (krv_is_passing(hp))
        return false;
    krv_clear_error(hp);
    return true;
}

// Shows a chain as make_chain does. False: KRV_ERR_NOMEM or KRV_ERR_IO.
static bool show_chain(krv_handle_t *hp, const chain &found, uint64_t bias, bool keeps_last, krv_row_t *rowp,
                       krv_call_t *calls, size_t room, size_t *countp)
{
    *rowp = krv_place_show(found.matrix, found.row, bias);
    *countp = 0;
    if (found.at.unit == nullptr || make_chain(hp, found.at, calls, room, keeps_last, countp) == 0)
        return true;
    *countp = 0;
    if (krv_is_passing(hp))
        return false;
    krv_clear_error(hp);
    return true;
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
    return find_chain(&walk, addr - bias, &found) && show_chain(hp, found, bias, false, rowp, calls, room, countp) ? 0
                                                                                                                   : -1;
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
    call.language = language_of(entryp->unit);
    if (call.is_inlined != 0)
        read_place_of_call(hp, &call);
    krv_function_names names;
    if (!krv_function_names_find(hp, call.entry, &names))
        return -1;
    take_names(&names, &call);
    *callp = call;
    return 0;
}

// Shows chains as they are found. 0, fn's result, or -1 with the error set.
static int iter_ascending(krv_handle_t *hp, const uint64_t *addrs, size_t count, krv_call_t *calls,
                          krv_iter_chain_f *fn, void *arg)
{
    const uint64_t bias = krv_line_bias(hp);
    krv_place_walk walk{.hp = hp, .flags = KRV_LOOKUP_F_NONE};
    int result = 0;
    const bool saw_all = krv_visit_ascending(hp, addrs, count, [&](uint64_t addr, size_t index) {
        chain found = {};
        krv_row_t row;
        size_t length;
        if (!find_chain(&walk, addr - bias, &found) ||
            !show_chain(hp, found, bias, true, &row, calls, MOST_CALLS, &length))
            return false;
        result = fn(hp, index, &row, calls, length, arg);
        return result == 0;
    });
    return saw_all || result != 0 ? result : -1;
}

// Finds all of them first.
static int iter_as_given(krv_handle_t *hp, const uint64_t *addrs, size_t count, krv_call_t *calls, krv_iter_chain_f *fn,
                         void *arg)
{
    const krv_owner<chain> found(static_cast<chain *>(krv_alloc(hp, count * sizeof(chain))));
    const uint64_t bias = krv_line_bias(hp);
    krv_place_walk walk{.hp = hp, .flags = KRV_LOOKUP_F_NONE};
    if (found == nullptr || !krv_visit_ascending(hp, addrs, count, [&](uint64_t addr, size_t number) {
            return find_chain(&walk, addr - bias, &found.get()[number]);
        }))
        return -1;
    for (size_t i = 0; i < count; ++i) {
        krv_row_t row;
        size_t length;
        if (!show_chain(hp, found.get()[i], bias, true, &row, calls, MOST_CALLS, &length))
            return -1;
        if (const int result = fn(hp, i, &row, calls, length, arg))
            return result;
    }
    return 0;
}

int korva_iter_chains(krv_handle_t *hp, const uint64_t *addrs, size_t count, unsigned int flags, krv_iter_chain_f *fn,
                      void *arg)
{
    if (hp == nullptr)
        return -1;
    if (fn == nullptr || (addrs == nullptr && count != 0) || (flags & ~unsigned{KRV_CHAINS_F_ASCENDING}) != 0)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (count > UINT32_MAX)
        return krv_fail(hp, KRV_ERR_INVALID, "more than %u addresses at once", UINT32_MAX);
    if (count == 0)
        return 0;
    const krv_owner<krv_call_t> calls(static_cast<krv_call_t *>(krv_alloc(hp, MOST_CALLS * sizeof(krv_call_t))));
    if (calls == nullptr)
        return -1;
    const auto iter = (flags & KRV_CHAINS_F_ASCENDING) != 0 ? iter_ascending : iter_as_given;
    return iter(hp, addrs, count, calls.get(), fn, arg);
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
