// SPDX-License-Identifier: Apache-2.0
#include "check/subject.h"

#include <algorithm>
#include <string_view>

namespace korva::program::check
{

section_bytes::section_bytes(handle_view handle, krv_secidx_t section)
{
    krv_fd_t fd;
    if (korva_get_section(handle.get(), section, &fd) != 0)
        return;
    if (fd.sfd_flags == KRV_FD_TYPE_MEMORY) {
        m_data = fd.sfd_u.buf;
        m_size = fd.sfd_size;
        return;
    }
    m_copy.resize(fd.sfd_size);
    if (korva_fd_to_mem(&fd, m_copy.data(), m_copy.size()) != 0)
        return;
    m_data = m_copy.data();
    m_size = m_copy.size();
}

subject::subject(elf_view file, const std::vector<std::string> &debug_folders, findings *into)
    : m_elf(file), m_folders(debug_folders), m_info(file.info()), m_found(into), m_sections(file.sections())
{
    for (const krv_elf_section_t &section : m_sections)
        if (section.executable != 0 && section.size != 0 && section.size <= UINT64_MAX - section.address)
            m_code.push_back({section.address, section.address + section.size});
    std::sort(m_code.begin(), m_code.end(), [](const range &a, const range &b) { return a.start < b.start; });
    size_t last = 0;
    for (size_t i = 1; i < m_code.size(); ++i)
        if (m_code[i].start <= m_code[last].end)
            m_code[last].end = std::max(m_code[last].end, m_code[i].end);
        else
            m_code[++last] = m_code[i];
    m_code.resize(m_code.empty() ? 0 : last + 1);
}

uint64_t subject::size_of(krv_secidx_t section) const
{
    krv_fd_t fd;
    return korva_get_section(handle().get(), section, &fd) == 0 ? fd.sfd_size : 0;
}

const krv_elf_section_t *subject::find(const char *name) const
{
    for (const krv_elf_section_t &section : m_sections)
        if (section.name == std::string_view(name))
            return &section;
    return nullptr;
}

uint64_t subject::end_of_code(uint64_t address) const
{
    const auto behind =
        std::upper_bound(m_code.begin(), m_code.end(), address, [](uint64_t a, const range &r) { return a < r.start; });
    return behind != m_code.begin() && address < (behind - 1)->end ? (behind - 1)->end : 0;
}

const unit_facts *subject::unit_at(uint64_t offset) const
{
    const auto found = std::lower_bound(units.begin(), units.end(), offset,
                                        [](const unit_facts &u, uint64_t o) { return u.header.offset < o; });
    return found != units.end() && found->header.offset == offset ? &*found : nullptr;
}

std::vector<std::string> last_messages(handle_view handle)
{
    error why = last_error(handle.get());
    for (std::string &message : why.messages)
        message.erase(message.find_last_not_of(" \n") + 1);
    return why.messages.empty() ? std::vector{why.text()} : std::move(why.messages);
}

void sort_stretches(std::vector<stretch> *all)
{
    std::sort(all->begin(), all->end(), [](const stretch &a, const stretch &b) {
        return a.start != b.start ? a.start < b.start : a.end != b.end ? a.end < b.end : a.owner < b.owner;
    });
}

} // namespace korva::program::check
