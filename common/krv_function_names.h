// SPDX-License-Identifier: Apache-2.0
//
// What functions are called, and where they are declared. That may stand in the entry itself, or in those that it leads to
// (DW_AT_abstract_origin, DW_AT_specification), in other units or the alternate file.
#ifndef KRV_FUNCTION_NAMES_H
#define KRV_FUNCTION_NAMES_H

#include "krv_entry.h"

struct krv_function_names {
    const char *name, *linkage_name;       // NULL: none
    krv_ctu_t *decl_unit;                  // whose files decl_file counts in, or NULL
    uint32_t decl_file, decl_line;         // line 0: not known
    uint32_t name_size, linkage_name_size; // as those of krv_call_t
};

constexpr unsigned int KRV_MOST_ORIGINS = 32; // entries that one function's names are looked for in

// The entries that names were read of.
struct krv_names_trace {
    krv_entry_t entries[KRV_MOST_ORIGINS]; // the function's own first
    unsigned int count;
    const krv_entry_t *name, *linkage_name; // the entry of each; NULL: none has it
};

// What cannot be read stays unknown. False: KRV_ERR_NOMEM; there is no other error. `trace`, if given, tells where they were
// found.
bool krv_function_names_find(krv_handle_t *hp, const krv_entry_t &entry, krv_function_names *names,
                             krv_names_trace *trace = nullptr);

// The same of what an attribute of an entry leads to, found once and kept until the handle is freed. NULL: KRV_ERR_NOMEM.
const krv_function_names *krv_function_names_keep(krv_handle_t *hp, const krv_entry_t &entry, const krv_attr_t &origin);
void krv_function_names_destroy(krv_handle_t *hp);

#endif
