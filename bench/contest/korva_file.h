// SPDX-License-Identifier: Apache-2.0
//
// A file of the corpus, mapped, with a handle over its sections.
#ifndef KRV_BENCH_KORVA_FILE_H
#define KRV_BENCH_KORVA_FILE_H

#include "libkorva.h"

#include <elf.h>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace contest
{

class korva_file
{
public:
    explicit korva_file(const char *path) : hp(korva_handle_alloc(KRV_ACTIVATION_AMD64))
    {
        const int fd = open(path, O_RDONLY);
        struct stat st = {};
        if (fd >= 0 && fstat(fd, &st) == 0) {
            size = static_cast<size_t>(st.st_size);
            void *p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
            image = p == MAP_FAILED ? nullptr : static_cast<uint8_t *>(p);
        }
        close(fd);
        if (image != nullptr)
            attach_sections();
    }
    ~korva_file()
    {
        korva_handle_free(hp);
        if (image != nullptr)
            munmap(image, size);
    }
    korva_file(const korva_file &) = delete;
    korva_file &operator=(const korva_file &) = delete;

    krv_handle_t *hp;
    uint8_t *image = nullptr;
    size_t size = 0;

    const Elf64_Shdr *section(std::string_view name) const
    {
        for (const Elf64_Shdr *s = sections(); s < sections() + header()->e_shnum; ++s)
            if (name == section_name(s))
                return s;
        return nullptr;
    }

private:
    const Elf64_Ehdr *header() const { return reinterpret_cast<const Elf64_Ehdr *>(image); }
    const Elf64_Shdr *sections() const { return reinterpret_cast<const Elf64_Shdr *>(image + header()->e_shoff); }
    const char *section_name(const Elf64_Shdr *s) const
    {
        const Elf64_Shdr *names = sections() + header()->e_shstrndx;
        return reinterpret_cast<const char *>(image) + names->sh_offset + s->sh_name;
    }
    // As libkorva-elf attaches them: what compilers and linkers write is read as it is written.
    void attach_sections()
    {
        korva_handle_set_opt(hp, KRV_OPT_EXT_DWARF5, uint64_t{1});
        korva_handle_set_opt(hp, KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
        for (const Elf64_Shdr *s = sections(); s < sections() + header()->e_shnum; ++s) {
            krv_secidx_t index;
            boolean_t compressed;
            if ((s->sh_flags & SHF_EXECINSTR) != 0)
                korva_handle_add_code(hp, s->sh_addr, s->sh_size);
            if (korva_lookup_section_index(section_name(s), &index, &compressed) == 0 ||
                korva_lookup_ext_section_index(section_name(s), &index, &compressed) == 0)
                korva_attach_section(hp, index, s->sh_size, KRV_FD_TYPE_MEMORY, image + s->sh_offset);
        }
    }
};

} // namespace contest

#endif
