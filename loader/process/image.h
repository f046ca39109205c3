// SPDX-License-Identifier: Apache-2.0
//
// The ELF headers of an object in memory, or of a file, in one form for 32 and 64 bits. Nothing of it is trusted:
// counts are limited, and extents are compared before they are used.
#ifndef KRV_PROC_IMAGE_H
#define KRV_PROC_IMAGE_H

#include "process/memory.h"

#include "libkorva.h"

#include <elf.h>
#include <optional>
#include <vector>

namespace krv_elf_loader
{

struct elf_image {
    krv_activation_type_t target; // KRV_ACTIVATION_I386 or KRV_ACTIVATION_AMD64
    bool x32;                     // AMD64 code with 4-byte addresses
    uint16_t type;                // ET_*
    uint64_t entry;
    uint64_t phoff;                   // of the program headers, from the ELF header
    std::vector<Elf64_Phdr> segments; // widened for 32 bits

    // The addresses that the loaded segments cover, [start, end), as the headers say; empty without one.
    uint64_t start = 0;
    uint64_t end = 0;

    const Elf64_Phdr *find(uint32_t type) const; // the first segment of a type, or NULL
};

// Reads the headers that begin at `address`. Nothing when there is no ELF header for one of our machines. Of an object
// that is loaded no more segments are taken than the system would load, so that a core file whose mappings are all such
// headers is read in reasonable time; a core file itself has as many as its process had mappings.
std::optional<elf_image> read_elf_image(memory &mem, uint64_t address, bool core = false);

// The build-id note of an image at `address` of `mem`: loaded there (`bias` is then added to virtual addresses), or, in
// a file, at the offsets of the segments. Empty when there is none.
std::vector<uint8_t> read_build_id(memory &mem, const elf_image &image, std::optional<uint64_t> bias);

} // namespace krv_elf_loader

#endif
