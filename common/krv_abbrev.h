// SPDX-License-Identifier: Apache-2.0
//
// Abbreviation tables of .debug_abbrev: parsed once per handle and offset, then shared and never changed.
#ifndef KRV_ABBREV_H
#define KRV_ABBREV_H

#include "krv_types.h"

struct krv_plan;

// One (attribute, form) pair.
struct krv_afpair_t {
    krv_attribute_t dwafp_attribute;
    krv_form_t dwafp_form;
};

enum krv_abbrev_flag_t : uint32_t {
    KRV_ABBREV_FLAG_NONE = 0,
    KRV_ABBREV_FLAG_PARENT = 1, // entries have children
    KRV_ABBREV_FLAG_LEADS = 2,  // some values do not stand in the entry: implicit ones, and those behind an index
};

struct krv_abbrev_t {
    uint32_t dwa_code;
    krv_tag_t dwa_tag;
    krv_abbrev_flag_t dwa_flags;
    uint32_t dwa_nafpairs;     // without the terminating (0, 0)
    krv_afpair_t *dwa_afpairs; // inside the table's pair array
    size_t dwa_afpair_start;   // index of the first one there
    int64_t *dwa_implicit; // values of its pairs of DW_FORM_implicit_const, in their order; inside the table's array
};

inline bool krv_has_attribute(const krv_abbrev_t *abbrev, krv_attribute_t attribute)
{
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i)
        if (abbrev->dwa_afpairs[i].dwafp_attribute == attribute)
            return true;
    return false;
}

// One table.
struct krv_au_t {
    krv_abbrev_t *sau_abbrev_table; // in section order
    uint64_t sau_abbrev_table_entries;
    krv_afpair_t *sau_afpair_table; // the pairs of all abbreviations, back to back
    uint64_t sau_afpair_table_entries;
    uint32_t *sau_by_code;   // owned: indices by ascending code; NULL when the codes are 1, 2, 3, ... in section order
    krv_offset_t sau_offset; // in .debug_abbrev, of the first of those that have the same bytes
    uint64_t sau_size;       // bytes there; 0 unless others may share it
    krv_plan *sau_plans[4];  // owned: krv_cu_plan; NULL until entries are walked
};

// One abbreviation by itself, with its pairs.
struct krv_single_abbrev_t {
    krv_abbrev_t ssa_abbrev;
    krv_afpair_t ssa_pairs[64];
    int64_t ssa_implicit[16];
    uint32_t ssa_implicit_count;
    uint16_t ssa_size; // bytes of the table up to and with it; 0 unless it is the first one, as written
};

// Room for a copy of it that stands by itself.
inline size_t krv_single_abbrev_size(const krv_single_abbrev_t *single)
{
    return sizeof(krv_abbrev_t) + single->ssa_implicit_count * sizeof(int64_t) +
           single->ssa_abbrev.dwa_nafpairs * sizeof(krv_afpair_t);
}

// Pairs of DW_FORM_implicit_const.
uint32_t krv_abbrev_count_implicit(const krv_abbrev_t *abbrev);
inline uint32_t krv_abbrev_implicit_count(const krv_abbrev_t *abbrev)
{
    return abbrev->dwa_implicit == nullptr ? 0 : krv_abbrev_count_implicit(abbrev);
}

// While units are read, only their first entries need an abbreviation, but a damaged table has to fail them. Reads the
// whole table at `offset` and keeps the one abbreviation with `code`. False, with nothing changed but *single, where only
// krv_get_au_by_offset can tell: the table is not in memory, irregular, lacks the code, or does not follow the one that
// was checked last. The caller holds the handle's write lock. Where input is read as written, the table is looked at in any
// order, and only up to the abbreviation.
bool krv_abbrev_check_table(krv_handle_t *hp, krv_offset_t offset, uint64_t code, krv_single_abbrev_t *single);

// Comes before the section is replaced: parses the table that was checked last, and checks anew from then on. 0, or -1
// with KRV_ERR_NOMEM.
int krv_abbrev_forget_checks(krv_handle_t *hp);

// The table at `offset`, parsed and cached on first use; it lives until the handle is freed. Those of the same bytes are
// one. NULL on failure. `sec`: or KRV_SEC_EXT_ALT_ABBREV.
krv_au_t *krv_get_au_by_offset(krv_handle_t *hp, krv_offset_t offset, krv_secidx_t sec = KRV_SEC_ABBREV);

// Compilers number abbreviations from 1 on. Then the code is the way into the table. NULL: it is not.
inline krv_abbrev_t *krv_abbrev_at_its_code(const krv_au_t *au, uint64_t code)
{
    krv_abbrev_t *abbrevs = au->sau_abbrev_table;
    return code - 1 < au->sau_abbrev_table_entries && abbrevs[code - 1].dwa_code == code ? &abbrevs[code - 1] : nullptr;
}

// The abbreviation with `code`; NULL with KRV_ERR_CORRUPT when the table lacks it.
krv_abbrev_t *krv_get_abbrev(krv_handle_t *hp, krv_au_t *au, unsigned int code);

// Parses one table, without caching it; *endp, unless NULL, is the offset behind it. Moves no cursor of the handle.
krv_au_t *krv_abbrev_unit_alloc(krv_handle_t *hp, uint64_t offset, krv_secidx_t sec = KRV_SEC_ABBREV,
                                uint64_t *endp = nullptr);
void krv_abbrev_unit_free(krv_au_t *au);

// Teardown: frees every cached table.
void krv_abbrev_destroy_caches(krv_handle_t *hp);

#endif
