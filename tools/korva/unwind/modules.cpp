// SPDX-License-Identifier: Apache-2.0
#include "unwind/modules.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace korva::program
{

static constexpr std::string_view VDSO = "[vdso]";

placed_modules::placed_modules(const described_process &of, module_cache *cache)
{
    for (const described_module &m : of.modules)
        place(of, m, cache);
}

void placed_modules::place(const described_process &of, const described_module &m, module_cache *cache)
{
    // A list of mappings has several of a file. The first of them tells where it lies; those with more of the file follow.
    const auto [last, fresh] = m_last.try_emplace({m.path, m.build_id}, m_modules.size());
    if (!fresh && !m.bias && m.offset != 0) {
        placed_module &same = m_modules[last->second];
        same.end = std::max(same.end, m.end);
        return;
    }
    last->second = m_modules.size();
    placed_module &placed = m_modules.emplace_back();
    placed = {.shown = m.path, .build_id = m.build_id, .start = m.start, .end = m.end};
    const auto miss = [&](record_error why) {
        placed.missing = std::move(why);
        m_missing[m.start] = m_modules.size() - 1;
    };
    if (m.path == VDSO) {
        const bool is_here = std::any_of(of.memory.begin(), of.memory.end(),
                                         [&m](const described_memory &piece) { return piece.address == m.start; });
        m_vdso = is_here ? m.start : m_vdso;
        return is_here
                   ? void()
                   : miss({.code = "KRV_ELF_ERR_NOTFOUND", .messages = {"[vdso]: its memory is not in the record"}});
    }
    if (m.path.empty() && m.build_id.empty())
        return miss(
            {.code = "KRV_ELF_ERR_NOTFOUND", .messages = {fmt::format("module at {:#x}: of no known file", m.start)}});
    opened_module *const file = cache->find(m.path, m.build_id, KRV_ELF_FIND_EXECUTABLE);
    if (file == nullptr)
        return miss(cache->take_refusal().value_or(record_error{.messages = {fmt::format("{}: not found", m.path)}}));
    const auto at_start = m.bias ? std::nullopt : file->address_of_offset(m.offset);
    if (!m.bias && !at_start)
        return miss({.code = "KRV_ERR_INVALID",
                     .messages = {fmt::format("{}: no segment has its offset {:#x}", file->path(), m.offset)}});
    placed.bias = m.bias ? *m.bias : m.start - *at_start;
    placed.path = file->path();
    if (placed.shown.empty())
        placed.shown = file->path();
    if (!file->has_code())
        return miss({.code = "KRV_ELF_ERR_NOTFOUND",
                     .messages = {fmt::format("{}: has debugging information alone, no code", file->path())}});
    if (!map(*file, placed.bias, of.target == KRV_ACTIVATION_AMD64 ? UINT64_MAX : UINT32_MAX))
        return miss(
            {.code = "KRV_ERR_EXT_LIMIT",
             .messages = {fmt::format("{}: the modules before have as many parts as there may be", file->path())}});
    m_by_place[{placed.path, placed.bias}] = m_modules.size() - 1;
}

// Whole pages from the first byte on, as the system maps them. False: there are too many.
bool placed_modules::map(const opened_module &file, uint64_t bias, uint64_t last)
{
    constexpr uint64_t page = 4096;
    constexpr size_t MOST_PARTS = 65536; // as many mappings as a process has
    if (file.segments().size() > MOST_PARTS - m_parts.size())
        return false;
    for (const opened_module::segment &s : file.segments()) {
        const uint64_t before = s.offset % page, start = bias + s.address - before;
        if (s.file_size != 0 && start <= last && s.file_size <= last - start && before <= last - start - s.file_size)
            m_parts.push_back({start, start + before + s.file_size, s.offset - before, file.path()});
    }
    return true;
}

const placed_module *placed_modules::find_missing(uint64_t address) const
{
    const auto next = m_missing.upper_bound(address);
    if (next == m_missing.begin())
        return nullptr;
    const placed_module &m = m_modules[std::prev(next)->second];
    return address < m.end ? &m : nullptr;
}

const placed_module *placed_modules::find(const krv_proc_module_t &module) const
{
    const auto at = m_by_place.find({module.path, module.bias});
    return at == m_by_place.end() ? nullptr : &m_modules[at->second];
}

} // namespace korva::program
