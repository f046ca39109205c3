// SPDX-License-Identifier: Apache-2.0
//
// The units of the alternate file, in which several files keep what they have in common (dwz -m). Only their entries are
// asked for, one at a time, by references from the file itself.
#ifndef KRV_ALTERNATE_H
#define KRV_ALTERNATE_H

#include "krv_types.h"

// The unit whose entries an offset of KRV_SEC_EXT_ALT_INFO lies among; it has no first entry of its own in memory. NULL:
// KRV_ERR_NOTFOUND, or messages of the header that cannot be read.
krv_ctu_t *krv_alternate_find(krv_handle_t *hp, uint64_t offset);

void krv_alternate_destroy(krv_handle_t *hp);

#endif
