// SPDX-License-Identifier: Apache-2.0
//
// A walk over the functions of a unit, wherever among its entries they stand.
#ifndef KRV_FUNCTIONS_H
#define KRV_FUNCTIONS_H

#include "krv_info.h"
#include "krv_types.h"

typedef int krv_iter_functions_f(krv_handle_t *hp, krv_die_t *die, void *arg);

// Calls fn for each DW_TAG_subprogram that says where its code is, in section order; the entry is freed afterwards. 0,
// fn's non-zero result, or -1. Moves the section's cursor; the caller holds the handle's write lock.
int krv_iter_functions(krv_handle_t *hp, krv_ctu_t *cu, krv_iter_functions_f *fn, void *arg);

#endif
