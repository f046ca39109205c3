// SPDX-License-Identifier: Apache-2.0
#include "text_input.h"

#include "output.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace korva::program
{

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

std::optional<uint64_t> parse_number(std::string_view text)
{
    const bool is_hex = strip_0x(&text);
    return parse_whole(text, is_hex ? 16 : 10);
}

bool is_build_id(std::string_view text)
{
    return text.size() > 2 && text.size() <= 128 && text.size() % 2 == 0 &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

} // namespace korva::program
