// SPDX-License-Identifier: Apache-2.0
//
// Entries stand one behind the other, whatever their depth, so a walk over all of them needs no tree. Those that are in
// memory are stepped over without a record.
#include "krv_functions.h"

#include "krv_budget.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"
#include "krv_skip.h"
#include "krv_threads.h"

#include <utility>

using die_owner = std::unique_ptr<krv_die_t, krv_die_deleter>;

static bool is_function_with_code(const krv_abbrev_t *abbrev)
{
    if (abbrev->dwa_tag != DW_TAG_subprogram)
        return false;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        const krv_attribute_t attribute = abbrev->dwa_afpairs[i].dwafp_attribute;
        if (attribute == DW_AT_low_pc || attribute == DW_AT_ranges)
            return true;
    }
    return false;
}

// What follows entries that are no such function, up to `end`: such a function, or an entry that has to be read as others
// are. *left counts the attributes that may still be stepped over.
static const uint8_t *skip_entries(const uint8_t *at, const uint8_t *end, const krv_au_t *au,
                                   const krv_encoding_t &encoding, uint64_t *left)
{
    while (at != end) {
        uint64_t code = 0;
        const uint8_t *value = krv_skip_number(at, end, &code);
        if (value != nullptr && code != 0) {
            const krv_abbrev_t *abbrev = krv_abbrev_at_its_code(au, code);
            if (abbrev == nullptr || is_function_with_code(abbrev) || abbrev->dwa_nafpairs > *left)
                return at;
            *left -= abbrev->dwa_nafpairs;
            for (uint32_t i = 0; i < abbrev->dwa_nafpairs && value != nullptr; ++i)
                value = krv_skip_value(value, end, abbrev->dwa_afpairs[i].dwafp_form, encoding);
        }
        if (value == nullptr)
            return at;
        at = value;
    }
    return at;
}

int krv_iter_functions(krv_handle_t *hp, krv_ctu_t *cu, krv_iter_functions_f *fn, void *arg)
{
    krv_au_t *au = krv_cu_abbrevs(hp, cu);
    if (au == nullptr)
        return -1;
    krv_die_walk walk = {krv_cu_most_attributes(cu), false};
    for (krv_offset_t offset = cu->dcu_header_size; offset < cu->dcu_size;) {
        krv_fd_t fd = *krv_section(hp, cu->dcu_section);
        if (krv_fd_seek(&fd, cu->dcu_offset + offset) != 0 || krv_fd_truncate(&fd, cu->dcu_size - offset) != 0)
            return -1;
        const krv_view_t view = krv_fd_view(&fd);
        const uint8_t *end = view.bytes;
        if (view.size != 0 && !krv_spend_to(hp, view.bytes, view.bytes + view.size, &end))
            return -1;
        if (view.size != 0) {
            offset += static_cast<uint64_t>(skip_entries(view.bytes, end, au, krv_cu_encoding(hp, cu), &walk.left) -
                                            view.bytes);
            if (offset == cu->dcu_size)
                break;
        }
        const die_owner die(krv_alloc_next_die(hp, cu, offset, &walk));
        if (die != nullptr) {
            offset += die->dwdie_bufsize;
            if (is_function_with_code(die->dwdie_abbrev_cache))
                if (const int result = fn(hp, die.get(), arg))
                    return result;
        } else if (std::exchange(walk.is_at_null, false)) {
            offset = krv_position(hp, cu->dcu_section)->sfd_offset - cu->dcu_offset; // behind the null entry
        } else {
            return -1;
        }
    }
    return 0;
}
