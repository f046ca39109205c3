// SPDX-License-Identifier: Apache-2.0
//
// The loader keeps functions only. What else a name may be is asked of the file itself.
#include "symbol_kind.h"

#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <memory>
#include <unistd.h>

namespace korva::program
{

static std::string_view describe(const GElf_Sym &symbol)
{
    if (symbol.st_shndx == SHN_UNDEF)
        return "is not defined in this file";
    switch (GELF_ST_TYPE(symbol.st_info)) {
    case STT_OBJECT:
    case STT_COMMON:
    case STT_TLS:
        return "is data, not a function";
    default:
        return {};
    }
}

static void read_section(Elf *elf, Elf_Scn *section, other_symbols *others)
{
    GElf_Shdr header;
    Elf_Data *data = elf_getdata(section, nullptr);
    if (data == nullptr || gelf_getshdr(section, &header) == nullptr ||
        (header.sh_type != SHT_SYMTAB && header.sh_type != SHT_DYNSYM))
        return;
    GElf_Sym symbol;
    for (int i = 0; gelf_getsym(data, i, &symbol) != nullptr; ++i) {
        const char *name = elf_strptr(elf, header.sh_link, symbol.st_name);
        const std::string_view what = describe(symbol);
        if (name != nullptr && *name != '\0' &&
            !what.empty()) // without its version, which .symtab has and .dynsym has not
            others->try_emplace(std::string(name, std::strcspn(name, "@")), what);
    }
}

other_symbols read_other_symbols(const std::string &path)
{
    other_symbols others;
    elf_version(EV_CURRENT);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const std::unique_ptr<Elf, decltype(&elf_end)> elf(elf_begin(fd, ELF_C_READ, nullptr), &elf_end);
    for (Elf_Scn *section = nullptr; (section = elf_nextscn(elf.get(), section)) != nullptr;)
        read_section(elf.get(), section, &others);
    if (fd >= 0)
        close(fd);
    return others;
}

} // namespace korva::program
