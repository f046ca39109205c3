// SPDX-License-Identifier: Apache-2.0
//
// Pages of both targets: what the system maps, and in what it rounds.
#ifndef KRV_ELF_PAGE_H
#define KRV_ELF_PAGE_H

#include <cstdint>

namespace krv_elf_loader
{

constexpr uint64_t PAGE = 4096;

// Where the page of an address or a file offset begins.
constexpr uint64_t page_of(uint64_t n)
{
    return n & ~(PAGE - 1);
}

} // namespace krv_elf_loader

#endif
