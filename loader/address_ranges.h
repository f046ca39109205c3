// SPDX-License-Identifier: Apache-2.0
//
// A set of address ranges that one asks for what it holds.
#ifndef KRV_ELF_ADDRESS_RANGES_H
#define KRV_ELF_ADDRESS_RANGES_H

#include <algorithm>
#include <cstdint>
#include <vector>

namespace krv_elf_loader
{

struct address_range {
    uint64_t start;
    uint64_t end; // behind the last

    bool empty() const { return start >= end; }
};

class address_ranges
{
public:
    void add(const address_range &range)
    {
        if (!range.empty())
            list.push_back(range);
    }

    // Sorts, and joins what touches; before the first question.
    void finish()
    {
        std::sort(list.begin(), list.end(),
                  [](const address_range &a, const address_range &b) { return a.start < b.start; });
        size_t kept = 0;
        for (const address_range &range : list)
            if (kept != 0 && range.start <= list[kept - 1].end)
                list[kept - 1].end = std::max(list[kept - 1].end, range.end);
            else
                list[kept++] = range;
        list.resize(kept);
    }

    bool empty() const { return list.empty(); }
    const std::vector<address_range> &all() const { return list; }

    // Whether one of them holds the whole range.
    bool hold(const address_range &range) const
    {
        auto above = std::upper_bound(list.begin(), list.end(), range.start,
                                      [](uint64_t wanted, const address_range &r) { return wanted < r.start; });
        return above != list.begin() && range.end <= (--above)->end;
    }

private:
    std::vector<address_range> list;
};

} // namespace krv_elf_loader

#endif
