// SPDX-License-Identifier: Apache-2.0
//
// What the worst input of each kind may cost: calls of the read call-back and bytes allocated, in proportion to its size.
#include "krv_expr_eval.h"
#include "krv_frame.h"
#include "krv_info.h"
#include "krv_line.h"
#include "support/activation.h"
#include "support/allocations.h"

#include <cstring>
#include <ctime>
#include <malloc.h>

using namespace krv_test;

static size_t allocated; // bytes, since it was set to 0

static bool granted(size_t size)
{
    allocated += size;
    return true;
}

namespace
{

// Depth and counts: a tenth under the address sanitizer, which is slow, and for which it is as good.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRV_TEST_SLOW
#endif
#endif
#ifdef KRV_TEST_SLOW
constexpr unsigned MILLION = 100000;
#else
constexpr unsigned MILLION = 1000000;
#endif

// Sections behind call-backs, whose reads are counted.
struct measured {
    handle h{KRV_ACTIVATION_AMD64};
    std::vector<std::unique_ptr<reader>> sources;

    measured &attach(krv_secidx_t sec, bytes contents)
    {
        sources.push_back(std::make_unique<reader>(reader{.contents = std::move(contents)}));
        h.attach(sec, sources.back().get());
        return *this;
    }
    bool costs_at_most(unsigned most_reads, size_t most_bytes)
    {
        unsigned reads = 0;
        for (const auto &source : sources)
            reads += source->reads;
        EXPECT_LE(reads, most_reads);
        EXPECT_LE(allocated, most_bytes);
        return reads <= most_reads && allocated <= most_bytes;
    }
};

bool contains(krv_handle_t *hp, uint64_t address)
{
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, 0);
    return cu != nullptr && korva_cu_contains_addr(hp, cu, address, KRV_LOOKUP_F_NONE);
}

} // namespace

TEST(Limits, Entries)
{
    const bytes linked = abbrevs("1 compile_unit+; 2 lexical_block sibling:ref4");
    const auto link = [](const char *to) {
        bytes dies = bytes().uleb(1).label("self").uleb(2).offset_of(to, 4).uleb(2).offset_of(to, 4).u8(0);
        return dies.label("unit");
    };
    bytes flags = bytes().u8(1).u8(0x11).u8(0); // DW_AT_external: DW_FORM_flag_present
    for (unsigned i = 0; i < MILLION; ++i)
        flags.u8(0x3f).u8(0x19);
    const struct {
        const char *what;
        bytes abbrev, dies;
        unsigned reads;
        size_t bytes_allocated;
    } rows[] = {
        // Every entry is the child of the one before. Skipping reads an entry at a time and keeps none.
        {"a million levels", abbrevs("1 lexical_block+; 2 variable"), bytes().fill(MILLION, 1).u8(2).fill(MILLION, 0),
         2 * MILLION + 50, size_t{100} * MILLION},
        {"a sibling link to itself", linked, link("self"), 100, 10000},
        {"a sibling link to the end", linked, link("unit"), 100, 10000},
        {"a million attributes", flags.fill(3), bytes().u8(1), 2 * MILLION + 100, size_t{40} * MILLION},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        measured m;
        m.attach(KRV_SEC_ABBREV, row.abbrev).attach(KRV_SEC_INFO, unit{.dies = row.dies}.build());
        allocated = 0;
        EXPECT_FALSE(contains(m.h, 0x1000));
        EXPECT_TRUE(m.costs_at_most(row.reads, row.bytes_allocated));
        EXPECT_EQ(krv_errno(m.h), KRV_ERR_NOTFOUND) << m.h.error();
    }
}

// What is kept does not grow with the product of two sections: every unit names another tail of one table, or has a
// first entry of attributes without bytes.
TEST(Limits, UnitsThatShareTables)
{
    for (const bool tails : {true, false}) {
        SCOPED_TRACE(tails ? "tails of one table" : "attributes without bytes");
        constexpr uint64_t UNITS = MILLION / 50, PAIRS = 4000;
        measured m;
        bytes table, info;
        for (uint64_t i = 0; i < UNITS && tails; ++i)
            table.uleb(i + 1, 3).u8(0x11).u16(0).u8(0);
        if (!tails)
            table.u8(1).u8(0x11).u8(0);
        for (uint64_t i = 0; i < PAIRS && !tails; ++i)
            table.u8(0x3f).u8(0x19);
        for (uint64_t i = 0; i < UNITS; ++i)
            info += unit{.abbrev_offset = tails ? 7 * i : 0, .dies = bytes().uleb(tails ? i + 1 : 1)}.build();
        m.attach(KRV_SEC_ABBREV, table.fill(3)).attach(KRV_SEC_INFO, info);
        allocated = 0;
        korva_lookup_ctu_by_start_offset(m.h, KRV_SEC_INFO, 0);
        EXPECT_LE(allocated, size_t{256} << 20);
        EXPECT_GT(m.h->sh_cu_table_entries, 20U); // what fits is kept
    }
}

// Strings that units share are not copied once a unit, or, from behind call-backs, as often as the bytes allow.
TEST(Limits, UnitsThatShareStrings)
{
    constexpr uint64_t UNITS = MILLION / 500;
    const bytes strings = bytes().fill(10 * UNITS, 'n').u8(0);
    const bytes table = abbrevs("1 compile_unit name:strp comp_dir:strp producer:strp");
    bytes info;
    for (uint64_t i = 0; i < UNITS; ++i)
        info += unit{.dies = bytes().u8(1).u32(0).u32(1).u32(i % UNITS)}.build();
    for (const bool in_memory : {true, false}) {
        SCOPED_TRACE(in_memory);
        measured m;
        m.attach(KRV_SEC_ABBREV, table).attach(KRV_SEC_INFO, info).attach(KRV_SEC_STR, strings);
        if (in_memory)
            m.h.attach(KRV_SEC_ABBREV, table).attach(KRV_SEC_INFO, info).attach(KRV_SEC_STR, strings);
        allocated = 0;
        korva_lookup_ctu_by_start_offset(m.h, KRV_SEC_INFO, 0);
        EXPECT_LE(allocated, 100 * (info.size() + strings.size()) + KRV_KEPT_SLACK);
        EXPECT_TRUE(in_memory ? m.h->sh_cu_table_entries == UNITS : m.h->sh_cu_table_entries > 20)
            << m.h->sh_cu_table_entries << m.h.error();
    }
}

// Units whose range lists are tails of one, as written: no more is read of it, or kept, than some times its size.
TEST(Limits, UnitsThatShareRanges)
{
    constexpr uint64_t UNITS = MILLION / 500, PAIRS = MILLION / 5;
    bytes ranges, info;
    for (uint64_t i = 0; i < PAIRS; ++i)
        ranges.u64(0x1000 + 16 * i).u64(0x1008 + 16 * i);
    for (uint64_t i = 0; i < UNITS; ++i)
        info += unit{.dies = bytes().u8(1).u32(16 * i)}.build();
    handle h;
    h.extend().attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit ranges:sec_offset")).attach(KRV_SEC_INFO, info);
    h.attach(KRV_SEC_EXT_RANGES, ranges.fill(16));
    allocated = 0;
    EXPECT_NE(korva_lookup_ctu_by_addr(h, 0x1000 + 16 * (PAIRS - 1), 0), nullptr);
    EXPECT_EQ(korva_lookup_ctu_by_addr(h, 0x1008, 0), nullptr);
    EXPECT_LE(allocated, 100 * (info.size() + ranges.size()));
    const std::string most = "range list at offset 0x20 of .debug_ranges: too many units read the same lists\n";
    EXPECT_NE(h.notes.find(most), std::string::npos) << h.notes.substr(0, 1000);
}

// Codes that a table by their low bits would put into one place; and entries whose attributes have no bytes.
TEST(Limits, Abbreviations)
{
    const clock_t begin = clock();
    measured codes;
    bytes table;
    for (uint64_t i = 0; i < MILLION / 5; ++i)
        table.uleb((MILLION / 5 - i) << 14).u8(0x11).u8(0).u16(0);
    codes.h.attach(KRV_SEC_ABBREV, table).attach(KRV_SEC_INFO, unit{.dies = bytes().uleb(1 << 14)}.build());
    EXPECT_NE(korva_lookup_ctu_by_start_offset(codes.h, KRV_SEC_INFO, 0), nullptr) << codes.h.error();

    measured flags;
    bytes many = bytes().u8(2).u8(0x2e).u8(0);
    for (uint64_t i = 0; i < MILLION / 10; ++i)
        many.u8(0x3f).u8(DW_FORM_flag_present);
    flags.h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit+").first(5) + many.fill(3));
    flags.h.attach(KRV_SEC_INFO, unit{.dies = bytes().u8(1).fill(MILLION / 10, 2).u8(0)}.build());
    EXPECT_FALSE(contains(flags.h, 0x1000));
    EXPECT_NE(flags.h.error().find("too many attributes in the entries up to offset "), std::string::npos)
        << flags.h.error();
    EXPECT_LT(clock() - begin, 5 * CLOCKS_PER_SEC);
}

TEST(Limits, Lines)
{
    measured m;
    const bytes body = program("at 400") + bytes().fill(MILLION, 0x4b) + program("end");
    m.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit name:string comp_dir:string stmt_list:sec_offset"));
    m.attach(KRV_SEC_INFO, unit{.dies = bytes().u8(1).cstr("a.c").cstr("/").u32(0)}.build());
    m.attach(KRV_SEC_LINE, line_unit{.program = body}.build());
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(m.h, KRV_SEC_INFO, 0);
    ASSERT_NE(cu, nullptr);
    allocated = 0;
    EXPECT_NE(korva_lookup_source_by_cu_and_addr(m.h, cu, 0, UINT64_MAX, 0x410, 0), nullptr);
    // Tables of rows double: of 16 bytes a row twice as many, the copies on the way, the matrix; and what the client holds.
    EXPECT_TRUE(m.costs_at_most(MILLION + 100, 5 * 16 * MILLION + 4 * MILLION));
}

namespace
{

// What the heap holds. Nothing under the address sanitizer, whose heap it is not.
size_t heap_bytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// A section whose N units tell their line numbers and compilation directory, and the program or programs that they name.
struct line_sections {
    const char *what;
    bytes lines;
    uint64_t units;
    std::function<uint64_t(uint64_t)> offset = [](uint64_t) { return 0; };
    std::function<std::string(uint64_t)> comp_dir = [](uint64_t) { return "/"; };
    bool extended = false; // both extensions are on, and a long name is at offset 0 of .debug_line_str
};

// A header as small as one can be, up to its tables. Read as part of those of the header before it, it is three files.
bytes small_line_header(uint64_t unit_length)
{
    return bytes().u32(unit_length).u16(0x303).u32(1).u8(1).u8(1).u8(1).u8(14).u8(1);
}

} // namespace

// What is kept of line numbers does not grow with the product of units and what they share, nor with what files share.
TEST(Limits, MemoryOfLines)
{
    constexpr uint64_t N = 1000;
    const line_unit::file a{"a"};
    const bytes n_rows = program("at 400 copy ") + bytes().fill(N, 0x4b) + program("end");
    std::string definitions;
    bytes nested;
    for (uint64_t i = 0; i < N; ++i) {
        definitions += "def a 0 0 0 ";
        nested += small_line_header(15 * (N - i));
    }
    nested.fill(4);
    bytes shared; // headers of version 5 with many files, all of one name
    const bytes names = bytes::hex("00 00 01 01 1f").uleb(N).fill(4 * N);
    const bytes names_header = line_unit{.v5 = true, .opcode_base = 1, .tables = names}.build();
    for (uint64_t i = 0; i < 10; ++i)
        shared += names_header;
    const auto each_its_own = [](uint64_t i) { return std::to_string(i); };
    const line_unit long_directory{.dirs = {std::string(1000, 'd')}, .files = {20 * N, {"a", 1}}};
    const line_sections rows[] = {
        {"a header of N files", line_unit{.files = {N, a}}.build(), N},
        {"a program of N rows", line_unit{.program = n_rows}.build(), N},
        {.what = "files by N directories",
         .lines = line_unit{.files = {N, a}, .program = n_rows}.build(),
         .units = N,
         .comp_dir = each_its_own},
        {"N definitions", line_unit{.program = program(definitions + "at 400 copy pc 4 end")}.build(), N},
        {"headers that overlap", nested, N, [](uint64_t i) { return 15 * i; }},
        {"files of a long directory", long_directory.build(), 1},
        {.what = "a long name of many files",
         .lines = shared,
         .units = 10,
         .offset = [&](uint64_t i) { return names_header.size() * i; },
         .extended = true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        bytes info;
        for (uint64_t i = 0; i < row.units; ++i)
            info += unit{.dies = bytes().u8(1).u32(row.offset(i)).cstr(row.comp_dir(i))}.build();
        handle h;
        h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit stmt_list:sec_offset comp_dir:string"));
        h.attach(KRV_SEC_INFO, info).attach(KRV_SEC_LINE, row.lines);
        if (row.extended)
            h.extend().attach(KRV_SEC_EXT_LINE_STR, bytes().cstr(std::string(1000, 'n')));
        const size_t before = heap_bytes();
        unsigned found = 0;
        uint64_t at_unit = 0;
        for (uint64_t i = 0; i < row.units; ++i) {
            krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, at_unit);
            ASSERT_NE(cu, nullptr);
            at_unit += cu->dcu_size;
            korva_lookup_source_by_cu_and_addr(h, cu, 0, UINT64_MAX, 0x400, 0);
            krv_lnph_t *header = korva_line_get_cu_lnph(h, cu);
            uint64_t nfiles = 0;
            krv_lnfe_t **files = header == nullptr ? nullptr : krv_lnph_files(header, &nfiles);
            char *path;
            for (uint64_t file = i % 500 == 0 || nfiles == 0 ? 0 : nfiles - 1; file < nfiles; ++file)
                found += korva_get_fields(h, KRV_STRUCT_LNFE, files[file], 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path) == 0;
        }
        const size_t input = info.size() + row.lines.size();
        EXPECT_LE(heap_bytes() - before, 100 * input + KRV_KEPT_SLACK);
        EXPECT_GT(found, 50U); // what fits is kept
    }
}

TEST(Limits, ExpressionsEnd)
{
    for (const char *hex : {"30 2f fc ff", "31 28 fc ff", "31 12 28 fb ff"}) {
        SCOPED_TRACE(hex);
        stopped s({});
        reader code{.contents = bytes::hex(hex)};
        krv_fd_t fd = s.h.cursor(&code);
        krv_exprstack_t *stack = korva_expr_alloc_stack(s.h);
        allocated = 0;
        EXPECT_EQ(korva_expr_execute_expression(s.h, stack, s.ap.get(), &fd, 0, nullptr, nullptr, nullptr), -1);
        EXPECT_LE(code.reads, 3 * KRV_EXPR_MAX_STEPS);
        EXPECT_LE(allocated, 1000U);
        korva_expr_free_stack(stack);
    }
}

// The search table of .eh_frame_hdr costs a logarithm of what it claims to have, and the memory behind it is all there.
TEST(Limits, ClaimsOfSearchTables)
{
    struct endless {
        bytes header;
        unsigned reads = 0;
    };
    for (const auto &[encoding, count] : {std::pair{DW_EH_PE_udata4, UINT64_C(0x7fffffff)},
                                          {DW_EH_PE_udata4, UINT64_C(0xffffffff)},
                                          {DW_EH_PE_udata8, UINT64_C(0x80000000)},
                                          {DW_EH_PE_udata8, UINT64_MAX / 2},
                                          {DW_EH_PE_udata8, UINT64_MAX}}) {
        SCOPED_TRACE(text("%lx", count));
        eh_hdr hdr{.count = count};
        hdr.count_encoding = static_cast<uint8_t>(encoding);
        endless memory{hdr.build(stack_address, eh_frame_address)};
        const auto read = [](void *arg, void *buf, size_t size, uint64_t offset) {
            auto *from = static_cast<endless *>(arg);
            const uint64_t at = offset - stack_address;
            ++from->reads;
            std::memset(buf, 0, size);
            if (at < from->header.size())
                std::memcpy(buf, from->header.data() + at, std::min<uint64_t>(size, from->header.size() - at));
            return static_cast<int64_t>(size);
        };
        handle h;
        korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, eh_frame_address);
        korva_handle_set_opt(h, KRV_OPT_EH_FRAME_HDR_ADDR, stack_address);
        korva_attach_as(h, +read, &memory);
        allocated = 0;
        EXPECT_EQ(krv_get_fde_by_address(h, 0x1000), nullptr);
        EXPECT_TRUE(memory.reads > 5 && memory.reads <= 200) << memory.reads;
        EXPECT_LE(allocated, 5000U);
    }
}

// What a record claims allocates nothing.
TEST(Limits, ClaimsOfRecords)
{
    const uint64_t most = UINT64_MAX;
    const bytes abbrev = abbrevs("1 compile_unit location:block; 2 compile_unit name:string stmt_list:sec_offset");
    const struct {
        const char *what;
        krv_secidx_t sec;
        bytes contents;
    } rows[] = {
        {"unit", KRV_SEC_INFO, unit{.dwarf64 = true, .unit_length = most}.build()},
        {"block", KRV_SEC_INFO, unit{.dies = bytes().u8(1).uleb(most)}.build()},
        {"address ranges", KRV_SEC_ARANGES, aranges_set{.dwarf64 = true, .unit_length = most}.build()},
        {"line header", KRV_SEC_LINE, line_unit{.dwarf64 = true, .unit_length = most}.build()},
        {"line program", KRV_SEC_LINE, line_unit{.dwarf64 = true, .header_length = most}.build()},
        {"extended opcode", KRV_SEC_LINE, line_unit{.program = bytes().u8(0).uleb(most)}.build()},
        {"CIE", KRV_SEC_FRAME, cie{.dwarf64 = true, .length = most}.build()},
        {"FDE", KRV_SEC_FRAME, cie{}.build() + fde{.dwarf64 = true, .length = most}.build()},
        {"register", KRV_SEC_FRAME,
         cie{.instructions = op(DW_CFA_offset_extended).uleb(0xffffffff).uleb(1)}.build() + fde{}.build()},
        {"expression", KRV_SEC_FRAME,
         cie{.instructions = op(DW_CFA_def_cfa_expression).uleb(most)}.build() + fde{}.build()},
        {"argument", KRV_SEC_FRAME,
         cie{.instructions = op(DW_CFA_VESK_arg_loc).uleb(0xffffffff).uleb(0)}.build() + fde{}.build()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        measured m;
        if (row.sec != KRV_SEC_INFO)
            m.attach(KRV_SEC_INFO, unit{.dies = bytes().u8(2).cstr("a.c").u32(0)}.build());
        m.attach(KRV_SEC_ABBREV, abbrev).attach(row.sec, row.contents);
        korva_attach_as(m.h, reader::read, m.sources.back().get());
        const krv_activation_owner ap(korva_activation_alloc(m.h));
        korva_activation_set_greg(m.h, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, 0x1000);
        allocated = 0;
        contains(m.h, 0x1000);
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(m.h, KRV_SEC_INFO, 0);
        if (cu != nullptr)
            korva_lookup_source_by_cu_and_addr(m.h, cu, 0, most, 0x1000, 0);
        krv_greg_t value;
        korva_activation_get_greg(m.h, ap.get(), KRV_ACTIVATION_REG_DWARF, KRV_ACTIVATION_FRAME_CALLER, 7, &value);
        EXPECT_TRUE(m.costs_at_most(400, 20000));
    }
}
