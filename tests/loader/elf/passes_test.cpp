// SPDX-License-Identifier: Apache-2.0
//
// The loader's corrections, each on the least file that needs it. What compilers and linkers really write is compared
// with other readers elsewhere.
#include "loader/loader_fixture.h"

using namespace krv_test;

namespace
{

// A linked program with 64 bytes of code at 0x401000: functions at 0x401000 and 0x401020.
const char *const CODE = ".text\n.globl _start\n.type _start,@function\n_start: .skip 32,0x90\n.size _start,32\n"
                         ".type second,@function\nsecond: .skip 32,0x90\n.size second,32\n";
constexpr uint64_t FIRST = 0x401000, SECOND = 0x401020;

class Passes : public Loader
{
protected:
    elf_ptr link(const std::string &sections)
    {
        std::ofstream(dir / "s.s") << CODE << sections;
        EXPECT_TRUE(compile("-nostdlib -static -no-pie -Wl,--build-id=none -Wl,-Ttext=0x401000 s.s -o s"));
        return open("s");
    }

    std::string units_at(krv_elf_t *elf, const std::vector<uint64_t> &addresses)
    {
        std::string answer;
        for (const uint64_t address : addresses)
            answer += std::to_string(line_of(elf, address)) + " ";
        return answer;
    }
};

std::string with_lines(const bytes &line, const std::string &bounds = "low_pc:addr high_pc:data4")
{
    const bytes info = unit{.dies = bytes().uleb(1).u32(0).u64(FIRST).u32(64)}.build();
    return section(".debug_abbrev", abbrevs("1 compile_unit stmt_list:sec_offset " + bounds)) +
           section(".debug_info", info) + section(".debug_line", line);
}

TEST_F(Passes, DropDeadSequences)
{
    const std::string live = "at 401000 line 9 copy pc 32 end at 401020 line 19 copy pc 32 end ";
    const auto dropped = [](int n, int all) {
        return text(
            "+ %d of %d sequences of the line-number program at offset 0x0 describe code that is not in the file: "
            "left out\n",
            n, all);
    };
    const struct {
        const char *what;
        std::string program, lines, notes;
    } rows[] = {
        {"nothing to do", live, "10 20 ", ""},
        {"at 0 and 1, overlapping each other", "at 0 copy pc 8 end at 1 copy pc 8 end at 0 copy pc 4 end " + live,
         "10 20 ", dropped(3, 5)},
        {"at -1, at -2, and behind the code",
         live + "at ffffffffffffffff copy pc 0 end at fffffffffffffffe copy pc 1 end "
                "at 401040 copy pc 1 end",
         "10 20 ", dropped(3, 5)},
        {"one without a length, one that runs backwards", "at 401000 copy end at 401010 copy at 401000 end " + live,
         "10 20 ", dropped(2, 4)},
        {"overlapping: a function starts with one of them", "at 401010 line 70 copy pc 24 end " + live, "10 20 ",
         dropped(1, 3)},
        {"twice the same: the first stays", live + "at 401020 line 80 copy pc 32 end", "10 20 ", dropped(1, 3)},
        {"file numbers stay",
         "def b.c 0 0 0 at 0 line 5 copy def c.c 0 0 0 pc 300 end at 401000 file 3 line 9 copy pc 32 "
         "end at 401020 line 19 copy pc 32 end",
         "10 20 ", dropped(1, 3)},
        {"an advance of fixed size leads to the code",
         "at 400000 fixed 4096 line 9 copy pc 32 end at 401020 line 19 copy pc 32 end", "10 20 ", ""},
        {"what the core does not know is left to it", "at 0 copy pc 4 end ext 99 " + live, "0 0 ", dropped(1, 1)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const uint16_t version = 2 + (&row - rows) % 3;
        const elf_ptr elf = link(with_lines(line_unit{.version = version, .program = program(row.program)}.build()));
        ASSERT_NE(elf, nullptr) << error.message;
        EXPECT_EQ(units_at(elf.get(), {FIRST, SECOND}), row.lines);
        EXPECT_EQ(notes(elf.get()), row.notes);
        EXPECT_EQ(attached(elf.get()).find('+') != std::string::npos, !row.notes.empty());
    }
}

TEST_F(Passes, CompleteRanges)
{
    // Two units: the first has neither bounds nor ranges but a function, the second has ranges.
    const std::string abbrev = section(".debug_abbrev", abbrevs("1 compile_unit+ stmt_list:sec_offset; 2 subprogram "
                                                                "low_pc:addr high_pc:data4; 3 compile_unit "
                                                                "stmt_list:sec_offset low_pc:addr ranges:sec_offset"));
    const bytes first =
        unit{.dies = bytes().uleb(1).u32(0).uleb(2).u64(FIRST).u32(32).uleb(2).u64(0).u32(8).uleb(0)}.build();
    const bytes second = unit{.dies = bytes().uleb(3).u32(0).u64(0).u32(16)}.build();
    const bytes ranges = bytes().fill(16, 0).u64(UINT64_MAX).u64(SECOND).u64(0).u64(32).u64(0).u64(0);
    const std::string lines = section(
        ".debug_line",
        line_unit{.program = program("at 401000 line 9 copy pc 32 end at 401020 line 19 copy pc 32 end")}.build());
    const std::string common =
        abbrev + section(".debug_info", first + second) + section(".debug_ranges", ranges) + lines;
    const auto set = [&](uint64_t info_offset, std::vector<aranges_set::tuple> tuples, size_t at = 0) {
        return aranges_set{.info_offset = info_offset, .tuples = std::move(tuples)}.build(at);
    };
    const uint64_t of_second = first.size();
    const bytes good = set(0, {{FIRST, 32}}), homeless = set(1, {{FIRST, 32}}, good.size());
    const auto taken = [](int n, const char *plural) {
        return text("+ address ranges of %d unit%s without any are taken from the unit%s\n", n, plural, plural);
    };
    const struct {
        const char *what;
        bytes aranges;
        std::string notes;
    } rows[] = {
        {"no section", {}, taken(2, "s")},
        {"one is missing", good, taken(1, "")},
        {"all are there", good + set(of_second, {{SECOND, 32}}, good.size()), ""},
        {"one names no unit", good + homeless + set(of_second, {{SECOND, 32}}, good.size() + homeless.size()),
         "+ 1 of 3 sets name no unit: left out\n"},
        {"one is not ended, one of another version",
         aranges_set{.tuples = {{FIRST, 32}}, .terminated = false}.build() +
             aranges_set{.version = 3, .info_offset = of_second, .tuples = {{SECOND, 32}}}.build(32),
         taken(2, "s") + "+ 2 of 2 sets are damaged: left out\n"},
        {"one has a dropped function", set(0, {{FIRST, 32}, {0x10, 32}}) + set(of_second, {{SECOND, 32}}, 64),
         "+ 1 ranges are of code that is not in the file: left out\n"},
        {"cut off", good + bytes().u32(100), taken(1, "") + "+ the section ends within a set: left out\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const elf_ptr elf = link(common + (row.aranges.size() == 0 ? "" : section(".debug_aranges", row.aranges)));
        ASSERT_NE(elf, nullptr) << error.message;
        EXPECT_EQ(notes(elf.get()), row.notes);
        EXPECT_EQ(attached(elf.get()).find('+') != std::string::npos, !row.notes.empty()) << attached(elf.get());
        EXPECT_EQ(units_at(elf.get(), {FIRST, SECOND, SECOND + 31, SECOND + 32, 0x10}), "10 20 20 0 0 ");
    }
}

// DW_AT_name stands behind what would be refused.
TEST_F(Passes, CorrectFormsAndNumbers)
{
    const bytes max = bytes().fill(9, 0xff).u8(0), min = bytes().fill(9, 0x80).u8(0x7f);
    const struct {
        const char *what;
        std::string recipe;
        bytes value;
        std::string units, notes;
    } rows[] = {
        {"a reference into another unit", "1 compile_unit import:0x10 name:string", bytes().uleb(1).u32(7),
         "0:v4+20a.c ",
         "+ 1 attribute of the abbreviation table at offset 0x0 leads elsewhere (DW_FORM_ref_addr) and is shown as a "
         "plain number\n"},
        {"a reference into an alternate file", "1 compile_unit import:0x1f20 name:string", bytes().uleb(1).u32(7),
         "0:v4+20a.c ",
         "+ 1 attribute of the abbreviation table at offset 0x0 leads elsewhere (DW_FORM_GNU_ref_alt) and is shown as "
         "a plain number\n"},
        {"a string of an alternate file", "1 compile_unit producer:0x1f21 name:string", bytes().uleb(1).u32(7),
         "0:v4+20a.c ", "1 strings stand in an alternate file, which was not found\n"},
        {"the highest number", "1 compile_unit const_value:sdata name:string", bytes().uleb(1) + max, "0:v4+26a.c ",
         "+ 1 number of 10 bytes in the unit at offset 0x0 is shown as block\n"},
        {"one behind what has no bytes, and elsewhere",
         "1 compile_unit external:flag_present producer:string const_value:sdata name:string",
         bytes().uleb(1).cstr("1234567") + max, "0:v4+34a.c ",
         "+ 1 number of 10 bytes in the unit at offset 0x0 is shown as block\n"},
        {"two of them", "300 compile_unit const_value:sdata bit_size:sdata name:string", bytes().uleb(300) + max + max,
         "0:v4+37a.c ", "+ 2 numbers of 10 bytes in the unit at offset 0x0 are shown as blocks\n"},
        {"the lowest number", "1 compile_unit const_value:sdata name:string", bytes().uleb(1) + min, "0:v4+26a.c ", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const bytes info = unit{.dies = bytes().add(row.value).cstr("a.c")}.build();
        const elf_ptr elf = link(section(".debug_abbrev", abbrevs(row.recipe)) + section(".debug_info", info));
        ASSERT_NE(elf, nullptr) << error.message;
        EXPECT_EQ(units(elf.get()), row.units);
        EXPECT_EQ(notes(elf.get()), row.notes);
    }
}

TEST_F(Passes, SeparateDebugFiles)
{
    ASSERT_TRUE(compile("-gdwarf-4 -Wl,--build-id=0x0102030405 a.c -o whole"));
    ASSERT_EQ(std::system(("cd " + dir.string() +
                           " && objcopy --only-keep-debug whole d && strip -o bare whole && "
                           "mkdir -p ids/.build-id/01 beside/.debug && cp bare beside/ && "
                           "objcopy --add-gnu-debuglink=d bare linked && cp linked lost && cp linked beside/")
                              .c_str()),
              0);
    const auto open_with = [&](const char *name, const std::string &folder) {
        const std::string path = dir / folder;
        const char *const dirs[] = {path.c_str()};
        return elf_ptr(korva_elf_open_with_debug_dirs((dir / name).c_str(), KRV_ELF_F_NONE, dirs, 1, &error));
    };
    const auto found = [](krv_elf_t *elf) {
        const char *path = korva_elf_get_debug_path(elf);
        const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf, "outer");
        return std::string(path == nullptr ? "" : fs::path(path).filename().string()) + ":" +
               (outer == nullptr ? "" : std::to_string(line_of(elf, outer->address)));
    };
    EXPECT_EQ(found(open("bare").get()), ":");
    EXPECT_EQ(found(open("linked").get()), "d:3");
    EXPECT_EQ(found(open("linked", KRV_ELF_F_RAW).get()), ":");

    const fs::path by_id = dir / "ids/.build-id/01/02030405.debug";
    fs::copy_file(dir / "d", by_id);
    EXPECT_EQ(found(open_with("bare", "ids").get()), "02030405.debug:3");
    fs::rename(dir / "d", dir / "beside/.debug/d");
    EXPECT_EQ(found(open("linked").get()), ":");
    EXPECT_EQ(found(open("beside/linked").get()), "d:3");

    // One that is not the right one is refused, with its reason.
    std::ofstream(dir / "beside/.debug/d", std::ios::app) << "x";
    elf_ptr elf = open("beside/linked");
    EXPECT_EQ(found(elf.get()), ":");
    EXPECT_NE(notes(elf.get()).find("/d is refused: its CRC is 0x"), std::string::npos) << notes(elf.get());
    ASSERT_TRUE(compile("-gdwarf-4 -Wl,--build-id=0x0102030499 a.c -o other"));
    fs::copy_file(dir / "other", by_id, fs::copy_options::overwrite_existing);
    elf = open_with("bare", "ids");
    EXPECT_EQ(found(elf.get()), ":");
    EXPECT_NE(notes(elf.get()).find("is refused: its build-id is 0102030499, not 0102030405"), std::string::npos);
}

} // namespace
