// SPDX-License-Identifier: Apache-2.0
#include "input.h"

#include "demangle.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace korva::program
{

static std::optional<uint64_t> parse_offset(std::string_view text, bool lenient)
{
    if (lenient)
        return std::strtoull(std::string(text).c_str(), nullptr, 0);
    return parse_number(text);
}

// The functions of that name; else those that it is demangled; else the first of that name with a version.
std::vector<uint64_t> address_reader::find_symbol(const std::string &name)
{
    const auto symbols = m_object.elf().symbols();
    if (m_by_name.empty()) {
        for (const krv_elf_symbol_t &symbol : symbols)
            m_by_name.push_back(&symbol);
        std::stable_sort(m_by_name.begin(), m_by_name.end(), [](const auto *a, const auto *b) {
            return std::strcmp(a->name, b->name) < 0; // those of one name stay ascending by address
        });
    }
    std::vector<uint64_t> found;
    const auto first = std::partition_point(m_by_name.begin(), m_by_name.end(),
                                            [&](const auto *symbol) { return symbol->name < name; });
    for (auto at = first; at != m_by_name.end() && (*at)->name == name; ++at)
        found.push_back((*at)->address);
    if (found.empty())
        if (const krv_elf_symbol_t *versioned = m_object.elf().symbol(name.c_str()))
            found.push_back(versioned->address);
    if (found.empty()) {
        const std::hash<std::string> hash;
        if (m_plain.empty())
            for (const krv_elf_symbol_t &symbol : symbols)
                if (symbol.name[0] == '_')
                    m_plain.emplace(hash(demangle_or_keep(symbol.name)), &symbol);
        const auto [begin, end] = m_plain.equal_range(hash(name));
        for (auto at = begin; at != end; ++at)
            if (demangle_or_keep(at->second->name) == name)
                found.push_back(at->second->address);
        std::sort(found.begin(), found.end());
    }
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

std::vector<uint64_t> address_reader::read_symbol(std::string_view text)
{
    std::vector<uint64_t> found = find_symbol(std::string(text));
    const size_t plus = text.rfind('+');
    if (!found.empty() || plus == std::string_view::npos)
        return found;
    if (const auto offset = parse_offset(text.substr(plus + 1), m_lenient)) {
        found = find_symbol(std::string(text.substr(0, plus)));
        for (uint64_t &address : found)
            address += *offset;
    }
    return found;
}

// With lenient reading the first word alone.
std::string_view address_reader::words_of(std::string_view text) const
{
    text = trim(text);
    return m_lenient ? text.substr(0, text.find_first_of(BLANKS)) : text;
}

std::optional<uint64_t> address_reader::read_number(std::string_view text) const
{
    return parse_hex(words_of(text));
}

std::vector<input_address> address_reader::read(std::string_view text)
{
    text = words_of(text);
    if (text.empty())
        return {};
    if (const auto number = parse_hex(text))
        return {{*number, true}};
    const bool is_digit = text[0] >= '0' && text[0] <= '9';
    if (!(m_lenient && is_digit)) {
        std::vector<input_address> all;
        for (const uint64_t address : read_symbol(text))
            all.push_back({address, false});
        if (!all.empty())
            return all;
    }
    const bool is_letter = (text[0] >= 'a' && text[0] <= 'f') || (text[0] >= 'A' && text[0] <= 'F');
    if (m_lenient && (is_digit || (is_letter && text.find('+') == std::string_view::npos)))
        return {{std::strtoull(std::string(text).c_str(), nullptr, 16), true}};
    return {};
}

} // namespace korva::program
