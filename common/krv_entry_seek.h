// SPDX-License-Identifier: Apache-2.0
//
// From an offset to its entry, in whatever unit it lies.
#ifndef KRV_ENTRY_SEEK_H
#define KRV_ENTRY_SEEK_H

#include "krv_entry.h"

// As korva_entry_at and korva_entry_follow, which clear the error state first.
int krv_entry_seek(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, krv_entry_t *entry);
int krv_entry_follow(krv_handle_t *hp, const krv_entry_t *entry, const krv_attr_t *attr, krv_entry_t *to);

#endif
