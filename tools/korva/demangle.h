// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva
{

/** The C++ name behind a symbol's, or the name itself when it is no mangled one. */
std::string demangle(const char *name);

} // namespace korva
