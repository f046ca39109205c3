// SPDX-License-Identifier: Apache-2.0
//
// The units of a handle: the table in section order, built on first use, and the hash from start offset to unit, built when
// one is asked for by it. Both are kept until the handle is freed.
#ifndef KRV_UNITS_H
#define KRV_UNITS_H

#include "krv_sets.h"
#include "krv_types.h"

// Builds the unit table unless it is there. A unit that cannot be read ends the table; its messages
// stay. 0, or -1 also when there is no unit at all.
int krv_lookup_build_cu_caches(krv_handle_t *hp);
void krv_lookup_destroy_cu_caches(krv_handle_t *hp);

// The unit that a set names, read by itself where the table is not built; when it is, the table takes the same record. One
// that no unit of the table begins at stays a unit of its own, if its header is sound. NULL with KRV_ERR_NOTFOUND when
// none can be read there, which is told once, or with the code of what failed.
krv_ctu_t *krv_units_get_named(krv_handle_t *hp, krv_set_t *set);

// Comes before a section is replaced. What was read of it stays as it was: abbreviation tables that were only checked are
// parsed, and strings that lie in it are kept. 0, or -1 with KRV_ERR_NOMEM. Clears the error state otherwise.
int krv_units_keep_section(krv_handle_t *hp, krv_secidx_t sec);

#endif
