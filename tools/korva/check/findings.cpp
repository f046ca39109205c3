// SPDX-License-Identifier: Apache-2.0
#include "check/findings.h"

#include <algorithm>

namespace korva::program::check
{

static std::vector<finding_class> make_classes()
{
    std::vector<finding_class> all;
#define KORVA_FINDING_ROW(name, how_bad, section, means) all.push_back({#name, severity::how_bad, section, means});
    KORVA_FINDING_CLASSES(KORVA_FINDING_ROW)
#undef KORVA_FINDING_ROW
    for (finding_class &row : all)
        std::replace(row.name.begin(), row.name.end(), '_', '-');
    return all;
}

const std::vector<finding_class> &all_classes()
{
    static const std::vector<finding_class> all = make_classes();
    return all;
}

const finding_class &class_of(kind what)
{
    return all_classes()[static_cast<size_t>(what)];
}

findings::findings(uint64_t most, const std::vector<std::string> &ignored, handle_view handle)
    : m_most(most), m_handle(handle)
{
    for (size_t i = 0; i < m_ignored.size(); ++i)
        m_ignored[i] = std::find(ignored.begin(), ignored.end(), all_classes()[i].name) != ignored.end();
}

void findings::add(kind what, place where, std::vector<std::string> messages)
{
    constexpr size_t MOST_PLACES = 4096;
    const finding_class &row = class_of(what);
    if (are_cut())
        return;
    if (where.section.empty())
        where.section = row.section;
    if (row.how_bad == severity::fault && where.offset && m_places.size() < MOST_PLACES)
        m_places.emplace(where.section, *where.offset);
    if (m_ignored[static_cast<size_t>(what)])
        return;
    if (m_counts[static_cast<size_t>(what)]++ < m_most)
        m_kept.push_back({what, std::move(where), std::move(messages)});
}

bool findings::has_fault_at(std::string_view section, uint64_t offset) const
{
    return m_places.count({std::string(section), offset}) != 0;
}

uint64_t findings::count(severity how_bad) const
{
    uint64_t sum = 0;
    for (size_t i = 0; i < m_counts.size(); ++i)
        sum += all_classes()[i].how_bad == how_bad ? m_counts[i] : 0;
    return sum;
}

} // namespace korva::program::check
