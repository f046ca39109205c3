// SPDX-License-Identifier: Apache-2.0
//
// .debug_pubnames (DWARF 4, 6.1.1): sets of the names of what each unit defines for others; and .debug_gnu_pubnames, which
// also has what it keeps to itself, and of each name a byte that says what it is. Neither has linkage names.
#include "krv_budget.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_name_source.h"
#include "krv_qualified.h"
#include "krv_unit_length.h"

namespace
{

struct name_set {
    uint64_t offset; // its own
    uint64_t unit, unit_size;
    uint64_t names, end; // extent of the pairs
    size_t width;        // of offsets
};

} // namespace

static int refuse(krv_handle_t *hp, const krv_name_source &source, uint64_t offset)
{
    return krv_fail(hp, KRV_ERR_CORRUPT, "set at offset 0x%lx of %s is damaged", static_cast<unsigned long>(offset),
                    krv_section_name(source.section));
}

// Calls visit(set) for each set.
template <typename Visit>
static int visit_sets(krv_handle_t *hp, const krv_view_t &section, const krv_name_source &source, const Visit &visit)
{
    for (uint64_t offset = 0; offset < section.size;) {
        uint64_t at = offset, version;
        const auto take = krv_view_numbers(section, &at);
        krv_unit_length_t ul;
        if (krv_scan_unit_length(offset, take, &ul) != krv_length_outcome_t::sound || ul.end > section.size)
            return refuse(hp, source, offset);
        name_set set = {
            .offset = offset, .unit = 0, .unit_size = 0, .names = 0, .end = ul.end, .width = ul.is_dwarf64 ? 8U : 4U};
        if (!take(2, &version) || version != 2 || !take(set.width, &set.unit) || !take(set.width, &set.unit_size) ||
            at > ul.end)
            return refuse(hp, source, offset);
        set.names = at;
        if (!krv_spend(hp, ul.end - offset))
            return -1;
        if (const int result = visit(set))
            return result;
        offset = ul.end;
    }
    return 0;
}

static int visit_units(krv_handle_t *hp, const krv_view_t &section, const krv_name_source &source,
                       krv_source_unit_f *fn, void *arg)
{
    return visit_sets(hp, section, source, [=](const name_set &set) {
        const krv_source_unit_t unit = {.offset = set.unit, .size = set.unit_size, .is_complete = false};
        return fn(&unit, arg);
    });
}

static int find(krv_handle_t *hp, const krv_view_t &section, const krv_name_source &source, bool has_flags,
                const char *name, krv_source_hit_f *fn, void *arg)
{
    const krv_wanted_name wanted(name);
    return visit_sets(hp, section, source, [&](const name_set &set) {
        const krv_view_t view = {section.bytes, set.end};
        uint64_t budget = view.size, entry;
        for (uint64_t at = set.names;;) {
            const bool is_there = krv_view_read(view, at, set.width, &entry);
            if (is_there && entry == 0)
                return 0;
            at += set.width + (has_flags ? 1 : 0);
            const char *text = is_there ? krv_find_text(view, at, &budget) : nullptr;
            if (text == nullptr)
                return refuse(hp, source, set.offset);
            at += std::strlen(text) + 1;
            const krv_source_hit_t hit = {.unit = set.unit, .entry = krv_add_offset(set.unit, entry)};
            if (const int result = wanted.is_end_of(text) ? fn(&hit, arg) : 0)
                return result;
        }
    });
}

template <const krv_name_source &source>
static int visit_units_of(krv_handle_t *hp, const krv_view_t &section, krv_source_unit_f *fn, void *arg)
{
    return visit_units(hp, section, source, fn, arg);
}

template <const krv_name_source &source, bool has_flags>
static int find_in(krv_handle_t *hp, const krv_view_t &section, const char *name, unsigned int, krv_source_hit_f *fn,
                   void *arg)
{
    return find(hp, section, source, has_flags, name, fn, arg);
}

const krv_name_source krv_gnu_pubnames = {KRV_SEC_EXT_GNU_PUBNAMES, visit_units_of<krv_gnu_pubnames>,
                                          find_in<krv_gnu_pubnames, true>};
const krv_name_source krv_pubnames = {KRV_SEC_PUBNAMES, visit_units_of<krv_pubnames>, find_in<krv_pubnames, false>};
