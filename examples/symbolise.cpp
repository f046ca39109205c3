// SPDX-License-Identifier: Apache-2.0
// symbolise FILE ADDRESS...: function, file and line of addresses of an ELF file.
#include <cstdio>
#include <cstdlib>
#include <korva.hpp>

int main(int argc, char **argv)
{
    if (argc < 3)
        return 64;
    const auto elf = korva::elf::open(argv[1]);
    if (!elf) {
        std::fprintf(stderr, "%s\n", elf.error().text().c_str());
        return 1;
    }
    for (int i = 2; i < argc; ++i) {
        const std::uint64_t address = std::strtoull(argv[i], nullptr, 16);
        const krv_elf_symbol_t *function = elf->symbol(address);
        const auto source = elf->source(address);
        std::printf("0x%llx %s %s:%u\n", static_cast<unsigned long long>(address),
                    function != nullptr ? function->name : "??", source ? source->path.c_str() : "??",
                    source ? source->line : 0);
        if (!source)
            std::fprintf(stderr, "%s\n", source.error().text().c_str()); // the loader's reason, where it has one
    }
    return 0;
}
