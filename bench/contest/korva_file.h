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
        fd = open(path, O_RDONLY);
        struct stat st = {};
        if (fd >= 0 && fstat(fd, &st) == 0) {
            size = static_cast<size_t>(st.st_size);
            void *p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
            image = p == MAP_FAILED ? nullptr : static_cast<uint8_t *>(p);
        }
        if (image != nullptr)
            attach_sections();
    }
    ~korva_file()
    {
        korva_handle_free(hp);
        if (image != nullptr)
            munmap(image, size);
        close(fd);
    }
    korva_file(const korva_file &) = delete;
    korva_file &operator=(const korva_file &) = delete;

    krv_handle_t *hp;
    uint8_t *image = nullptr;
    size_t size = 0;
    int fd = -1;

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
    // As libkorva-elf attaches them: what compilers and linkers write is read as it is written, and what lies far apart by
    // the file's descriptor.
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
                attach(index, s);
        }
    }
    void attach(krv_secidx_t index, const Elf64_Shdr *s)
    {
        korva_attach_section(hp, index, s->sh_size, KRV_FD_TYPE_MEMORY, image + s->sh_offset);
        if (index != KRV_SEC_INFO && index != KRV_SEC_STR && index != KRV_SEC_EXT_LINE_STR)
            return;
        const auto read = [](void *arg, void *buf, size_t count, uint64_t offset) -> int64_t {
            const auto *of = static_cast<const reader *>(arg);
            return pread(of->fd, buf, count, static_cast<off_t>(of->start + offset));
        };
        reader &of = readers[index == KRV_SEC_INFO ? 0 : index == KRV_SEC_STR ? 1 : 2];
        of = {fd, s->sh_offset};
        korva_attach_section_reader(hp, index, read, &of);
    }

    struct reader {
        int fd;
        uint64_t start;
    } readers[3] = {};
};

} // namespace contest

#endif
