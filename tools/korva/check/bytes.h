// SPDX-License-Identifier: Apache-2.0
//
// Bytes of a section, read in order. What does not fit fails, and everything behind it.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace korva::program::check
{

class byte_reader
{
public:
    byte_reader(const uint8_t *bytes, uint64_t size, uint64_t at = 0) : m_bytes(bytes), m_size(size), m_at(at)
    {
        m_failed = at > size;
    }

    bool failed() const { return m_failed; }
    uint64_t at() const { return m_at; }
    uint64_t left() const { return m_failed ? 0 : m_size - m_at; }

    /** Ends what is read, @p size bytes from here; those that are not there fail. */
    void limit(uint64_t size)
    {
        m_failed = m_failed || size > left();
        m_size = m_failed ? m_size : m_at + size;
    }

    void skip(uint64_t count)
    {
        m_failed = m_failed || count > left();
        m_at += m_failed ? 0 : count;
    }

    /** A number of at most 8 bytes; 0 when they are not there. */
    uint64_t number(unsigned width)
    {
        uint64_t value = 0;
        const uint64_t from = m_at;
        skip(width);
        if (!m_failed)
            std::memcpy(&value, m_bytes + from, width);
        return value;
    }

    /** Steps over a string with its NUL, and returns its length without that; 0 when it has no end. */
    uint64_t string()
    {
        const void *end = left() == 0 ? nullptr : std::memchr(m_bytes + m_at, 0, left());
        const uint64_t length =
            end == nullptr ? 0 : static_cast<uint64_t>(static_cast<const uint8_t *>(end) - (m_bytes + m_at));
        skip(end == nullptr ? UINT64_MAX : length + 1);
        return length;
    }

    int64_t signed_number(unsigned width)
    {
        const unsigned unused = 64 - 8 * width;
        return static_cast<int64_t>(number(width) << unused) >> unused;
    }

    /** A LEB128 number, modulo 2^64; @p is_signed extends it. */
    uint64_t leb128(bool is_signed = false)
    {
        uint64_t value = 0;
        unsigned shift = 0;
        for (;;) {
            const uint64_t byte = number(1);
            if (m_failed)
                return 0;
            value |= shift < 64 ? (byte & 0x7f) << shift : 0;
            shift += shift < 64 ? 7 : 0;
            if ((byte & 0x80) != 0)
                continue;
            if (is_signed && (byte & 0x40) != 0 && shift < 64)
                value |= ~uint64_t{0} << shift;
            return value;
        }
    }

    /** A unit's length field, and the width of the offsets that follow. */
    uint64_t unit_length(unsigned *widthp)
    {
        const uint64_t first = number(4);
        *widthp = first == 0xffffffff ? 8 : 4;
        m_failed = m_failed || (first > 0xffffffef && first != 0xffffffff);
        return *widthp == 8 ? number(8) : first;
    }

private:
    const uint8_t *m_bytes;
    uint64_t m_size, m_at;
    bool m_failed = false;
};

} // namespace korva::program::check
