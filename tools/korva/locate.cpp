// SPDX-License-Identifier: Apache-2.0
#include "locate.h"

#include "output.h"
#include "progress.h"

#include <fmt/format.h>

#include <algorithm>

namespace korva::program
{

locator::locator(object *obj) : m_object(obj)
{
    try {
        m_units = &obj->units();
    } catch (const failure &f) {
        diagnose(f.what());
        return;
    }
    for (unit &u : *m_units) // "no" and "not known yet" differ by their code; any scan would blur that
        if (!covers(u, 0, KRV_LOOKUP_F_FAST) && korva_handle_get_errno(obj->handle()) != KRV_ERR_NOTFOUND)
            m_unranged.push_back(&u);
}

location locator::find(uint64_t address)
{
    location found;
    found.function = korva_elf_lookup_symbol(m_object->elf(), address);
    if (m_units == nullptr)
        return found;

    // Within its function an address between two sequences still belongs to one of them.
    const extent range =
        found.function != nullptr ? extent{found.function->address, found.function->size} : extent{address, 1};
    source_line source;
    outcome result = ask_covering(range, address, &source);
    if (result == outcome::absent)
        result = ask_sequences(range, address, &source);
    if (result == outcome::found)
        found.source = std::move(source);
    return found;
}

// Tells once that the last question about ranges failed, if it did.
void locator::note_ranges_failed()
{
    const int code = korva_handle_get_errno(m_object->handle());
    if (code == KRV_ERR_NONE || code == KRV_ERR_NOTFOUND || m_ranges_failed)
        return;
    m_ranges_failed = true;
    m_object->diagnose(m_object->failed("cannot tell which units cover an address"));
}

bool locator::covers(unit &u, uint64_t address, krv_lookup_flag_t flags)
{
    if (korva_cu_contains_addr(m_object->handle(), u.cu, address, flags) == B_TRUE)
        return true;
    note_ranges_failed();
    return false;
}

locator::outcome locator::ask(unit &u, const extent &range, uint64_t address, source_line *source)
{
    if (u.refused)
        return outcome::refused;
    if (!u.is_readable()) {
        m_object->refuse_version(u);
        return outcome::refused;
    }

    krv_handle_t *hp = m_object->handle();
    krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, u.cu, range.address, range.size, address, 0);
    if (row == nullptr && korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND)
        return outcome::absent;
    const auto refuse = [&] {
        m_object->refuse(u, m_object->failed(fmt::format("line table of unit at offset 0x{:x}", u.header.offset)));
        return outcome::refused;
    };
    if (row == nullptr ||
        korva_get_fields(hp, KRV_STRUCT_LNS, row, 3, KRV_FIELD_LNS_LINE, &source->line, KRV_FIELD_LNS_COLUMN,
                         &source->column, KRV_FIELD_LNS_DISCRIMINATOR, &source->discriminator) != 0)
        return refuse();
    char *path = nullptr;
    krv_lnfe_t *file = korva_lns_get_filep(hp, row);
    if (file != nullptr && korva_get_fields(hp, KRV_STRUCT_LNFE, file, 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path) != 0)
        return refuse();
    source->path = path == nullptr ? "" : path;
    return outcome::found;
}

unit &locator::unit_of(krv_ctu_t *cu)
{
    krv_cu_header_t header = {};
    korva_cu_get_header(m_object->handle(), cu, &header);
    return *std::lower_bound(m_units->begin(), m_units->end(), header.offset,
                             [](const unit &u, uint64_t offset) { return u.header.offset < offset; });
}

locator::outcome locator::ask_covering(const extent &range, uint64_t address, source_line *source)
{
    for (const krv_lookup_flag_t flags : {KRV_LOOKUP_F_FAST, KRV_LOOKUP_F_NONE}) {
        krv_ctu_t *cu = korva_lookup_ctu_by_addr(m_object->handle(), address, flags);
        if (cu == nullptr) {
            note_ranges_failed();
            continue;
        }
        // The first that covers it knows its line, but for units that overlap.
        unit &first = unit_of(cu);
        outcome result = ask(first, range, address, source);
        for (unit *u = &first + 1; result == outcome::absent && u != m_units->data() + m_units->size(); ++u)
            if (covers(*u, address, flags))
                result = ask(*u, range, address, source);
        if (result != outcome::absent)
            return result;
    }
    return outcome::absent;
}

// Adds the sequences of a unit whose line table can be read.
void locator::index_unit(unit &u)
{
    if (u.refused)
        return;
    krv_handle_t *hp = m_object->handle();
    krv_lnph_t *header = korva_line_get_cu_lnph(hp, u.cu);
    if (header == nullptr && korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND)
        return;
    krv_lnp_t *matrix = nullptr;
    unsigned int count = 0;
    std::vector<uint64_t> addresses;
    std::vector<boolean_t> ends;
    bool ok = header != nullptr && korva_get_fields(hp, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_LNP, &matrix) == 0 &&
              korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, &count) == 0;
    if (ok) {
        addresses.resize(count);
        ends.resize(count);
        ok = korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 2, KRV_FIELD_LNS_ADDRESS, addresses.data(), KRV_FIELD_LNS_ES,
                              ends.data()) == 0;
    }
    if (!ok) {
        m_object->refuse(u, m_object->failed(fmt::format("line table of unit at offset 0x{:x}", u.header.offset)));
        return;
    }
    for (size_t i = 0, first = 0; i < count; ++i) {
        if (ends[i] == B_FALSE)
            continue;
        // A linker leaves the lines of functions that it dropped at address 0.
        if (addresses[first] != 0 || !m_object->is_linked())
            m_sequences.push_back({addresses[first], addresses[i], &u});
        first = i + 1;
    }
}

// Of a unit without ranges in .debug_aranges and without bounds of its own the library finds the functions directly
// below the unit entry, not those in namespaces. The line tables of these units tell the rest.
void locator::index_sequences()
{
    m_indexed = true;
    const progress shown(fmt::format("{}: reading line tables", m_object->path()), 0, progress::mode::silent);
    for (unit *u : m_unranged) {
        if (u->is_readable())
            index_unit(*u);
        else
            m_object->refuse_version(*u);
    }
    std::sort(m_sequences.begin(), m_sequences.end(),
              [](const sequence &a, const sequence &b) { return a.start < b.start; });
}

locator::outcome locator::ask_sequences(const extent &range, uint64_t address, source_line *source)
{
    if (!m_indexed)
        index_sequences();
    auto next = std::upper_bound(m_sequences.begin(), m_sequences.end(), address,
                                 [](uint64_t a, const sequence &s) { return a < s.start; });
    if (next == m_sequences.begin() || address >= (--next)->end)
        return outcome::absent;
    return ask(*next->owner, range, address, source);
}

} // namespace korva::program
