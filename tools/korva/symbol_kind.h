// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

namespace korva::program
{

/** Names of a file that are no functions, and what they are: "is not defined in this file" or "is data". */
using other_symbols = std::unordered_map<std::string, std::string_view>;

/** Reads them from the symbol tables of the file. Empty when that cannot be read. */
other_symbols read_other_symbols(const std::string &path);

} // namespace korva::program
