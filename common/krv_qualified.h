// SPDX-License-Identifier: Apache-2.0
//
// Names as programmers write them, "ns::f" or "ns::f(int)", against what an entry is called: "f".
#ifndef KRV_QUALIFIED_H
#define KRV_QUALIFIED_H

#include "krv_fd.h"

#include <cstring>

// The text at an offset of a section, whose bytes are taken from a budget. NULL: it has no end, or is too long for that.
inline const char *krv_find_text(const krv_view_t &view, uint64_t offset, uint64_t *budget)
{
    if (offset >= view.size)
        return nullptr;
    const uint64_t most = view.size - offset < *budget ? view.size - offset : *budget;
    const void *end = std::memchr(view.bytes + offset, 0, most);
    if (end == nullptr)
        return nullptr;
    *budget -= static_cast<uint64_t>(static_cast<const uint8_t *>(end) - (view.bytes + offset)) + 1;
    return reinterpret_cast<const char *>(view.bytes + offset);
}

class krv_wanted_name
{
public:
    explicit krv_wanted_name(const char *name) : text(name), size(std::strlen(name)) {}

    // Whether it is the last part of a text, behind which may stand parameters.
    bool is_end_of(const char *whole) const
    {
        const size_t length = std::strlen(whole);
        return is_part(whole, length) || is_part(whole, without_parameters(whole));
    }

private:
    // The length of what stands before the last parentheses.
    static size_t without_parameters(const char *whole)
    {
        const char *at = std::strrchr(whole, ')');
        unsigned int open = 0;
        for (; at != nullptr && at != whole; --at) {
            open += *at == ')';
            if (*at == '(' && --open == 0)
                break;
        }
        return at == nullptr ? 0 : static_cast<size_t>(at - whole);
    }

    bool is_part(const char *whole, size_t length) const
    {
        if (length < size || std::memcmp(whole + length - size, text, size) != 0)
            return false;
        return length == size || whole[length - size - 1] == ':';
    }

    const char *text;
    size_t size;
};

#endif
