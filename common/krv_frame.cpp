// SPDX-License-Identifier: Apache-2.0
//
// The linear address table over all FDEs of a section, and the search for the FDE of an address.
#include "krv_frame.h"

#include "krv_budget.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_mem.h"

#include <algorithm>
#include <utility>

int krv_fde_compar(const void *a, const void *b)
{
    const uint64_t left = static_cast<const krv_lie_t *>(a)->sle_start;
    const uint64_t right = static_cast<const krv_lie_t *>(b)->sle_start;
    return left < right ? -1 : left > right;
}

namespace
{

// A walk over all records.
struct record_walk {
    krv_handle_t *hp;
    krv_reader_t *reader;
    krv_linear_t *lt;
    bool fdes_first;                         // most are: fewer reads fail, but the last failure may be another one,
    int32_t fde_code;                        // and this tells the end: why the record is no FDE
    uint64_t refused = 0, first_refused = 0; // records that were stepped over, and the offset of the first
};

} // namespace

// Of a record that cannot be read. Notes one for all.
static int step_over(record_walk *walk, uint64_t offset, uint64_t *sizep)
{
    krv_handle_t *hp = walk->hp;
    if (!krv_reads_as_written(hp) || krv_ran_out(hp) || walk->fde_code == KRV_ERR_NOTFOUND ||
        walk->reader->sr_ops->sro_step_over(hp, walk->reader, offset, sizep) != 0)
        return -1;
    walk->first_refused = walk->refused == 0 ? offset : walk->first_refused;
    ++walk->refused;
    return 0;
}

static bool walk_cie(record_walk *walk, uint64_t offset, uint64_t *sizep)
{
    const krv_cie_owner ciep(krv_get_cie_by_offset(walk->hp, offset), {walk->hp});
    if (ciep != nullptr)
        *sizep = ciep->scie_section_length;
    return ciep != nullptr;
}

// An FDE goes into the table.
static bool walk_fde(record_walk *walk, uint64_t offset, uint64_t *sizep)
{
    krv_linear_t *lt = walk->lt;
    krv_fde_room room;
    const krv_fde_owner fdep(krv_get_fde_by_offset(walk->hp, offset, &room), {walk->hp});
    if (fdep == nullptr ||
        !krv_table_grow(walk->hp, &lt->sl_table, &lt->sl_table_size, lt->sl_table_entries, uint64_t{1}))
        return false;
    lt->sl_table[lt->sl_table_entries++] = {fdep->sfde_target_address, offset};
    *sizep = fdep->sfde_section_length;
    return true;
}

// Reads the record at `offset` and gives its size. -1 when there is no record. No record is both.
static int walk_record(record_walk *walk, uint64_t offset, uint64_t *sizep)
{
    for (const bool is_fde : {walk->fdes_first, !walk->fdes_first}) {
        if ((is_fde ? walk_fde : walk_cie)(walk, offset, sizep))
            return 0;
        if (krv_ran_out(walk->hp)) // says nothing about what is there
            return -1;
        walk->fde_code = is_fde ? krv_errno(walk->hp) : walk->fde_code;
    }
    return step_over(walk, offset, sizep);
}

// The walk ends at what is neither CIE nor FDE. It also ends where a record's size does not lead forward, and after as
// many records as no program has, so that no memory, and no read call-back that invents records for ever, keeps it going.
constexpr int32_t MOST_RECORDS = 1 << 24;

static krv_linear_t *build_linear_table(krv_handle_t *hp, krv_reader_t *reader, bool fdes_first)
{
    krv_linear_owner lt(krv_new<krv_linear_t>(hp));
    if (lt == nullptr)
        return nullptr;
    uint64_t offset = 0, size = 0;
    record_walk walk = {hp, reader, lt.get(), fdes_first, KRV_ERR_NONE};
    for (int32_t records = 0; records < MOST_RECORDS && walk_record(&walk, offset, &size) == 0; ++records) {
        if (size == 0 || size > UINT64_MAX - offset || !krv_spend(hp, size))
            break;
        offset += size;
    }
    if (krv_ran_out(hp)) // a table without the FDEs behind would be kept
        return nullptr;
    if (walk.refused != 0)
        krv_tell(hp, reader->sr_ops->sro_section, walk.first_refused, true,
                 "%lu records of call-frame information cannot be read", static_cast<unsigned long>(walk.refused));
    if (lt->sl_table_entries == 0) {
        if (krv_errno(hp) == KRV_ERR_NONE)
            krv_errno(hp) = KRV_ERR_NOTFOUND; // the last read did not fail
        return nullptr;
    }
    if (!krv_table_trim(hp, &lt->sl_table, &lt->sl_table_size, lt->sl_table_entries))
        return nullptr;
    // Those of one address stay in the section's order.
    std::sort(lt->sl_table, lt->sl_table + lt->sl_table_entries, [](const krv_lie_t &a, const krv_lie_t &b) {
        const int order = krv_fde_compar(&a, &b);
        return order != 0 ? order < 0 : a.sle_offset < b.sle_offset;
    });
    return lt.release();
}

static krv_linear_t *get_linear_table(krv_handle_t *hp, krv_reader_t *reader)
{
    if (krv_linear_t *known = krv_load(&reader->sr_lt))
        return known;
    krv_linear_t *fresh = build_linear_table(hp, reader, false);
    return fresh == nullptr ? nullptr : krv_publish(&reader->sr_lt, fresh, krv_linear_deleter());
}

const krv_linear_t *krv_list_fdes(krv_handle_t *hp, krv_linear_owner *ownp)
{
    krv_reader_t *reader = krv_need_reader(hp);
    if (reader == nullptr)
        return nullptr;
    if (const krv_linear_t *known = krv_load(&reader->sr_lt))
        return known;
    krv_linear_owner fresh(build_linear_table(hp, reader, true));
    krv_fde_search search = {};
    if (fresh == nullptr)
        return nullptr;
    if (reader->sr_ops->sro_gfoba(hp, reader, fresh->sl_table[0].sle_start, &search) != 0) {
        krv_clear_error(hp);
        return krv_publish(&reader->sr_lt, fresh.release(), krv_linear_deleter());
    }
    *ownp = std::move(fresh);
    return ownp->get();
}

static int search_linear_table(krv_handle_t *hp, const krv_linear_t *lt, uint64_t address, krv_fde_search *entry)
{
    const krv_lie_t *table = lt->sl_table;
    int32_t lo = 0, hi = static_cast<int32_t>(lt->sl_table_entries) - 1; // the walk found no more than fit
    while (lo <= hi) {
        const int32_t mid = lo + (hi - lo) / 2;
        const uint64_t start = table[mid].sle_start;
        if (address < start) {
            hi = mid - 1;
            continue;
        }
        const uint64_t next = mid == hi ? start : table[mid + 1].sle_start;
        if (mid == hi || address < next) {
            entry->start = start;
            entry->offset = table[mid].sle_offset;
            entry->next = next;
            entry->by_table = false;
            return 0;
        }
        lo = mid + 1;
    }
    return krv_fail_code(hp, KRV_ERR_NOTFOUND);
}

static inline int find_entry(krv_handle_t *hp, krv_reader_t *reader, uint64_t address, bool force,
                             krv_fde_search *entry)
{
    const krv_linear_t *lt = krv_load(&reader->sr_lt);
    if (lt == nullptr && !force) {
        if (reader->sr_ops->sro_gfoba(hp, reader, address, entry) == 0)
            return 0;
        if (krv_errno(hp) != KRV_ERR_UNSUPPORTED)
            return -1;
    }
    if (lt == nullptr)
        lt = get_linear_table(hp, reader);
    return lt == nullptr ? -1 : search_linear_table(hp, lt, address, entry);
}

int krv_get_fde_offset_by_address(krv_handle_t *hp, uint64_t address, boolean_t force, uint64_t *taddrp,
                                  uint64_t *toffp, uint64_t *naddrp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(taddrp != NULL);
    KRV_ASSERT(toffp != NULL);
    KRV_ASSERT(naddrp != NULL);
    krv_reader_t *reader = krv_need_reader(hp);
    krv_fde_search entry = {};
    if (reader == nullptr || find_entry(hp, reader, address, force != B_FALSE, &entry) != 0)
        return -1;
    *taddrp = entry.start;
    *toffp = entry.offset;
    *naddrp = entry.next;
    return 0;
}

// Last address of an FDE; for an empty one the address before it, modulo 2^64.
static uint64_t last_address(const krv_fde_t *fdep)
{
    return fdep->sfde_target_address + fdep->sfde_address_range - 1;
}

bool krv_fde_is_consistent(const krv_fde_t *fdep, uint64_t start, uint64_t next)
{
    return fdep->sfde_target_address == start && (next == start || last_address(fdep) < next);
}

// The address is not below the FDE. The second condition is for the empty FDE at 0, whose last address is no address
// of its own.
static bool covers(const krv_fde_t *fdep, uint64_t address)
{
    return address <= last_address(fdep) && address - fdep->sfde_target_address < fdep->sfde_address_range;
}

static void note_inconsistency(krv_handle_t *hp, uint64_t address, const krv_fde_search *entry, const krv_fde_t *fdep)
{
    krv_note(hp,
             "BST entry found for address 0x%lx is { address = 0x%lx, offset = 0x%lx } (next address is 0x%lx) but "
             "FDE covers range 0x%lx..0x%lx",
             static_cast<unsigned long>(address), static_cast<unsigned long>(entry->start),
             static_cast<unsigned long>(entry->offset), static_cast<unsigned long>(entry->next),
             static_cast<unsigned long>(fdep->sfde_target_address), static_cast<unsigned long>(last_address(fdep)));
}

// The FDE of an entry if it covers the address; *consistentp: whether it is what the index says of it.
static inline krv_fde_t *fde_of_entry(krv_handle_t *hp, krv_reader_t *reader, uint64_t address, krv_fde_search *searchp,
                                      krv_fde_room *room, bool *consistentp)
{
    *consistentp = true;
    krv_fde_owner fdep(reader->sr_ops->sro_gfbo(hp, reader, searchp->offset, room), {hp});
    if (fdep == nullptr)
        return nullptr;
    *consistentp = krv_fde_is_consistent(fdep.get(), searchp->start, searchp->next);
    if (*consistentp && covers(fdep.get(), address))
        return fdep.release();
    if (*consistentp) {
        searchp->near_start = fdep->sfde_target_address;
        searchp->near_end = last_address(fdep.get()) + 1;
        krv_fail_code(hp, KRV_ERR_NOTFOUND);
    } else {
        note_inconsistency(hp, address, searchp, fdep.get());
    }
    return nullptr;
}

// A reader's index that disagrees with the FDEs is bypassed once, in favour of the linear table.
[[gnu::cold]] static krv_fde_t *search_by_force(krv_handle_t *hp, krv_reader_t *reader, uint64_t address,
                                                krv_fde_search *searchp, krv_fde_room *room)
{
    bool is_consistent;
    krv_note(hp, "forcing BST regeneration");
    if (find_entry(hp, reader, address, true, searchp) != 0)
        return nullptr;
    krv_fde_t *fdep = fde_of_entry(hp, reader, address, searchp, room, &is_consistent);
    if (!is_consistent)
        krv_fail(hp, KRV_ERR_CORRUPT, "giving up");
    return fdep;
}

krv_fde_t *krv_search_fde(krv_handle_t *hp, uint64_t address, krv_fde_search *searchp, krv_fde_room *room)
{
    KRV_ASSERT(hp != NULL);
    *searchp = {};
    bool is_consistent;
    krv_reader_t *reader = krv_need_reader(hp);
    if (reader == nullptr || find_entry(hp, reader, address, false, searchp) != 0)
        return nullptr;
    krv_fde_t *fdep = fde_of_entry(hp, reader, address, searchp, room, &is_consistent);
    return is_consistent ? fdep : search_by_force(hp, reader, address, searchp, room);
}

krv_fde_t *krv_get_fde_by_address(krv_handle_t *hp, uint64_t address, krv_fde_room *room)
{
    krv_fde_search search;
    return krv_search_fde(hp, address, &search, room);
}
