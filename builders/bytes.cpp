// SPDX-License-Identifier: Apache-2.0
#include "builders/bytes.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace krv_test
{

[[noreturn]] static void misuse(const char *what, const std::string &name)
{
    std::fprintf(stderr, "section builder: %s: %s\n", what, name.c_str());
    std::abort();
}

bytes bytes::hex(std::string_view digits)
{
    bytes b;
    std::string pair;
    for (const char c : digits) {
        if (std::isspace(static_cast<unsigned char>(c)) != 0)
            continue;
        pair += c;
        if (pair.size() < 2)
            continue;
        b.u8(std::stoul(pair, nullptr, 16));
        pair.clear();
    }
    return b;
}

bytes &bytes::uint(uint64_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i)
        written.push_back(i < 8 ? static_cast<uint8_t>(value >> (8 * i)) : 0);
    return *this;
}

bytes &bytes::uleb(uint64_t value, size_t min_bytes)
{
    for (size_t count = 1;; ++count, value >>= 7) {
        const bool last = value < 0x80 && count >= min_bytes;
        u8((value & 0x7f) | (last ? 0 : 0x80));
        if (last)
            return *this;
    }
}

bytes &bytes::sleb(int64_t value)
{
    for (;; value >>= 7) {
        const bool last = value >= -64 && value < 64;
        u8((static_cast<uint64_t>(value) & 0x7f) | (last ? 0 : 0x80));
        if (last)
            return *this;
    }
}

bytes &bytes::cstr(std::string_view text)
{
    written.insert(written.end(), text.begin(), text.end());
    return u8(0);
}

bytes &bytes::fill(size_t count, uint8_t value)
{
    written.insert(written.end(), count, value);
    return *this;
}

bytes &bytes::align(size_t boundary, uint8_t value)
{
    return fill((boundary - size() % boundary) % boundary, value);
}

bytes &bytes::unit_length(bool dwarf64, uint64_t length)
{
    return dwarf64 ? u32(0xffffffff).u64(length) : u32(length);
}

bytes &bytes::label(const std::string &name)
{
    if (!labels.emplace(name, size()).second)
        misuse("label used twice", name);
    return *this;
}

bytes &bytes::offset_of(const std::string &name, size_t width, const std::string &from)
{
    fixups.push_back({size(), width, name, from});
    return uint(0, width);
}

size_t bytes::where(const std::string &name) const
{
    const auto found = labels.find(name);
    if (found == labels.end())
        misuse("unknown label", name);
    return found->second;
}

bytes &bytes::seal()
{
    for (const fixup &f : fixups)
        set(f.at, where(f.to) - (f.from.empty() ? 0 : where(f.from)), f.width);
    fixups.clear();
    sealed = true;
    return *this;
}

bytes &bytes::set(size_t at, uint64_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i)
        written.at(at + i) = static_cast<uint8_t>(value >> (8 * i));
    return *this;
}

bytes &bytes::add(const bytes &part)
{
    const size_t base = size();
    written.insert(written.end(), part.written.begin(), part.written.end());
    if (part.sealed)
        return *this;
    for (const auto &[name, at] : part.labels)
        if (!labels.emplace(name, base + at).second)
            misuse("label used twice", name);
    for (fixup f : part.fixups) {
        f.at += base;
        fixups.push_back(f);
    }
    return *this;
}

bytes bytes::first(size_t count) const
{
    bytes b;
    b.written.assign(written.begin(), written.begin() + static_cast<ptrdiff_t>(count));
    b.sealed = true;
    return b;
}

} // namespace krv_test
