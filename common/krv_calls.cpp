// SPDX-License-Identifier: Apache-2.0
#include "krv_calls.h"

#include "krv_addr_map.h"
#include "krv_dwarf.h"
#include "krv_entry_walk.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_function_names.h"
#include "krv_line.h"
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

// In one block, so that what an address needs of it lies together: where the pieces of an address map begin, the calls,
// and the owners of the pieces.
struct inlined_calls {
    uint32_t pieces, count;
    uint64_t bounds[];

    inlined_call *calls() { return reinterpret_cast<inlined_call *>(bounds + pieces); }
    const inlined_call *calls() const { return reinterpret_cast<const inlined_call *>(bounds + pieces); }
    uint32_t *owners() { return reinterpret_cast<uint32_t *>(calls() + count); }
    const uint32_t *owners() const { return reinterpret_cast<const uint32_t *>(calls() + count); }
};

struct function {
    uint64_t entry;                  // offset in the section
    const krv_function_names *names; // NULL until they are asked for
    uint64_t start;                  // of its first range
    inlined_calls *inlined;          // owned: NULL until it is asked for
    uint32_t outer, depth;           // while they are collected: the function that it is nested in, or NONE; its level
    uint32_t row;                    // as those of inlined_call
    uint8_t code_size;
    bool is_cut : 1, has_children : 1, has_inlined : 1;
};

} // namespace

struct krv_calls {
    krv_addr_map sc_map;
    const krv_plan *sc_plan;
    uint32_t sc_language;   // DW_LANG_* of the unit, or 0
    function *sc_functions; // owned
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
        return hp->sh_errno != KRV_ERR_NOMEM;
    const uint64_t most = most_list_bytes(hp), read = hp->sh_calls_read;
    uint64_t left = read < most ? most - read : 0, start, end;
    const uint64_t allowed = left;
    ranges.sr_left = &left;
    while (krv_ranges_next(&ranges, &start, &end) == 1)
        if (!to->append(hp, {start, end, owner}))
            return false;
    hp->sh_calls_read = read + (allowed - left);
    return true;
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
    to->row = static_cast<uint32_t>(krv_entry_planned(&entry) - place.plan->sp_planned);
    to->code_size = static_cast<uint8_t>(entry.at - entry.offset);
    to->is_cut = entry.at - entry.offset > UINT8_MAX; // padded
    to->has_children = entry.has_children != 0;
}

// Adds a function, or notes of the one around it that it has inlined calls. *innermost is the function that was met last.
static bool add_function(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &entry, uint32_t level,
                         krv_calls *calls, uint32_t *innermost, krv_addr_ranges *ranges)
{
    while (*innermost != NONE && calls->sc_functions[*innermost].depth >= level)
        *innermost = calls->sc_functions[*innermost].outer;
    if (entry.tag != DW_TAG_subprogram) {
        if (*innermost != NONE)
            calls->sc_functions[*innermost].has_inlined = true;
        return true;
    }
    if (!krv_table_grow(hp, &calls->sc_functions, &calls->sc_size, calls->sc_count, 16U))
        return false;
    function *to = &calls->sc_functions[calls->sc_count];
    *to = {};
    to->entry = entry.offset;
    to->outer = *innermost;
    to->depth = entry.depth;
    take_head(place, entry, to);
    *innermost = calls->sc_count++;
    krv_entry_t reading = entry;
    krv_code_place_t code = {};
    krv_attr_t attr;
    while (krv_entry_read_attr(hp, place, &reading, &attr) == 1)
        code.take(attr);
    const size_t before = ranges->entries;
    if (!add_ranges(hp, entry.unit, code, *innermost, ranges))
        return false;
    if (ranges->entries != before)
        calls->sc_functions[*innermost].start = ranges->ranges[before].start;
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
    krv_addr_ranges ranges;
    uint32_t innermost = NONE;
    const int walked = krv_entry_walk(
        hp, place, first,
        [](const krv_planned_t *planned) {
            return planned->has_code() &&
                   (planned->tag == DW_TAG_subprogram || planned->tag == DW_TAG_inlined_subroutine);
        },
        [&](const krv_entry_t &entry, uint32_t level) {
            return add_function(hp, place, entry, level, calls.get(), &innermost, &ranges) ? krv_step::next
                                                                                           : krv_step::stop;
        });
    if (walked == 1)
        return nullptr;
    if (walked == -1)
        tell_of_rest(hp, first.unit);
    if (!krv_table_trim(hp, &calls->sc_functions, &calls->sc_size, calls->sc_count) ||
        !krv_addr_map_make(hp, ranges, krv_paint::last, &calls->sc_map) || !krv_addr_map_add_blocks(hp, &calls->sc_map))
        return nullptr;
    calls->sc_plan = place.plan;
    calls->sc_language = language_of(first.unit);
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
    return hp->sh_errno != KRV_ERR_NOMEM;
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
    if (pieces > UINT32_MAX) {
        krv_fail(hp, KRV_ERR_NOMEM, "too many ranges of inlined calls");
        return nullptr;
    }
    auto *inlined = static_cast<inlined_calls *>(krv_alloc(hp, sizeof(inlined_calls) +
                                                                   pieces * (sizeof(uint64_t) + sizeof(uint32_t)) +
                                                                   found.count * sizeof(inlined_call)));
    if (inlined == nullptr)
        return nullptr;
    inlined->pieces = static_cast<uint32_t>(pieces);
    inlined->count = found.count;
    std::copy_n(map.sam_bounds, pieces, inlined->bounds);
    std::copy_n(map.sam_owners, pieces, inlined->owners());
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
    if (walked == 1)
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
    uint32_t function; // of the unit's
    uint32_t inlined;  // the innermost of the function's, or NONE
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

static const krv_calls *get_calls(krv_handle_t *hp, krv_ctu_t *cu)
{
    if (const krv_calls *calls = krv_load(&cu->dcu_calls))
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

static const inlined_calls *get_inlined(krv_handle_t *hp, krv_ctu_t *cu, function *of)
{
    if (const inlined_calls *inlined = krv_load(&of->inlined))
        return inlined;
    krv_entry_t entry;
    krv_place_t place;
    if (krv_entry_load_at(hp, cu, of->entry, &entry) != 0 || !krv_entry_place(hp, cu, &place))
        return nullptr;
    inlined_calls *fresh = collect_inlined(hp, place, entry);
    return fresh == nullptr ? nullptr : krv_publish(&of->inlined, fresh, krv_free);
}

// 0, or -1: KRV_ERR_NOTFOUND when no function covers the address.
static int find_covering(krv_handle_t *hp, uint64_t address, covering *found)
{
    krv_ctu_t *cu = korva_lookup_ctu_by_addr(hp, address, KRV_LOOKUP_F_NONE);
    const krv_calls *calls = cu == nullptr ? nullptr : get_calls(hp, cu);
    if (calls == nullptr)
        return -1;
    *found = {cu, krv_addr_map_find(&calls->sc_map, address), NONE};
    if (found->function == NONE)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    function *of = &calls->sc_functions[found->function];
    if (!of->has_inlined)
        return 0;
    const inlined_calls *inlined = get_inlined(hp, cu, of);
    if (inlined == nullptr)
        return -1;
    const size_t begun =
        krv_count_not_above(inlined->bounds, size_t{inlined->pieces}, address, [](uint64_t b) { return b; });
    found->inlined = begun == 0 ? NONE : inlined->owners()[begun - 1];
    return 0;
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

static void take_names(const krv_function_names *names, krv_call_t *call)
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
static bool load_head(krv_handle_t *hp, krv_ctu_t *cu, const krv_plan *plan, uint64_t offset, uint32_t tag,
                      const T &from, krv_entry_t *entry)
{
    if (from.is_cut)
        return krv_entry_load_at(hp, cu, offset, entry) == 0;
    entry->unit = cu;
    entry->offset = offset;
    entry->tag = tag;
    entry->has_children = from.has_children;
    entry->is_alternate = cu->dcu_section == KRV_SEC_EXT_ALT_INFO;
    entry->at = offset + from.code_size;
    entry->abbreviation = &plan->sp_planned[from.row];
    return true;
}

static int make_inlined(krv_handle_t *hp, krv_ctu_t *cu, const krv_plan *plan, uint64_t entry, const inlined_call &from,
                        krv_call_t *call)
{
    *call = {};
    call->is_inlined = 1;
    take_names(from.names, call);
    if (!load_head(hp, cu, plan, entry, DW_TAG_inlined_subroutine, from, &call->entry))
        return -1;
    if (from.is_cut) {
        read_place_of_call(hp, call);
        return 0;
    }
    call->call_unit = from.has_file ? cu : nullptr;
    call->call_file = from.file;
    call->call_line = from.line;
    call->call_column = from.column;
    call->discriminator = from.discriminator;
    return 0;
}

static int make_function(krv_handle_t *hp, krv_ctu_t *cu, const krv_plan *plan, function *from, krv_call_t *call)
{
    *call = {};
    if (!load_head(hp, cu, plan, from->entry, DW_TAG_subprogram, *from, &call->entry))
        return -1;
    const krv_function_names *names = krv_load(&from->names);
    if (names == nullptr) {
        krv_attr_t itself = {};
        itself.kind = KRV_ATTR_REFERENCE;
        itself.number = from->entry;
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
static int make_chain(krv_handle_t *hp, const covering &at, krv_call_t *calls, size_t room, bool keeps_last,
                      size_t *countp)
{
    const krv_calls *of_unit = krv_load(&at.unit->dcu_calls);
    function *of = &of_unit->sc_functions[at.function];
    const inlined_calls *inlined = at.inlined == NONE ? nullptr : krv_load(&of->inlined);
    const krv_plan *plan = of_unit->sc_plan;
    const uint32_t language = of_unit->sc_language;
    size_t count = 0;
    // Names lie all over memory: they are fetched together, and not each when its turn has come.
    __builtin_prefetch(krv_load(&of->names));
    for (uint32_t i = at.inlined; i != NONE; i = inlined->calls()[i].caller)
        __builtin_prefetch(inlined->calls()[i].names);
    for (uint32_t i = at.inlined; i != NONE; i = inlined->calls()[i].caller, ++count) {
        const inlined_call &from = inlined->calls()[i];
        if (count >= room)
            continue;
        if (make_inlined(hp, at.unit, plan, of->entry + from.entry, from, &calls[count]) != 0)
            return -1;
        calls[count].language = language;
    }
    const size_t last = keeps_last && count >= room ? room - 1 : count;
    *countp = keeps_last ? last + 1 : count + 1;
    if (last >= room)
        return 0;
    if (make_function(hp, at.unit, plan, of, &calls[last]) != 0)
        return -1;
    calls[last].language = language;
    return 0;
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

int korva_iter_calls(krv_handle_t *hp, const uint64_t *addresses, size_t count, krv_iter_calls_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (fn == nullptr || (addresses == nullptr && count != 0))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (count > UINT32_MAX)
        return krv_fail(hp, KRV_ERR_INVALID, "more than %u addresses at once", UINT32_MAX);
    const krv_owner<uint32_t> order(static_cast<uint32_t *>(krv_alloc(hp, count * sizeof(uint32_t))));
    const krv_owner<covering> found(static_cast<covering *>(krv_alloc(hp, count * sizeof(covering))));
    const krv_owner<krv_call_t> calls(static_cast<krv_call_t *>(krv_alloc(hp, MOST_CALLS * sizeof(krv_call_t))));
    if (order == nullptr || found == nullptr || calls == nullptr)
        return -1;
    for (size_t i = 0; i < count; ++i)
        order.get()[i] = static_cast<uint32_t>(i);
    std::sort(order.get(), order.get() + count,
              [addresses](uint32_t a, uint32_t b) { return addresses[a] < addresses[b]; });
    for (size_t i = 0; i < count; ++i) {
        const uint32_t number = order.get()[i];
        if (find_covering(hp, addresses[number], &found.get()[number]) != 0) {
            found.get()[number].unit = nullptr;
            if (hp->sh_errno == KRV_ERR_NOMEM)
                return -1;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        size_t length = 0;
        const covering &at = found.get()[i];
        if (at.unit != nullptr && make_chain(hp, at, calls.get(), MOST_CALLS, true, &length) != 0)
            length = 0;
        krv_clear_error(hp);
        if (const int result = fn(hp, i, calls.get(), length, arg))
            return result;
    }
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
