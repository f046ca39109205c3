// SPDX-License-Identifier: Apache-2.0
//
// .debug_aranges (DWARF 5, 6.1.2): every set, its unit, and whether that covers what the set says.
#include "check/subject.h"

#include <fmt/format.h>

#include <algorithm>

namespace korva::program::check
{

namespace
{

/** The code of units, each unit's together and ascending, with what touches joined. */
class unit_code
{
public:
    explicit unit_code(const std::vector<stretch> &ranges)
    {
        std::vector<stretch> sorted = ranges;
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const stretch &a, const stretch &b) { return a.owner < b.owner; }); // they ascend already
        for (const stretch &next : sorted)
            if (!m_all.empty() && m_all.back().owner == next.owner && next.start <= m_all.back().end)
                m_all.back().end = std::max(m_all.back().end, next.end);
            else
                m_all.push_back(next);
    }

    bool covers(uint64_t unit, uint64_t start, uint64_t end) const
    {
        const auto behind = std::upper_bound(
            m_all.begin(), m_all.end(), std::pair(unit, start),
            [](const std::pair<uint64_t, uint64_t> &at, const stretch &s) { return at < std::pair(s.owner, s.start); });
        return behind != m_all.begin() && (behind - 1)->owner == unit && end <= (behind - 1)->end;
    }

private:
    std::vector<stretch> m_all;
};

class set_checker
{
public:
    set_checker(subject *of, const section_bytes &bytes)
        : m_of(of), m_bytes(bytes), m_code(of->unit_ranges), m_listed(of->units.size())
    {
    }

    void run();

private:
    uint64_t check_set(uint64_t at);
    bool check_tuples(byte_reader *set, unsigned width, const unit_facts *unit, uint64_t at);

    void add(kind what, uint64_t at, std::string message)
    {
        m_of->found().add(what, {.offset = at}, std::move(message));
    }

    subject *m_of;
    const section_bytes &m_bytes;
    unit_code m_code;
    std::vector<bool> m_listed; // units that sets name
};

} // namespace

// False: they are cut off.
bool set_checker::check_tuples(byte_reader *set, unsigned width, const unit_facts *unit, uint64_t at)
{
    bool told = false;
    for (;;) {
        const uint64_t start = set->number(width), length = set->number(width);
        if (set->failed())
            return false;
        if (start == 0 && length == 0)
            return true;
        if (unit == nullptr || !unit->has_code || told || length == 0 || !m_of->is_code(start))
            continue;
        const auto number = static_cast<uint64_t>(unit - m_of->units.data());
        told = length > UINT64_MAX - start || !m_code.covers(number, start, start + length);
        if (told)
            m_of->found().add(kind::aranges_range, {.offset = at, .unit = unit->header.offset},
                              fmt::format("0x{:x} bytes from 0x{:x}, which the unit at 0x{:x} does not all cover",
                                          length, start, unit->header.offset));
    }
}

// Returns the offset of the next one.
uint64_t set_checker::check_set(uint64_t at)
{
    byte_reader set = m_bytes.read(at);
    unsigned width = 4;
    const uint64_t length = set.unit_length(&width), first = set.at();
    if (set.failed() || length > set.left()) {
        add(kind::aranges_set, at, fmt::format("the set of 0x{:x} bytes leads out of the section", length));
        return m_bytes.size();
    }
    set.limit(length);
    const uint64_t version = set.number(2), unit_offset = set.number(width);
    const auto address_size = static_cast<unsigned>(set.number(1));
    const uint64_t segment_size = set.number(1);
    const unsigned target_size = m_of->target() == KRV_ACTIVATION_I386 ? 4 : 8;
    if (set.failed() || version != 2 || address_size != target_size || segment_size != 0) {
        add(kind::aranges_set, at,
            set.failed() ? "the set is cut off"
                         : fmt::format("a set of version {}, with addresses of {} bytes and segments of {}", version,
                                       address_size, segment_size));
        return first + length;
    }
    const unit_facts *unit = m_of->unit_at(unit_offset);
    if (unit == nullptr)
        add(kind::aranges_unit, at, fmt::format("no unit begins at 0x{:x}", unit_offset));
    else
        m_listed[static_cast<size_t>(unit - m_of->units.data())] = true;
    const uint64_t tuple = uint64_t{2} * address_size, misplaced = (set.at() - at) % tuple;
    set.skip(misplaced == 0 ? 0 : tuple - misplaced);
    if (!check_tuples(&set, address_size, unit, at))
        add(kind::aranges_set, at, "the set has no end");
    return first + length;
}

void set_checker::run()
{
    for (uint64_t at = 0; at < m_bytes.size();)
        at = check_set(at);
    for (size_t i = 0; i < m_listed.size(); ++i)
        if (!m_listed[i] && m_of->units[i].has_code)
            m_of->found().add(kind::aranges_missing, {.offset = 0, .unit = m_of->units[i].header.offset},
                              fmt::format("no set names the unit at 0x{:x}", m_of->units[i].header.offset));
}

void check_aranges(subject *of)
{
    const section_bytes bytes(of->handle(), KRV_SEC_ARANGES);
    if (bytes.size() != 0)
        set_checker(of, bytes).run();
    else if (std::any_of(of->units.begin(), of->units.end(), [](const unit_facts &u) { return u.has_code; }))
        of->found().add(kind::no_aranges, {}, "there is no .debug_aranges");
}

} // namespace korva::program::check
