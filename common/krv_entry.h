// SPDX-License-Identifier: Apache-2.0
//
// Entries as they stand in a section in memory: the cursor (krv_entry.cpp) and the values of attributes
// (krv_entry_attr.cpp).
#ifndef KRV_ENTRY_H
#define KRV_ENTRY_H

#include "krv_fd.h"
#include "krv_info.h"
#include "krv_plan.h"
#include "krv_types.h"

// Where the entries of a unit are.
struct krv_place_t {
    const uint8_t *section; // its first byte
    const uint8_t *end;     // of the unit
    const krv_plan *plan;

    const uint8_t *at(uint64_t offset) const { return section + offset; }
    uint64_t offset_of(const uint8_t *byte) const { return static_cast<uint64_t>(byte - section); }
};

// Says why a unit's entries cannot be walked: KRV_ERR_UNSUPPORTED or KRV_ERR_CORRUPT.
void krv_entry_refuse_place(krv_handle_t *hp, const krv_ctu_t *cu);

// False: KRV_ERR_UNSUPPORTED when the section is not in memory, or messages of the abbreviation table.
bool krv_entry_place(krv_handle_t *hp, krv_ctu_t *cu, krv_place_t *place);

// The bytes alone.
inline bool krv_entry_find_bytes(krv_handle_t *hp, const krv_ctu_t *cu, krv_place_t *place)
{
    const krv_fd_t *section = krv_section(hp, cu->dcu_section);
    if (krv_fd_is_cb(section) || !krv_extent_fits(section->sfd_size, cu->dcu_offset, 0, cu->dcu_size)) {
        krv_entry_refuse_place(hp, cu);
        return false;
    }
    place->section = section->sfd_u.buf;
    place->end = place->section + cu->dcu_offset + cu->dcu_size;
    return true;
}

inline const krv_planned_t *krv_entry_planned(const krv_entry_t *entry)
{
    return static_cast<const krv_planned_t *>(entry->abbreviation);
}

// The same of an entry that a cursor is on.
inline bool krv_entry_place_of(krv_handle_t *hp, const krv_entry_t *entry, krv_place_t *place)
{
    place->plan = krv_entry_planned(entry)->plan;
    return krv_entry_find_bytes(hp, entry->unit, place);
}

// What stands at an offset. `end`: nothing does.
enum class krv_found { entry, null, end, failed };

// Reads the head of an entry; its depth is 0.
krv_found krv_entry_load(krv_handle_t *hp, krv_ctu_t *cu, const krv_place_t &place, uint64_t offset,
                         krv_entry_t *entry);

// The entry at an offset of a unit. -1: KRV_ERR_NOTFOUND when none is there, or messages.
int krv_entry_load_at(krv_handle_t *hp, krv_ctu_t *cu, uint64_t offset, krv_entry_t *entry);

// As the exported functions, which clear the error state first.
int krv_entry_next(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry);
int krv_entry_read_attr(krv_handle_t *hp, const krv_place_t &place, krv_entry_t *entry, krv_attr_t *attr);

// The entry as it is before any attribute of it is read.
void krv_entry_rewind(const krv_place_t &place, krv_entry_t *entry);

// "entry at offset 0x%lx of %s": KRV_ERR_CORRUPT. Returns -1.
int krv_entry_refuse(krv_handle_t *hp, const krv_entry_t *entry, const char *what);

#endif
