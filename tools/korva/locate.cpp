// SPDX-License-Identifier: Apache-2.0
#include "locate.h"

#include "demangle.h"
#include "output.h"
#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <utility>

namespace korva::program
{

// Reads the units, once. To be called before any scan: what is no and what is not known yet would look alike behind it.
bool locator::read_units()
{
    if (m_units != nullptr || m_no_units)
        return !m_no_units;
    try {
        m_units = &m_object->units();
    } catch (const failure &f) {
        diagnose(f.what());
        m_failed = f.why;
        m_no_units = true;
        return false;
    }
    m_next.resize(m_units->size() + 1);
    std::iota(m_next.begin(), m_next.end(), size_t{0});
    for (unit_record &u : *m_units) {
        const result<coverage> known = u.unit.covers(0, KRV_LOOKUP_F_FAST);
        if (!known)
            note_ranges_failed(known.error());
        if (!known || *known == coverage::unknown)
            m_unranged.push_back(&u);
    }
    return true;
}

krv_elf_frame_t nothing_known()
{
    krv_elf_frame_t frame = {};
    frame.function = frame.linkage_name = frame.file = "";
    return frame;
}

std::span<const krv_elf_frame_t> locator::frames(uint64_t address, unsigned int flags, size_t most)
{
    m_refusal = nullptr;
    m_frames.resize(std::max<size_t>(m_frames.size(), 8));
    size_t count = 0;
    krv_elf_error_t why = {};
    const auto ask = [&] {
        korva_elf_symbolize(m_object->elf().get(), address, flags, m_frames.data(), std::min(most, m_frames.size()),
                            &count, m_object->is_bounded() ? &why : nullptr); // else what it says is not asked for
        count = std::min(count, most);
    };
    m_object->begin_record();
    ask();
    if (count > m_frames.size()) {
        m_frames.resize(count);
        ask();
    }
    if (why.code == KRV_ELF_ERR_LIMIT) {
        m_limit = to_record_error({.layer = layer::library, .code = KRV_ERR_EXT_LIMIT, .messages = {why.message}});
        m_refusal = &m_limit;
        m_object->end_record(record_status::limit);
        return take_symbol(address, flags);
    }
    if (count == 0 || m_frames[0].has_row == 0) {
        const location found = find(address);
        if (found.source && count == 0) {
            m_frames[0] = nothing_known();
            count = 1;
        }
        if (found.source) {
            m_frames[0].file = found.source->path == nullptr ? "" : found.source->path;
            m_frames[0].line = found.source->line;
            m_frames[0].column = found.source->column;
            m_frames[0].discriminator = found.source->discriminator;
            m_frames[0].has_row = 1;
            m_frames[0].unit = found.owner->get();
        }
    }
    return std::span(m_frames).first(count);
}

// Of an address that cost too much: its symbol, which costs nothing.
std::span<const krv_elf_frame_t> locator::take_symbol(uint64_t address, unsigned int flags)
{
    if (!std::exchange(m_limit_told, true))
        m_object->diagnose(fmt::format("address 0x{:x}: {}", address, m_limit.messages[0]));
    const krv_elf_symbol_t *symbol = m_object->elf().symbol(address);
    if (symbol == nullptr)
        return {};
    m_limit_name = function_name(symbol->name, (flags & KRV_ELF_FRAMES_F_DEMANGLE) != 0);
    m_frames[0] = nothing_known();
    m_frames[0].function = m_limit_name.c_str();
    m_frames[0].linkage_name = symbol->name;
    m_frames[0].start = symbol->address;
    m_frames[0].origin = KRV_ELF_FRAME_SYMBOLS;
    return std::span(m_frames).first(1);
}

// What the symboliser does not know of an address, or cannot tell why.
location locator::find(uint64_t address)
{
    location found;
    if (!m_no_units && ask_covering(address, &found) == outcome::absent)
        ask_sequences(address, &found);
    if (!found.source && m_refusal == nullptr && !m_failed.messages.empty())
        m_refusal = &m_failed;
    return found;
}

// Within its function an address between two sequences still belongs to one of them.
extent locator::range_around(uint64_t address, location *found) const
{
    if (found->function == nullptr)
        found->function = m_object->elf().symbol(address);
    return found->function != nullptr ? extent{found->function->address, found->function->size} : extent{address, 1};
}

// Tells once that a question about ranges failed.
void locator::note_ranges_failed(const error &why)
{
    if (std::exchange(m_ranges_failed, true))
        return;
    m_object->diagnose(fmt::format("cannot tell which units cover an address: {}", why.text()));
    m_failed = to_record_error(why);
}

void locator::refuse_lines(unit_record &u, const error &why)
{
    m_lines_refused = true;
    m_object->refuse_lines(u, why);
}

static bool has_no_lines(const unit_record &u)
{
    return u.lines && u.lines->start > u.lines->end;
}

// Many units may cover an address of which they know no line. Asked again, they are passed over.
void locator::learn_lines(unit_record &u)
{
    if (u.lines)
        return;
    u.lines = range{UINT64_MAX, 0};
    for (const range &r : u.unit.sequences().value_or({}))
        u.lines = range{std::min(u.lines->start, r.start), std::max(u.lines->end, r.end)};
}

// What a unit knows of the address itself, where nothing has to be told.
std::optional<source_view> locator::ask_readable(const unit &u, uint64_t address) const
{
    const result<krv_cu_kind_t> kind = u.kind();
    if (m_lines_refused || !kind || kind->kind == 0)
        return {};
    const result<source_view> source = u.source_view(address, address, 1);
    return source ? std::optional(*source) : std::nullopt;
}

locator::outcome locator::ask(unit_record &u, const extent &range, uint64_t address, location *found)
{
    m_refusal = &u.why;
    if (u.refused)
        return outcome::refused;
    if (!u.is_readable()) {
        m_object->refuse_unread(u);
        return outcome::refused;
    }
    const result<source_view> source = u.unit.source_view(address, range.address, range.size);
    if (source || source.error().code == KRV_ERR_NOTFOUND)
        m_refusal = nullptr;
    if (source) {
        found->source = *source;
        found->owner = u.unit;
        return outcome::found;
    }
    if (source.error().code == KRV_ERR_NOTFOUND) {
        learn_lines(u);
        return outcome::absent;
    }
    refuse_lines(u, source.error());
    return outcome::refused;
}

// The first unit from `number` on that may have lines, or one behind the last. What was passed over once is not passed
// over again.
size_t locator::next_with_lines(size_t number)
{
    size_t with = number;
    for (; m_next[with] != with || (with < m_units->size() && has_no_lines((*m_units)[with])); with = m_next[with])
        if (m_next[with] == with)
            m_next[with] = with + 1;
    while (number < with)
        number = std::exchange(m_next[number], with);
    return with;
}

// NULL: a unit that the table of units does not have, as damaged ranges may name one.
unit_record *locator::record_of(const unit &u)
{
    const uint64_t offset = u.header().value_or({}).offset;
    const auto found = std::lower_bound(m_units->begin(), m_units->end(), offset,
                                        [](const unit_record &r, uint64_t wanted) { return r.header.offset < wanted; });
    return found != m_units->end() && found->header.offset == offset ? &*found : nullptr;
}

// The next unit that covers the address and may have lines. NULL: none.
unit_record *locator::next_covering(unit_record *behind, uint64_t address, krv_lookup_flag_t flags)
{
    while (true) {
        const result<unit> covering = m_object->handle().lookup_next_unit(behind->unit, address, flags);
        if (!covering && covering.error().code != KRV_ERR_NONE && covering.error().code != KRV_ERR_NOTFOUND)
            note_ranges_failed(covering.error());
        unit_record *const next = covering ? record_of(*covering) : nullptr;
        if (next == nullptr)
            return nullptr;
        const size_t with = next_with_lines(static_cast<size_t>(next - m_units->data()));
        if (with == m_units->size())
            return nullptr;
        if (&(*m_units)[with] == next)
            return next;
        behind = &(*m_units)[with - 1];
    }
}

locator::outcome locator::ask_covering(uint64_t address, location *found)
{
    for (const krv_lookup_flag_t flags : {KRV_LOOKUP_F_FAST, KRV_LOOKUP_F_NONE}) {
        if (flags == KRV_LOOKUP_F_NONE && !read_units())
            break;
        const result<unit> covering = m_object->handle().lookup_unit(address, flags);
        if (!covering) {
            if (covering.error().code != KRV_ERR_NONE && covering.error().code != KRV_ERR_NOTFOUND && read_units())
                note_ranges_failed(covering.error());
            continue;
        }
        found->source = ask_readable(*covering, address);
        if (found->source) {
            found->owner = *covering;
            return outcome::found;
        }
        if (!read_units())
            break;
        // The first that covers it knows its line, but for units that overlap.
        unit_record *first = record_of(*covering);
        if (first == nullptr)
            continue;
        const extent range = range_around(address, found);
        const auto may_know = [&](const unit_record &u) {
            return !u.lines || (u.lines->end >= range.address &&
                                (u.lines->start <= range.address || u.lines->start - range.address <= range.size));
        };
        outcome result = ask(*first, range, address, found);
        for (unit_record *next = first;
             result == outcome::absent && (next = next_covering(next, address, flags)) != nullptr;)
            if (may_know(*next))
                result = ask(*next, range, address, found);
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

// Of a unit without ranges in .debug_aranges and without bounds of its own the library finds the functions directly
// below the unit entry, not those in namespaces. The line tables of these units tell the rest.
void locator::index_sequences()
{
    m_indexed = true;
    if (!read_units())
        return;
    const progress shown(fmt::format("{}: reading line tables", m_object->path()), 0, progress::mode::silent);
    for (unit_record &u : *m_units)
        if (!u.is_readable()) // it may be the one that covers the address
            m_object->refuse_unread(u);
    for (unit_record *u : m_unranged)
        index_unit(*u);
    std::sort(m_sequences.begin(), m_sequences.end(),
              [](const sequence &a, const sequence &b) { return a.addresses.start < b.addresses.start; });
}

locator::outcome locator::ask_sequences(uint64_t address, location *found)
{
    if (!m_indexed)
        index_sequences();
    auto next = std::upper_bound(m_sequences.begin(), m_sequences.end(), address,
                                 [](uint64_t a, const sequence &s) { return a < s.addresses.start; });
    if (next == m_sequences.begin() || address >= (--next)->addresses.end)
        return outcome::absent;
    return ask(*next->owner, range_around(address, found), address, found);
}

} // namespace korva::program
