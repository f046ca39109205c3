// SPDX-License-Identifier: Apache-2.0
#ifndef KRV_LOCLIST_H
#define KRV_LOCLIST_H

#include "krv_info.h"
#include "krv_types.h"

// The expression that holds at `pc`, by the list at `offset` of the section that lists of the unit are in: *expr reads it
// in its section. 0, or -1: KRV_ERR_NOTFOUND without a message where none holds.
int krv_find_location(krv_handle_t *hp, const krv_ctu_t *cu, uint64_t offset, uint64_t pc, krv_fd_t *expr);

#endif
