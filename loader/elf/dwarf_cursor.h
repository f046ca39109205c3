// SPDX-License-Identifier: Apache-2.0
//
// A bounded walk over bytes. A read that would leave them fails the cursor, for good, and gives 0: a record is read
// as a whole, and asked for ok() once.
#ifndef KRV_ELF_DWARF_CURSOR_H
#define KRV_ELF_DWARF_CURSOR_H

#include "bytes.h"
#include "krv_unit_length.h"

#include <cstring>
#include <string_view>
#include <vector>

namespace krv_elf_loader
{

class cursor
{
public:
    explicit cursor(byte_span all, uint64_t offset = 0) : bytes(all) { seek(offset); }

    bool ok() const { return good; }
    uint64_t at() const { return pos; }
    uint64_t left() const { return bytes.size() - pos; }
    bool more() const { return good && pos < bytes.size(); }

    void seek(uint64_t offset)
    {
        good = good && offset <= bytes.size();
        if (good)
            pos = offset;
    }
    void skip(uint64_t count)
    {
        good = good && count <= left();
        if (good)
            pos += count;
    }

    // A number of 1 to 8 bytes.
    uint64_t number(size_t width)
    {
        uint64_t value = 0;
        if (!good || width > left()) {
            good = false;
            return 0;
        }
        std::memcpy(&value, bytes.data() + pos, width);
        pos += width;
        return value;
    }
    // What units, sets and programs begin with.
    krv_length_outcome_t unit_length(krv_unit_length_t *ul)
    {
        const auto read = [this](size_t width, uint64_t *value) {
            *value = number(width);
            return good;
        };
        return krv_scan_unit_length(at(), read, ul);
    }
    uint8_t byte() { return static_cast<uint8_t>(number(1)); }

    // LEB128 of any length; bits above 64 are lost.
    uint64_t uleb()
    {
        uint64_t value = 0;
        read_leb(&value);
        return value;
    }
    int64_t sleb()
    {
        uint64_t value = 0;
        const unsigned int bits = read_leb(&value);
        if (good && bits < 64 && (bytes[pos - 1] & 0x40) != 0)
            value |= UINT64_MAX << bits;
        return static_cast<int64_t>(value);
    }

    std::string_view string()
    {
        const void *end = good && left() != 0 ? std::memchr(bytes.data() + pos, 0, left()) : nullptr;
        if (end == nullptr) {
            good = false;
            return {};
        }
        const char *start = reinterpret_cast<const char *>(bytes.data() + pos);
        const std::string_view text(start, static_cast<size_t>(static_cast<const char *>(end) - start));
        pos += text.size() + 1;
        return text;
    }

protected:
    void fail() { good = false; }

private:
    // Returns the bits read.
    unsigned int read_leb(uint64_t *value)
    {
        for (unsigned int bits = 0;;) {
            const uint8_t b = byte();
            if (!good)
                return 0;
            if (bits < 64)
                *value |= uint64_t{b & 0x7fU} << bits;
            bits = bits < 64 ? bits + 7 : bits;
            if ((b & 0x80) == 0)
                return bits;
        }
    }

    byte_span bytes;
    uint64_t pos = 0;
    bool good = true;
};

inline void write_number(std::vector<uint8_t> &bytes, uint64_t offset, uint64_t value, size_t width)
{
    std::memcpy(bytes.data() + offset, &value, width);
}

// Unsigned LEB128 of exactly `width` bytes, padded where the value needs fewer.
inline void write_padded_uleb(uint8_t *bytes, uint64_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i, value >>= 7)
        bytes[i] = static_cast<uint8_t>((value & 0x7f) | (i + 1 < width ? 0x80 : 0));
}

} // namespace krv_elf_loader

#endif
