// SPDX-License-Identifier: Apache-2.0
// functions FILE: every function of an ELF file that has code, with its ranges of addresses.
#include <cstdio>
#include <korva.hpp>

constexpr std::uint32_t DW_TAG_subprogram = 0x2e;

static void print_function(const korva::entry &entry)
{
    int ranges = 0;
    const auto read = entry.each_range([&](korva::range r) {
        std::printf("%s0x%llx-0x%llx", ranges++ == 0 ? "" : ",", static_cast<unsigned long long>(r.start),
                    static_cast<unsigned long long>(r.end));
    });
    if (!read && read.error().code != KRV_ERR_NOTFOUND)
        std::fprintf(stderr, "%s\n", read.error().text().c_str());
    if (ranges == 0) // a declaration, or one that is inlined wherever it is called
        return;
    const auto function = entry.call();
    std::printf(" %s\n", function && function->name != nullptr ? function->name : "??");
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return 64;
    const auto elf = korva::elf::open(argv[1]);
    if (!elf) {
        std::fprintf(stderr, "%s\n", elf.error().text().c_str());
        return 1;
    }
    const auto handle = elf->handle();
    for (const korva::unit &unit : handle.units()) {
        const auto first = korva::entry::first(handle, unit);
        if (!first)
            continue; // a unit that was stepped over
        auto below = first->descendants();
        for (const korva::entry &entry : below)
            if (entry.tag() == DW_TAG_subprogram)
                print_function(entry);
        if (below.failure())
            std::fprintf(stderr, "%s\n", below.failure()->text().c_str());
    }
    return 0;
}
