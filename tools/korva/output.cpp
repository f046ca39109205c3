// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include "progress.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <unistd.h>

namespace korva::program
{

void write_error(std::string_view text) noexcept
{
    std::fwrite(text.data(), 1, text.size(), stderr);
}

static kept_diagnostics *s_keeper = nullptr;

kept_diagnostics::kept_diagnostics()
{
    s_keeper = this;
}

kept_diagnostics::~kept_diagnostics()
{
    s_keeper = nullptr;
}

void diagnose(std::string_view text) noexcept
{
    try {
        if (s_keeper != nullptr) {
            s_keeper->texts.emplace_back(text);
            return;
        }
        std::fflush(stdout); // should that fail, the next write says so
        progress::erase();
        write_error(fmt::format("korva: {}\n", printable(text)));
    } catch (const std::exception &) {
        write_error("korva: out of memory\n");
    }
}

// Whether there is a byte that may have to be escaped. All are looked at: that takes several at a time.
static bool has_odd_bytes(std::string_view text)
{
    unsigned int odd = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        odd |= static_cast<unsigned int>(byte < 0x20) | static_cast<unsigned int>(byte == 0x7f) |
               static_cast<unsigned int>(byte == 0xc2);
    }
    return odd != 0;
}

void append_printable(std::string *line, std::string_view text)
{
    if (!has_odd_bytes(text)) {
        line->append(text);
        return;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (byte < 0x20 || byte == 0x7f)
            *line += fmt::format("\\x{:02x}", byte);
        else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) // U+0080 to U+009F, in UTF-8
            *line += fmt::format("\\x{:02x}\\x{:02x}", byte, static_cast<unsigned char>(text[++i]));
        else
            *line += text[i];
    }
}

std::string printable(std::string_view text)
{
    std::string safe;
    append_printable(&safe, text);
    return safe;
}

static void append_number(std::string *line, uint64_t number, int base, size_t digits)
{
    char text[20]; // of 2^64 - 1 in decimal
    const auto size = static_cast<size_t>(std::to_chars(text, std::end(text), number, base).ptr - text);
    line->append(digits > size ? digits - size : 0, '0').append(text, size);
}

void append_hex(std::string *line, uint64_t number, size_t digits)
{
    line->append("0x");
    append_number(line, number, 16, digits);
}

void append_decimal(std::string *line, uint64_t number)
{
    append_number(line, number, 10, 0);
}

std::string to_text(const json_value &value)
{
    return value.dump(-1, ' ', false, json_value::error_handler_t::replace);
}

void append_json(std::string *line, std::string_view text)
{
    const bool is_plain =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; });
    if (is_plain)
        line->append("\"").append(text).append("\"");
    else
        line->append(to_text(json_value(text)));
}

// What is written so far, which main() has to bring to an end when a verb does not.
static output_format s_format = output_format::text;
static bool s_is_empty = true; // no record yet
static bool s_is_finished = false;
static bool s_is_open = false; // a record is being written piece by piece

void set_output_format(output_format format)
{
    s_format = format;
}

[[noreturn]] static void output_failed()
{
    const int error = errno;
    s_is_finished = true;
    if (error == EPIPE)
        throw broken_pipe();
    throw failure(fmt::format("standard output: {}", std::strerror(error)));
}

// Who reads a file or a pipe sees no difference between one large write and many small ones.
answers::answers(output_format format) : m_format(format)
{
    static char room[size_t{1} << 16];
    if (isatty(STDOUT_FILENO) == 0)
        std::setvbuf(stdout, room, _IOFBF, sizeof(room));
}

void answers::write(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        output_failed();
}

void answers::record(const json_value &fields)
{
    record(fields, record_status::ok);
}

void answers::record(const json_value &fields, record_status status, const record_error *why)
{
    m_line.assign(1, '{');
    append_record_head(&m_line, status, why);
    if (!fields.empty())
        m_line.append(",").append(std::string_view(to_text(fields)).substr(1));
    else
        m_line += '}';
    record_text(m_line);
}

void answers::record_failure(const record_error &why)
{
    if (is_json())
        record(json_value::object(), status_of(&why), &why);
}

void answers::record_text(std::string_view record)
{
    open_record();
    write(record);
    close_record();
}

// Bracket and comma begin a line, so that it is complete when its answer is given.
void answers::open_record()
{
    if (m_format == output_format::json)
        write(s_is_empty ? "[" : ",");
    s_is_empty = false;
    s_is_open = true;
}

void answers::close_record()
{
    write("\n");
    s_is_open = false;
}

void answers::flush()
{
    if (std::fflush(stdout) != 0)
        output_failed();
}

void answers::finish()
{
    s_is_finished = true; // there is nothing to write after a failure
    if (m_format == output_format::json)
        write(s_is_empty ? "[]\n" : "]\n");
    flush();
    // What an earlier flush lost on its way to a diagnostic is only remembered here.
    if (std::ferror(stdout) != 0)
        throw failure("standard output: write error");
}

void answers::finish_with(const record_error &why)
{
    answers out(s_format);
    if (!out.is_json() || s_is_finished || s_is_open)
        return;
    try {
        out.record_failure(why);
        out.finish();
    } catch (const std::exception &) { // the diagnostic has told
    }
}

} // namespace korva::program
