// SPDX-License-Identifier: Apache-2.0
//
// Printable names of DWARF constants. All constant data.
#ifndef KRV_NAMES_H
#define KRV_NAMES_H

#include "krv_form.h"
#include "krv_types.h"

// One name.
struct krv_isp_t {
    unsigned int dwisp_key;
    const char *dwisp_valuep;
};

// The names of one class of constants, ascending by key.
struct krv_nap_t {
    const krv_isp_t *dwnap_tablep;
    size_t dwnap_table_size;
};

extern const krv_nap_t _krv_name_tables[KRV_DEF_MAX];

// Three-way comparison of two unsigned ints, for binary searches.
int krv_compare_uint(const void *a, const void *b);

// The name, or NULL for an unknown key. index is a krv_def_t and must be below KRV_DEF_MAX.
char *krv_print_define(unsigned int index, unsigned int key);

// Likewise, and where the handle has extensions, of what they add.
char *krv_print_known(const krv_handle_t *hp, unsigned int index, unsigned int key);

// The name for a message: "unknown" for a key without one, also beyond 32 bits.
const char *krv_name_or_unknown(unsigned int index, uint64_t key);

// The name of a form's code, likewise; of those of extensions where they are known.
const char *krv_form_name(krv_form_t form, bool is_extended);

// Mask of KRV_CLASS_*; 0 for DW_FORM_indirect and unknown forms.
inline uint32_t krv_get_form_class(krv_form_t form)
{
    return krv_form_row(form).classes;
}

#endif
