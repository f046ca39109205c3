// SPDX-License-Identifier: Apache-2.0
// lines FILE [UNIT]: the line tables of an ELF file, or of the unit of that name alone.
#include <cstdio>
#include <korva.hpp>

int main(int argc, char **argv)
{
    if (argc < 2)
        return 64;
    const auto elf = korva::elf::open(argv[1]);
    if (!elf) {
        std::fprintf(stderr, "%s\n", elf.error().text().c_str());
        return 1;
    }
    for (const korva::unit &unit : elf->handle().units()) {
        const std::string name = unit.name().value_or("");
        if (argc > 2 && name != argv[2])
            continue;
        const auto rows = unit.rows();
        if (!rows && rows.error().code == KRV_ERR_NOTFOUND)
            continue; // a unit without line numbers
        std::printf("%s\n", name.c_str());
        if (!rows) {
            std::fprintf(stderr, "%s\n", rows.error().text().c_str());
            return 1;
        }
        for (const korva::row &row : *rows)
            std::printf("0x%llx %u%s\n", static_cast<unsigned long long>(row.address), row.line,
                        row.end_sequence ? " end" : "");
    }
    for (const std::string &reason : elf->refusal())
        std::fprintf(stderr, "%s\n", reason.c_str());
    return 0;
}
