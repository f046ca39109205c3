// SPDX-License-Identifier: Apache-2.0
#include "krv_sets.h"

#include "krv_budget.h"
#include "krv_build.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_mem.h"

#include <algorithm>

namespace
{

struct sets_deleter {
    void operator()(krv_sets *sets) const
    {
        krv_free(sets->ss_sets);
        krv_free(sets->ss_ranges);
        krv_free(sets);
    }
};

// The sets while they are read, and what is left out.
struct sets_reader {
    krv_handle_t *hp;
    std::unique_ptr<krv_sets, sets_deleter> sets;
    unsigned long read = 0, damaged = 0, homeless = 0, dead = 0;
    uint64_t cut = UINT64_MAX; // where a set begins that the section ends in
    bool in_order = true;      // by their units
};

} // namespace

// Where tuples begin, their size is a divisor of what remains: behind a padding of the header, or, as some producers
// write, at once.
static uint64_t padding_size(uint64_t header, uint64_t remaining, uint64_t tuple)
{
    return remaining % tuple == 0 ? 0 : (tuple - header % tuple) % tuple;
}

// A number of 4 or 8 bytes.
static inline bool read_address(krv_fd_t *fdp, size_t width, uint64_t *valuep)
{
    const krv_view_t view = krv_fd_view(fdp);
    *valuep = 0;
    if (view.size < width)
        return krv_decode(fdp, width == 8 ? DW_FORM_data8 : DW_FORM_data4, valuep) == 0;
    if (width == 8)
        std::memcpy(valuep, view.bytes, 8);
    else
        std::memcpy(valuep, view.bytes, 4);
    krv_fd_advance(fdp, width);
    return true;
}

// Calls take(offset, start, size) for the tuples of a set that are not empty, until it returns false. A tuple of zeros ends
// the set, but linkers leave such tuples of functions that they dropped: the set's size tells. False: take, or a read failed.
template <typename Take>
static bool read_tuples(krv_fd_t *fdp, size_t address_size, const Take &take)
{
    while (fdp->sfd_remaining >= 2 * address_size) {
        const uint64_t offset = fdp->sfd_offset;
        uint64_t start = 0, size = 0;
        if (!read_address(fdp, address_size, &start) || !read_address(fdp, address_size, &size))
            return false;
        if (size != 0 && !take(offset, start, size))
            return false;
    }
    return true;
}

namespace
{

// What stands in front of the tuples.
struct set_header {
    uint64_t unit;
    uint8_t address_size;
};

} // namespace

// Reads it, and places the cursor, which is limited to what stands behind the length field, on the first tuple. False: it
// is damaged, or a read failed.
static bool read_header(krv_fd_t *fdp, uint64_t offset, const krv_unit_length_t &ul, set_header *header)
{
    uint16_t version = 0;
    uint8_t selector_size = 0;
    *header = {};
    if (krv_decode(fdp, DW_FORM_data2, &version) != 0 ||
        krv_decode(fdp, ul.is_dwarf64 ? DW_FORM_data8 : DW_FORM_data4, &header->unit) != 0 ||
        krv_decode(fdp, DW_FORM_data1, &header->address_size) != 0 ||
        krv_decode(fdp, DW_FORM_data1, &selector_size) != 0 || (version != 2 && version != 3) || selector_size != 0 ||
        (header->address_size != 4 && header->address_size != 8))
        return false;
    const uint64_t padding = padding_size(fdp->sfd_offset - offset, fdp->sfd_remaining, 2U * header->address_size);
    krv_fd_advance(fdp, padding < fdp->sfd_remaining ? padding : fdp->sfd_remaining);
    return true;
}

// Reads what stands behind the length field of a set, to which the cursor is limited. False: nothing can be told of the
// section.
static bool read_set(sets_reader *r, krv_fd_t *fdp, uint64_t offset, const krv_unit_length_t &ul)
{
    krv_handle_t *hp = r->hp;
    krv_sets *sets = r->sets.get();
    set_header header;
    if (!read_header(fdp, offset, ul, &header)) {
        ++r->damaged;
        return !krv_is_passing(hp);
    }
    if (header.unit >= hp->sh_sec[KRV_SEC_INFO].sfd_size) {
        ++r->homeless;
        return true;
    }
    const size_t first = sets->ss_ranges_entries;
    bool has_any = false;
    const auto keep = [=, &has_any](uint64_t, uint64_t start, uint64_t size) {
        has_any = true;
        const uint64_t end = krv_add_offset(start, size);
        if (!krv_is_code(hp, start, end)) {
            ++r->dead;
            return true;
        }
        if (!krv_table_grow(hp, &sets->ss_ranges, &sets->ss_ranges_size, sets->ss_ranges_entries, size_t{64}))
            return false;
        sets->ss_ranges[sets->ss_ranges_entries++] = {start, end};
        return true;
    };
    if (!read_tuples(fdp, header.address_size, keep))
        return false;
    if (!has_any)
        return true; // the unit says more of itself
    if (!krv_table_grow(hp, &sets->ss_sets, &sets->ss_size, sets->ss_entries, 16U))
        return false;
    r->in_order = r->in_order && (sets->ss_entries == 0 || sets->ss_sets[sets->ss_entries - 1].set_unit <= header.unit);
    sets->ss_sets[sets->ss_entries++] = {header.unit, nullptr, sets->ss_ranges_entries - first, offset, nullptr};
    return true;
}

static bool read_sets(sets_reader *r)
{
    if (!krv_spend(r->hp, r->hp->sh_sec[KRV_SEC_ARANGES].sfd_size))
        return false;
    krv_window_t window;
    krv_fd_t fd = krv_fd_windowed(&r->hp->sh_sec[KRV_SEC_ARANGES], &window);
    for (uint64_t offset = 0; offset < fd.sfd_size;) {
        krv_unit_length_t ul;
        if (krv_fd_seek(&fd, offset) != 0)
            return false;
        krv_fd_read_ahead(&fd, sizeof(window.sw_bytes));
        if (!krv_read_unit_length(&fd, KRV_UNIT_LENGTH_TEXTS, &ul) || ul.end > fd.sfd_size) {
            r->cut = offset;
            return !krv_is_passing(r->hp);
        }
        ++r->read;
        if (krv_fd_truncate(&fd, ul.length) != 0 || !read_set(r, &fd, offset, ul))
            return false;
        offset = ul.end;
    }
    return true;
}

static void tell(const sets_reader *r)
{
    krv_handle_t *hp = r->hp;
    if (r->damaged != 0)
        krv_tell(hp, KRV_SEC_ARANGES, 0, true, "%lu of %lu sets of .debug_aranges cannot be read: left out", r->damaged,
                 r->read);
    if (r->homeless != 0)
        krv_tell(hp, KRV_SEC_ARANGES, 0, true, "%lu of %lu sets of .debug_aranges name no unit: left out", r->homeless,
                 r->read);
    if (r->dead != 0)
        krv_tell(hp, KRV_SEC_ARANGES, 0, false,
                 "%lu ranges of .debug_aranges are of code that is not in the object: left out", r->dead);
    if (r->cut != UINT64_MAX)
        krv_tell(hp, KRV_SEC_ARANGES, r->cut, true, ".debug_aranges ends within the set at offset 0x%lx: left out",
                 static_cast<unsigned long>(r->cut));
}

// Puts the sets in order, each with its ranges, whose table stays where it is from now on.
static bool finish(sets_reader *r)
{
    krv_sets *sets = r->sets.get();
    if (!krv_table_trim(r->hp, &sets->ss_sets, &sets->ss_size, sets->ss_entries) ||
        !krv_table_trim(r->hp, &sets->ss_ranges, &sets->ss_ranges_size, sets->ss_ranges_entries))
        return false;
    const krv_set_range_t *next = sets->ss_ranges;
    krv_set_t *const end = sets->ss_sets + sets->ss_entries;
    for (krv_set_t *set = sets->ss_sets; set != end; ++set) {
        set->set_ranges = next;
        next += set->set_entries;
    }
    if (!r->in_order)
        std::sort(sets->ss_sets, end, [](const krv_set_t &a, const krv_set_t &b) {
            return a.set_unit != b.set_unit ? a.set_unit < b.set_unit : a.set_offset < b.set_offset;
        });
    return true;
}

krv_sets *krv_sets_get(krv_handle_t *hp)
{
    if (krv_sets *sets = krv_load(&hp->sh_sets))
        return sets;
    sets_reader r{.hp = hp, .sets = {}};
    const krv_build_guard guard(hp);
    if (guard.is_nested()) {
        guard.refuse();
        return nullptr;
    }
    if (hp->sh_sets != nullptr)
        return hp->sh_sets;
    r.sets.reset(krv_new<krv_sets>(hp));
    if (r.sets == nullptr || !read_sets(&r) || !finish(&r))
        return nullptr;
    tell(&r);
    krv_clear_error(hp);
    krv_store(&hp->sh_sets, r.sets.get());
    return r.sets.release();
}

krv_set_t *krv_sets_find(const krv_sets *sets, uint64_t unit)
{
    krv_set_t *const end = sets->ss_sets + sets->ss_entries;
    krv_set_t *set = std::lower_bound(sets->ss_sets, end, unit,
                                      [](const krv_set_t &a, uint64_t offset) { return a.set_unit < offset; });
    return set != end && set->set_unit == unit ? set : nullptr;
}

uint64_t krv_sets_find_tuple(krv_handle_t *hp, const krv_set_t *set, const krv_set_range_t *range)
{
    krv_window_t window;
    krv_fd_t fd = krv_fd_windowed(&hp->sh_sec[KRV_SEC_ARANGES], &window);
    krv_unit_length_t ul;
    set_header header;
    uint64_t found = 0;
    if (krv_fd_seek(&fd, set->set_offset) == 0 && krv_read_unit_length(&fd, KRV_UNIT_LENGTH_TEXTS, &ul) &&
        krv_spend(hp, ul.length) && krv_fd_truncate(&fd, ul.length) == 0 &&
        read_header(&fd, set->set_offset, ul, &header))
        read_tuples(&fd, header.address_size, [range, &found](uint64_t offset, uint64_t start, uint64_t size) {
            if (start == range->start && krv_add_offset(start, size) == range->end)
                found = offset;
            return found == 0;
        });
    return found;
}

void krv_sets_destroy(krv_handle_t *hp)
{
    if (hp->sh_sets != nullptr)
        sets_deleter()(hp->sh_sets);
    hp->sh_sets = nullptr;
}
