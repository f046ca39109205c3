// SPDX-License-Identifier: Apache-2.0
//
// The addresses that an entry covers, as compilers write them: DW_AT_ranges, whose list lies in .debug_ranges or, from
// DWARF 5 on, in .debug_rnglists; else DW_AT_low_pc and DW_AT_high_pc. What is no code is left out.
#ifndef KRV_RANGES_H
#define KRV_RANGES_H

#include "krv_entry.h"
#include "krv_info.h"
#include "krv_types.h"

// The ranges of one entry while they are read. Moves no cursor of the handle.
struct krv_ranges_t {
    krv_handle_t *sr_hp;
    const krv_ctu_t *sr_cu;
    krv_secidx_t sr_section;  // of the list; KRV_SEC_NONE: the entry has bounds, and no list
    uint64_t sr_list;         // its offset there
    krv_fd_t sr_fd;           // behind what was read of it
    uint64_t sr_base;         // what its offsets count from
    uint64_t sr_low, sr_high; // the bounds; empty once they were read
    uint64_t *sr_left;        // bytes of lists that may still be read; NULL: any number
    uint64_t sr_dead;         // ranges that were left out
};

// What one item of a list comes to: `none` is neither a range nor the end.
enum class krv_range_item { end, none, range, failed };

// Prepares to read the list at `offset` of a section. 1, or -1 with a message: it lies outside.
int krv_ranges_begin_list(krv_handle_t *hp, const krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset,
                          krv_ranges_t *ranges);

// Reads an item without its end, for lists that have more behind each range: a pair of addresses, or what stands behind
// the kind, DW_RLE_*. Says nothing of where the list is.
krv_range_item krv_ranges_read_pair(krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp);
krv_range_item krv_ranges_read_item(krv_ranges_t *ranges, uint8_t kind, uint64_t *startp, uint64_t *endp);

// Prepares to read the ranges of an entry of the unit. 1, 0 when the entry does not say where its code is, or -1 with
// messages. The second of an entry in place.
int krv_ranges_begin(krv_handle_t *hp, const krv_ctu_t *cu, const krv_die_t *die, krv_ranges_t *ranges);
int krv_ranges_begin_entry(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t *entry, krv_ranges_t *ranges);

// What an entry in place says of where its code is; the first of a kind counts.
struct krv_code_place_t {
    bool has_low, has_high, has_list, is_length;
    uint64_t low, high, list;

    void take(const krv_attr_t &attr);
};
int krv_ranges_begin_at(krv_handle_t *hp, const krv_ctu_t *cu, const krv_code_place_t &code, krv_ranges_t *ranges);

// So many times the bytes of all lists: what may be read of them for entries that share them.
uint64_t krv_ranges_most_bytes(krv_handle_t *hp, uint64_t readings);

// The next range, which is not empty. 1, 0 behind the last one, or -1 with messages: KRV_ERR_CORRUPT where the list is
// damaged, not ended, or too long for *sr_left.
int krv_ranges_next(krv_ranges_t *ranges, uint64_t *startp, uint64_t *endp);

#endif
