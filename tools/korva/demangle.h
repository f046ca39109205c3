// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace korva::program
{

/** The name of C++, Rust or D behind a symbol's; or that itself when it is no mangled one, or one that is too long. */
std::string demangle_or_keep(const std::string &symbol);

/** A symbol's name without its version: f of f@@V_1. */
std::string_view unversioned(const char *symbol);

/** How a function is shown: its symbol's name without a version, as in f@@V_1; demangled when that is wanted. */
std::string function_name(const char *symbol, bool demangled);

} // namespace korva::program
