// SPDX-License-Identifier: Apache-2.0
#include "locate.h"

#include "output.h"
#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace korva::program
{

locator::locator(object *obj) : m_object(obj), m_has_units(obj->has_debug_info())
{
    if (!m_has_units)
        obj->diagnose("no debugging information (.debug_info)");
}

// All of them, or NULL where none can be read, which is told once.
std::vector<unit_record> *locator::units()
{
    if (!m_has_units)
        return nullptr;
    try {
        return &m_object->units();
    } catch (const failure &f) {
        m_has_units = false;
        diagnose(f.what());
        return nullptr;
    }
}

location locator::find(uint64_t address)
{
    location found;
    found.function = m_object->elf().symbol(address);
    if (!m_has_units)
        return found;

    // Within its function an address between two sequences still belongs to one of them.
    const extent range =
        found.function != nullptr ? extent{found.function->address, found.function->size} : extent{address, 1};
    if (ask_covering(range, address, &found) == outcome::absent) {
        refuse_unread();
        if (m_object->is_raw())
            ask_sequences(range, address, &found);
    }
    return found;
}

// A unit that is not read may be the one that covers the address.
void locator::refuse_unread()
{
    std::vector<unit_record> *all = units();
    if (all == nullptr)
        return;
    const auto unread = std::find_if(all->begin(), all->end(), [](const unit_record &u) { return !u.is_readable(); });
    if (unread != all->end())
        m_object->refuse_unread(*unread);
}

// Tells once that a question about ranges failed.
void locator::note_ranges_failed(const error &why)
{
    if (!std::exchange(m_ranges_failed, true))
        m_object->diagnose(fmt::format("cannot tell which units cover an address: {}", why.text()));
}

bool locator::covers(const unit_record &u, uint64_t address, krv_lookup_flag_t flags)
{
    const result<bool> covered = u.unit.contains(address, flags);
    if (!covered)
        note_ranges_failed(covered.error());
    return covered && *covered;
}

void locator::refuse_lines(unit_record &u, const error &why)
{
    m_object->refuse(u, fmt::format("line table of unit at offset 0x{:x}: {}", u.header.offset, why.text()));
}

// Many units may cover an address of which they know no line. Asked again, they are passed over.
void locator::learn_lines(unit_record &u)
{
    u.lines = range{UINT64_MAX, 0};
    for (const range &r : u.unit.sequences().value_or({}))
        u.lines = range{std::min(u.lines->start, r.start), std::max(u.lines->end, r.end)};
}

locator::outcome locator::ask(unit_record &u, const extent &range, uint64_t address, location *found)
{
    if (u.refused)
        return outcome::refused;
    if (!u.is_readable()) {
        m_object->refuse_unread(u);
        return outcome::refused;
    }
    result<korva::source> source = u.unit.source(address, range.address, range.size);
    if (source) {
        found->source = std::move(*source);
        found->unit = &u;
        return outcome::found;
    }
    if (source.error().code == KRV_ERR_NOTFOUND) {
        learn_lines(u);
        return outcome::absent;
    }
    refuse_lines(u, source.error());
    return outcome::refused;
}

locator::outcome locator::ask_covering(const extent &range, uint64_t address, location *found)
{
    const auto may_know = [&](const unit_record &u) {
        return !u.lines || (u.lines->end >= range.address &&
                            (u.lines->start <= range.address || u.lines->start - range.address <= range.size));
    };
    for (const krv_lookup_flag_t flags : {KRV_LOOKUP_F_FAST, KRV_LOOKUP_F_NONE}) {
        const result<unit> covering = m_object->handle().lookup_unit(address, flags);
        if (!covering) {
            const int code = covering.error().code;
            if (code != KRV_ERR_NONE && code != KRV_ERR_NOTFOUND && units() != nullptr)
                note_ranges_failed(covering.error());
            continue;
        }
        // The first that covers it knows its line, but for units that overlap.
        unit_record &first = m_object->record(*covering);
        const uint64_t offset = first.header.offset;
        outcome result = ask(first, range, address, found);
        if (result == outcome::absent && units() != nullptr)
            for (unit_record &u : *units())
                if (result == outcome::absent && u.header.offset > offset && may_know(u) && covers(u, address, flags))
                    result = ask(u, range, address, found);
        if (result != outcome::absent)
            return result;
    }
    return outcome::absent;
}

// Adds the sequences of a unit whose line table can be read.
void locator::index_unit(unit_record &u)
{
    if (u.refused)
        return;
    const result<std::vector<range>> sequences = u.unit.sequences();
    if (!sequences && sequences.error().code != KRV_ERR_NOTFOUND)
        refuse_lines(u, sequences.error());
    if (!sequences)
        return;
    for (const range &r : *sequences)
        // A linker leaves the lines of functions that it dropped at address 0.
        if (r.start != 0 || !m_object->is_linked())
            m_sequences.push_back({r, &u});
}

// Of a unit without ranges in .debug_aranges and without bounds of its own the strict reader finds the functions directly
// below the unit entry, not those in namespaces. The line tables of these units tell the rest.
void locator::index_sequences()
{
    m_indexed = true;
    const progress shown(fmt::format("{}: reading line tables", m_object->path()), 0, progress::mode::silent);
    if (units() != nullptr)
        for (unit_record &u : *units()) { // "no" and "not known yet" differ
            const result<coverage> known = u.unit.covers(0, KRV_LOOKUP_F_FAST);
            if (!known)
                note_ranges_failed(known.error());
            if (!known || *known == coverage::unknown)
                index_unit(u);
        }
    std::sort(m_sequences.begin(), m_sequences.end(),
              [](const sequence &a, const sequence &b) { return a.addresses.start < b.addresses.start; });
}

locator::outcome locator::ask_sequences(const extent &range, uint64_t address, location *found)
{
    if (!m_indexed)
        index_sequences();
    auto next = std::upper_bound(m_sequences.begin(), m_sequences.end(), address,
                                 [](uint64_t a, const sequence &s) { return a < s.addresses.start; });
    if (next == m_sequences.begin() || address >= (--next)->addresses.end)
        return outcome::absent;
    return ask(*next->owner, range, address, found);
}

} // namespace korva::program
