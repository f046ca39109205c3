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

// The first byte of the page that an address or offset is in.
constexpr uint64_t page_of(uint64_t n)
{
    return n & ~uint64_t{4095};
}

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

// A note of a PT_NOTE segment.
struct elf_note {
    uint32_t type;
    std::string name; // without the terminating NUL
    uint64_t address; // of its contents
    uint64_t size;
};

// Calls func(const elf_note &) for the notes in [address, address + size) up to the first that is damaged. Returns
// false when that happened.
template <typename F>
bool each_note(memory &mem, uint64_t address, uint64_t size, F func);

// The build-id note of an image at `address` of `mem`: loaded there (`bias` is then added to virtual addresses), or, in
// a file, at the offsets of the segments. Empty when there is none.
std::vector<uint8_t> read_build_id(memory &mem, const elf_image &image, std::optional<uint64_t> bias);

// ------------------------------------------------------------------------------------------------------------

template <typename F>
bool each_note(memory &mem, uint64_t address, uint64_t size, F func)
{
    constexpr uint64_t LONGEST_NAME = 32; // "CORE", "LINUX", "GNU", and others that nobody asks for
    uint64_t left = size;
    while (left >= sizeof(Elf64_Nhdr)) {
        Elf64_Nhdr header; // the same for 32 bits
        if (!mem.get(address, &header))
            return false;
        left -= sizeof(header);
        address += sizeof(header);
        const uint64_t name_size = (uint64_t{header.n_namesz} + 3) & ~uint64_t{3};
        if (name_size > left || header.n_descsz > left - name_size)
            return false;
        elf_note note = {header.n_type, {}, address + name_size, header.n_descsz};
        if (header.n_namesz > 1 && header.n_namesz <= LONGEST_NAME) {
            note.name.resize(header.n_namesz - 1);
            if (!mem.read(address, note.name.data(), note.name.size()))
                return false;
        }
        func(static_cast<const elf_note &>(note));
        const uint64_t padded = (uint64_t{header.n_descsz} + 3) & ~uint64_t{3};
        const uint64_t step = name_size + (padded < left - name_size ? padded : left - name_size);
        left -= step;
        address += step;
    }
    return true;
}

} // namespace krv_elf_loader

#endif
