// SPDX-License-Identifier: Apache-2.0
//
// ELF notes, in a file or in memory. Sizes are their claims, and are compared with what is there.
#ifndef KRV_ELF_NOTES_H
#define KRV_ELF_NOTES_H

#include <cstdint>
#include <elf.h>
#include <string>

namespace krv_elf_loader
{

struct elf_note {
    uint32_t type;
    std::string name; // without the terminating NUL
    uint64_t address; // of its contents
    uint64_t size;
};

// Calls func(const elf_note &) for the notes in [address, address + size) until it returns false, or one is damaged.
// `from` has bool read(uint64_t address, void *buf, size_t count). Returns false when one is damaged.
template <typename R, typename F>
bool each_note(R &from, uint64_t address, uint64_t size, const F &func)
{
    constexpr uint64_t LONGEST_NAME = 32; // "CORE", "LINUX", "GNU", and others that nobody asks for
    uint64_t left = size;
    while (left >= sizeof(Elf64_Nhdr)) {
        Elf64_Nhdr header; // the same for 32 bits
        if (!from.read(address, &header, sizeof(header)))
            return false;
        left -= sizeof(header);
        address += sizeof(header);
        const uint64_t name_size = (uint64_t{header.n_namesz} + 3) & ~uint64_t{3};
        if (name_size > left || header.n_descsz > left - name_size)
            return false;
        elf_note note = {header.n_type, {}, address + name_size, header.n_descsz};
        if (header.n_namesz > 1 && header.n_namesz <= LONGEST_NAME) {
            note.name.resize(header.n_namesz - 1);
            if (!from.read(address, note.name.data(), note.name.size()))
                return false;
        }
        if (!func(static_cast<const elf_note &>(note)))
            return true;
        const uint64_t padded = (uint64_t{header.n_descsz} + 3) & ~uint64_t{3};
        const uint64_t step = name_size + (padded < left - name_size ? padded : left - name_size);
        left -= step;
        address += step;
    }
    return true;
}

} // namespace krv_elf_loader

#endif
