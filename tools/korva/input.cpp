// SPDX-License-Identifier: Apache-2.0
#include "input.h"

#include "demangle.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <unistd.h>

namespace korva::program
{

static constexpr std::string_view BLANKS = " \t\n\v\f\r";

std::string_view trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

text_input::text_input(const std::string &path)
    : m_name(path == "-" ? "standard input" : path),
      m_fd(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (m_fd < 0)
        throw failure(fmt::format("{}: {}", path, std::strerror(errno)), {.code = "KRV_ELF_ERR_SYSTEM"});
}

text_input::~text_input()
{
    if (m_fd != STDIN_FILENO)
        close(m_fd);
}

std::string_view line_reader::take(size_t end, size_t newline)
{
    const std::string_view line = std::string_view(m_text).substr(m_at, end - m_at);
    m_at = end + newline;
    return line;
}

// False at the end, and where nothing can be read. What is left of a line then stands at the beginning.
bool line_reader::is_ready() const
{
    pollfd of = {m_fd, POLLIN, 0};
    return poll(&of, 1, 0) > 0;
}

bool line_reader::read_more()
{
    constexpr size_t PIECE = size_t{1} << 16;
    m_text.erase(0, m_at);
    m_at = 0;
    const size_t size = m_text.size();
    m_text.resize(size + PIECE);
    ssize_t count = 0;
    do
        count = read(m_fd, m_text.data() + size, PIECE);
    while (count < 0 && errno == EINTR);
    m_error = count < 0 ? errno : 0;
    m_text.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

static std::optional<uint64_t> parse_whole(std::string_view text, int base)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size())
        return {};
    return value;
}

static bool strip_0x(std::string_view *text)
{
    if (!text->starts_with("0x") && !text->starts_with("0X"))
        return false;
    text->remove_prefix(2);
    return true;
}

std::optional<uint64_t> parse_hex(std::string_view text)
{
    strip_0x(&text);
    return parse_whole(text, 16);
}

static std::optional<uint64_t> parse_offset(std::string_view text, bool lenient)
{
    if (lenient)
        return std::strtoull(std::string(text).c_str(), nullptr, 0);
    const bool is_hex = strip_0x(&text);
    return parse_whole(text, is_hex ? 16 : 10);
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
