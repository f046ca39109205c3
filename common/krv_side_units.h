// SPDX-License-Identifier: Apache-2.0
//
// Units outside .debug_info: those of the alternate file, in which several files keep what they have in common (dwz -m), and
// the type units of .debug_types. Only their entries are asked for, one at a time, by references.
#ifndef KRV_SIDE_UNITS_H
#define KRV_SIDE_UNITS_H

#include "krv_types.h"

// In section order. They have no first entry of their own in memory.
struct krv_side_units {
    krv_ctu_t *su_units; // owned
    size_t su_size, su_count;
    krv_die_t *su_no_die; // owned: in place of the first entry of each, which nobody reads into a record
};

// Those of KRV_SEC_EXT_ALT_INFO or KRV_SEC_TYPES. A damaged header ends them. NULL: KRV_ERR_NOMEM.
const krv_side_units *krv_side_units_get(krv_handle_t *hp, krv_secidx_t sec);

// The unit whose entries an offset of the section lies among. NULL: KRV_ERR_NOTFOUND, or messages.
krv_ctu_t *krv_side_units_find(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset);

void krv_side_units_destroy(krv_handle_t *hp);

#endif
