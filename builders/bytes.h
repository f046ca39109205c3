// SPDX-License-Identifier: Apache-2.0
//
// Bytes of a section, written one datum after the other. Offsets to labels are filled in at the end:
//
//     bytes b;
//     b.u8(1).offset_of("end", 4).cstr("name").label("end").seal();
#ifndef KRV_BUILDERS_BYTES_H
#define KRV_BUILDERS_BYTES_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace krv_test
{

class bytes
{
public:
    bytes() = default;

    // Bytes as hexadecimal digits: bytes::hex("e5 8e 26").
    static bytes hex(std::string_view digits);

    bytes &uint(uint64_t value, size_t width); // the low `width` bytes, least significant first
    bytes &u8(uint64_t value) { return uint(value, 1); }
    bytes &u16(uint64_t value) { return uint(value, 2); }
    bytes &u32(uint64_t value) { return uint(value, 4); }
    bytes &u64(uint64_t value) { return uint(value, 8); }
    bytes &offset(bool dwarf64, uint64_t value) { return uint(value, dwarf64 ? 8 : 4); }
    bytes &uleb(uint64_t value, size_t min_bytes = 1); // padded to min_bytes, as some producers write it
    bytes &sleb(int64_t value);
    bytes &cstr(std::string_view text); // with its NUL
    bytes &fill(size_t count, uint8_t value = 0);
    bytes &align(size_t boundary, uint8_t value = 0);

    // A length before the contents: unit_length in either format, a fixed width, or ULEB128.
    bytes &unit_length(bool dwarf64, uint64_t length);
    bytes &block(size_t width, const bytes &contents) { return uint(contents.size(), width).add(contents); }
    bytes &block_uleb(const bytes &contents) { return uleb(contents.size()).add(contents); }

    // Names this place / writes the distance of a named place from another, by default from the start of the bytes
    // that are sealed in the end. A part brings its open labels along when it is added to a whole.
    bytes &label(const std::string &name);
    bytes &offset_of(const std::string &name, size_t width, const std::string &from = "");
    bytes &seal();                               // fills in; aborts on an unknown label
    size_t where(const std::string &name) const; // of a label, from the start

    bytes &add(const bytes &part);
    bytes &operator+=(const bytes &part) { return add(part); }
    bytes &set(size_t at, uint64_t value, size_t width); // overwrites what was written
    bytes first(size_t count) const;                     // a sealed copy of the beginning

    size_t size() const { return written.size(); }
    const uint8_t *data() const { return written.data(); }
    std::string str() const { return {written.begin(), written.end()}; }
    bool operator==(const bytes &other) const { return written == other.written; }

private:
    struct fixup {
        size_t at, width;
        std::string to, from;
    };
    std::vector<uint8_t> written;
    std::map<std::string, size_t> labels;
    std::vector<fixup> fixups;
    bool sealed = false;
};

inline bytes operator+(bytes a, const bytes &b)
{
    return a.add(b);
}

} // namespace krv_test

#endif
