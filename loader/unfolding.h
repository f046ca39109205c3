// SPDX-License-Identifier: Apache-2.0
//
// How much a mangled name stands for, found out before it is demangled. A name of 200 bytes may stand for gigabytes, by
// references to what was read before, these included; a demangler takes time and memory by what comes out.
#ifndef KRV_UNFOLDING_H
#define KRV_UNFOLDING_H

#include <string_view>

namespace krv_elf_loader
{

/** Whether a C++ name (_Z...) stands for more than is shown. */
bool unfolds_too_far_cxx(std::string_view name);

/** Whether a Rust name (_R...) does, nests too deep, or is none. */
bool unfolds_too_far_rust(std::string_view name);

/** Whether a D name (_D...) does. */
bool unfolds_too_far_d(std::string_view name);

} // namespace krv_elf_loader

#endif
