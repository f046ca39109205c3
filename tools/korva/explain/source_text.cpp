// SPDX-License-Identifier: Apache-2.0
#include "explain/source_text.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>

namespace korva::program::explanation
{

namespace fs = std::filesystem;

// A path of debugging information may lead anywhere: what is no file, or larger than any source, is not read.
constexpr uintmax_t LARGEST_SOURCE = uintmax_t{64} << 20;
constexpr size_t MOST_COLUMNS = 160;

static std::string shown(const std::string &line)
{
    std::string text;
    for (const char c : line.substr(0, MOST_COLUMNS))
        if (c == '\t')
            text.append(8 - text.size() % 8, ' ');
        else if (c != '\r')
            text += c;
    return text;
}

source_text read_source(const std::string &path, uint32_t wanted, uint32_t context, const std::string &program)
{
    source_text text;
    std::error_code failed, ignored;
    const uintmax_t size = fs::is_regular_file(path, failed) ? fs::file_size(path, failed) : LARGEST_SOURCE + 1;
    std::ifstream file;
    if (!failed && size <= LARGEST_SOURCE)
        file.open(path);
    if (!file.is_open()) {
        text.why_not = failed || !fs::exists(path, ignored) ? "there is no " + path : path + " is no file to be read";
        return text;
    }
    const fs::file_time_type of_source = fs::last_write_time(path, failed);
    const fs::file_time_type of_program = failed ? of_source : fs::last_write_time(program, failed);
    text.is_newer = !failed && of_source > of_program;
    const uint64_t first = wanted > context ? wanted - context : 1, last = uint64_t{wanted} + context;
    uint64_t number = 1;
    for (std::string line; number <= last && std::getline(file, line); ++number)
        if (number >= first)
            text.lines.emplace_back(static_cast<uint32_t>(number), shown(line));
    if (number <= wanted) { // the line itself is not there
        text.lines.clear();
        text.why_not = fmt::format("{} has {} lines", path, number - 1);
    }
    return text;
}

} // namespace korva::program::explanation
