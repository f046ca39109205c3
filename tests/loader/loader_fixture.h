// SPDX-License-Identifier: Apache-2.0
//
// ELF files that the compiler makes here and now, opened by the loader, and what is seen of them.
#ifndef KRV_TEST_LOADER_FIXTURE_H
#define KRV_TEST_LOADER_FIXTURE_H

#include "libkorva-elf.h"

#include "support/handle.h"
#include "support/sections.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>

namespace krv_test
{

namespace fs = std::filesystem;

struct elf_closer {
    void operator()(krv_elf_t *elf) const { korva_elf_close(elf); }
};
using elf_ptr = std::unique_ptr<krv_elf_t, elf_closer>;

inline constexpr const char *LOADER_SOURCE = "int shared(int n) { return n * 3; }\n"
                                             "static int inner(int n) { return shared(n) + 1; }\n"
                                             "int outer(int n) { return inner(n); }\n"
                                             "int main(void) { return outer(1) - 4; }\n";

class Loader : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = fs::temp_directory_path() / "korva-elf-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir = name;
        std::ofstream(dir / "a.c") << LOADER_SOURCE;
        std::ofstream(dir / "b.c") << "int b(int n) { return n + 2; }\n";
    }
    void TearDown() override { fs::remove_all(dir); }

    // Runs the compiler in the test's folder; false when it cannot do what the flags ask for.
    bool compile(const std::string &arguments)
    {
        const std::string command = "cd " + dir.string() + " && " KORVA_TEST_CC " -O0 " + arguments + " 2>/dev/null";
        return std::system(command.c_str()) == 0;
    }

    elf_ptr open(const std::string &name, unsigned flags = KRV_ELF_F_NONE)
    {
        error = {};
        return elf_ptr(korva_elf_open((dir / name).c_str(), flags, &error));
    }

    elf_ptr assemble(const std::string &text)
    {
        std::ofstream(dir / "s.s") << text;
        EXPECT_TRUE(compile("-c s.s -o s.o")) << text;
        return open("s.o");
    }

    void write(const char *name, const std::string &bytes)
    {
        std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << bytes;
    }

    std::string read(const char *name)
    {
        std::ifstream in(dir / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    fs::path dir;
    krv_elf_error_t error = {};
};

// A section in assembly.
inline std::string section(const std::string &name, const bytes &contents)
{
    std::string text = ".section " + name + "\n";
    for (size_t i = 0; i < contents.size(); ++i)
        text += ".byte " + std::to_string(contents.data()[i]) + "\n";
    return text;
}

// What the handle lists: offset, version, size and name, with a '*' for 64-bit DWARF, of each unit.
inline std::string units(krv_elf_t *elf)
{
    std::string seen;
    korva_iter_cu(
        korva_elf_get_handle(elf), KRV_SEC_INFO,
        [](krv_handle_t *hp, krv_ctu_t *cu, void *arg) {
            krv_cu_header_t header = {};
            krv_die_t *die = nullptr;
            char name[64] = "";
            korva_cu_get_header(hp, cu, &header);
            korva_get_cu_cudie(hp, cu, &die);
            korva_get_die_at_name(hp, die, name, sizeof(name));
            *static_cast<std::string *>(arg) +=
                text("%llu:v%u+%llu%s%s ", static_cast<unsigned long long>(header.offset), header.version,
                     static_cast<unsigned long long>(header.size), header.dwarf64 != 0 ? "*" : "", name);
            return 0;
        },
        &seen);
    return seen;
}

// The line that the debugging information gives for an address; 0 when none.
inline uint32_t line_of(krv_elf_t *elf, uint64_t address)
{
    struct query {
        uint64_t address;
        uint32_t line;
    } q = {address, 0};
    korva_iter_cu(
        korva_elf_get_handle(elf), KRV_SEC_INFO,
        [](krv_handle_t *hp, krv_ctu_t *cu, void *arg) {
            auto *wanted = static_cast<query *>(arg);
            if (!korva_cu_contains_addr(hp, cu, wanted->address, KRV_LOOKUP_F_NONE))
                return 0;
            krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cu, wanted->address, 1, wanted->address, 0);
            return row == nullptr ? 0 : (korva_lns_get_line(hp, row, &wanted->line), 1);
        },
        &q);
    return q.line;
}

// The texts of the notes, each ended by a newline; a "+" before those of corrections.
inline std::string notes(krv_elf_t *elf)
{
    std::string all;
    korva_elf_iter_notes(
        elf,
        [](krv_elf_t *, const krv_elf_note_t *note, void *arg) {
            *static_cast<std::string *>(arg) += std::string(note->refused != 0 ? "" : "+ ") + note->text + "\n";
            return 0;
        },
        &all);
    return all;
}

// The sections that the handle has: "name=size", a '+' where it reads a copy, a 'z' where the file's is compressed.
inline std::string attached(krv_elf_t *elf)
{
    std::string all;
    korva_elf_iter_sections(
        elf,
        [](krv_elf_t *, const krv_elf_section_t *s, void *arg) {
            if (s->index != KRV_SEC_NONE)
                *static_cast<std::string *>(arg) +=
                    text("%s=%llu%s%s ", s->name, static_cast<unsigned long long>(s->size), s->copied != 0 ? "+" : "",
                         s->compressed != 0 ? "z" : "");
            return 0;
        },
        &all);
    return all;
}

} // namespace krv_test

#endif
