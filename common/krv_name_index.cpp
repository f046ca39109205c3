// SPDX-License-Identifier: Apache-2.0
#include "krv_name_index.h"

#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_info.h"
#include "krv_mem.h"

#include <algorithm>
#include <array>
#include <cstdio>

constexpr std::array<const krv_name_source *, 4> SOURCES = {&krv_debug_names, &krv_gdb_index, &krv_gnu_pubnames,
                                                            &krv_pubnames};
// What is known of a unit: a bit for each source that speaks of it, and this one where it lists all functions. Only
// the first source does.
constexpr uint8_t COMPLETE = 1 << SOURCES.size();

struct krv_name_index {
    uint8_t *sni_copies[SOURCES.size()]; // owned: of sections behind call-backs
    uint8_t sni_usable;                  // bits of units that count: what is found wrong is taken out
    uint32_t sni_count;
    uint8_t sni_units[]; // by number
};

void krv_name_index_free(krv_name_index *index)
{
    if (index != nullptr)
        for (uint8_t *copy : index->sni_copies)
            krv_free(copy);
    krv_free(index);
}

void krv_choice_deleter::operator()(krv_name_choice *choice) const
{
    krv_free(choice->units);
    krv_free(choice->listed);
}

// The number of the unit that begins at an offset, or UINT32_MAX.
static uint32_t unit_number(const krv_handle_t *hp, uint64_t offset)
{
    krv_ctu_t **const units = hp->sh_cu_table, **const last = units + hp->sh_cu_table_entries;
    krv_ctu_t **found =
        std::lower_bound(units, last, offset, [](const krv_ctu_t *cu, uint64_t o) { return cu->dcu_offset < o; });
    return found != last && (*found)->dcu_offset == offset ? static_cast<uint32_t>(found - units) : UINT32_MAX;
}

static uint8_t bits_of(size_t source)
{
    return static_cast<uint8_t>(1U << source | (source == 0 ? COMPLETE : 0U));
}

static void stop_using(krv_handle_t *hp, krv_name_index *index, size_t source, const char *why)
{
    const krv_secidx_t section = SOURCES[source]->section;
    const uint8_t before =
        __atomic_fetch_and(&index->sni_usable, static_cast<uint8_t>(~bits_of(source)), __ATOMIC_RELAXED);
    if ((before & bits_of(source)) != 0)
        krv_tell(hp, section, 0, true, "%s is not used for names: %s", krv_section_name(section), why);
}

namespace
{

struct covering {
    krv_handle_t *hp;
    krv_name_index *index;
    uint8_t bit;
};

} // namespace

// Of a split unit an index lists what is in another file.
static int cover(const krv_source_unit_t *unit, void *arg)
{
    const auto *of = static_cast<const covering *>(arg);
    const uint32_t number = unit_number(of->hp, unit->offset);
    const krv_ctu_t *cu = number == UINT32_MAX ? nullptr : of->hp->sh_cu_table[number];
    if (cu == nullptr || (unit->size != 0 && unit->size != cu->dcu_size))
        return krv_fail(of->hp, KRV_ERR_CORRUPT, "it lists a unit that .debug_info does not have at offset 0x%lx",
                        static_cast<unsigned long>(unit->offset));
    if (cu->dcu_kind != KRV_UNIT_SKELETON)
        of->index->sni_units[number] |= of->bit | (unit->is_complete ? COMPLETE : 0);
    return 0;
}

static krv_view_t view_of(krv_handle_t *hp, const krv_name_index *index, size_t source)
{
    const krv_fd_t *section = krv_section(hp, SOURCES[source]->section);
    const uint8_t *bytes = krv_fd_is_cb(section) ? index->sni_copies[source] : section->sfd_u.buf;
    return {bytes, bytes == nullptr ? 0 : section->sfd_size};
}

// A section that is behind a call-back, because it is compressed, is read once. One that is out of proportion is not.
static void copy_section(krv_handle_t *hp, krv_name_index *index, size_t source)
{
    krv_fd_t section = *krv_section(hp, SOURCES[source]->section);
    if (!krv_fd_is_cb(&section) || section.sfd_size > hp->sh_sec[KRV_SEC_INFO].sfd_size + KRV_KEPT_SLACK)
        return;
    krv_owner<uint8_t> copy(static_cast<uint8_t *>(krv_alloc(hp, section.sfd_size)));
    if (copy != nullptr && krv_fd_seek(&section, 0) == 0 &&
        korva_fd_to_mem(&section, copy.get(), section.sfd_size) == 0)
        index->sni_copies[source] = copy.release();
}

static void use_source(krv_handle_t *hp, krv_name_index *index, size_t source)
{
    copy_section(hp, index, source);
    const krv_view_t view = view_of(hp, index, source);
    if (view.size == 0)
        return;
    index->sni_usable |= bits_of(source);
    covering of = {hp, index, static_cast<uint8_t>(1U << source)};
    if (SOURCES[source]->units(hp, view, cover, &of) != 0)
        stop_using(hp, index, source, krv_cause(hp).text);
}

krv_name_index *krv_name_index_make(krv_handle_t *hp)
{
    const uint32_t count = hp->sh_cu_table_entries;
    auto *index = static_cast<krv_name_index *>(krv_zalloc(hp, sizeof(krv_name_index) + count));
    if (index == nullptr)
        return nullptr;
    index->sni_count = count;
    for (size_t i = 0; i < SOURCES.size(); ++i) {
        krv_clear_error(hp);
        use_source(hp, index, i);
        if (krv_ran_out(hp)) {
            krv_name_index_free(index);
            return nullptr;
        }
    }
    krv_clear_error(hp);
    return index;
}

namespace
{

struct choosing {
    krv_handle_t *hp;
    krv_name_choice *choice;
    const krv_name_index *index;
    bool is_complete; // what is listed can be tested
};

} // namespace

static int choose(const krv_source_hit_t *hit, void *arg)
{
    const auto *of = static_cast<const choosing *>(arg);
    const uint32_t number = unit_number(of->hp, hit->unit);
    if (number == UINT32_MAX) // of a unit that is not covered
        return 0;
    krv_name_choice *choice = of->choice;
    choice->units[number] = 1;
    if (!of->is_complete || (of->index->sni_units[number] & COMPLETE) == 0)
        return 0;
    if (!krv_table_grow(of->hp, &choice->listed, &choice->size, choice->count, size_t{16}))
        return 1;
    choice->listed[choice->count++] = {number, hit->entry};
    return 0;
}

int krv_name_index_choose(krv_handle_t *hp, krv_name_index *index, const char *name, unsigned int flags,
                          krv_name_choice *choice)
{
    *choice = {};
    const bool any = (flags & KRV_NAMED_INDEXED) != 0;
    const uint8_t usable = __atomic_load_n(&index->sni_usable, __ATOMIC_RELAXED);
    const uint8_t counted = any ? usable : (flags & KRV_NAMED_VARIABLES) == 0 ? usable & COMPLETE : 0;
    const auto is_covered = [counted](uint8_t bits) { return (bits & counted) != 0; };
    if (std::none_of(index->sni_units, index->sni_units + index->sni_count, is_covered))
        return 0;
    krv_owner<uint8_t> units(static_cast<uint8_t *>(krv_alloc(hp, index->sni_count)));
    if (units == nullptr)
        return -1;
    std::transform(index->sni_units, index->sni_units + index->sni_count, units.get(),
                   [&](uint8_t bits) { return is_covered(bits) ? 0 : 1; });
    choice->units = units.get();
    for (size_t i = 0; i < SOURCES.size(); ++i) {
        if ((counted & bits_of(i)) == 0)
            continue;
        choosing of = {hp, choice, index, i == 0 && (flags & KRV_NAMED_VARIABLES) == 0};
        if (SOURCES[i]->find(hp, view_of(hp, index, i), name, flags, choose, &of) != 0) {
            choice->units = nullptr; // the answer may be in any unit
            if (krv_ran_out(hp))
                return -1;
            stop_using(hp, index, i, krv_cause(hp).text);
            krv_clear_error(hp);
            return 0;
        }
    }
    static_cast<void>(units.release());
    return 0;
}

void krv_name_index_distrust(krv_handle_t *hp, krv_name_index *index, uint64_t offset)
{
    char why[64];
    std::snprintf(why, sizeof(why), "what it lists at offset 0x%lx is not there", static_cast<unsigned long>(offset));
    stop_using(hp, index, 0, why);
}
