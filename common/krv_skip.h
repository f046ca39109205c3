// SPDX-License-Identifier: Apache-2.0
//
// Stepping over encoded values in memory, from one byte to another. Nothing is reported: NULL says that a value is cut off,
// or of a form that these do not know.
#ifndef KRV_SKIP_H
#define KRV_SKIP_H

#include "krv_code.h"

// What follows a number of LEB128, which may be padded; NULL: cut off, or of more than 64 bits. The second reads it with
// its sign.
const uint8_t *krv_skip_long_number(const uint8_t *at, const uint8_t *end, uint64_t *valuep);
const uint8_t *krv_skip_signed(const uint8_t *at, const uint8_t *end, int64_t *valuep);
inline const uint8_t *krv_skip_number(const uint8_t *at, const uint8_t *end, uint64_t *valuep)
{
    const uint8_t *next = krv_scan_short_uleb128(at, end, valuep);
    return next != nullptr ? next : krv_skip_long_number(at, end, valuep);
}

// What follows `count` bytes; NULL: there are not so many.
inline const uint8_t *krv_skip_bytes(const uint8_t *at, const uint8_t *end, uint64_t count)
{
    return count > static_cast<uint64_t>(end - at) ? nullptr : at + count;
}

// What follows the length of a block, `width` bytes wide or, at 0, a number of LEB128; so many bytes follow there.
const uint8_t *krv_skip_length(const uint8_t *at, const uint8_t *end, unsigned int width, uint64_t *lengthp);

// What follows a value; NULL also for DW_FORM_indirect, of which only its bytes tell the form.
const uint8_t *krv_skip_value(const uint8_t *at, const uint8_t *end, krv_form_t form, const krv_encoding_t &encoding);

#endif
