// SPDX-License-Identifier: Apache-2.0
//
// The .debug_aranges reader: a walk over the set headers, and a walk over the tuples of one set. Both move the
// handle's .debug_aranges cursor and keep no position of their own; krv_lookup runs them under the handle's write lock.
#ifndef KRV_ARANGES_H
#define KRV_ARANGES_H

#include "krv_types.h"

// One set header.
struct krv_arh_t {
    uint64_t sarh_unit_length;
    uint16_t sarh_version;
    uint64_t sarh_debug_info_offset; // of the unit's header
    uint8_t sarh_address_size;
    uint8_t sarh_segment_size;
    uint64_t sarh_offset; // of this header in .debug_aranges
    uint32_t sarh_flags;  // KRV_FORM_F_DWARF64 or 0
};

// The set header at `offset`, or NULL. Free with krv_arh_free.
krv_arh_t *krv_arh_alloc(krv_handle_t *hp, uint64_t offset);
void krv_arh_free(krv_arh_t *arhp);

uint64_t krv_get_arh_debug_info_offset(krv_arh_t *arhp);
uint64_t krv_get_arh_offset(krv_arh_t *arhp);
uint8_t krv_get_arh_segment_size(krv_arh_t *arhp);

// Visitors; non-zero stops the walk. The header is freed when its visitor returns.
typedef int krv_iter_arh_f(krv_handle_t *hp, krv_arh_t *arhp, void *arg);
typedef int krv_iter_are_f(krv_handle_t *hp, uint64_t selector, uint64_t address, uint64_t length, void *arg);

// 0, the visitor's non-zero result, or -1.
int krv_iter_aranges_header(krv_handle_t *hp, krv_iter_arh_f *fn, void *arg);
// Likewise; a visitor that stops the walk leaves KRV_ERR_IO. A set with sizes that no form has visits nothing.
int krv_iter_aranges_entry(krv_handle_t *hp, krv_arh_t *arhp, krv_iter_are_f *fn, void *arg);

#endif
