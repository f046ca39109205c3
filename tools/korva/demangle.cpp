// SPDX-License-Identifier: Apache-2.0
#include "demangle.h"

#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <string_view>

namespace korva::program
{

std::string demangle(const char *name)
{
    // The runtime also demangles bare types, and would make "int" of a C function that is called i.
    const std::string_view text(name);
    if (!text.starts_with("_Z") && !text.starts_with("_GLOBAL_"))
        return name;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                            &std::free);
    return plain == nullptr ? name : plain.get();
}

std::string function_name(const char *symbol, bool demangled)
{
    const std::string name(symbol, std::strcspn(symbol, "@"));
    return demangled ? demangle(name.c_str()) : name;
}

} // namespace korva::program
