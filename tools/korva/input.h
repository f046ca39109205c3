// SPDX-License-Identifier: Apache-2.0
//
// What a user writes for an address: a hexadecimal number or symbol+offset.
#pragma once

#include "object.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace korva::program
{

/** @p text without the blanks around it. */
std::string_view trim(std::string_view text);

/** A hexadecimal number with or without 0x, and nothing else. */
std::optional<uint64_t> parse_hex(std::string_view text);

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

/** What an input stands for. */
struct input_address {
    uint64_t value;
    bool is_number; /**< else it comes from a symbol */
};

/**
 * Reads addresses. A number is hexadecimal, with or without 0x; a text that is both is a number (`add`; write `add+0`
 * for the function). A symbol is a function's, as in the file or demangled; the offset behind `+` is decimal, or
 * hexadecimal with 0x.
 */
class address_reader
{
public:
    /** With @p lenient whatever begins as an address is one, as for GNU addr2line: "12 main()" is 0x12. */
    address_reader(const object &obj, bool lenient) : m_object(obj), m_lenient(lenient) {}

    /** What a text stands for that is a number. */
    std::optional<uint64_t> read_number(std::string_view text) const;
    /**
     * What a text stands for: one address, or several ascending ones where functions share a name. Empty when it is no
     * address.
     */
    std::vector<input_address> read(std::string_view text);

private:
    using symbol_list = std::vector<const krv_elf_symbol_t *>;

    std::string_view words_of(std::string_view text) const;
    std::vector<uint64_t> find_symbol(const std::string &name);
    std::vector<uint64_t> read_symbol(std::string_view text);

    const object &m_object;
    bool m_lenient;
    symbol_list m_by_name;                                             // made when a name is first asked for
    std::unordered_multimap<size_t, const krv_elf_symbol_t *> m_plain; // by the hash of the C++ name, likewise
};

} // namespace korva::program
