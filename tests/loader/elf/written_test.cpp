// SPDX-License-Identifier: Apache-2.0
//
// What compilers, linkers and tools leave in files, each on the least file that has it: what is known of it, and what is
// noted. What they really write is compared with other readers elsewhere.
#include "loader/loader_fixture.h"

using namespace krv_test;

namespace
{

// A linked program with 64 bytes of code at 0x401000: functions at 0x401000 and 0x401020.
const char *const CODE = ".text\n.globl _start\n.type _start,@function\n_start: .skip 32,0x90\n.size _start,32\n"
                         ".type second,@function\nsecond: .skip 32,0x90\n.size second,32\n";
constexpr uint64_t FIRST = 0x401000, SECOND = 0x401020;

TEST_F(Loader, ReadsWhatIsWritten)
{
    const bytes abbrev = abbrevs("1 compile_unit import:0x10 producer:0x1f21 const_value:sdata name:string "
                                 "stmt_list:sec_offset low_pc:addr high_pc:data4; 2 compile_unit name:string "
                                 "stmt_list:sec_offset low_pc:addr ranges:sec_offset");
    const bytes highest = bytes().fill(9, 0xff).u8(0);
    const bytes bounds =
        unit{.dies = bytes().uleb(1).u32(7).u32(7).add(highest).cstr("a.c").u32(0).u64(FIRST).u32(64)}.build();
    const bytes ranges = unit{.dies = bytes().uleb(2).cstr("a.c").u32(0).u64(FIRST).u32(0)}.build();
    const bytes list = bytes().u64(0).u64(32).u64(0x10).u64(0x4000).u64(32).u64(64).u64(0).u64(0);
    const std::string live = "at 401000 line 9 copy pc 32 end at 401020 line 19 copy pc 32 end ";
    const struct {
        const char *what;
        bytes info;
        std::string program, notes;
    } rows[] = {
        {"references and strings elsewhere, long numbers", bounds, live, ""},
        {"functions that the linker dropped", bounds, "at 0 copy pc 8 end at 401040 copy pc 1 end " + live,
         "+ 2 of 4 sequences of the line-number program at offset 0x0 describe code that is not in the file: left "
         "out\n"},
        {"ranges, one of a dropped function", ranges, live,
         "+ 1 ranges of the unit at offset 0x0 of .debug_info are of code that is not in the object: left out\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        std::ofstream(dir / "s.s") << CODE << section(".debug_abbrev", abbrev) << section(".debug_info", row.info)
                                   << section(".debug_ranges", list)
                                   << section(".debug_line", line_unit{.program = program(row.program)}.build());
        ASSERT_TRUE(compile("-nostdlib -static -no-pie -Wl,--build-id=none -Wl,-Ttext=0x401000 s.s -o s"));
        const elf_ptr elf = open("s");
        ASSERT_NE(elf, nullptr) << error.message;
        std::string lines;
        for (const uint64_t address : {FIRST, SECOND, SECOND + 31, SECOND + 32, uint64_t{4}})
            lines += std::to_string(line_of(elf.get(), address)) + " ";
        EXPECT_EQ(lines, "10 20 20 0 0 ");
        EXPECT_EQ(notes(elf.get()), row.notes);
        EXPECT_EQ(attached(elf.get()).find('+'), std::string::npos) << attached(elf.get());
    }
}

TEST_F(Loader, SeparateDebugFiles)
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

// By nothing but its build-id, in folders, below another root whose links stay there, and in the cache of debuginfod.
TEST_F(Loader, FilesByBuildId)
{
    ASSERT_TRUE(compile("-Wl,--build-id=0x0102030405 a.c -o right") &&
                compile("-Wl,--build-id=0x0102030499 a.c -o wrong"));
    const auto put = [this](const char *file, const fs::path &at) {
        fs::create_directories((dir / at).parent_path());
        fs::copy_file(dir / file, dir / at);
    };
    put("right", "folder/.build-id/01/02030405");
    put("right", "root/real/.build-id/01/02030405.debug");
    put("wrong", "outside/.build-id/01/02030405.debug");
    put("right", "cache/0102030405/executable");
    put("wrong", "liar/0102030405/debuginfo");
    fs::create_directories(dir / "none/0102030405");
    std::ofstream(dir / "none/0102030405/debuginfo") << ""; // no server had it
    for (const char *root : {"root", "astray", "circle"})
        fs::create_directories(dir / root / "usr/lib");
    fs::create_symlink("/../usr/../real", dir / "root/usr/lib/debug");
    fs::create_symlink(dir / "outside", dir / "astray/usr/lib/debug");
    fs::create_symlink("/usr/lib/debug", dir / "circle/usr/lib/debug");
    const struct {
        const char *folder, *root, *cache;
        int kind;
        const char *path, *refused; // one of them, or neither
    } rows[] = {
        {"folder", "", "none", KRV_ELF_FIND_ANY, "folder/.build-id/01/02030405", ""},
        {"folder", "", "none", KRV_ELF_FIND_DEBUG, "", ""},
        {"outside", "", "cache", KRV_ELF_FIND_ANY, "cache/0102030405/executable", ""},
        {"outside", "", "none", KRV_ELF_FIND_ANY, "",
         "/outside/.build-id/01/02030405.debug is refused: its build-id is 0102030499"},
        {"none", "", "liar", KRV_ELF_FIND_DEBUG, "",
         "/liar/0102030405/debuginfo is refused: its build-id is 0102030499"},
        {"none", "root", "none", KRV_ELF_FIND_DEBUG, "root/real/.build-id/01/02030405.debug", ""},
        {"none", "astray", "none", KRV_ELF_FIND_DEBUG, "", ""},
        {"none", "circle", "none", KRV_ELF_FIND_DEBUG, "", ""},
    };
    const uint8_t id[] = {1, 2, 3, 4, 5};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.folder) + " " + row.root + " " + row.cache);
        setenv("DEBUGINFOD_CACHE_PATH", (dir / row.cache).c_str(), 1);
        const std::string folder = dir / row.folder, root = *row.root == '\0' ? "" : dir / row.root;
        const char *const dirs[] = {folder.c_str()};
        krv_elf_search_t search = {};
        search.dirs = dirs;
        search.dir_count = 1;
        search.sysroot = root.c_str();
        char *path = korva_elf_find_build_id(id, sizeof(id), row.kind, KRV_ELF_F_NONE, &search, &error);
        EXPECT_EQ(path == nullptr ? "" : path, *row.path == '\0' ? "" : (dir / row.path).string()) << error.message;
        if (path == nullptr) {
            EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
            const std::string told = error.message;
            EXPECT_EQ(told.find(" is refused") != std::string::npos, *row.refused != '\0') << told;
            EXPECT_NE(told.find(row.refused), std::string::npos) << told;
        }
        free(path);
    }
    EXPECT_EQ(korva_elf_find_build_id(id, 1, KRV_ELF_FIND_ANY, KRV_ELF_F_NONE, nullptr, &error), nullptr);
    EXPECT_EQ(error.code, KRV_ELF_ERR_FORMAT);
    unsetenv("DEBUGINFOD_CACHE_PATH");
}

} // namespace
