// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include "progress.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace korva::program
{

static kept_diagnostics *s_keeper = nullptr;

kept_diagnostics::kept_diagnostics()
{
    s_keeper = this;
}

kept_diagnostics::~kept_diagnostics()
{
    s_keeper = nullptr;
}

void diagnose(std::string_view text)
{
    if (s_keeper != nullptr) {
        s_keeper->texts.emplace_back(text);
        return;
    }
    std::fflush(stdout); // should that fail, the next write says so
    progress::erase();
    fmt::print(stderr, "korva: {}\n", printable(text));
}

std::string printable(std::string_view text)
{
    std::string safe;
    safe.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f)
            safe += fmt::format("\\x{:02x}", byte);
        else
            safe += c;
    }
    return safe;
}

std::string to_text(const json_value &value)
{
    return value.dump(-1, ' ', false, json_value::error_handler_t::replace);
}

[[noreturn]] static void output_failed()
{
    const int error = errno;
    if (error == EPIPE)
        throw broken_pipe();
    throw failure(fmt::format("standard output: {}", std::strerror(error)));
}

answers::answers(output_format format) : m_format(format)
{
    if (m_format == output_format::json)
        write("[");
}

void answers::write(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        output_failed();
}

void answers::record(const json_value &record)
{
    open_record();
    write(to_text(record));
    close_record();
}

void answers::open_record()
{
    if (m_format == output_format::json)
        write(m_empty ? "\n" : ",\n");
    m_empty = false;
}

void answers::close_record()
{
    if (m_format == output_format::jsonl)
        write("\n");
}

void answers::flush()
{
    if (std::fflush(stdout) != 0)
        output_failed();
}

void answers::finish()
{
    if (m_format == output_format::json)
        write(m_empty ? "]\n" : "\n]\n");
    flush();
    // What an earlier flush lost on its way to a diagnostic is only remembered here.
    if (std::ferror(stdout) != 0)
        throw failure("standard output: write error");
}

} // namespace korva::program
