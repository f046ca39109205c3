// SPDX-License-Identifier: Apache-2.0
//
// The calls around an address: a unit's functions by address, and of each function that has any the calls that were
// inlined into it. Both are found when they are first asked for, and kept until the handle is freed.
#ifndef KRV_CALLS_H
#define KRV_CALLS_H

#include "krv_types.h"

void krv_calls_destroy(krv_handle_t *hp); // teardown, before the units are freed

#endif
