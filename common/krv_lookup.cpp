// SPDX-License-Identifier: Apache-2.0
#include "krv_lookup.h"

#include "krv_build.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_functions.h"
#include "krv_mem.h"
#include "krv_ranges.h"
#include "krv_sets.h"
#include "krv_units.h"

// ---------------------------------------------------------------------------------------------------------------
// Collecting ranges
// ---------------------------------------------------------------------------------------------------------------

constexpr size_t PAIR_SIZE = 2 * sizeof(uint64_t);

static bool resize_list(krv_handle_t *hp, krv_lcpc_t *list, size_t pairs)
{
    krv_range_list_t *old = list->slpc_aranges == nullptr ? nullptr : krv_ranges_list(list->slpc_aranges);
    auto *resized = static_cast<krv_range_list_t *>(krv_realloc(hp, old, sizeof(krv_range_list_t) + pairs * PAIR_SIZE));
    if (resized == nullptr)
        return false;
    list->slpc_aranges = resized->srl_pairs;
    list->slpc_aranges_size = pairs;
    return true;
}

static void free_list(krv_lcpc_t *list)
{
    if (list->slpc_aranges != nullptr)
        krv_free(krv_ranges_list(list->slpc_aranges));
    *list = {};
}

int krv_lookup_insert_arange_entry(krv_handle_t *hp, uint64_t start, uint64_t end, krv_lcpc_t *list)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(list != NULL);
    if (list->slpc_aranges_entries == list->slpc_aranges_size) {
        const size_t size = list->slpc_aranges_size;
        if (size > SIZE_MAX / PAIR_SIZE / 4) {
            krv_errno(hp) = KRV_ERR_NOMEM;
            return 1;
        }
        if (!resize_list(hp, list, size == 0 ? 1 : size * 2))
            return 1;
    }
    uint64_t *pair = &list->slpc_aranges[2 * list->slpc_aranges_entries++];
    pair[0] = start;
    pair[1] = end;
    return 0;
}

// Shrinks a non-empty list to its pairs and stamps their number into it, ready to be published.
static bool finish_list(krv_handle_t *hp, krv_lcpc_t *list)
{
    if (!resize_list(hp, list, list->slpc_aranges_entries))
        return false;
    krv_ranges_list(list->slpc_aranges)->srl_count = list->slpc_aranges_entries;
    return true;
}

// Hands a list over to its unit in place of what is there. The caller holds the write lock.
static bool replace_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lcpc_t *list)
{
    if (!finish_list(hp, list))
        return false;
    uint64_t *old = cu->dcu_aranges;
    cu->dcu_aranges_size = list->slpc_aranges_entries;
    krv_store(&cu->dcu_aranges, list->slpc_aranges);
    if (old != nullptr)
        krv_free(krv_ranges_list(old));
    *list = {};
    return true;
}

// Hands a list over to a unit without ranges; a list that another thread published meanwhile stays. Needs no lock.
[[gnu::always_inline]] static inline bool publish_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lcpc_t *list)
{
    if (!finish_list(hp, list))
        return false;
    uint64_t *fresh = list->slpc_aranges;
    *list = {};
    uint64_t *stays = krv_publish(&cu->dcu_aranges, fresh, [](uint64_t *lost) { krv_free(krv_ranges_list(lost)); });
    if (stays == fresh)
        __atomic_store_n(&cu->dcu_aranges_size, krv_ranges_count(fresh), __ATOMIC_RELAXED);
    return true;
}

// The entry's DW_AT_low_pc and DW_AT_high_pc, the latter with its class. False unless it has both.
static bool get_bounds(krv_handle_t *hp, krv_die_t *die, uint64_t *lowp, uint64_t *highp, uint32_t *high_classp)
{
    krv_value_t *low, *high;
    int mask;
    if (krv_get_die_attr(hp, die, DW_AT_low_pc, nullptr, nullptr, &low) != 0 ||
        krv_get_die_attr(hp, die, DW_AT_high_pc, nullptr, &mask, &high) != 0)
        return false;
    *lowp = low->sa_u.su_unsigned;
    *highp = high->sa_u.su_unsigned;
    *high_classp = static_cast<uint32_t>(mask);
    return true;
}

// The bounds of a unit entry: DW_AT_high_pc is an address, or else the length behind DW_AT_low_pc (DWARF 4, 2.17.2).
static bool get_unit_bounds(krv_handle_t *hp, krv_ctu_t *cu, uint64_t *lowp, uint64_t *highp)
{
    uint32_t mask;
    const bool found = get_bounds(hp, cu->dcu_compile_unit, lowp, highp, &mask);
    if (found && (mask & KRV_CLASS_ADDRESS) == 0)
        *highp += *lowp;
    return found;
}

// ---------------------------------------------------------------------------------------------------------------
// Ranges from .debug_aranges
// ---------------------------------------------------------------------------------------------------------------

int krv_lookup_cu_arange_entry_cb(krv_handle_t *hp, uint64_t s, uint64_t address, uint64_t length, void *arg)
{
    KRV_ASSERT(s == 0);
    return krv_lookup_insert_arange_entry(hp, address, address + length, static_cast<krv_lcpc_t *>(arg));
}

int krv_lookup_cu_populate_aranges(krv_handle_t *hp, krv_arh_t *arhp, void *)
{
    if (krv_get_arh_segment_size(arhp) != 0)
        return 0;
    const uint64_t unit_offset = krv_get_arh_debug_info_offset(arhp);
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, unit_offset);
    if (cu == nullptr) {
        krv_note(hp, ".debug_aranges header at offset 0x%lx identifies with non-existent CU at offset 0x%lx.",
                 static_cast<unsigned long>(krv_get_arh_offset(arhp)), static_cast<unsigned long>(unit_offset));
        return 1;
    }

    krv_lcpc_t list = {};
    uint64_t low, high;
    if (get_unit_bounds(hp, cu, &low, &high)) {
        if (krv_lookup_insert_arange_entry(hp, low, high, &list) == 0 && replace_ranges(hp, cu, &list))
            return 0;
        free_list(&list);
        return -1;
    }
    const bool collected = krv_iter_aranges_entry(hp, arhp, krv_lookup_cu_arange_entry_cb, &list) == 0;
    const bool stored = collected && (list.slpc_aranges_entries == 0 || replace_ranges(hp, cu, &list));
    free_list(&list);
    return stored ? 0 : 1;
}

// Applies .debug_aranges to the units, once per handle. 0, or -1, and then the next query tries again.
static int apply_aranges(krv_handle_t *hp)
{
    if ((krv_load(&hp->sh_init_flags) & KRV_INIT_ARANGES) != 0)
        return 0;
    const krv_build_guard guard(hp);
    if (guard.is_nested())
        return guard.refuse();
    if ((hp->sh_init_flags & KRV_INIT_ARANGES) != 0)
        return 0;
    if (krv_iter_aranges_header(hp, krv_lookup_cu_populate_aranges, nullptr) == -1)
        return -1;
    krv_store(&hp->sh_init_flags, hp->sh_init_flags | KRV_INIT_ARANGES); // also when a set ended the walk early
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Ranges from the entries
// ---------------------------------------------------------------------------------------------------------------

int krv_lookup_scan_die(krv_handle_t *hp, krv_die_t *child, void *arg)
{
    krv_tag_t tag;
    if (krv_get_die_tag(hp, child, &tag) != 0)
        return krv_note(hp, "couldn't get tag");
    if (tag != DW_TAG_subprogram && tag != DW_TAG_variable)
        return 0;
    uint64_t low, high;
    uint32_t mask;
    if (!get_bounds(hp, child, &low, &high, &mask))
        return 0;
    if ((mask & KRV_CLASS_CONSTANT) != 0)
        high += low;
    else if ((mask & KRV_CLASS_ADDRESS) == 0)
        return krv_fail(hp, KRV_ERR_CORRUPT, "DW_AT_high encoded with illegal class");
    return krv_lookup_insert_arange_entry(hp, low, high, static_cast<krv_lcpc_t *>(arg));
}

// A scan that fails or finds nothing gives a single empty pair: the unit matches nothing and is not scanned again.
// False when memory ran out, which says nothing about the unit.
static bool scan_children(krv_handle_t *hp, krv_ctu_t *cu, krv_lcpc_t *list)
{
    const int result = krv_iter_children_in_die(hp, cu->dcu_compile_unit, krv_lookup_scan_die, list);
    if (result == 0 && list->slpc_aranges_entries != 0)
        return true;
    if (result == 1 || krv_ran_out(hp)) { // 1: the list could not grow, but the walk read on since
        krv_errno(hp) = KRV_ERR_NOMEM;
        return false;
    }
    list->slpc_aranges_entries = 0;
    return krv_lookup_insert_arange_entry(hp, 0, 0, list) == 0;
}

// The ranges of a unit that .debug_aranges does not name: its own bounds, else those of its children, unless the flags
// forbid that scan: then 0 leaves dcu_aranges NULL.
static int find_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lookup_flag_t flags)
{
    krv_lcpc_t list = {};
    uint64_t low, high;
    bool known = false;
    const bool found = get_unit_bounds(hp, cu, &low, &high);
    if (found) {
        known = krv_lookup_insert_arange_entry(hp, low, high, &list) == 0;
    } else {
        krv_errno(hp) = KRV_ERR_NONE; // messages about .debug_aranges stay
        if ((flags & KRV_LOOKUP_F_FAST) != 0)
            return 0;
        known = scan_children(hp, cu, &list);
    }
    if (known && publish_ranges(hp, cu, &list)) {
        if (!found)
            __atomic_fetch_add(&hp->sh_scanned_units, 1, __ATOMIC_RELEASE);
        return 0;
    }
    free_list(&list);
    return -1;
}

// ---------------------------------------------------------------------------------------------------------------
// Ranges as they are written
// ---------------------------------------------------------------------------------------------------------------

namespace
{

// The ranges of a unit while its entries are asked for them.
struct written_ranges {
    krv_lcpc_t list = {};
    uint64_t left = 0;    // bytes of range lists that may still be read for units
    size_t of_sets = 0;   // ranges at the front of the list: those that sets have
    size_t latest = 0;    // the one of them that the latest range of the entry lay in
    uint64_t dead = 0;    // ranges that were left out
    bool refused = false; // a call-back asked
};

} // namespace

// Of a byte of the range lists, on the average, before units are taken to share what no compiler shares.
constexpr uint64_t MOST_READINGS = 2;

// Whether a set has the range, as part of one: compilers write both in one order. What is not seen is there twice.
static bool is_known(written_ranges *of, uint64_t start, uint64_t end)
{
    const auto covers = [=](size_t i) {
        const uint64_t *const pairs = of->list.slpc_aranges;
        return i < of->of_sets && pairs[2 * i] <= start && end <= pairs[2 * i + 1];
    };
    if (!covers(of->latest) && covers(of->latest + 1))
        ++of->latest;
    return covers(of->latest);
}

// Appends the ranges of an entry. 1, 0 when it has none, or -1.
static int append_entry_ranges(krv_handle_t *hp, const krv_ctu_t *cu, const krv_die_t *die, written_ranges *of)
{
    krv_ranges_t ranges;
    const int begun = krv_ranges_begin(hp, cu, die, &ranges);
    if (begun != 1)
        return begun;
    ranges.sr_left = &of->left;
    uint64_t start, end;
    int next;
    while ((next = krv_ranges_next(&ranges, &start, &end)) == 1)
        if (!is_known(of, start, end) && krv_lookup_insert_arange_entry(hp, start, end, &of->list) != 0)
            return -1;
    of->dead += ranges.sr_dead;
    return next == 0 ? 1 : -1;
}

static int append_function(krv_handle_t *hp, krv_die_t *die, void *arg)
{
    return append_entry_ranges(hp, die->dwdie_parent_cu, die, static_cast<written_ranges *>(arg)) == -1 ? -1 : 0;
}

static int append_functions(krv_handle_t *hp, krv_ctu_t *cu, written_ranges *of)
{
    const krv_build_guard guard(hp);
    of->refused = guard.is_nested();
    return of->refused ? guard.refuse() : krv_iter_functions(hp, cu, append_function, of);
}

// What sets say of a unit, and its own entry, which may tell more; of a unit without either its functions. 1, 0 when flags
// forbid to look for those, or -1.
static int append_unit_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lookup_flag_t flags, written_ranges *of)
{
    if (cu->dcu_kind == 0)
        return 1;
    const krv_set_t *first = krv_sets_find(hp->sh_sets, cu->dcu_offset);
    if (first != nullptr) {
        int result = 1;
        krv_sets_visit(hp->sh_sets, first, [&](const krv_set_t *set) {
            for (size_t i = 0; i < set->set_entries && result == 1; ++i)
                if (krv_lookup_insert_arange_entry(hp, set->set_ranges[i].start, set->set_ranges[i].end, &of->list) !=
                    0)
                    result = -1;
        });
        if (result != 1)
            return result;
        of->of_sets = of->list.slpc_aranges_entries;
    }
    const int own = append_entry_ranges(hp, cu, cu->dcu_compile_unit, of);
    if (own != 0)
        return own;
    if (first != nullptr || cu->dcu_kind != KRV_UNIT_COMPILE) // the functions of other kinds have their code elsewhere
        return 1;
    if ((flags & KRV_LOOKUP_F_FAST) != 0)
        return 0;
    if (append_functions(hp, cu, of) != 0)
        return -1;
    __atomic_fetch_add(&hp->sh_scanned_units, 1, __ATOMIC_RELEASE);
    return 1;
}

// As find_ranges. What can be read of a list that is damaged counts.
[[gnu::noinline]] static int find_written_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lookup_flag_t flags)
{
    const auto offset = static_cast<unsigned long>(cu->dcu_offset);
    const uint64_t most = krv_ranges_most_bytes(hp, MOST_READINGS), read = hp->sh_ranges_read;
    written_ranges of{.left = read < most ? most - read : 0};
    const int found = append_unit_ranges(hp, cu, flags, &of);
    hp->sh_ranges_read = most - of.left;
    bool known = found == 1;
    if (found == -1 && !of.refused && !krv_is_passing(hp)) {
        krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, true, "ranges of the unit at offset 0x%lx of .debug_info: %s",
                 offset, krv_cause(hp).text);
        known = true;
    }
    if (of.dead != 0)
        krv_tell(
            hp, KRV_SEC_INFO, cu->dcu_offset, false,
            "%lu ranges of the unit at offset 0x%lx of .debug_info are of code that is not in the object: left out",
            static_cast<unsigned long>(of.dead), offset);
    if (known) {
        krv_clear_error(hp);
        if (of.list.slpc_aranges_entries == 0) // so that it matches nothing, and is not looked at again
            known = krv_lookup_insert_arange_entry(hp, 0, 0, &of.list) == 0;
        if (known && publish_ranges(hp, cu, &of.list))
            return 0;
    }
    free_list(&of.list);
    return found == 0 ? 0 : -1;
}

// ---------------------------------------------------------------------------------------------------------------
// Ranges of a unit
// ---------------------------------------------------------------------------------------------------------------

int krv_lookup_prepare_ranges(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    if (hp->sh_sec[KRV_SEC_INFO].sfd_size == 0)
        return krv_fail(hp, KRV_ERR_NOTFOUND, "handle has no .debug_info");
    if (krv_reads_as_written(hp))
        return krv_sets_get(hp) != nullptr ? 0 : -1;
    return krv_lookup_build_cu_caches(hp) == 0 && apply_aranges(hp) == 0 ? 0 : -1;
}

int krv_lookup_get_ranges(krv_handle_t *hp, krv_ctu_t *cu, krv_lookup_flag_t flags, uint64_t **pairsp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(cu != NULL);
    KRV_ASSERT(pairsp != NULL);
    *pairsp = krv_load(&cu->dcu_aranges);
    if (*pairsp == nullptr &&
        (krv_reads_as_written(hp) ? find_written_ranges(hp, cu, flags) : find_ranges(hp, cu, flags)) != 0)
        return -1;
    *pairsp = krv_load(&cu->dcu_aranges);
    return 0;
}

boolean_t korva_cu_contains_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t address, krv_lookup_flag_t flags)
{
    if (hp == nullptr)
        return B_FALSE;
    if (cup == nullptr) {
        krv_errno(hp) = KRV_ERR_INVALID;
        return B_FALSE;
    }
    krv_clear_error(hp);
    uint64_t *pairs = nullptr;
    if (krv_lookup_prepare_ranges(hp) != 0 || krv_lookup_get_ranges(hp, cup, flags, &pairs) != 0)
        return B_FALSE;
    if (pairs == nullptr) // only a scan could tell
        return B_FALSE;
    const uint64_t count = krv_ranges_count(pairs);
    for (uint64_t i = 0; i < count; ++i)
        if (pairs[2 * i] <= address && address < pairs[2 * i + 1])
            return B_TRUE;
    krv_errno(hp) = KRV_ERR_NOTFOUND;
    return B_FALSE;
}
