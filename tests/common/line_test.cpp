// SPDX-License-Identifier: Apache-2.0
//
// Line-number programs, source lookup, and access to fields.
#include "lines.h"

#include "korva.hpp"
#include "krv_names.h"

#include <algorithm>
#include <sstream>
#include <utility>

using namespace krv_test;

static constexpr uint64_t MAX = UINT64_MAX;

// Programs

TEST(Line, Matrices)
{
    const line_unit any, base10{.opcode_base = 10}, odd_stmt{.default_is_stmt = 2}, no_files{.files = {}};
    const line_unit by_4{.version = 4, .mil = 4, .mopi = 4}, by_3{.version = 4, .mil = 2, .mopi = 3};
    const std::string bad = " | error sorting matrix sequences";
    const struct {
        line_unit u;
        const char *recipe;
        std::string outcome;
    } rows[] = {
        {any, "", ""},
        {any, "at 400 sp 75 pc 4 end", "404 1:2 I; 408 1:2 IG ^404 [404,408)"}, // +4, +1
        {any, "at 400 const_pc copy", "411 1:1 I"},                             // open to the end: a row, no sequence
        {base10, "at 0 sp 13 sp 255 copy", "0 1:4294967295 I; 11 1:1 I; 11 1:1 I"}, // line 1 - 2 + 2
        {odd_stmt, "at 8 copy stmt copy", "8 1:1; 8 1:1 I"},
        {any, "at 1 bb pe eb disc 7 isa 3 col 9 copy copy", "1 1:1:9 IBPE i3 d7; 1 1:1:9 I i3"},
        {any, "at 400 line -2 copy line 5 copy", "400 1:4294967295 I; 400 1:4 I"},
        {by_4, "at 400 pc 6 copy pc 7 copy sp 60 const_pc copy fixed 256 copy pc 1 at 900 copy",
         "404.2 1:1 I; 40c.1 1:1 I ^404; 410 1:1 I ^404; 420.1 1:1 I ^404; 520 1:1 I ^404; 900 1:1 I ^404"},
        {by_3, "at 0 pc 1 pc 18446744073709551615 copy", "aaaaaaaaaaaaaaaa.1 1:1 I"},
        {no_files, "at 400 copy", "400 1:1 I"},
        {any, "def gen.c 0 0 0 file 2 copy", "0 2:1 I"},
        {any, "at 500 copy end at 100000000 copy pc 1 end",
         "CORRUPT: matrix contains inverted sequence between rows 0 and 1 (addresses 0x500 and 0x500)" + bad},
        {any, "at 400 copy isa 300 pc 4 copy pc 4 end at 100000500 line 1 copy pc 4 end",
         "400 1:1 I; 404 1:1 I i300 ^400; 408 1:1 IG i300 ^400; 100000500 1:2 I; 100000504 1:2 IG ^100000500 [400,408) "
         "[100000500,100000504)"},
        {any, "end at 400 copy pc 4 end", "0 1:1 IG; 400 1:1 I ^0; 404 1:1 IG ^0 [400,404)"},
        {any, "at 500 copy pc 8 end at 400 copy pc 256 end at 300 line 1 copy pc 1 end",
         "500 1:1 I ^400; 508 1:1 IG ^400; 400 1:1 I; 500 1:1 IG ^400; 300 1:2 I; 301 1:2 IG ^300 [300,301) [400,500) "
         "[500,508)"},
        {any, "at 400 copy pc 16 copy pc 1 end at 380 copy file 0 copy pc 1 end",
         "400 1:1 I ^380; 410 1:1 I ^380; 411 1:1 IG ^380; 380 1:1 I; 380 0:1 I; 381 0:1 IG ^380 [380,381) [400,411)"},
        {any, "at 500 copy end",
         "CORRUPT: matrix contains inverted sequence between rows 0 and 1 (addresses 0x500 and 0x500)" + bad},
        {any, "at 100 copy pc 1 end at 500 copy at 4ff end",
         "CORRUPT: matrix contains inverted sequence between rows 2 and 3 (addresses 0x500 and 0x4ff)" + bad},
        {any, "at 500 copy pc 8 end at 400 copy pc 257 end",
         "CORRUPT: matrix contains overlapping sequences (0x400--0x501 and 0x500--0x508)" + bad},
    };
    for (const auto &row : rows) {
        line_unit u = row.u;
        u.program = program(row.recipe);
        lines t(u.build());
        krv_lnp_t *lnpp = t.matrix();
        EXPECT_EQ(to_text(t.h, lnpp), row.outcome);
        EXPECT_EQ(lnpp == nullptr ? nullptr : t.matrix(), lnpp);
    }
    lines i386(line_unit{.program = program("at fffffff0 copy", 4)}.build(), nullptr, KRV_ACTIVATION_I386);
    EXPECT_EQ(to_text(i386.h, i386.matrix()), "fffffff0 1:1 I");
}

// Programs as linkers leave them, and with what the library does not know: what is kept, and what is told.
TEST(Line, MatricesAsWritten)
{
    const line_unit any,
        base14{.opcode_base = 14, .opcode_lengths = bytes::hex("00 01 01 01 01 00 00 00 01 00 00 01 02")},
        v5{.v5 = true}, mopi0{.version = 4, .mopi = 0}, more_header{.version = 2, .header_length = 28};
    const auto left_out = [](unsigned dropped, unsigned all) {
        return text(
            ".debug_line 0 %u of %u sequences of the line-number program at offset 0x0 describe code that is not in "
            "the file: left out\n",
            dropped, all);
    };
    const struct {
        line_unit u;
        std::string recipe, outcome, notes;
        const char *without_code = nullptr; // where no executable section was named, if that is another
    } rows[] = {
        {any, "at 500 copy pc 8 end at 400 copy pc 16 end",
         "500 1:1 I ^400; 508 1:1 IG ^400; 400 1:1 I; 410 1:1 IG ^400 "
         "[400,410) [500,508)",
         ""},
        // Those that linkers dropped: by their address, outside every section, or empty.
        {any,
         "at 0 copy pc 8 end at 400 copy pc 16 end at 1 copy pc 9 end at ffffffffffffffff copy pc 1 end "
         "at fffffffffffffffe copy pc 1 end at 500 line 1 copy end at 480 copy at 470 end",
         "400 1:1 I; 410 1:1 IG ^400 [400,410)", left_out(6, 7)},
        {any, "at 400 copy pc 16 end at 2000 copy pc 16 end at ff8 copy pc 9 end",
         "400 1:1 I; 410 1:1 IG ^400 [400,410)", left_out(2, 3),
         "400 1:1 I; 410 1:1 IG ^400; 2000 1:1 I ^400; 2010 1:1 IG ^400; ff8 1:1 I ^400; 1001 1:1 IG ^400 [400,410) "
         "[ff8,1001) [2000,2010)"},
        // Of those that overlap the first that came stays.
        {any,
         "at 440 copy pc 16 end at 400 line 1 copy pc 65 end at 44f line 2 copy pc 9 end at 450 line 3 copy pc 1 end",
         "440 1:1 I; 450 1:1 IG ^440; 450 1:4 I; 451 1:4 IG ^450 [440,450) [450,451)", left_out(2, 4)},
        {any, "at 400 copy pc 255 end at 410 copy pc 1 end at 420 copy pc 1 end",
         "400 1:1 I; 4ff 1:1 IG ^400 [400,4ff)", left_out(2, 3)},
        // Rows that fall are put in order; what is open is closed; an end without rows is nothing.
        {any, "end at 480 copy at 440 line 1 copy line 1 copy at 4a0 end",
         "440 1:2 I; 440 1:3 I; 480 1:1 I; 4a0 1:3 IG "
         "^440 [440,4a0)",
         ""},
        {any, "at 400 copy pc 16 line 1 copy pc 4", "400 1:1 I; 410 1:2 I; 414 1:2 IG ^410 [400,414)", ""},
        // Opcodes that are not known; lengths that tell more than operands do, of an address too; padding.
        {any, "at 400 copy ext 128 pc 4 byte 0 byte 4 byte 129 byte 1 byte 2 byte 3 copy pc 4 end",
         "400 1:1 I; 404 1:1 I ^400; 408 1:1 IG ^400 [400,408)", ""},
        {any, "at 400 copy byte 0 byte 4 byte 4 byte 7 byte 9 byte 9 copy byte 0 byte 0 copy copy pc 4 end",
         "400 1:1 I; 400 1:1 I d7; 400 1:1 I; 400 1:1 I; 404 1:1 IG ^400 [400,404)", ""},
        {any, "byte 0 byte 5 byte 2 byte 0 byte 4 byte 0 byte 0 copy pc 4 end", "400 1:1 I; 404 1:1 IG ^400 [400,404)",
         ""},
        {base14, "at 400 byte 13 byte 200 byte 1 byte 7 copy pc 4 end", "400 1:1 I; 404 1:1 IG ^400 [400,404)", ""},
        // Numbers beyond their registers; files and columns that are none; no operations.
        {any, "at 400 file 3 col 65536 disc 65537 isa 99999 copy file 0 copy file 4294967296 copy pc 4 end",
         "400 3:1:65535 I i65535 d65535; 400 0:1:65535 I i65535; 400 4294967295:1:65535 I i65535; "
         "404 4294967295:1:65535 IG i65535 ^400 [400,404)",
         ""},
        {any, "at 400 def b.c 9 0 0 file 2 copy pc 4 end", "400 2:1 I; 404 2:1 IG ^400 [400,404)", ""},
        {v5, "at 400 copy file 0 copy pc 4 end", "400 1:1 I; 400 0:1 I; 404 0:1 IG ^400 [400,404)", ""},
        {mopi0, "at 400 copy pc 4 end", "400 1:1 I; 404 1:1 IG ^400 [400,404)", ""},
        {more_header, "byte 9 byte 9 at 400 copy pc 4 end", "400 1:1 I; 404 1:1 IG ^400 [400,404)", ""},
    };
    for (const auto &row : rows)
        for (const bool names_code : {true, false}) {
            line_unit u = row.u;
            u.program = program(row.recipe);
            lines t(u.build(), nullptr, KRV_ACTIVATION_AMD64, KRV_EXT_DWARF5 | KRV_EXT_AS_WRITTEN);
            if (!names_code)
                t.h->sh_code_entries = 0;
            const bool other = !names_code && row.without_code != nullptr;
            krv_lnp_t *lnpp = t.matrix();
            EXPECT_EQ(to_text(t.h, lnpp), other ? row.without_code : row.outcome);
            EXPECT_EQ(t.h.notes, other ? "" : row.notes);
        }
}

TEST(Line, ProgramFailures)
{
    const std::string unterminated = "CORRUPT: DW_FORM_udata datum unterminated by end of section";
    const std::string wide_2 = "NOSPACE: DW_FORM_udata datum requires 4 bytes;  storage offers 2";
    const std::string behind = " in .debug_line;  header begins at 0\n",
                      def_long = "def " + std::string(1024, 'f') + " 0 0 0";
    const line_unit any, base14{.opcode_base = 14}, range0{.line_range = 0}, mopi0{.version = 4, .mopi = 0};
    const struct {
        line_unit u;
        std::string recipe, cause;
        unsigned int number;
        int at;                        // offset of the failure; the program begins at 36
        krv_def_t names = KRV_DEF_LNS; // of the opcode
    } rows[] = {
        {any, "ext 128", "UNSUPPORTED: unsupported extended opcode 128 at offset 40" + behind, 128, 40},
        {base14, "byte 13", "UNSUPPORTED: unsupported standard opcode 13 at offset 38" + behind, 13, 38},
        {any, "file 3", "CORRUPT: file 3 specified but only 1 are defined", 4, 38},
        {any, "at 100 copy file 3 copy copy copy", "CORRUPT: file 3 specified but only 1 are defined", 4, 50},
        {any, "file 4294967296", "NOSPACE: DW_FORM_udata datum requires 8 bytes;  storage offers 4", 4, 37},
        {any, "col 65536", wide_2, 5, 37},
        {any, "disc 65536", wide_2, 4, 39, KRV_DEF_LNE},
        {any, "def f 1 0 0", "CORRUPT: file_names index (1) is out of range", 3, 44, KRV_DEF_LNE},
        {any, def_long, "NOSPACE: string decoder requires 1025 bytes;  storage offers 1024", 3, 40, KRV_DEF_LNE},
        {any, "byte 2", unterminated, 2, 37},
        {any, "byte 3", "CORRUPT: DW_FORM_sdata datum unterminated by end of section", 3, 37},
        {any, "byte 9 byte 1", "CORRUPT: form DW_FORM_data2 requires 2 bytes;  1 remaining", 9, 37},
        {any, "byte 0 byte 9", unterminated, 0, 38},
        {any, "ext 2", "CORRUPT: form DW_FORM_addr requires 8 bytes;  0 remaining", 2, 39, KRV_DEF_LNE},
        {range0, "sp 77", "CORRUPT: line_range is zero", 77, 37},
        {range0, "const_pc", "CORRUPT: line_range is zero", 8, 37},
        {mopi0, "pc 1", "CORRUPT: maximum_operations_per_instruction is zero", 2, 39},
    };
    for (const auto &row : rows) {
        line_unit u = row.u;
        u.program = program(row.recipe);
        lines t(u.build());
        const std::string name = row.number == 77 ? "special" : krv_name_or_unknown(row.names, row.number);
        const std::string outcome = row.cause + text(" | error processing opcode %u (%s) or its operand at offset %d%s",
                                                     row.number, name.c_str(), row.at, behind.c_str());
        EXPECT_EQ(to_text(t.h, t.matrix()), outcome);
        EXPECT_TRUE(refuses(t.h, korva_lookup_source_by_cu_and_addr(t.h, t.cu, 0, 10, 5, 0),
                            outcome + " | couldn't find line number program for CU"));
    }
}

namespace
{

// Every call of a program walk, "+offset opcode(values) registers" each, the offset counted from the first opcode.
struct walk {
    size_t stop_at = 0;
    uint64_t first = 0;
    size_t calls = 0;
    std::string seen = {};

    static int add(krv_handle_t *hp, unsigned long offset, unsigned char opcode, krv_value_t **values,
                   unsigned int nvalues, krv_lns_t *state, void *arg)
    {
        auto *w = static_cast<walk *>(arg);
        w->first = w->calls++ == 0 ? offset : w->first;
        w->seen += text(w->calls == 1 ? "+%lu %u(" : "; +%lu %u(", offset - w->first, opcode);
        for (unsigned i = 0; i < nvalues; ++i) {
            const bool name = opcode == 0 && i == 1 && values[0]->sa_u.su_unsigned == DW_LNE_define_file;
            w->seen += i == 0 ? "" : " ";
            w->seen += name ? static_cast<char *>(values[i]->sa_u.su_addr) : std::to_string(values[i]->sa_u.su_signed);
            EXPECT_EQ(values[i]->sa_form, 0);
        }
        w->seen += ") " + to_text(hp, state, false);
        uint64_t canonical = 1; // neither of the two is known before the program ends
        EXPECT_EQ(korva_lns_get_filep(hp, state), nullptr);
        EXPECT_EQ(korva_lns_get_canonical_address(hp, state, &canonical), 0);
        EXPECT_EQ(canonical, 0U);
        return w->calls == w->stop_at ? 7 : 0;
    }
};

} // namespace

TEST(Line, Walk)
{
    lines t("at 400 pc 300 line -3 file 1 col 5 stmt bb const_pc fixed 16 pe eb isa 2 disc 6 sp 33 def gen.c 0 8 9 "
            "copy pc 1 end");
    walk all, three{.stop_at = 3};
    EXPECT_EQ(korva_iter_line_entry(t.h, t.header(), walk::add, &all), 0);
    EXPECT_EQ(all.seen, "+0 0(2 1024) 400 1:1 I; +11 2(300) 52c 1:1 I; +14 3(-3) 52c 1:4294967294 I; "
                        "+16 4(1) 52c 1:4294967294 I; +18 5(5) 52c 1:4294967294:5 I; +20 6() 52c 1:4294967294:5; "
                        "+21 7() 52c 1:4294967294:5 B; +22 8() 53d 1:4294967294:5 B; +23 9(16) 54d 1:4294967294:5 B; "
                        "+26 10() 54d 1:4294967294:5 BP; +27 11() 54d 1:4294967294:5 BPE; "
                        "+28 12(2) 54d 1:4294967294:5 BPE i2; +30 0(4 6) 54d 1:4294967294:5 BPE i2 d6; "
                        "+34 33() 54e 1:4294967295:5 i2; +35 0(3 gen.c 0 8 9) 54e 1:4294967295:5 i2; "
                        "+47 1() 54e 1:4294967295:5 i2; +48 2(1) 54f 1:4294967295:5 i2; +50 0(1) 0 1:1 I");
    EXPECT_EQ(t.header()->sln_lnp, nullptr); // neither used nor filled
    EXPECT_EQ(korva_iter_line_entry(t.h, t.header(), walk::add, &three), 7);
    EXPECT_EQ(three.calls, 3U);
    EXPECT_EQ(t.h.error(), "IO");
}

// Units of one program: what is shared cannot be told from what each has read for itself.
TEST(Line, UnitsOfOneProgram)
{
    const auto section = [](const char *recipe) { return line_unit{.program = program(recipe)}.build(); };
    const bytes rows = section("at 400 line 0 copy pc 4 end"),
                defines = section("def b.c 0 0 0 at 400 file 2 copy pc 4 end"),
                other = section("at 400 line 6 copy pc 4 end");
    const bytes abbrev = abbrevs("1 compile_unit stmt_list:data1 comp_dir:string; 2 compile_unit stmt_list:data1");
    const bytes in_a = bytes().u8(1).u8(0).cstr("/a");
    const struct {
        // .debug_line, which is attached anew when two units have their headers, one its rows
        const bytes &before, &after;
        const char *answers[4]; // of each unit: its files, its row and the file of that
    } table[] = {
        {rows, rows, {"1 1 /a/a.c", "1 1 /a/a.c", "1 1 /b/a.c", "1 1 a.c"}},
        {defines, defines, {"2 1 b.c", "2 1 b.c", "2 1 b.c", "2 1 b.c"}},
        {rows, other, {"1 1 /a/a.c", "1 7 /a/a.c", "1 7 /b/a.c", "1 7 a.c"}},
        {other, rows, {"1 7 /a/a.c", "1 1 /a/a.c", "1 1 /b/a.c", "1 1 a.c"}},
    };
    for (const auto &row : table) {
        handle h;
        bytes info;
        for (const bytes &root : {in_a, in_a, bytes().u8(1).u8(0).cstr("/b"), bytes().u8(2).u8(0)})
            info += unit{.dies = root}.build();
        h.attach(KRV_SEC_LINE, row.before).attach(KRV_SEC_ABBREV, abbrev).attach(KRV_SEC_INFO, info);
        const auto units = korva::handle_view(h).units();
        ASSERT_EQ(units.size(), 4U);
        std::vector<const void *> headers;
        for (size_t i = 0; i < 4; ++i) {
            krv_lns_t *r = korva_lookup_source_by_cu_and_addr(h, units[i].get(), 0, MAX, 0x402, 0);
            ASSERT_NE(r, nullptr) << h.error();
            krv_lnph_t *header = korva_line_get_cu_lnph(h, units[i].get());
            char *path = nullptr, copy[20];
            EXPECT_EQ(korva_get_fields(h, KRV_STRUCT_LNFE, krv_lns_file(r), 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path), 0);
            EXPECT_EQ(korva_lnfe_get_path(h, krv_lns_file(r), copy, sizeof(copy), B_TRUE), 0);
            EXPECT_STREQ(path, copy);
            EXPECT_EQ(krv_lns_file(r), krv_lnph_file(header, krv_lns_get(r).slns_file));
            EXPECT_EQ(text("%lu %u %s", header->sln_files_entries, krv_lns_get(r).slns_line, path), row.answers[i]);
            EXPECT_EQ(std::count(headers.begin(), headers.end(), header), 0);
            headers.push_back(header);
            if (i == 0) {
                korva_line_get_cu_lnph(h, units[1].get());
                h.attach(KRV_SEC_LINE, row.after);
            }
        }
    }
}

// What fails for one unit fails for the next without being read again, in input as it is written: a section that was set
// right meanwhile shows it. Otherwise it is read each time.
TEST(Line, FailuresOfOneProgram)
{
    const bytes sound = line_unit{.program = program("at 400 copy pc 16 copy end")}.build();
    const size_t version = 4, header_length = 6, last = sound.size() - 1; // the number of the last opcode
    const struct {
        size_t at;
        uint8_t wrong;
    } rows[] = {{header_length, 0xff}, {last, 0x81}, {version, 6}};
    for (const auto &row : rows)
        for (const bool extended : {false, true}) {
            if (!extended && row.at == version)
                continue; // is any
            handle h;
            if (extended)
                h.extend();
            bytes info, section = sound;
            for (unsigned i = 0; i < 2; ++i)
                info += unit{.dies = bytes().u8(1).u32(0)}.build();
            h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit stmt_list:sec_offset")).attach(KRV_SEC_INFO, info);
            h.attach(KRV_SEC_LINE, section);
            uint8_t *at = h->sh_sec[KRV_SEC_LINE].sfd_u.buf + row.at;
            const uint8_t right = std::exchange(*at, row.wrong);
            std::vector<std::string> seen;
            for (const korva::unit &u : korva::handle_view(h).units()) {
                const bool found = korva_lookup_source_by_cu_and_addr(h, u.get(), 0, MAX, 0x402, 0) != nullptr;
                seen.push_back(found ? "found" : h.error());
                *at = right;
            }
            ASSERT_EQ(seen.size(), 2U);
            EXPECT_NE(seen[0], "found");
            EXPECT_EQ(seen[1], extended ? seen[0] : "found");
        }
}

// Lookup and fields

TEST(Line, Lookup)
{
    const char *dense = "at 100 copy pc 4 line 1 copy line 1 copy pc 12 line 1 copy pc 16 end", *no_row = "NOTFOUND";
    const char *two = "at 100 copy pc 32 end at 200 line 1 copy pc 64 end";
    const char *falling = "at 100 copy at 80 line 1 copy at 110 end",
               *addr_120 = "INVALID: addr (0x120) does not lie in "
                           "range described by start (0x100) and size (0x20)";
    const struct {
        const char *recipe;
        uint64_t bias, start, size, addr;
        const char *outcome; // the row, by its unbiased address; or the error state
    } rows[] = {
        {dense, 0, 0x100, 0x20, 0x100, "100 1:1 I"},
        {dense, 0, 0x100, 0x20, 0x104, "104 1:3 I"}, // the last of two rows
        {dense, 0, 0x100, 0x20, 0x11f, "110 1:4 I"},
        {dense, 0x10000, 0x10100, 0x20, 0x10106, "104 1:3 I"},
        {dense, MAX - 0xff, 0, 0x20, 6, "104 1:3 I"}, // 6 - bias wraps to 0x106
        {dense, 0, 0x100, 0x20, 0x120, addr_120},
        {dense, 0, 0x121, 0x20, 0x120,
         "INVALID: addr (0x120) does not lie in range described by start (0x121) and size (0x20)"},
        {two, 0, 0x100, 0x100, 0x130, "100 1:1 I"}, // just up to the next sequence
        {two, 0, 0x100, 0x101, 0x130, no_row},
        {two, 0, 0x120, 0x120, 0x1f0, "200 1:2 I"}, // just behind the previous one
        {two, 0, 0x11f, 0x121, 0x1f0, no_row},
        {two, 0, 0x23f, 0x200, 0x300, "200 1:2 I"},
        {two, 0, 0x240, 0x200, 0x300, no_row},
        {two, 0, 0, 0x101, 0x10, "100 1:1 I"},
        {two, 0, 0, 0x100, 0x10, no_row},
        {falling, 0, 0x100, 0x40, 0x105, "80 1:2 I"},
        {"at 100 copy pc 240 copy pc 4 copy pc 4 copy pc 4 copy pc 4 end", 0, 0x100, 0x100, 0x180, "100 1:1 I"},
        {"at 100 copy at 180 line 1 copy at 104 line 1 copy at 120 end", 0, 0x100, 0x20, 0x105, "100 1:1 I"},
    };
    for (const auto &row : rows) {
        lines t(row.recipe);
        if (row.bias != 0) // unset means 0
            korva_handle_set_opt(t.h, KRV_OPT_BASE_ADDR, row.bias);
        krv_lns_t *r = korva_lookup_source_by_cu_and_addr(t.h, t.cu, row.start, row.size, row.addr, 0xffff);
        EXPECT_EQ(r == nullptr ? t.h.error() : to_text(t.h, r, true), row.outcome) << std::hex << row.addr;
        uint64_t canonical = 0;
        EXPECT_EQ(korva_lns_get_canonical_address(t.h, r, &canonical), r == nullptr ? -1 : 0);
        EXPECT_TRUE(r == nullptr || canonical == krv_lns_canonical_address(t.h, r) + row.bias);
        krv_row_t value;
        ASSERT_EQ(korva_lookup_row(t.h, t.cu, row.start, row.size, row.addr, &value), r == nullptr ? -1 : 0);
        if (r == nullptr) {
            EXPECT_EQ(t.h.error(), row.outcome);
            continue;
        }
        const krv_line_state_t told = krv_lns_get(r);
        EXPECT_TRUE(value.address == told.slns_address + row.bias && value.file == krv_lns_file(r));
        EXPECT_TRUE(value.number == r->slns_number && value.line == told.slns_line);
        EXPECT_EQ(korva_lookup_source_by_cu_and_addr(t.h, t.cu, row.start, row.size, row.addr, 0), r);
    }
}

TEST(Line, Fields)
{
    line_unit u{.version = 4, .mopi = 2, .dirs = {"src"}, .files = {{"a.c", 1, 2, 3}}};
    u.program = program("at 400 col 7 isa 4 disc 5 bb pe copy pc 4 line 2 bb eb copy pc 7 pe end");
    lines t(u.build(), "/build");
    korva_handle_set_opt(t.h, KRV_OPT_BASE_ADDR, 0x10000UL); // never applied here
    krv_lnph_t *lnph = t.header();
    uint64_t u64[5];
    uint16_t version;
    uint8_t u8[5], *sol;
    int8_t base;
    char **dirs, *path[2];
    krv_lnfe_t **files;
    krv_lnp_t *lnp;
    ASSERT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNPH, lnph, 15, KRV_FIELD_LNPH_UNIT_LENGTH, &u64[0],
                               KRV_FIELD_LNPH_VERSION, &version, KRV_FIELD_LNPH_HEADER_LENGTH, &u64[1],
                               KRV_FIELD_LNPH_MIL, &u8[0], KRV_FIELD_LNPH_MOPI, &u8[1], KRV_FIELD_LNPH_DEFAULT_IS_STMT,
                               &u8[2], KRV_FIELD_LNPH_LINE_BASE, &base, KRV_FIELD_LNPH_LINE_RANGE, &u8[3],
                               KRV_FIELD_LNPH_OPCODE_BASE, &u8[4], KRV_FIELD_LNPH_SOL, &sol, KRV_FIELD_LNPH_ID, &dirs,
                               KRV_FIELD_LNPH_ID_ENTRIES, &u64[2], KRV_FIELD_LNPH_FILES, &files,
                               KRV_FIELD_LNPH_FILES_ENTRIES, &u64[3], KRV_FIELD_LNPH_LNP, &lnp),
              0);
    EXPECT_EQ(text("%lu %lu %u %u %u %u %d %u %u %u %s %lu %lu", u64[0], u64[1], version, u8[0], u8[1], u8[2], base,
                   u8[3], u8[4], sol[1], dirs[0], u64[2], u64[3]),
              text("%lu %lu 4 1 2 1 -5 14 13 1 src 1 1", lnph->sln_unit_length, lnph->sln_header_length));
    EXPECT_EQ(lnp, t.matrix());
    ASSERT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNFE, files[0], 5, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path[0],
                               KRV_FIELD_LNFE_PATH, &path[1], KRV_FIELD_LNFE_DIRIDX, &u64[0], KRV_FIELD_LNFE_MTIME,
                               &u64[1], KRV_FIELD_LNFE_SIZE, &u64[2]),
              0);
    EXPECT_EQ(text("%s %s %lu %lu %lu", path[0], path[1], u64[0], u64[1], u64[2]), "/build/src/a.c a.c 1 2 3");
    EXPECT_TRUE(korva_lnfe_path(t.h, files[0], B_TRUE) == path[0] &&
                korva_lnfe_path(t.h, files[0], B_FALSE) == path[1]);
    EXPECT_EQ(korva_lnfe_get_mtime(t.h, files[0], &u64[3]) + korva_lnfe_get_size(t.h, files[0], &u64[4]), 0);
    EXPECT_TRUE(u64[3] == 2 && u64[4] == 3);

    // A matrix gives columns, a row one element of each; the accessors tell the same, addresses with the bias.
    const auto column = [&]<typename T>(int field, int (*get)(krv_handle_t *, krv_lns_t *, T *), uint64_t bias = 0) {
        T all[3], one, told;
        unsigned int entries = 0;
        EXPECT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNP, lnp, 2, field, all, KRV_FIELD_LNP_ENTRIES, &entries), 0);
        EXPECT_EQ(entries, 3U);
        std::string seen;
        for (unsigned i = 0; i < 3; ++i) {
            krv_lns_t *row = krv_lnp_hand_out(t.h, lnp, i);
            EXPECT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNS, row, 1, field, &one) + get(t.h, row, &told), 0);
            const auto value = static_cast<uint64_t>(one);
            EXPECT_TRUE(one == all[i] && static_cast<uint64_t>(told) == value + bias) << field;
            seen += text(i == 0 ? "%lx" : " %lx", value);
        }
        return seen;
    };
    EXPECT_EQ(column(KRV_FIELD_LNS_ADDRESS, korva_lns_get_address, 0x10000), "400 402 405");
    EXPECT_EQ(column(KRV_FIELD_LNS_OP_INDEX, korva_lns_get_op_index), "0 0 1");
    EXPECT_EQ(column(KRV_FIELD_LNS_FILE, korva_lns_get_file), "1 1 1");
    EXPECT_EQ(column(KRV_FIELD_LNS_LINE, korva_lns_get_line), "1 3 3");
    EXPECT_EQ(column(KRV_FIELD_LNS_COLUMN, korva_lns_get_column), "7 7 7");
    EXPECT_EQ(column(KRV_FIELD_LNS_ISA, korva_lns_get_isa), "4 4 4");
    EXPECT_EQ(column(KRV_FIELD_LNS_DISCRIMINATOR, korva_lns_get_discriminator), "5 0 0");
    EXPECT_EQ(column(KRV_FIELD_LNS_IS, korva_lns_get_is), "1 1 1");
    EXPECT_EQ(column(KRV_FIELD_LNS_BB, korva_lns_get_bb), "1 1 0");
    EXPECT_EQ(column(KRV_FIELD_LNS_ES, korva_lns_get_es), "0 0 1");
    EXPECT_EQ(column(KRV_FIELD_LNS_PE, korva_lns_get_pe), "1 0 1");
    EXPECT_EQ(column(KRV_FIELD_LNS_EB, korva_lns_get_eb), "0 1 0");
    EXPECT_EQ(column(KRV_FIELD_LNS_C_ADDRESS, korva_lns_get_canonical_address, 0x10000), "400 402 402");
}

TEST(Line, FieldFailures)
{
    lines t("at 400 copy pc 4 end"), bad("def b.c 0 0 0 ext 9"), fresh("at 400 copy pc 4 end");
    krv_lnp_t *lnp = t.matrix(), *none = lnp;
    krv_lns_t *row = krv_lnp_hand_out(t.h, lnp, 0);
    uint32_t kept = 77, set = 77;
    constexpr int LINE = KRV_FIELD_LNS_LINE, LNP = KRV_FIELD_LNPH_LNP, ENTRIES = KRV_FIELD_LNP_ENTRIES;
    EXPECT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNS, row, 0), 0);
    EXPECT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNS, row, 3, LINE, &kept, LINE, &set, KRV_FIELD_LNS_FILE, nullptr), 0);
    EXPECT_EQ(set, 1U); // the later destination
    EXPECT_TRUE(
        refuses(t.h, korva_get_fields(t.h, KRV_STRUCT_LNS, row, 4, 0, &kept, LINE, &kept, ENTRIES, &kept, 34, &kept),
                "INVALID: illegal field 0 specified | illegal field 32 specified | illegal field 34 specified"));
    EXPECT_EQ(korva_get_fields(t.h, KRV_STRUCT_LNP, lnp, 2, ENTRIES, &kept, -1, &kept), -1);
    EXPECT_TRUE(refuses(t.h, korva_get_fields(t.h, 4, row, 1, LINE, &kept), "INVALID: illegal struct 4 specified"));
    EXPECT_EQ(bad.matrix(), nullptr);
    const std::string error = bad.h.error() + " | unable to generate line number matrix";
    const std::string behind = error.substr(error.find(": ") + 2);
    const struct {
        lines &of;
        int first, second, third;
        std::string outcome;
    } rows[] = {
        {bad, KRV_FIELD_LNPH_MIL, KRV_FIELD_LNPH_MOPI, LNP, error},
        {bad, LNP, LNP, KRV_FIELD_LNPH_MIL, error},
        {bad, 99, LNP, 98, "INVALID: illegal field 99 specified | " + behind + " | illegal field 98 specified"},
        {bad, 99, 98, LNP, "UNSUPPORTED: illegal field 99 specified | illegal field 98 specified | " + behind},
        {fresh, 99, LNP, LNP, "INVALID: illegal field 99 specified"}, // and a matrix is built behind it
    };
    for (const auto &r : rows)
        EXPECT_TRUE(refuses(r.of.h,
                            korva_get_fields(r.of.h, KRV_STRUCT_LNPH, r.of.header(), 3, r.first, &kept, r.second, &none,
                                             r.third, &kept),
                            r.outcome));
    EXPECT_NE(fresh.header()->sln_lnp, nullptr);
    EXPECT_EQ(bad.header()->sln_files_entries, 1U + 6); // by as many executions
    EXPECT_TRUE(kept == 77 && none == lnp);
    EXPECT_EQ(korva_lns_get_line(t.h, row, nullptr) + korva_lns_get_es(t.h, row, nullptr), -2);
    EXPECT_EQ(korva_handle_get_errno(t.h), KRV_ERR_INVALID);
}

// A program that nobody watches, from memory, goes another way for most of its opcodes: to the same rows, or the same failure.
TEST(Line, WatchedOrNot)
{
    uint64_t seed = 1;
    const auto next = [&seed](uint64_t limit) {
        seed = seed * 6364136223846793005U + 1442695040888963407U;
        return (seed >> 33) % limit;
    };
    const auto one_of = [&next](const auto &choices) { return choices[next(std::size(choices))]; };
    std::vector<std::string> words;
    std::istringstream all("copy|pc 5|pc 200|pc 99999|line -3|line 63|line -64|line 8191|line -8192|col 9|col 300|col "
                           "20000|stmt|const_pc|disc 3|disc 200|disc 40000|file 2|file 1|bb|pe|eb|fixed 16|isa 1|isa "
                           "300|end at 500000400|sp 13|sp 200|sp 255|sp 77|end at 900|sp 40|sp 90|copy|sp 230|sp "
                           "14|def c.c 0 0 0|end at 40 copy|byte 0 byte 4 byte 4 byte 3 byte 1 byte 1");
    for (std::string word; std::getline(all, word, '|');)
        words.push_back(word);
    const uint8_t ranges[] = {14, 14, 14, 10, 1, 0, 255}, bases[] = {13, 13, 13, 10, 1, 2, 14, 255},
                  mopis[] = {1, 1, 1, 4, 0};
    const auto nothing = [](krv_handle_t *, unsigned long, unsigned char, krv_value_t **, unsigned int, krv_lns_t *,
                            void *) { return 0; };
    unsigned failures = 0;
    for (unsigned n = 0; n < 2000; ++n) {
        line_unit u{
            .mil = one_of(mopis), .mopi = one_of(mopis), .line_range = one_of(ranges), .opcode_base = one_of(bases)};
        u.version = n % 2 == 0 ? 4 : 3;
        u.default_is_stmt = static_cast<uint8_t>(next(3));
        u.line_base = static_cast<int8_t>(n % 3 == 0 ? next(256) : -5);
        u.files = {{"a.c"}, {"b.c"}};
        std::string recipe = n % 16 == 0 ? "" : "at 400 copy ";
        for (uint64_t i = next(60); i > 0; --i)
            recipe += next(120) == 0 ? text("byte %u ", static_cast<unsigned>(next(256))) : one_of(words) + " ";
        u.program = program(recipe + (n % 4 == 0 ? "" : "pc 1 end"));
        std::string first;
        for (const bool watched : {true, false})
            for (const bool in_memory : {true, false}) {
                handle h;
                h.extend(n % 4 < 2 ? 0 : KRV_EXT_DWARF5 | KRV_EXT_AS_WRITTEN);
                reader source{.contents = u.build()};
                in_memory ? h.attach(KRV_SEC_LINE, source.contents) : h.attach(KRV_SEC_LINE, &source);
                krv_lnph_t *header = krv_lnph_alloc(h, nullptr, 0);
                ASSERT_NE(header, nullptr);
                krv_lnp_t *lnpp = nullptr;
                const int result = krv_line_build_program(h, header, &lnpp, watched ? +nothing : nullptr, nullptr);
                std::string outcome = std::to_string(result) + " " + to_text(h, lnpp);
                for (unsigned i = 0; lnpp != nullptr && i < lnpp->slnp_lnsp_entries; ++i) {
                    const krv_line_state_t row = lnpp->slnp_rows.get(i);
                    EXPECT_EQ(krv_lnp_file(lnpp, row), krv_lnph_file(header, row.slns_file));
                }
                failures += lnpp == nullptr ? 1 : 0;
                if (lnpp != nullptr)
                    krv_line_free_program(lnpp);
                krv_lnph_free(header);
                first = first.empty() ? outcome : first;
                ASSERT_EQ(outcome, first) << recipe;
            }
    }
    EXPECT_TRUE(failures > 800 && failures < 7200) << failures;
}
