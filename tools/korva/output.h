// SPDX-License-Identifier: Apache-2.0
//
// Where answers and diagnostics go. Answers: standard output, as text or as JSON records. Diagnostics: standard error,
// one line each, "korva: FILE: text".
#pragma once

#include "record.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace korva::program
{

using json_value = nlohmann::ordered_json;

enum class output_format {
    text,
    gnu,       /**< addr only: the layout of GNU addr2line */
    json,      /**< one array of records */
    jsonl,     /**< one record a line */
    sarif,     /**< check only: one SARIF log */
    folded,    /**< traces only: folded stacks */
    speedscope /**< traces only: a profile */
};
using format_names = std::map<std::string, output_format>;

/**
 * Nothing can be answered: ends the command with status 2 and this text, which names the file, as its diagnostic, and as
 * its last record where records are written.
 */
struct failure : std::runtime_error {
    explicit failure(const std::string &text, record_error reason = {})
        : std::runtime_error(text), why(std::move(reason))
    {
        why.messages = {text};
    }

    record_error why;
};

/** The reader of standard output is gone: ends the command quietly. */
struct broken_pipe : std::exception {
};

/**
 * Prints one diagnostic, "korva: TEXT". Answers written before it are flushed first. One that cannot be written is lost:
 * the answers go on, and the exit status tells.
 */
void diagnose(std::string_view text) noexcept;

/** Writes to standard error, as far as that can be written. */
void write_error(std::string_view text) noexcept;

/** While it lives, diagnostics are kept in it, in place of being printed. One at a time. */
class kept_diagnostics
{
public:
    kept_diagnostics();
    ~kept_diagnostics();
    kept_diagnostics(const kept_diagnostics &) = delete;
    kept_diagnostics &operator=(const kept_diagnostics &) = delete;

    std::vector<std::string> texts{};
};

/** @p text without what would break a line or drive a terminal: control characters become \xNN, all others stay. */
std::string printable(std::string_view text);
/** Adds it to a line so. */
void append_printable(std::string *line, std::string_view text);

/** Adds a number to a line: 0x and at least @p digits hexadecimal digits, or decimal ones. */
void append_hex(std::string *line, uint64_t number, size_t digits);
void append_decimal(std::string *line, uint64_t number);

/**
 * Standard output. Every function throws broken_pipe when its reader is gone and failure when it cannot be written
 * (a full disk). Records are written as JSON; bytes of names that are not UTF-8 become U+FFFD there.
 */
class answers
{
public:
    explicit answers(output_format format);

    output_format format() const { return m_format; }
    bool is_json() const { return m_format == output_format::json || m_format == output_format::jsonl; }

    template <typename... T>
    void print(fmt::format_string<T...> format, T &&...args)
    {
        m_line.clear();
        fmt::format_to(std::back_inserter(m_line), format, std::forward<T>(args)...);
        write(m_line);
    }
    void write(std::string_view text);
    /** A record: what each begins with (record.h), then @p fields, an object. */
    void record(const json_value &fields);
    void record(const json_value &fields, record_status status, const record_error *why = nullptr);
    /** One about nothing but a failure, where records are written. */
    void record_failure(const record_error &why);
    /** One that is text already. */
    void record_text(std::string_view record);
    /** A record written piece by piece goes between these. */
    void open_record();
    void close_record();
    void flush();
    /** Closes the array and flushes. Call it last. */
    void finish();

    /** For main(): ends with a record about what ended the command, unless the records ended before that. */
    static void finish_with(const record_error &why);

private:
    output_format m_format;
    std::string m_line;
};

/** In which format the answers are to be, once the command line has told; text until then. */
void set_output_format(output_format format);

/** A string of a record: null when it is not known. */
inline json_value or_null(const char *text)
{
    return text == nullptr ? json_value(nullptr) : json_value(text);
}

/** A number of a record in which 0 stands for not known: then null. */
inline json_value or_null(uint64_t number)
{
    return number == 0 ? json_value(nullptr) : json_value(number);
}

/** A number of 64 bits of a record: a string where some JSON readers would round it. */
inline json_value number(uint64_t number)
{
    return number > uint64_t{1} << 53 ? json_value(fmt::format("{}", number)) : json_value(number);
}

/** A value as JSON text. */
std::string to_text(const json_value &value);
/** Adds a string to a line, as JSON text. */
void append_json(std::string *line, std::string_view text);

/** An address or offset of a record. A string: numbers above 2^53 do not survive every JSON reader. */
inline json_value hex(uint64_t number)
{
    return fmt::format("0x{:x}", number);
}

} // namespace korva::program
