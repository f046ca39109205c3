// SPDX-License-Identifier: Apache-2.0
#include "krv_skip.h"

// The bytes of a number of LEB128 as a number of 64 bits, in two's complement where it is signed. Behind these, padding
// repeats their sign.
static const uint8_t *read_leb128(const uint8_t *at, const uint8_t *end, bool is_signed, uint64_t *valuep)
{
    uint64_t value = 0;
    for (unsigned int shift = 0; at != end; ++at) {
        const uint64_t bits = *at & 0x7f;
        const bool is_last = *at < 0x80;
        if (shift < 64) {
            value |= bits << shift;
            const uint64_t lost = shift == 63 ? bits >> 1 : 0;
            if (lost != 0 && !(is_signed && lost == 0x3f && (bits & 1) != 0))
                return nullptr;
            shift += 7;
            if (is_last && is_signed && (bits & 0x40) != 0 && shift < 64)
                value |= UINT64_MAX << shift;
        } else if (bits != (is_signed && value >> 63 != 0 ? 0x7f : 0)) {
            return nullptr;
        }
        if (is_last) {
            *valuep = value;
            return at + 1;
        }
    }
    return nullptr;
}

const uint8_t *krv_skip_long_number(const uint8_t *at, const uint8_t *end, uint64_t *valuep)
{
    return read_leb128(at, end, false, valuep);
}

const uint8_t *krv_skip_signed(const uint8_t *at, const uint8_t *end, int64_t *valuep)
{
    uint64_t value = 0;
    const uint8_t *next = read_leb128(at, end, true, &value);
    *valuep = static_cast<int64_t>(value);
    return next;
}

const uint8_t *krv_skip_length(const uint8_t *at, const uint8_t *end, unsigned int width, uint64_t *lengthp)
{
    const uint8_t *bytes = at;
    *lengthp = 0;
    if (width == 0) {
        bytes = krv_skip_number(at, end, lengthp);
    } else {
        bytes = krv_skip_bytes(at, end, width);
        if (bytes != nullptr)
            std::memcpy(lengthp, at, width);
    }
    return bytes == nullptr || *lengthp > static_cast<uint64_t>(end - bytes) ? nullptr : bytes;
}

const uint8_t *krv_skip_value(const uint8_t *at, const uint8_t *end, krv_form_t form, const krv_encoding_t &encoding)
{
    if (const size_t width = krv_number_width(form, encoding, encoding.forms); width != 0)
        return krv_skip_bytes(at, end, width);
    const krv_form_row_t row = krv_form_row(form, encoding.forms);
    uint64_t number = 0;
    switch (row.family) {
    case krv_family_t::uleb128:
        return krv_skip_number(at, end, &number);
    case krv_family_t::sleb128: {
        int64_t value = 0;
        return krv_skip_signed(at, end, &value);
    }
    case krv_family_t::string: {
        const void *nul = std::memchr(at, 0, static_cast<size_t>(end - at));
        return nul == nullptr ? nullptr : static_cast<const uint8_t *>(nul) + 1;
    }
    case krv_family_t::block: {
        const uint8_t *bytes = krv_skip_length(at, end, row.width, &number);
        return bytes == nullptr ? nullptr : bytes + number;
    }
    case krv_family_t::number:
    case krv_family_t::strp:
    case krv_family_t::opaque:
    case krv_family_t::line_strp:
    case krv_family_t::alt_strp:
    case krv_family_t::bytes:
        return krv_skip_bytes(at, end, krv_form_width(row, encoding));
    case krv_family_t::present:
    case krv_family_t::implicit:
        return at;
    case krv_family_t::indirect:
    case krv_family_t::unknown:
        break;
    }
    return nullptr;
}
