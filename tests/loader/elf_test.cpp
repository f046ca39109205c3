// SPDX-License-Identifier: Apache-2.0
//
// The loader on files that the compiler makes here and now, and on damaged ones.
#include "libkorva-elf.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;

struct elf_closer {
    void operator()(krv_elf_t *elf) const { korva_elf_close(elf); }
};
using elf_ptr = std::unique_ptr<krv_elf_t, elf_closer>;

const char *const SOURCE = "int shared(int n) { return n * 3; }\n"
                           "static int inner(int n) { return shared(n) + 1; }\n"
                           "int outer(int n) { return inner(n); }\n"
                           "int main(void) { return outer(1) - 4; }\n";

class Elf : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = fs::temp_directory_path() / "korva-elf-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir = name;
        std::ofstream(dir / "a.c") << SOURCE;
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

    fs::path dir;
    krv_elf_error_t error = {};
};

struct unit_seen {
    uint64_t offset;
    unsigned version;
    std::string name;
};

std::vector<unit_seen> units(krv_elf_t *elf)
{
    std::vector<unit_seen> seen;
    korva_iter_cu(
        korva_elf_get_handle(elf), KRV_SEC_INFO,
        [](krv_handle_t *hp, krv_ctu_t *cu, void *arg) {
            krv_cu_header_t header = {};
            krv_die_t *die = nullptr;
            char name[64] = "";
            korva_cu_get_header(hp, cu, &header);
            korva_get_cu_cudie(hp, cu, &die);
            korva_get_die_at_name(hp, die, name, sizeof(name));
            static_cast<std::vector<unit_seen> *>(arg)->push_back({header.offset, header.version, name});
            return 0;
        },
        &seen);
    return seen;
}

// The line that the debugging information gives for an address; 0 when none.
uint32_t line_of(krv_elf_t *elf, uint64_t address)
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

std::vector<krv_elf_note_t> notes(krv_elf_t *elf)
{
    std::vector<krv_elf_note_t> all;
    korva_elf_iter_notes(
        elf,
        [](krv_elf_t *, const krv_elf_note_t *note, void *arg) {
            static_cast<std::vector<krv_elf_note_t> *>(arg)->push_back(*note);
            return 0;
        },
        &all);
    return all;
}

std::vector<krv_elf_section_t> debug_sections(krv_elf_t *elf)
{
    std::vector<krv_elf_section_t> all;
    korva_elf_iter_sections(
        elf,
        [](krv_elf_t *, const krv_elf_section_t *section, void *arg) {
            if (section->index != KRV_SEC_NONE)
                static_cast<std::vector<krv_elf_section_t> *>(arg)->push_back(*section);
            return 0;
        },
        &all);
    return all;
}

} // namespace

// Every way in which a linker stores debugging information leads to the same answers.
TEST_F(Elf, StorageOfSections)
{
    static const struct {
        const char *flags;
        krv_activation_type_t target;
        bool compressed;
    } rows[] = {
        {"", KRV_ACTIVATION_AMD64, false},
        {"-no-pie", KRV_ACTIVATION_AMD64, false},
        {"-static", KRV_ACTIVATION_AMD64, false},
        {"-gz=zlib", KRV_ACTIVATION_AMD64, true},
        {"-gz=zlib-gnu", KRV_ACTIVATION_AMD64, true},
        {"-m32", KRV_ACTIVATION_I386, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.flags);
        if (!compile(std::string("-gdwarf-4 a.c -o a ") + row.flags)) {
            std::printf("skipped: the compiler cannot link with %s here\n", row.flags);
            continue;
        }
        elf_ptr elf = open("a");
        ASSERT_NE(elf, nullptr) << error.message;
        krv_elf_info_t info;
        korva_elf_get_info(elf.get(), &info);
        EXPECT_EQ(info.target, row.target);
        EXPECT_EQ(info.has_symtab, 1);
        const std::vector<unit_seen> seen = units(elf.get());
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].name, "a.c");
        const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer");
        ASSERT_NE(outer, nullptr);
        EXPECT_EQ(line_of(elf.get(), outer->address), 3u);
        EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), outer->address + outer->size - 1), outer);
        EXPECT_TRUE(notes(elf.get()).empty());
        bool compressed = false;
        for (const krv_elf_section_t &section : debug_sections(elf.get())) {
            EXPECT_EQ(section.copied, 0) << section.name;
            compressed |= section.compressed != 0;
        }
        EXPECT_EQ(compressed, row.compressed);
    }
}

// Units of DWARF 5 keep their place and version, are noted, and cost the others nothing.
TEST_F(Elf, OtherVersions)
{
    ASSERT_TRUE(compile("-gdwarf-5 -c a.c") && compile("-gdwarf-4 -c b.c"));
    for (const char *order : {"a.o b.o", "b.o a.o"}) {
        SCOPED_TRACE(order);
        ASSERT_TRUE(compile(std::string(order) + " -o mixed"));
        elf_ptr elf = open("mixed");
        ASSERT_NE(elf, nullptr) << error.message;
        std::string seen;
        for (const unit_seen &unit : units(elf.get()))
            seen += std::to_string(unit.version) + unit.name + " ";
        EXPECT_EQ(seen, order[0] == 'a' ? "5 4b.c " : "4b.c 5 ");
        EXPECT_EQ(line_of(elf.get(), korva_elf_lookup_symbol_by_name(elf.get(), "b")->address), 1u);
        EXPECT_EQ(line_of(elf.get(), korva_elf_lookup_symbol_by_name(elf.get(), "outer")->address), 0u);
        const std::vector<krv_elf_note_t> all = notes(elf.get());
        ASSERT_EQ(all.size(), 1u);
        EXPECT_TRUE(all[0].refused);
        EXPECT_STREQ(all[0].pass, "unit-versions");
        char text[160];
        std::snprintf(text, sizeof(text),
                      "unit at offset 0x%llx of .debug_info is DWARF 5, and libkorva reads DWARF 2 to 4; compile with "
                      "-gdwarf-4",
                      static_cast<unsigned long long>(all[0].offset));
        EXPECT_STREQ(all[0].text, text);
        EXPECT_EQ(units(open("mixed", KRV_ELF_F_RAW).get()).size(), order[0] == 'a' ? 0u : 1u);
    }
}

TEST_F(Elf, LoadBias)
{
    ASSERT_TRUE(compile("-gdwarf-4 -pie -fPIE a.c -o a"));
    elf_ptr elf = open("a");
    uint64_t bias = 0;
    EXPECT_EQ(korva_elf_load_bias(elf.get(), 0x7f0000000000, 0, &bias, &error), 0);
    EXPECT_EQ(bias, 0x7f0000000000u);
    EXPECT_EQ(korva_elf_load_bias(elf.get(), 0x7f0000001000, 0x1000, &bias, &error), 0);
    EXPECT_EQ(bias, 0x7f0000000000u);
    EXPECT_EQ(korva_elf_load_bias(elf.get(), 0, uint64_t{1} << 40, &bias, &error), -1);
    EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
}

TEST_F(Elf, Symbols)
{
    std::ofstream(dir / "s.s") << ".text\n.globl whole,inside,label,gap\n"
                                  "whole: .fill 32\n.type whole,@function\n.size whole,32\n"
                                  ".set inside, whole+8\n.type inside,@function\n.size inside,8\n"
                                  ".weak alias\n.set alias, whole\n.type alias,@function\n.size alias,32\n"
                                  "gap: .fill 8\n.type gap,@function\n.size gap,4\n"
                                  "label: .fill 16\n";
    ASSERT_TRUE(compile("-nostdlib -nostartfiles -Wl,-e,whole s.s -o s"));
    elf_ptr elf = open("s");
    ASSERT_NE(elf, nullptr) << error.message;
    const uint64_t base = korva_elf_lookup_symbol_by_name(elf.get(), "whole")->address;
    static const struct {
        int64_t offset;
        const char *name;
    } rows[] = {{-1, ""},    {0, "whole"}, {7, "whole"}, {8, "inside"}, {15, "inside"}, {16, "whole"}, {31, "whole"},
                {32, "gap"}, {35, "gap"},  {36, ""},     {40, "label"}, {55, "label"},  {56, ""}};
    for (const auto &row : rows) {
        const krv_elf_symbol_t *symbol = korva_elf_lookup_symbol(elf.get(), base + static_cast<uint64_t>(row.offset));
        EXPECT_STREQ(symbol == nullptr ? "" : symbol->name, row.name) << row.offset;
    }
    ASSERT_TRUE(compile("-s -rdynamic a.c -o stripped"));
    krv_elf_info_t info;
    elf = open("stripped");
    korva_elf_get_info(elf.get(), &info);
    EXPECT_EQ(info.has_symtab, 0);
    EXPECT_NE(korva_elf_lookup_symbol_by_name(elf.get(), "outer"), nullptr);
}

TEST_F(Elf, WhatIsNoReadableFile)
{
    std::ofstream(dir / "empty");
    std::ofstream(dir / "text") << "not an ELF file at all";
    std::ofstream(dir / "mips") << std::string("\x7f"
                                               "ELF\2\1\1\0\0\0\0\0\0\0\0\0\2\0\x08\0\1\0\0\0",
                                               24)
                                << std::string(40, '\0');
    const struct {
        const char *name;
        int code;
        const char *text;
    } rows[] = {
        {"missing", KRV_ELF_ERR_SYSTEM, "No such file or directory"},
        {"", KRV_ELF_ERR_SYSTEM, "Is a directory"},
        {"empty", KRV_ELF_ERR_FORMAT, "the file is empty"},
        {"text", KRV_ELF_ERR_FORMAT, "not an ELF file"},
        {"mips", KRV_ELF_ERR_UNSUPPORTED, "machine 8 in a 64-bit file; 32-bit x86 and AMD64 are read"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(open(row.name), nullptr);
        EXPECT_EQ(error.code, row.code) << row.name;
        EXPECT_EQ(error.message, (dir / row.name).string() + ": " + row.text);
    }
}

// A file cut anywhere is refused, or read as far as it goes: never a crash. Half of the bytes are flipped, too.
TEST_F(Elf, DamagedFiles)
{
    ASSERT_TRUE(compile("-gdwarf-4 -gz=zlib a.c b.c -o whole"));
    std::ifstream in(dir / "whole", std::ios::binary);
    const std::string whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unsigned state = 1;
    for (size_t i = 0; i < 400; ++i) {
        std::string bytes = whole;
        if (i % 2 == 0) {
            bytes.resize(whole.size() * i / 400);
        } else { // the headers at both ends, and a few bytes between
            for (int n = 0; n < 4; ++n) {
                state = state * 1103515245 + 12345;
                const size_t at = (state >> 8) % (n % 2 == 0 ? 1024 : 2048);
                bytes[n % 2 == 0 ? at : whole.size() - 1 - at] = static_cast<char>(state >> 24);
            }
        }
        std::ofstream(dir / "damaged", std::ios::binary | std::ios::trunc) << bytes;
        elf_ptr elf = open("damaged");
        if (elf == nullptr) {
            EXPECT_NE(error.code, KRV_ELF_ERR_NONE);
            continue;
        }
        units(elf.get());
        line_of(elf.get(), 0x1150);
        debug_sections(elf.get());
        korva_elf_lookup_symbol(elf.get(), 0x1150);
    }
}
