// SPDX-License-Identifier: Apache-2.0
//
// The units of a handle: the table in section order and the hash from start offset to unit, both built on first use and
// kept until the handle is freed.
#ifndef KRV_UNITS_H
#define KRV_UNITS_H

#include "krv_types.h"

// Builds the unit table and the hash unless they are there. A unit that cannot be read ends the table; its messages
// stay. 0, or -1 also when there is no unit at all.
int krv_lookup_build_cu_caches(krv_handle_t *hp);
void krv_lookup_destroy_cu_caches(krv_handle_t *hp);

#endif
