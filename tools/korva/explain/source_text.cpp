// SPDX-License-Identifier: Apache-2.0
#include "explain/source_text.h"

#include <algorithm>
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

std::vector<source_text> read_sources(const std::string &path, std::span<const uint32_t> wanted, uint32_t context,
                                      const std::string &program)
{
    std::vector<source_text> texts(wanted.size());
    const auto refuse_from = [&texts](size_t first, const std::string &why) {
        for (size_t i = first; i < texts.size(); ++i)
            texts[i] = {.why_not = why};
    };
    std::error_code failed, ignored;
    const uintmax_t size = fs::is_regular_file(path, failed) ? fs::file_size(path, failed) : LARGEST_SOURCE + 1;
    std::ifstream file;
    if (!failed && size <= LARGEST_SOURCE)
        file.open(path);
    if (!file.is_open()) {
        refuse_from(0, failed || !fs::exists(path, ignored) ? "there is no " + path : path + " is no file to be read");
        return texts;
    }
    const fs::file_time_type of_source = fs::last_write_time(path, failed);
    const fs::file_time_type of_program = failed ? of_source : fs::last_write_time(program, failed);
    const bool is_newer = !failed && of_source > of_program;
    uint64_t number = 1;
    size_t first = 0; // of those wanted, whose last line is still to come
    for (std::string line; first < wanted.size() && std::getline(file, line); ++number) {
        for (size_t i = first; i < wanted.size() && number + context >= wanted[i]; ++i)
            texts[i].lines.emplace_back(static_cast<uint32_t>(number), shown(line));
        while (first < wanted.size() && number >= uint64_t{wanted[first]} + context)
            ++first;
    }
    for (source_text &each : texts)
        each.is_newer = is_newer;
    // The line itself is not there.
    const auto behind = std::find_if(wanted.begin(), wanted.end(), [number](uint32_t line) { return line >= number; });
    refuse_from(static_cast<size_t>(behind - wanted.begin()), fmt::format("{} has {} lines", path, number - 1));
    return texts;
}

source_text read_source(const std::string &path, uint32_t wanted, uint32_t context, const std::string &program)
{
    return read_sources(path, {&wanted, 1}, context, program).front();
}

} // namespace korva::program::explanation
