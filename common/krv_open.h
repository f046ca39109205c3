// SPDX-License-Identifier: Apache-2.0
//
// The handle's section-name table, and the built-in debug call-back.
#ifndef KRV_OPEN_H
#define KRV_OPEN_H

#include "krv_types.h"

struct krv_section_t {
    krv_secidx_t index;
    const char *name; // without its prefix
};

constexpr unsigned _krv_nsections = 11;
extern const krv_section_t _krv_section_table[_krv_nsections];

// Writes a message to standard error; installed by the word "debug" of LIBKORVA_OPTIONS.
krv_debug_f krv_error_print;

#endif
