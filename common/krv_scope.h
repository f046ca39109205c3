// SPDX-License-Identifier: Apache-2.0
//
// What types stand in: the namespace or type around each, found for a unit when it is first asked for, and kept.
#ifndef KRV_SCOPE_H
#define KRV_SCOPE_H

#include "krv_entry.h"

// The namespace or type that an entry of a named type or a namespace is a child of. 1, 0 when it is a child of something else, or -1:
// KRV_ERR_NOMEM, or messages.
int krv_scope_of(krv_handle_t *hp, const krv_entry_t &entry, krv_entry_t *scope);

void krv_scopes_destroy(krv_handle_t *hp);

#endif
