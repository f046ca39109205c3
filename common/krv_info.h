// SPDX-License-Identifier: Apache-2.0
//
// Units of .debug_info and their entries. Units are built only while krv_units builds its table, and are shared;
// entries are read afresh by whoever navigates and freed by them, but for a unit's first entry, which its unit owns.
#ifndef KRV_INFO_H
#define KRV_INFO_H

#include "krv_abbrev.h"
#include "krv_fd.h"
#include "krv_form.h"
#include "krv_types.h"

constexpr uint32_t KRV_CU_FLAG_DWARF64 = 0x1; // dcu_flags
constexpr uint32_t KRV_CU_FLAG_DWO_ID = 0x2;
constexpr uint32_t KRV_CU_FLAG_COPIES = 0x4; // its names are whole copies: see krv_peek.h

// The tables that values of entries may count in (DWARF 5, 7.26 to 7.29).
enum krv_base_t : unsigned { KRV_BASE_STR_OFFSETS, KRV_BASE_ADDR, KRV_BASE_RNGLISTS, KRV_BASE_LOCLISTS, KRV_BASES };

struct krv_calls;
struct krv_peek_t;

// One compilation unit. It stands behind its first entry, in the same allocation: files have thousands. The fields from
// dcu_abbrev_unit on are filled on first use and published atomically.
struct krv_ctu {
    uint64_t dcu_unit_length;
    uint16_t dcu_version;
    uint8_t dcu_address_size;
    uint8_t dcu_header_size;  // bytes from the unit's first one to its first entry
    uint8_t dcu_kind;         // KRV_UNIT_*; 0: stepped over, its first entry stands for none
    uint16_t dcu_abbrev_size; // of its first entry's, which its table begins with; 0 unless it was read as written
    uint64_t dcu_debug_abbrev_offset;
    uint64_t dcu_type_signature;   // of type units; of skeleton and split units the dwo_id: KRV_CU_FLAG_DWO_ID
    uint64_t dcu_type_offset;      // likewise
    int dcu_section;               // KRV_SEC_INFO
    uint32_t dcu_flags;            // KRV_CU_FLAG_*
    uint64_t dcu_offset;           // of the unit's first byte in the section
    size_t dcu_size;               // whole unit, length field included
    krv_die_t *dcu_compile_unit;   // the first entry
    char *dcu_comp_dir;            // a copy, its entry's or another unit's; NULL when the entry has none
    char *dcu_name;                // likewise, or where the entry's value is, if it need not be cut
    uint64_t dcu_bases[KRV_BASES]; // by krv_base_t, where values of its entries count from
    krv_au_t *dcu_abbrev_unit;     // owned by the handle; NULL until an entry needs it
    krv_lnph_t *dcu_lnphp;         // freed by who frees the unit
    uint64_t *dcu_aranges;         // owned: (start, end) pairs; NULL while unknown; see krv_ranges_count
    size_t dcu_aranges_size;       // number of pairs
    krv_calls *dcu_calls;          // its functions by address, the handle's; NULL until they are asked for
};

// How the unit's values are encoded; addresses are as wide as the target's, whatever its header says.
inline krv_encoding_t krv_cu_encoding(const krv_handle_t *hp, const krv_ctu_t *cu)
{
    return {(cu->dcu_flags & KRV_CU_FLAG_DWARF64) != 0, static_cast<uint8_t>(hp->sh_target_size), cu->dcu_version,
            hp->sh_ext == 0 ? KRV_BASE_FORMS : KRV_ALL_FORMS};
}

struct krv_die_part_t;

// One entry. Its strings stay in sections that are in memory; all else is independent of its section once read.
struct krv_die {
    uint32_t dwdie_code;
    krv_ctu_t *dwdie_parent_cu;
    krv_offset_t dwdie_cu_offset;      // from the unit's first byte
    krv_offset_t dwdie_section_offset; // from the section's
    krv_abbrev_t *dwdie_abbrev_cache;
    krv_die_part_t *dwdie_parts; // owned: its blocks, and strings of sections behind call-backs
    uint64_t dwdie_copied;       // bytes of such strings, and of the names that its unit copies
    size_t dwdie_bufsize;        // encoded size: code and values, not the children
    krv_value_t dwdie_attrs[1];  // one a pair of the abbreviation
};

// Reads the unit header at `offset` of .debug_info or .debug_types. 0 or -1. Moves the section's cursor.
int krv_info_hdr_read(krv_handle_t *hp, krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset);

// The rest of a header of a version beyond 4, behind the version: dcu_kind stays 0 where it is none that is read. 0 or -1.
int krv_info_read_later_header(krv_handle_t *hp, krv_ctu_t *cu, krv_fd_t *fdp);

// Where the tables of a unit of version 5 begin until its first entry says it.
void krv_cu_start_bases(krv_ctu_t *cu);

// What the first entry says of its unit: where its tables are, which no value that counts in them waits for.
void krv_cu_take_bases(krv_ctu_t *cu, const krv_die_t *die);

// The one section that units are read from. -1: refused with its message.
int krv_cu_check_section(krv_handle_t *hp, krv_secidx_t sec);

// The unit at `offset` with its first entry and its two names, or NULL. Copies of names and the abbreviation of its first
// entry it may share with the unit before, which then has to outlive it. Where it may be met by `peek`, it is.
krv_ctu_t *krv_cu_alloc(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, const krv_ctu_t *before = nullptr,
                        krv_peek_t *peek = nullptr);
void krv_cu_free(krv_ctu_t *cu); // not its line-number header, which is read above

// The entry at a unit-relative offset. NULL on failure, and NULL with KRV_ERR_NOTFOUND and no message for a null
// entry; the section cursor then stands behind it. Clears the error state. Free with krv_free_die.
krv_die_t *krv_alloc_die_by_cu_offset(krv_handle_t *hp, krv_ctu_t *cu, krv_offset_t offset);
void krv_free_die(krv_die_t *die); // NULL is ignored

struct krv_die_walk {
    uint64_t left; // attributes that may still be read, at first krv_cu_most_attributes: those without bytes
                   // (DW_FORM_flag_present) are few among the others
    bool
        is_at_null; // the last entry was a null one; whoever goes on behind it says so no longer. The handle's code would
                    // do, but for other threads
};

// The same of a walk.
krv_die_t *krv_alloc_next_die(krv_handle_t *hp, krv_ctu_t *cu, krv_offset_t offset, krv_die_walk *walk);
uint64_t krv_cu_most_attributes(const krv_ctu_t *cu);

// A new unit's first entry, likewise, through a cursor of its section, with room for its unit behind it. Its abbreviation
// may be that of the unit before, which may be NULL; or *single, which is to live as long as the entry or until it is
// copied into the room for it behind the unit.
krv_die_t *krv_alloc_first_die(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu, const krv_ctu_t *before,
                               krv_single_abbrev_t *single);

// In place of a first entry, of a unit that is stepped over or of one outside .debug_info, likewise: one without tag, attributes and children.
krv_die_t *krv_alloc_no_die(krv_handle_t *hp, krv_ctu_t *cu);

// The room behind a first entry.
krv_ctu_t *krv_die_unit_room(krv_die_t *die);

// An allocation that the entry frees, or NULL.
void *krv_die_alloc_part(krv_handle_t *hp, krv_die_t *die, uint64_t size);

struct krv_die_deleter {
    void operator()(krv_die_t *die) const { krv_free_die(die); }
};

// Finds an attribute: its form, class mask and value slot, each where the pointer is not NULL. -1 with
// KRV_ERR_NOTFOUND, no message, when the entry has none.
int krv_get_die_attr(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, krv_form_t *formp, int *classp,
                     krv_value_t **valuep);
int krv_get_die_tag(krv_handle_t *hp, krv_die_t *die, krv_tag_t *tagp);

constexpr size_t KRV_NO_STRING = SIZE_MAX;

// A string attribute and its length, cut to size - 1 characters; it is the entry's. NULL with KRV_ERR_NOTFOUND, or with
// KRV_ERR_INVALID and the length KRV_NO_STRING when it is no string. One that `peek` knows is its until it reads another. The
// second function copies it.
const char *krv_find_die_string(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, size_t size, size_t *lengthp,
                                const krv_peek_t *peek = nullptr);
int krv_get_die_string_attr(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, char *buf, size_t size);

// Whether entries may copy so many bytes of strings: some times those of the sections.
inline bool krv_may_copy(const krv_handle_t *hp, uint64_t bytes)
{
    constexpr uint64_t MOST_COPIES = 16; // of a byte, on the average
    const uint64_t size = krv_add_offset(hp->sh_sec[KRV_SEC_INFO].sfd_size, hp->sh_sec[KRV_SEC_STR].sfd_size);
    return bytes <= KRV_KEPT_SLACK || (bytes - KRV_KEPT_SLACK) / MOST_COPIES <= size;
}

// Navigation: a new entry, or NULL, with KRV_ERR_NOTFOUND where there is none.
krv_die_t *krv_alloc_die_child(krv_handle_t *hp, krv_die_t *die);
krv_die_t *krv_alloc_die_sibling(krv_handle_t *hp, krv_die_t *die);
krv_die_t *krv_alloc_die_by_attribute(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr);

// The number at `index` of the unit's table: of .debug_addr, .debug_str_offsets, or, where the lists begin, of
// .debug_rnglists or .debug_loclists; of the latter two counted from the section's first byte. False: messages pushed.
bool krv_cu_read_indexed(krv_handle_t *hp, const krv_ctu_t *cu, krv_base_t base, uint64_t index, uint64_t *valuep);

// The abbreviation table of a unit, read on first use. NULL on failure.
krv_au_t *krv_cu_read_abbrevs(krv_handle_t *hp, krv_ctu_t *cu);
inline krv_au_t *krv_cu_abbrevs(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_au_t *const au = krv_load(&cu->dcu_abbrev_unit);
    return au != nullptr ? au : krv_cu_read_abbrevs(hp, cu);
}

// Calls visit(char **) on each pointer of a unit to a string that its entry has.
template <typename Visit>
void krv_cu_visit_strings(krv_ctu_t *cu, const Visit &visit)
{
    krv_die_t *die = cu->dcu_compile_unit;
    visit(&cu->dcu_name);
    visit(&cu->dcu_comp_dir);
    for (uint32_t i = 0; i < die->dwdie_abbrev_cache->dwa_nafpairs; ++i) {
        krv_value_t *value = &die->dwdie_attrs[i];
        if ((krv_form_row(value->sa_actual, KRV_ALL_FORMS).classes & KRV_CLASS_STRING) == 0) // of a value that was read
            continue;
        char *text = static_cast<char *>(value->sa_u.su_addr);
        visit(&text);
        value->sa_u.su_addr = text;
    }
}

// Calls fn for each child; the child is freed afterwards. 0, fn's non-zero result, or -1.
typedef int krv_iter_die_children_f(krv_handle_t *hp, krv_die_t *child, void *arg);
int krv_iter_children_in_die(krv_handle_t *hp, krv_die_t *die, krv_iter_die_children_f *fn, void *arg);

// A unit's ranges are published as one object, pairs and their number together, so that no reader can see the pairs
// of one list with the count of another: dcu_aranges points at srl_pairs, and the count stands in front of them.
// dcu_aranges_size repeats it.
struct krv_range_list_t {
    uint64_t srl_count;
    uint64_t srl_pairs[]; // start, end, start, end, ...
};

inline krv_range_list_t *krv_ranges_list(uint64_t *aranges)
{
    return reinterpret_cast<krv_range_list_t *>(reinterpret_cast<uint8_t *>(aranges) -
                                                offsetof(krv_range_list_t, srl_pairs));
}

inline uint64_t krv_ranges_count(uint64_t *aranges)
{
    return krv_ranges_list(aranges)->srl_count;
}

#endif
