// SPDX-License-Identifier: Apache-2.0
//
// Symbols as C++, Rust and D write them; more than a symbol may stand for is refused, and so no input takes long.
#include "demangle.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t MOST_SHOWN = 1 << 20; // what a name of 16 KiB may come to is far below
    const std::string symbol(reinterpret_cast<const char *>(data), size);
    if (krv_elf_loader::demangle(symbol.c_str()).size() > MOST_SHOWN)
        std::abort();
    return 0;
}
