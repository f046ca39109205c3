// SPDX-License-Identifier: Apache-2.0
//
// Headers of line-number programs: their fields, their tables, and the paths of files.
#include "lines.h"

using namespace krv_test;

static constexpr uint64_t MAX = UINT64_MAX;

TEST(Line, HeaderFields)
{
    line_unit u{.mopi = 4, .opcode_base = 10, .dirs = {"src", "/usr"}, .program = program("copy")};
    u.files = {{"a.c"}, {"b.c"}, {"c.c"}, {"d.c"}, {"e.c"}}; // capacity 1, 2, 4, 8
    for (const bool dwarf64 : {false, true})
        for (const uint16_t version : {2, 3, 4, 5}) {
            u.dwarf64 = dwarf64;
            u.version = version;
            const bytes section = u.build();
            lines t(section);
            const krv_lnph_t *p = t.header();
            ASSERT_NE(p, nullptr) << t.h.error();
            EXPECT_EQ(p->sln_unit_length, section.size() - (dwarf64 ? 12 : 4));
            EXPECT_TRUE(p->sln_flags == dwarf64 && p->sln_version == version && p->sln_mopi == (version == 4 ? 4 : 1));
            EXPECT_TRUE(p->sln_line_base == -5 && p->sln_sol[1] == 1 && p->sln_sol[8] == 1 && p->sln_sol[9] == 0);
            EXPECT_TRUE(p->sln_id_entries == 2 && p->sln_files_entries == 5 && p->sln_files_size == 8);
            EXPECT_TRUE(p->sln_program_offset == section.size() - 1 && p->sln_program_size == 1);
            EXPECT_EQ(t.header(), p);
        }
}

TEST(Line, HeaderFailures)
{
    const std::string too_large = " too large for existing section size", long_name(1024, 'n'), fits(1023, 'n');
    const std::string too_long = "NOSPACE: string decoder requires 1025 bytes;  storage offers 1024 | failed to read ";
    const auto tables = [](const bytes &b) { return line_unit{.tables = b}; };
    const bytes no_dirs = bytes().u8(0), zeros = bytes().fill(4);
    const struct {
        line_unit u;
        std::string outcome; // without the last message
    } rows[] = {
        {{.unit_length = 0xfffffff0}, "CORRUPT: reserved value (0xfffffff0) in 4-byte unit_length"},
        {{.unit_length = 33}, "CORRUPT: unit_length (0x21)" + too_large}, // one too many
        {{.dwarf64 = true, .unit_length = MAX}, "CORRUPT: unit_length (0xffffffffffffffff)" + too_large},
        {{.dwarf64 = true, .unit_length = MAX - 11}, "CORRUPT: unit_length (0xfffffffffffffff4)" + too_large},
        {{.header_length = 33}, "CORRUPT: header_length (33) exceeds unit_length (32)"},
        {{.opcode_base = 0},
         "INVALID: cannot read 18446744073709551615 bytes; only 9 bytes remaining | failed to read "
         "standard_opcode_length[]"},
        {tables(bytes().cstr(long_name)), too_long + "include_directories entry"},
        {tables(no_dirs + bytes().cstr(long_name)), too_long + "file_names path"},
        {tables(no_dirs + bytes().cstr("a").uleb(1) + zeros), "CORRUPT: file_names index (1) is out of range"},
        {tables(bytes().cstr("d").u8(0).cstr("a").uleb(MAX) + zeros),
         "CORRUPT: file_names index (18446744073709551615) is out of range"},
        // Sound, if odd: names that just fit; opcode_base 1; tables that end with the unit.
        {tables(bytes().cstr(fits).u8(0).cstr(fits).uleb(1).uleb(0).uleb(0).u8(0)), "1 directories, 1 files, 0 bytes"},
        {{.opcode_base = 1, .program = program("sp 7")}, "0 directories, 1 files, 1 bytes"},
        {tables(bytes().cstr("d").cstr("e")), "2 directories, 0 files, 0 bytes"},
        {tables(no_dirs + bytes().cstr("a").u8(0).u8(0).u8(0)), "0 directories, 1 files, 0 bytes"},
    };
    for (const auto &row : rows) {
        lines t(row.u.build());
        const krv_lnph_t *p = t.header();
        EXPECT_EQ(p == nullptr ? t.h.error()
                               : text("%lu directories, %lu files, %lu bytes", p->sln_id_entries, p->sln_files_entries,
                                      p->sln_program_size),
                  row.outcome + (p == nullptr ? " | failed to read .debug_line header at offset 0" : ""));
        EXPECT_EQ(t.header(), p); // a failure is not kept
    }
}

// The fields that a unit misses which ends after each of its bytes.
static std::string missed_fields(const line_unit &u, uint32_t extensions)
{
    std::string seen, last;
    for_each_prefix(u.build(), [&](const bytes &prefix) {
        bytes cut = prefix.size() < 12 ? prefix : bytes(prefix).set(4, prefix.size() - 12, 8);
        if (u.v5 && prefix.size() >= 24) // the header ends there, too
            cut.set(16, prefix.size() - 24, 8);
        lines t(cut, nullptr, KRV_ACTIVATION_AMD64, extensions);
        if (prefix.size() == 0 || t.header() != nullptr)
            return;
        const std::string error = t.h.error(), start = " | failed to read ";
        const size_t from = error.find(start) + start.size();
        const std::string field = error.substr(from, error.find(" | ", from) - from);
        seen += field == last ? "" : field + ", ";
        last = field;
    });
    return seen;
}

TEST(Line, HeadersCutShort)
{
    line_unit u{.dwarf64 = true, .version = 4, .header_length = 0, .dirs = {"d"}, .files = {{"a", 1, 2, 3}}};
    const std::string start = "4-byte unit_length, 8-byte unit_length, version, ",
                      middle = "header_length, minimum_instruction_length, maximum_operations_per_instruction, "
                               "default_is_stmt, line_base, line_range, opcode_base, standard_opcode_length[], ";
    EXPECT_EQ(missed_fields(u, 0),
              start + middle +
                  "include_directories entry, file_names path, file_names index, file_names mtime, "
                  "file_names size, ");
    u.v5 = true;
    EXPECT_EQ(missed_fields(u, KRV_EXT_DWARF5),
              start + "address_size, segment_selector_size, " + middle +
                  "directory_entry_format_count, directory_entry_format, directories_count, directories entry, "
                  "file_name_entry_format_count, file_name_entry_format, file_names_count, file_names entry, ");
}

// Tables of version 5: how their entries are made up, what is left aside of them, and what their files' paths are.
TEST(Line, TablesOfVersion5)
{
    const bytes none = bytes::hex("00 00"),
                dirs = bytes::hex("01 01 1f 02 00000000 07000000"),             // path:line_strp "/build", "sub"
        names = bytes::hex("02 01 08 02 0b"), no_name = bytes::hex("01 02 0b"); // path:string directory:data1
    const auto one = [&](const char *format,
                         const char *values) { // a file by its format, in a table without directories
        return none + bytes::hex(format).u8(1).add(bytes::hex(values));
    };
    const auto refused = [](const std::string &cause, const char *last) {
        return cause + " | failed to read " + last + " | failed to read .debug_line header at offset 0";
    };
    const std::string behind = " | failed to read .debug_line header at offset 0";
    const bytes a0 = bytes().cstr("a.c").u8(0), b1 = bytes().cstr("b.c").u8(1), c9 = bytes().cstr("c.c").u8(9);
    const struct {
        const char *comp_dir;
        bytes tables;
        std::string paths;                // of its files, by number from 0 on; or the error state
        const char *as_written = nullptr; // where that is another
    } rows[] = {
        {"/unit", dirs + names + bytes().u8(3).add(a0).add(a0).add(b1), "/build/a.c /build/a.c /unit/sub/b.c"},
        {nullptr, dirs + names + bytes().u8(2).add(a0).add(b1), "/build/a.c /build/sub/b.c"},
        {"sub", bytes::hex("01 01 1f 01 07000000") + names + bytes().u8(1).add(a0), "sub/sub/a.c"},
        {"/unit", bytes::hex("01 01 1f 01 07000000") + names + bytes().u8(1).add(a0), "/unit/sub/a.c"},
        {"/unit", none + names + bytes().u8(1).add(a0), "/unit/a.c"}, // directory 0 is not written
        {"/unit", dirs + names + bytes().u8(1).add(c9), "CORRUPT: file_names index (9) is out of range" + behind,
         "/build/c.c"},
        // Every form: strings of .debug_line_str, .debug_str and by the unit's table; numbers, sums and vendors' types are
        // stepped over.
        {"",
         one("07 01 1f 02 0f 03 09 04 0d 05 1e 81 40 08 82 40 19",
             "07000000 00 02 ffff 7f 000102030405060708090a0b0c0d0e0f 7800"),
         "sub"},
        {"", one("05 03 0f 04 07 85 40 0a 86 40 17 01 0e", "8001 0000000000000000 02 eeee 04030201 01000000"), "trp"},
        {"", one("03 87 40 03 88 40 23 01 25", "0100 ee 05 01"), "by_index"},
        {"", one("01 01 1a", "01"), "by_index"},
        {"", one("01 01 1a", "03"),
         refused("CORRUPT: index 3 at base 0x8 leads out of .debug_str_offsets", "file_names entry")},
        {"", one("01 01 0f", "01"),
         refused("UNSUPPORTED: form 0xf (DW_FORM_udata) of content type 0x1", "file_name_entry_format")},
        {"", one("01 02 09", "00"),
         refused("UNSUPPORTED: form 0x9 (DW_FORM_block) of content type 0x2", "file_name_entry_format")},
        {"", one("01 81 40 21", "00"),
         refused("UNSUPPORTED: form 0x21 (DW_FORM_implicit_const) of content type 0x2001", "file_name_entry_format")},
        {"", one("01 03 0a", "05 00"),
         refused("CORRUPT: form DW_FORM_block1 requires 5 bytes;  1 remain", "file_names entry")},
        // Entries that take no bytes are none, however many there are said to be.
        {"", bytes::hex("00 ffffffffffffffff7f 01 03 19 ffffffffffffffff7f"), ""},
        {"", none + no_name + bytes::hex("02 00 00"), " "}, // no names
    };
    for (const auto &row : rows)
        for (const uint32_t extensions : {KRV_EXT_DWARF5, KRV_EXT_DWARF5 | KRV_EXT_AS_WRITTEN}) {
            lines t(line_unit{.v5 = true, .tables = row.tables, .program = program("copy")}.build(), row.comp_dir,
                    KRV_ACTIVATION_AMD64, extensions);
            t.h.attach(KRV_SEC_EXT_LINE_STR, bytes().cstr("/build").cstr("sub"));
            t.h.attach(KRV_SEC_STR, bytes().cstr("strp").cstr("by_index"));
            t.h.attach(KRV_SEC_EXT_STR_OFFSETS, bytes::hex("10000000 0500 0000 00000000 05000000 00000000"));
            t.cu->dcu_version = 5;
            t.cu->dcu_bases[KRV_BASE_STR_OFFSETS] = 8;
            krv_lnph_t *p = t.header();
            std::string paths;
            for (uint64_t i = 0; p != nullptr && i < p->sln_files_entries; ++i) {
                paths += (i == 0 ? "" : " ") + std::string(krv_lnfe_absolute_path(t.h, p->sln_files[i]));
                EXPECT_EQ(krv_lnph_file(p, i), p->sln_files[i]);
            }
            const bool other = row.as_written != nullptr && (extensions & KRV_EXT_AS_WRITTEN) != 0;
            EXPECT_EQ(p == nullptr ? t.h.error() : paths, other ? row.as_written : row.paths);
            EXPECT_TRUE(p == nullptr ||
                        (krv_lnph_file(p, p->sln_files_entries) == nullptr && p->sln_program_size == 1));
        }
    handle h;
    h.extend().attach(KRV_SEC_LINE, line_unit{.v5 = true, .tables = one("01 01 25", "01")}.build());
    EXPECT_TRUE(
        refuses(h, krv_lnph_alloc(h, nullptr, 0),
                refused("INVALID: string 1 is the unit's, and the header is read without one", "file_names entry")));
    lines six(line_unit{.version = 6}.build(), nullptr, KRV_ACTIVATION_AMD64, KRV_EXT_DWARF5);
    EXPECT_TRUE(refuses(six.h, six.header(), "UNSUPPORTED: line-number program of version 6" + behind));
}

TEST(Line, UnitsWithoutLines)
{
    lines none{bytes()};
    EXPECT_TRUE(refuses(none.h, none.header(),
                        "INVALID: section is empty | couldn't seek to 0 in .debug_line | "
                        "failed to read .debug_line header at offset 0"));
    handle h;
    krv_ctu_t *cu = h.first_unit(abbrevs("1 compile_unit"), unit{.dies = bytes().uleb(1)}.build());
    EXPECT_TRUE(refuses(h, korva_line_get_cu_lnph(h, cu), "NOTFOUND"));
    EXPECT_TRUE(refuses(h, korva_lookup_source_by_cu_and_addr(h, cu, 0, 10, 5, 0),
                        "NOTFOUND: couldn't find line number header for CU"));
    krv_ctu_t types = {};
    types.dcu_section = KRV_SEC_TYPES;
    EXPECT_TRUE(
        refuses(h, korva_line_get_cu_lnph(h, &types), "INVALID: only .debug_info can refer to a line number header"));
}

TEST(Line, Paths)
{
    const std::string d1000(1000, 'd'), f1000(1000, 'f');
    const struct {
        const char *comp_dir;
        std::string dir;
        uint64_t index;
        std::string name, path;
    } rows[] = {
        {"/build", "src", 1, "a.s", "/build/src/a.s"},
        {"/build/", "src/", 1, "a.s", "/build/src/a.s"},
        {"/build", "/usr", 1, "a.s", "/usr/a.s"},
        {"/build", "src", 1, "/abs/b.s", "/abs/b.s"},
        {"/build", "src", 0, "a.s", "/build/a.s"},
        {nullptr, "src", 1, "a.s", "src/a.s"},
        {nullptr, "src", 0, "a.s", "a.s"},
        {"", "src", 0, "a.s", "a.s"},
        {"/build", d1000, 1, f1000, "/build/" + d1000 + "/" + f1000.substr(0, 15)},
    };
    for (const auto &row : rows) {
        lines t(line_unit{.dirs = {row.dir}, .files = {{row.name, row.index}}}.build(), row.comp_dir);
        krv_lnph_t *p = t.header();
        ASSERT_NE(p, nullptr) << t.h.error();
        for_each_room(row.path.size() + 1, [&](uint8_t *room, size_t size, bool fits) { // as strncpy does
            auto *buf = reinterpret_cast<char *>(room);
            EXPECT_EQ(korva_lnfe_get_path(t.h, p->sln_files[0], buf, size, B_TRUE), 0);
            EXPECT_EQ(std::string(buf, strnlen(buf, size)), row.path);
            EXPECT_TRUE(!fits || buf[size - 1] == '\0');
        });
        EXPECT_EQ(p->sln_files[0]->slnfe_path, row.name);
    }
}
