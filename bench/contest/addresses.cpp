// SPDX-License-Identifier: Apache-2.0
//
// addresses FILE COUNT OUT: draws addresses inside the function symbols of FILE's .text, always the same ones.
#include "contest.h"
#include "korva_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

using contest::query;

static std::vector<query> functions_of(const contest::korva_file &file)
{
    const Elf64_Shdr *table = file.section(".symtab"), *text = file.section(".text");
    std::vector<query> functions;
    if (table == nullptr || text == nullptr)
        return functions;
    const auto *symbols = reinterpret_cast<const Elf64_Sym *>(file.image + table->sh_offset);
    for (const Elf64_Sym *s = symbols; s < symbols + table->sh_size / sizeof(*s); ++s)
        if (ELF64_ST_TYPE(s->st_info) == STT_FUNC && s->st_size != 0 && s->st_value >= text->sh_addr &&
            s->st_value + s->st_size <= text->sh_addr + text->sh_size)
            functions.push_back({0, s->st_value, s->st_size});
    std::sort(functions.begin(), functions.end(), [](const query &a, const query &b) { return a.start < b.start; });
    const auto same = [](const query &a, const query &b) { return a.start == b.start; };
    functions.erase(std::unique(functions.begin(), functions.end(), same), functions.end());
    return functions;
}

static uint64_t draw(uint64_t *state) // xorshift
{
    *state ^= *state << 13;
    *state ^= *state >> 7;
    *state ^= *state << 17;
    return *state >> 8;
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s FILE COUNT OUT\n", argv[0]);
        return 2;
    }
    const contest::korva_file file(argv[1]);
    const std::vector<query> functions = file.image == nullptr ? std::vector<query>{} : functions_of(file);
    FILE *out = functions.empty() ? nullptr : std::fopen(argv[3], "wb");
    if (out == nullptr) {
        std::fprintf(stderr, "%s: no functions, or cannot write %s\n", argv[1], argv[3]);
        return 1;
    }
    uint64_t state = 0x9e3779b97f4a7c15U;
    for (long i = std::atol(argv[2]); i > 0; --i) {
        query q = functions[draw(&state) % functions.size()];
        q.address = q.start + draw(&state) % q.size;
        std::fwrite(&q, sizeof(q), 1, out);
    }
    return std::fclose(out) == 0 ? 0 : 1;
}
