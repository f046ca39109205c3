// SPDX-License-Identifier: Apache-2.0
//
// ELF files that the compiler makes here and now, opened by the loader, and what is seen of them.
#ifndef KRV_TEST_LOADER_FIXTURE_H
#define KRV_TEST_LOADER_FIXTURE_H

#include "korva.hpp"

#include "builders/sections.h"
#include "support/handle.h"

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

    fs::path write(const char *name, const std::string &bytes)
    {
        std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << bytes;
        return dir / name;
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
    for (const korva::unit &u : korva::elf_view(elf).handle().units()) {
        const krv_cu_header_t header = *u.header();
        const auto name = u.name();
        seen += text("%lu:v%u+%lu%s%s ", header.offset, header.version, header.size, header.dwarf64 != 0 ? "*" : "",
                     name ? name->c_str() : "");
    }
    return seen;
}

// The line that the debugging information gives for an address; 0 when none.
inline uint32_t line_of(krv_elf_t *elf, uint64_t address)
{
    for (const korva::unit &u : korva::elf_view(elf).handle().units()) {
        const auto covered = u.contains(address);
        const auto source = u.source(address, address, 1);
        if (covered && *covered && source)
            return source->line;
    }
    return 0;
}

// The texts of the notes, each ended by a newline; a "+" before those of corrections.
inline std::string notes(krv_elf_t *elf)
{
    std::string all;
    each(korva_elf_iter_notes, elf,
         [&](const krv_elf_note_t *note) { all += std::string(note->refused != 0 ? "" : "+ ") + note->text + "\n"; });
    return all;
}

// The sections that the handle has: "name=size", a '+' where it reads a copy, a 'z' where the file's is compressed.
inline std::string attached(krv_elf_t *elf)
{
    std::string all;
    each(korva_elf_iter_sections, elf, [&](const krv_elf_section_t *s) {
        if (s->index != KRV_SEC_NONE)
            all += text("%s=%lu%s%s ", s->name, s->size, s->copied != 0 ? "+" : "", s->compressed != 0 ? "z" : "");
    });
    return all;
}

} // namespace krv_test

#endif
