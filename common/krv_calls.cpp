// SPDX-License-Identifier: Apache-2.0
#include "krv_calls.h"

#include "krv_dwarf.h"
#include "krv_entry_walk.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_ranges.h"

#include <algorithm>

constexpr uint64_t MOST_READINGS = 4; // of a byte of range lists, on the average

static void free_calls(krv_calls *calls)
{
    for (uint32_t i = 0; i < calls->sc_count; ++i) {
        krv_free(calls->sc_functions[i].names);
        krv_free(calls->sc_functions[i].inlined);
    }
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

// Adds ranges. What can be read of a list that is damaged counts. False: KRV_ERR_NOMEM.
static bool add_ranges(krv_handle_t *hp, const krv_ctu_t *cu, const krv_code_place_t &code, uint32_t owner,
                       krv_addr_ranges *to)
{
    krv_ranges_t ranges;
    if (krv_ranges_begin_at(hp, cu, code, &ranges) != 1)
        return !krv_ran_out(hp);
    const uint64_t most = krv_ranges_most_bytes(hp, MOST_READINGS), read = hp->sh_calls_read;
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
    krv_function *added = &calls->sc_functions[number];
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

uint32_t krv_cu_language(const krv_ctu_t *cu)
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
    calls->sc_language = krv_cu_language(first.unit);
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
        krv_inlined_call call;
        uint32_t depth;
    };
    one *calls = nullptr;
    uint32_t size = 0, count = 0;
    uint32_t innermost = KRV_NO_CALL; // that was met last
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
static bool read_inlined(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &entry, krv_inlined_call *call,
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
    while (to->innermost != KRV_NO_CALL && to->calls[to->innermost].depth >= level)
        to->innermost = to->calls[to->innermost].call.caller;
    if (!krv_table_grow(hp, &to->calls, &to->size, to->count, 16U))
        return false;
    krv_inlined_call call = {};
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

static krv_inlined_calls *pack_inlined(krv_handle_t *hp, const collected_calls &found)
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
    auto *inlined = static_cast<krv_inlined_calls *>(
        krv_alloc(hp, sizeof(krv_inlined_calls) + of_pieces + found.count * sizeof(krv_inlined_call)));
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

static krv_inlined_calls *collect_inlined(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &of)
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
// Keeping
// ---------------------------------------------------------------------------------------------------------------

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

krv_calls *krv_calls_get(krv_handle_t *hp, krv_ctu_t *cu)
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

krv_inlined_calls *krv_calls_get_inlined(krv_handle_t *hp, krv_ctu_t *cu, const krv_calls *calls, krv_function *of)
{
    krv_entry_t entry;
    krv_place_t place;
    if (krv_entry_load_at(hp, cu, calls->sc_offset + of->entry, &entry) != 0 || !krv_entry_place(hp, cu, &place))
        return nullptr;
    krv_inlined_calls *fresh = collect_inlined(hp, place, entry);
    return fresh == nullptr ? nullptr : krv_publish(&of->inlined, fresh, krv_free);
}
