// SPDX-License-Identifier: Apache-2.0
//
// Bytes that someone else owns.
#ifndef KRV_ELF_BYTES_H
#define KRV_ELF_BYTES_H

#include <cstdint>
#include <span>

namespace krv_elf_loader
{

using byte_span = std::span<const uint8_t>;

} // namespace krv_elf_loader

#endif
