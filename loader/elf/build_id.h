// SPDX-License-Identifier: Apache-2.0
//
// What names a file, whatever its path is.
#ifndef KRV_ELF_BUILD_ID_H
#define KRV_ELF_BUILD_ID_H

#include "bytes.h"

#include <fmt/format.h>
#include <string>

namespace krv_elf_loader
{

inline std::string hex(byte_span bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += fmt::format("{:02x}", byte);
    return text;
}

// Whether it can name a file in folders, caches and URLs. Those in use have 16 or 20 bytes.
inline bool is_usable_id(byte_span id)
{
    constexpr size_t SHORTEST = 2, LONGEST = 64;
    return id.size() >= SHORTEST && id.size() <= LONGEST;
}

} // namespace krv_elf_loader

#endif
