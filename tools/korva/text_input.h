// SPDX-License-Identifier: Apache-2.0
//
// Texts that come from outside: lines of files and pipes, and what stands in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korva::program
{

inline constexpr std::string_view BLANKS = " \t\n\v\f\r";

/** @p text without the blanks around it. */
std::string_view trim(std::string_view text);

/** A hexadecimal number with or without 0x, and nothing else. */
std::optional<uint64_t> parse_hex(std::string_view text);

/** A decimal number, or a hexadecimal one behind 0x, and nothing else. */
std::optional<uint64_t> parse_number(std::string_view text);

/** Whether a text can be that of a build-id, which becomes part of a path. */
bool is_build_id(std::string_view text);

/** A file to read, or for - standard input. */
class text_input
{
public:
    /** Throws failure. */
    explicit text_input(const std::string &path);
    ~text_input();
    text_input(const text_input &) = delete;
    text_input &operator=(const text_input &) = delete;

    int fd() const { return m_fd; }
    const std::string &name() const { return m_name; } /**< for diagnostics */

private:
    std::string m_name;
    int m_fd;
};

/** The lines of a file that may be a pipe: what there is of it is read at once. */
class line_reader
{
public:
    explicit line_reader(int fd) : m_fd(fd) {}

    /**
     * The next line, without its end, valid until the next call; nothing behind the last. @p before_waiting is called
     * whenever more has to be read, which may take as long as somebody types.
     */
    template <typename F>
    std::optional<std::string_view> next(F &&before_waiting)
    {
        for (size_t searched = m_at;;) {
            const size_t end = m_text.find('\n', searched);
            if (end != std::string::npos)
                return take(end, 1);
            searched = m_text.size() - m_at;
            before_waiting();
            if (!read_more())
                return m_text.empty() ? std::optional<std::string_view>() : take(m_text.size(), 0);
        }
    }

    /** Whether reading would not wait. */
    bool is_ready() const;

    /** An errno: what ended the lines before the file's end; 0: nothing did. */
    int error() const { return m_error; }

private:
    std::string_view take(size_t end, size_t newline);
    bool read_more();

    int m_fd;
    int m_error = 0;
    std::string m_text; // read, from the line before on
    size_t m_at = 0;    // where the next line begins
};

} // namespace korva::program
