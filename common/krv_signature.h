// SPDX-License-Identifier: Apache-2.0
//
// From the signature of a type to its entry, in a type unit of .debug_info (DWARF 5) or .debug_types (DWARF 4).
#ifndef KRV_SIGNATURE_H
#define KRV_SIGNATURE_H

#include "krv_entry.h"

// -1: KRV_ERR_NOTFOUND with a message when no type unit has it, as of split units, which are in other files; or messages.
int krv_signature_seek(krv_handle_t *hp, uint64_t signature, krv_entry_t *to);

void krv_signatures_destroy(krv_handle_t *hp);

#endif
