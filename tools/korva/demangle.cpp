// SPDX-License-Identifier: Apache-2.0
#include "demangle.h"

#include <korva.hpp>

namespace korva::program
{

std::string demangle_or_keep(const std::string &symbol)
{
    const std::string plain = korva::demangle(symbol.c_str());
    return plain.empty() ? symbol : plain;
}

std::string_view unversioned(const char *symbol)
{
    const std::string_view whole(symbol);
    return whole.substr(0, whole.find('@'));
}

std::string function_name(const char *symbol, bool demangled)
{
    const std::string name(unversioned(symbol));
    return demangled ? demangle_or_keep(name) : name;
}

} // namespace korva::program
