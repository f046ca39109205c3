// SPDX-License-Identifier: Apache-2.0
//
// What symbols are called in the language that they come from.
#ifndef KRV_DEMANGLE_H
#define KRV_DEMANGLE_H

#include <string>

namespace krv_elf_loader
{

/** The name of C++, Rust or D that a symbol stands for; empty when it is none, or stands for more than is shown. */
std::string demangle(const char *name);

} // namespace krv_elf_loader

#endif
