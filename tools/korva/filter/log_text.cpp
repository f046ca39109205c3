// SPDX-License-Identifier: Apache-2.0
#include "filter/log_text.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace korva::program
{

static constexpr size_t BLOCK = size_t{1} << 18;         // that is read at once
static constexpr size_t MOST_PREVIOUS = size_t{1} << 12; // of a line that is kept for the next

static trigger trigger_at(const char *at, size_t left)
{
    if (left < 2)
        return TRIGGER_NONE;
    switch (at[0]) {
    case '0':
        return at[1] == 'x' ? TRIGGER_NUMBER : TRIGGER_NONE;
    case '-':
        return at[1] == 'x' ? TRIGGER_MAPPING : at[1] == 'i' ? TRIGGER_BUILD_ID : TRIGGER_NONE;
    case '[':
        return at[1] == '<' ? TRIGGER_BRACKET : at[1] == 'u' ? TRIGGER_UNKNOWN : TRIGGER_NONE;
    case ' ':
        return left > 2 && at[1] == 'i' && at[2] == 'p' ? TRIGGER_IP : TRIGGER_NONE;
    default:
        return TRIGGER_NONE;
    }
}

size_t find_trigger(std::string_view text, size_t from)
{
    const char *const data = text.data();
    size_t at = from;
#ifdef __SSE2__
    constexpr size_t WIDE = 16;
    const auto has = [](__m128i bytes, char c) { return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(c)); };
    for (; at < text.size() && text.size() - at >= WIDE + 2; at += WIDE) {
        const auto *const bytes = reinterpret_cast<const __m128i *>(data + at);
        const __m128i first = _mm_loadu_si128(bytes);
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + at + 1));
        const __m128i third = _mm_loadu_si128(reinterpret_cast<const __m128i *>(data + at + 2));
        const __m128i dash = has(first, '-'), x = has(second, 'x');
        const __m128i number =
            _mm_or_si128(_mm_and_si128(_mm_or_si128(has(first, '0'), dash), x), _mm_and_si128(dash, has(second, 'i')));
        const __m128i bracket = _mm_and_si128(has(first, '['), _mm_or_si128(has(second, '<'), has(second, 'u')));
        const __m128i ip = _mm_and_si128(has(first, ' '), _mm_and_si128(has(second, 'i'), has(third, 'p')));
        const int found = _mm_movemask_epi8(_mm_or_si128(number, _mm_or_si128(bracket, ip)));
        if (found != 0)
            return at + static_cast<size_t>(std::countr_zero(static_cast<unsigned int>(found)));
    }
#endif
    for (; at < text.size(); ++at)
        if (trigger_at(data + at, text.size() - at) != TRIGGER_NONE)
            return at;
    return std::string_view::npos;
}

unsigned int triggers_of(std::string_view text)
{
    unsigned int all = 0;
    for (size_t at = 0; (at = find_trigger(text, at)) != std::string_view::npos; ++at)
        all |= trigger_at(text.data() + at, text.size() - at);
    return all;
}

log_flow::log_flow(handler to, bool pass_partly, bool count_lines)
    : m_to(std::move(to)), m_pass_partly(pass_partly), m_count_lines(count_lines),
      m_data(MOST_PREVIOUS + MOST_LINE + 1 + BLOCK)
{
}

void log_flow::pass(size_t from, size_t to)
{
    from = std::max(from, m_passed);
    if (from < to)
        m_to.pass(std::string_view(m_data.data() + from, to - from));
    m_passed = std::max(m_passed, to);
}

static const char *find_newline(const char *from, const char *end)
{
    const void *const found = std::memchr(from, '\n', static_cast<size_t>(end - from));
    return found == nullptr ? end : static_cast<const char *>(found);
}

// Where the line begins that `at` is in, but not before `from`.
static size_t line_begin(const char *data, size_t from, size_t at)
{
    const void *const found = memrchr(data + from, '\n', at - from);
    return found == nullptr ? from : static_cast<size_t>(static_cast<const char *>(found) - data) + 1;
}

static std::string_view without_return(std::string_view line)
{
    return line.substr(0, line.size() - (line.ends_with('\r') ? 1 : 0));
}

std::string_view log_flow::line_before(size_t begin) const
{
    if (begin == 0)
        return {};
    const size_t from = line_begin(m_data.data(), 0, begin - 1);
    const std::string_view line(m_data.data() + from, begin - 1 - from);
    return line.size() <= MOST_PREVIOUS ? line : std::string_view();
}

// The lines that end before `end`, the last perhaps without a newline.
void log_flow::take_lines(size_t end)
{
    const char *const data = m_data.data();
    const std::string_view text(data, end);
    size_t at = m_at, counted = m_at;
    for (size_t found = 0; (found = find_trigger(text, at)) != std::string_view::npos;) {
        const size_t begin = line_begin(data, at, found);
        const auto stop = static_cast<size_t>(find_newline(data + found, data + end) - data);
        at = std::min(stop + 1, end);
        if (stop - begin > MOST_LINE)
            continue;
        if (m_count_lines)
            m_line += static_cast<uint64_t>(std::count(data + counted, data + begin, '\n'));
        counted = begin;
        const std::string_view line = without_return(text.substr(begin, stop - begin));
        pass(m_at, begin);
        const size_t passed = std::max(m_passed, begin);
        m_passed = std::max(passed, begin + line.size());
        m_to.line({line, without_return(line_before(begin)), triggers_of(line), m_count_lines ? m_line : 0},
                  passed - begin);
    }
    if (m_count_lines)
        m_line += static_cast<uint64_t>(std::count(data + counted, data + end, '\n'));
    pass(m_at, end);
    forget_lines(end);
}

// All but the last, which the next may need.
void log_flow::forget_lines(size_t end)
{
    const size_t kept = end - (end == 0 ? 0 : line_before(end).size() + 1);
    std::memmove(m_data.data(), m_data.data() + kept, m_size - kept);
    m_at = end - kept;
    m_passed -= kept;
    m_size -= kept;
}

// The file goes on, or ends, within a line.
void log_flow::take_rest()
{
    if (m_in_long_line || m_size - m_at > MOST_LINE) {
        pass(m_at, m_size);
        m_in_long_line = true;
        m_at = m_passed = m_size = 0;
    }
}

// Of a line that is not looked at nothing is kept but its end. False: it does not end yet.
bool log_flow::end_long_line()
{
    char *const data = m_data.data();
    const auto stop = static_cast<size_t>(find_newline(data, data + m_size) - data);
    if (stop == m_size)
        return false;
    pass(0, stop + 1);
    std::memmove(data, data + stop, m_size - stop);
    m_size -= stop;
    m_at = m_passed = 1;
    m_in_long_line = false;
    ++m_line;
    return true;
}

// False at the end, with errno, which is 0 when all was read.
bool log_flow::wait_for_more(int fd)
{
    pollfd of = {fd, POLLIN, 0};
    if (poll(&of, 1, 0) == 0) {
        const bool may_end = m_size > m_at && m_data[m_size - 1] == '\r'; // then what is added stands before that
        if (m_pass_partly)
            pass(m_at, m_size - (may_end ? 1 : 0));
        m_to.wait();
    }
    ssize_t count = 0;
    do {
        errno = 0;
        count = read(fd, m_data.data() + m_size, m_data.size() - m_size);
    } while (count < 0 && errno == EINTR);
    m_size += static_cast<size_t>(std::max<ssize_t>(count, 0));
    return count > 0;
}

int log_flow::read_all(int fd)
{
    for (size_t searched = 0; wait_for_more(fd); searched = m_size) {
        if (m_in_long_line)
            searched = 0;
        if (!m_in_long_line || end_long_line())
            if (const size_t end = line_begin(m_data.data(), std::max(searched, m_at), m_size);
                end > m_at && m_data[end - 1] == '\n')
                take_lines(end);
        take_rest();
    }
    const int error = errno;
    if (m_at < m_size)
        take_lines(m_size);
    m_at = m_passed = m_size = 0;
    return error;
}

} // namespace korva::program
