// SPDX-License-Identifier: Apache-2.0
//
// Types of entries: what they are without qualifiers and typedefs, and as C writes them.
#ifndef KRV_TYPE_H
#define KRV_TYPE_H

#include "krv_entry.h"

// An attribute of an entry, or, where it has none, of those that it leads to (DW_AT_abstract_origin,
// DW_AT_specification). *where becomes the entry that has it. As korva_entry_get_attr.
int krv_entry_find_attr(krv_handle_t *hp, const krv_entry_t &entry, krv_attribute_t attribute, krv_entry_t *where,
                        krv_attr_t *attr);

#endif
