// SPDX-License-Identifier: Apache-2.0
#include "process/image.h"

#include "notes.h"
#include "page.h"

#include <algorithm>
#include <cstring>

namespace krv_elf_loader
{

namespace
{

constexpr uint64_t MOST_SEGMENTS = 0x20000;     // a core file has one for every mapping, at most 65530 by default
constexpr uint64_t MOST_LOADED_BYTES = 0x10000; // of program headers: the system loads no object with more

struct elf32 {
    using ehdr = Elf32_Ehdr;
    using phdr = Elf32_Phdr;
    using shdr = Elf32_Shdr;
};

struct elf64 {
    using ehdr = Elf64_Ehdr;
    using phdr = Elf64_Phdr;
    using shdr = Elf64_Shdr;
};

// PN_XNUM: there are more than 65534 segments, and section header 0 has their number.
template <typename format>
uint64_t count_segments(memory &mem, uint64_t address, const typename format::ehdr &header)
{
    if (header.e_phnum != PN_XNUM)
        return header.e_phnum;
    typename format::shdr first;
    return header.e_shoff != 0 && mem.get(address + header.e_shoff, &first) ? first.sh_info : 0;
}

void measure(elf_image &image)
{
    bool any = false;
    for (const Elf64_Phdr &segment : image.segments) {
        if (segment.p_type != PT_LOAD || segment.p_memsz == 0 || segment.p_memsz > UINT64_MAX - segment.p_vaddr - PAGE)
            continue;
        const uint64_t start = page_of(segment.p_vaddr);
        const uint64_t end = page_of(segment.p_vaddr + segment.p_memsz + PAGE - 1);
        image.start = any && image.start < start ? image.start : start;
        image.end = any && image.end > end ? image.end : end;
        any = true;
    }
}

template <typename format>
std::optional<elf_image> read_headers(memory &mem, uint64_t address, bool core)
{
    typename format::ehdr header;
    if (!mem.get(address, &header) || header.e_phentsize != sizeof(typename format::phdr))
        return std::nullopt;
    const bool amd64 = header.e_machine == EM_X86_64;
    if (!amd64 && (header.e_machine != EM_386 || sizeof(header) != sizeof(Elf32_Ehdr)))
        return std::nullopt;
    elf_image image = {};
    image.target = amd64 ? KRV_ACTIVATION_AMD64 : KRV_ACTIVATION_I386;
    image.x32 = amd64 && sizeof(header) == sizeof(Elf32_Ehdr);
    image.type = header.e_type;
    image.entry = header.e_entry;
    image.phoff = header.e_phoff;
    const uint64_t count = count_segments<format>(mem, address, header);
    const uint64_t most = core ? MOST_SEGMENTS : MOST_LOADED_BYTES / sizeof(typename format::phdr);
    for (uint64_t i = 0; i < count && i < most; ++i) {
        typename format::phdr p;
        if (!mem.get(address + header.e_phoff + i * sizeof(p), &p))
            break;
        image.segments.push_back(
            {p.p_type, p.p_flags, p.p_offset, p.p_vaddr, p.p_paddr, p.p_filesz, p.p_memsz, p.p_align});
    }
    measure(image);
    return image;
}

} // namespace

const Elf64_Phdr *elf_image::find(uint32_t wanted) const
{
    for (const Elf64_Phdr &segment : segments)
        if (segment.p_type == wanted)
            return &segment;
    return nullptr;
}

std::optional<elf_image> read_elf_image(memory &mem, uint64_t address, bool core)
{
    unsigned char ident[EI_NIDENT];
    if (!mem.get(address, &ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0 || ident[EI_DATA] != ELFDATA2LSB)
        return std::nullopt;
    if (ident[EI_CLASS] == ELFCLASS32)
        return read_headers<elf32>(mem, address, core);
    if (ident[EI_CLASS] == ELFCLASS64)
        return read_headers<elf64>(mem, address, core);
    return std::nullopt;
}

std::vector<uint8_t> read_build_id(memory &mem, const elf_image &image, std::optional<uint64_t> bias)
{
    constexpr uint64_t LONGEST = 64;            // those in use have 16 or 20 bytes
    constexpr uint64_t MOST_NOTE_BYTES = 65536; // bytes, of all segments; some hundred are usual
    uint64_t left = MOST_NOTE_BYTES;
    std::vector<uint8_t> id;
    for (const Elf64_Phdr &segment : image.segments) {
        if (segment.p_type != PT_NOTE || !id.empty())
            continue;
        const uint64_t address = bias ? *bias + segment.p_vaddr : segment.p_offset;
        const uint64_t size = std::min(segment.p_filesz, left);
        left -= size;
        each_note(mem, address, size, [&](const elf_note &note) {
            if (note.type != NT_GNU_BUILD_ID || note.name != ELF_NOTE_GNU || note.size > LONGEST)
                return true;
            id.resize(note.size);
            if (!mem.read(note.address, id.data(), id.size()))
                id.clear();
            return id.empty();
        });
    }
    return id;
}

} // namespace krv_elf_loader
