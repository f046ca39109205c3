// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace korva::program::explanation
{

/** Lines of a source file around one of them. */
struct source_text {
    std::vector<std::pair<uint32_t, std::string>> lines{}; /**< with their numbers, from 1 on; tabs are blanks */
    bool is_newer = false;                                 /**< than the program */
    std::string why_not{};                                 /**< there are none */
};

/** Reads line @p wanted with @p context lines on each side. */
source_text read_source(const std::string &path, uint32_t wanted, uint32_t context, const std::string &program);

/** The same of each of the lines, which are different and ascend: the file is read once. */
std::vector<source_text> read_sources(const std::string &path, std::span<const uint32_t> wanted, uint32_t context,
                                      const std::string &program);

} // namespace korva::program::explanation
