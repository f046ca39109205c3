// SPDX-License-Identifier: Apache-2.0
//
// The length field that units, sets and records begin with (DWARF 4, 7.4 and 7.5.1.1): 4 bytes, or 0xffffffff and then
// 8 bytes, which also chooses the format of what follows. Needs no other header of the core.
#ifndef KRV_UNIT_LENGTH_H
#define KRV_UNIT_LENGTH_H

#include <cstddef>
#include <cstdint>

constexpr uint64_t KRV_LENGTH_DWARF64 = 0xffffffff;  // announces the 64-bit format
constexpr uint64_t KRV_LENGTH_RESERVED = 0xfffffff0; // the other values from here upward are reserved

struct krv_unit_length_t {
    bool is_dwarf64;
    uint64_t length; // bytes behind the field
    uint64_t first;  // offset of the first of them
    uint64_t end;    // and of what follows the last; UINT64_MAX where the sum exceeds 64 bits

    constexpr uint64_t field_size() const { return is_dwarf64 ? 12 : 4; }
    constexpr uint64_t size() const { return length + field_size(); } // wraps where `end` does not tell
};

// What came of it: `cut` in the 4 bytes, or in the 8 behind them.
enum class krv_length_outcome_t : uint8_t { sound, cut, cut_dwarf64, reserved };

// Reads the field at `offset` through read(width, &value), which reads a number of 4 or 8 bytes and returns false when
// it cannot. What was read until then is in *ul.
template <typename Read>
constexpr krv_length_outcome_t krv_scan_unit_length(uint64_t offset, const Read &read, krv_unit_length_t *ul)
{
    *ul = {};
    if (!read(size_t{4}, &ul->length))
        return krv_length_outcome_t::cut;
    ul->is_dwarf64 = ul->length == KRV_LENGTH_DWARF64;
    if (ul->is_dwarf64 && !read(size_t{8}, &ul->length))
        return krv_length_outcome_t::cut_dwarf64;
    if (!ul->is_dwarf64 && ul->length >= KRV_LENGTH_RESERVED)
        return krv_length_outcome_t::reserved;
    ul->first = offset + ul->field_size();
    ul->end = ul->length > UINT64_MAX - ul->first ? UINT64_MAX : ul->first + ul->length;
    return krv_length_outcome_t::sound;
}

#endif
