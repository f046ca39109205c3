// SPDX-License-Identifier: Apache-2.0
//
// What extensions need of a handle: their switches, their sections, where the object's code is, and the notes on what is
// left out.
#ifndef KRV_EXT_H
#define KRV_EXT_H

#include "krv_types.h"

// Options from KRV_OPT_EXT_DWARF5 on. 0 or -1.
bool krv_ext_is_option(krv_opt_idx_t opt);
int krv_ext_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value);
void krv_ext_destroy(krv_handle_t *hp);

// Whether a section of extensions may be attached.
bool krv_ext_is_section(const krv_handle_t *hp, krv_secidx_t sec);

// The name of a section, for messages.
const char *krv_section_name(krv_secidx_t sec);

// Whether code lies at [start, end), which is not empty: within one executable section that the client named, or, where it
// named none, anywhere but at the addresses that linkers give to functions they dropped.
bool krv_is_code(const krv_handle_t *hp, uint64_t start, uint64_t end);

// Tells the client what was left out. Has nothing to do with the error state.
[[gnu::format(printf, 5, 6)]] void krv_tell(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, bool refused,
                                            const char *format, ...);

// The cause of the last failure: its first message, or what its code says. A copy, as another thread may fail meanwhile.
struct krv_cause_t {
    char text[KRV_MAX_ERROR_SIZE];
};
krv_cause_t krv_cause(krv_handle_t *hp);

#endif
