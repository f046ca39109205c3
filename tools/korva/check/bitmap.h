// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace korva::program::check
{

/** A bit for each byte of a section. */
class bitmap
{
public:
    explicit bitmap(uint64_t size) : m_words(size / 64 + 1) {}

    void set(uint64_t i) { m_words[i / 64] |= uint64_t{1} << i % 64; }
    void set(uint64_t from, uint64_t end)
    {
        for (; from < end; ++from)
            set(from);
    }
    bool has(uint64_t i) const { return (m_words[i / 64] >> i % 64 & 1) != 0; }
    bool has_more_than(const bitmap &other) const
    {
        for (size_t i = 0; i < m_words.size(); ++i)
            if ((m_words[i] & ~other.m_words[i]) != 0)
                return true;
        return false;
    }

private:
    std::vector<uint64_t> m_words;
};

} // namespace korva::program::check
