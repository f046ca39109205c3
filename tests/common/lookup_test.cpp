// SPDX-License-Identifier: Apache-2.0
//
// Address-range sets, the unit table, and which unit covers an address.
#include "krv_lookup.h"

#include "builders/sections.h"
#include "korva.hpp"
#include "support/handle.h"

#include <sstream>

using namespace krv_test;

static constexpr uint64_t MAX = UINT64_MAX;

// .debug_aranges

// Every set and tuple of the section, "set 0: 1000+20 2000+8; set 44:", and how the walks ended.
static std::string dump_aranges(handle &h)
{
    static std::string dump; // of the one walk under way
    dump.clear();
    const auto set = [](krv_handle_t *hp, krv_arh_t *arhp, void *) {
        dump += text(dump.empty() ? "set %lu:" : "; set %lu:", krv_get_arh_offset(arhp));
        const auto tuple = [](krv_handle_t *, uint64_t selector, uint64_t address, uint64_t length, void *) {
            dump += text(" %lx+%lx", address, length) + (selector == 0 ? "" : text("@%lx", selector));
            return address == 0x57092 ? 9 : 0;
        };
        const int result = krv_iter_aranges_entry(hp, arhp, tuple, nullptr);
        if (result != 0 || korva_handle_get_errno(hp) != KRV_ERR_NONE)
            dump += text(" %d ", result) + error_line(hp);
        return result == 9 ? 9 : 0;
    };
    const int result = krv_iter_aranges_header(h, set, nullptr);
    return dump + (result == 0 ? "" : text(" (%d ", result) + h.error() + ")");
}

TEST(Aranges, Sets)
{
    const std::string end = " | unterminated .debug_aranges unit", entry = " | failed to read .debug_aranges entry";
    const std::string too_large = " too large for existing section size)";
    const auto missing = [](int width, int left, const char *what) {
        return text("set 0: -1 CORRUPT: form DW_FORM_data%d requires %d bytes;  %d remaining | failed to read %s",
                    width, width, left, what);
    };
    const aranges_set plain{.tuples = {{0x1000, 0x20}}}, narrow{.address_size = 2, .tuples = {{5, 6}}},
        odd{.address_size = 2, .tuples = {{5, 6}, {7, 8}}};
    const aranges_set stopped{.tuples = {{0x57092, 1}, {3, 4}}}, open{.tuples = {{1, 2}}, .terminated = false};
    const aranges_set wide{.dwarf64 = true, .tuples = {{1, 2}, {MAX, MAX}}},
        longest{.dwarf64 = true, .unit_length = MAX};
    const aranges_set wraps{.dwarf64 = true, .unit_length = MAX - 47},
        selectors{.segment_size = 4, .tuples = {{1, 2, 3}}};
    // The first bytes of a set, which ends there.
    const auto cut = [](const aranges_set &set, size_t size) { return set.build().first(size).set(0, size - 4, 4); };
    const struct {
        bytes section;
        std::string outcome;
    } rows[] = {
        {bytes(), ""},
        {plain.build(), "set 0: 1000+20"},
        {aranges_set{.address_size = 4, .tuples = {{0xfffff000, 0x1000}}}.build(), "set 0: fffff000+1000"},
        {wide.build(), "set 0: 1+2 ffffffffffffffff+ffffffffffffffff"},
        {aranges_set{.segment_size = 1, .tuples = {{0x10, 1, 7}}}.build(), "set 0: 10+1@7"},
        {aranges_set{.segment_size = 2, .tuples = {{0x10, 0, 7}, {0, 0x10, 0}}}.build(), "set 0: 10+0@7 0+10"},
        {narrow.build() + plain.build(20), "set 0: 5+6; set 20: 1000+20"},  // the second set without padding
        {odd.build() + plain.build(24), "set 0: 5+6 7+8; set 24: 1000+20"}, // and with the header's own
        {aranges_set{.tuples = {{1, 2}, {0, 0}, {3, 4}}}.build(), "set 0: 1+2"},
        {stopped.build() + plain.build(64), "set 0: 57092+1 9 IO (9 IO)"},
        {aranges_set{.info_offset = 100}.build(), "set 0:"},
        {aranges_set{.info_offset = 101}.build(),
         " (-1 CORRUPT: debug_info_offset (101) exceeds size of .debug_info (100))"},
        {aranges_set{.unit_length = 0xfffffff0}.build(),
         " (-1 CORRUPT: reserved value (0xfffffff0) in 4-byte unit_length)"},
        {aranges_set{.unit_length = 33}.build(), " (-1 CORRUPT: unit_length (0x21)" + too_large},
        {longest.build(), " (-1 CORRUPT: unit_length (0xffffffffffffffff)" + too_large},
        {plain.build() + wraps.build(48), "set 0: 1000+20 (-1 CORRUPT: unit_length (0xffffffffffffffd0)" + too_large},
        {aranges_set{.address_size = 3}.build(), "set 0: 0 INVALID: Unsupported address size: 3"},
        {aranges_set{.address_size = 0}.build(), "set 0: 0 INVALID: Unsupported address size: 0"},
        {aranges_set{.segment_size = 3}.build(), "set 0: 0 INVALID: Unsupported segment selector size: 3"},
        {open.build(), "set 0: 1+2 -1 NONE: " + end.substr(3)},
        {cut(plain, 27), missing(8, 3, "length") + entry},
        {cut(plain, 24), missing(8, 0, "length") + end},
        {cut(plain, 19), missing(8, 3, "address") + entry},
        {cut(selectors, 21), missing(4, 1, "selector") + entry},
        {cut(plain, 12), "set 0: -1 INVALID: can't seek beyond end | couldn't seek in .debug_aranges" + end},
        {cut(plain, 12) + bytes().fill(4),
         "set 0: -1 INVALID: cannot truncate section to 18446744073709551612 bytes;  only 0 remain | couldn't truncate "
         ".debug_aranges section" +
             end + " (-1 CORRUPT: form DW_FORM_data2 requires 2 bytes;  0 remaining | failed to read version)"},
    };
    for (const auto &row : rows) {
        handle h;
        h.attach(KRV_SEC_INFO, bytes().fill(100)).attach(KRV_SEC_ARANGES, row.section);
        EXPECT_EQ(dump_aranges(h), row.outcome);
    }
}

// Wherever the section ends, one of the walks says so: every field is missed in turn.
TEST(Aranges, CutShort)
{
    std::string seen, last;
    for_each_prefix(aranges_set{.dwarf64 = true, .unit_length = 0}.build().first(24), [&](const bytes &prefix) {
        handle h;
        h.attach(KRV_SEC_INFO, bytes().fill(1)).attach(KRV_SEC_ARANGES, prefix);
        const std::string dump = dump_aranges(h), start = " | failed to read ";
        const size_t found = dump.rfind(start);
        const std::string field = found == std::string::npos ? "" : dump.substr(found + start.size());
        seen += field == last ? "" : field;
        last = field;
    });
    EXPECT_EQ(seen, "4-byte unit_length)8-byte unit_length)version)debug_info_offset)address_size)segment_size)");
}

// Units and addresses

static const bytes abbrev_section =
    abbrevs("1 compile_unit+; 2 compile_unit+ low_pc:addr high_pc:addr; 3 compile_unit+ low_pc:addr high_pc:data4;"
            "4 compile_unit+ low_pc:addr; 5 subprogram low_pc:addr high_pc:addr; 6 variable low_pc:addr high_pc:udata;"
            "7 subprogram low_pc:addr high_pc:flag; 8 subprogram low_pc:addr; 9 namespace+;"
            "10 lexical_block low_pc:addr high_pc:addr");

static bytes entry(uint64_t code, uint64_t low, uint64_t high, size_t high_width = 8)
{
    return bytes().uleb(code).u64(low).uint(high, high_width);
}

static bytes simple_unit(const bytes &dies)
{
    return unit{.dies = dies + bytes().u8(0)}.build();
}

TEST(Lookup, AddressesOfAUnit)
{
    const bytes bare = bytes().uleb(1), sub = entry(5, 0x400, 0x480), own = entry(2, 0x1000, 0x2000);
    const bytes own_length = entry(3, 0x1000, 0x100, 4), no_low = bytes().uleb(4).u64(0x1000);
    const aranges_set at_40{.tuples = {{0x40, 8}}}, two{.tuples = {{0x40, 8}, {0x20, 8}}},
        open{.tuples = {{0x40, 8}}, .terminated = false};
    const aranges_set last{.tuples = {{MAX - 15, 15}}}, segmented{.segment_size = 4, .tuples = {{0x40, 8, 1}}};
    const struct {
        const char *what;
        bytes dies; // of the first of two units; the second covers [0x9000, 0x9100)
        bytes aranges;
        krv_lookup_flag_t flags;
        const char *answers; // address and +: yes; -: no; ?: not known; !: corrupt
    } rows[] = {
        {"high_pc is an address", own, {}, 0, "fff- 1000+ 1fff+ 2000-"},
        {"high_pc is a length", own_length, {}, 0, "fff- 1000+ 10ff+ 1100-"},
        {"its own bounds are known at once", own_length, {}, KRV_LOOKUP_F_FAST, "1000+ 1100-"},
        {"nothing is known", bare + sub, {}, KRV_LOOKUP_F_FAST, "400? 400?"},
        {"half of the bounds is none", no_low, {}, KRV_LOOKUP_F_FAST, "1000?"},
        {"its children are scanned", bare + sub + entry(6, 0x800, 4, 1), {}, 0, "3ff- 47f+ 480- 803+ 804-"},
        {"but not theirs", bare + bytes().uleb(9) + sub + bytes().u8(0), {}, 0, "400- 400-"},
        {"nor other tags", bare + entry(10, 0x400, 0x480), {}, 0, "400-"},
        {"nor half of the bounds", bare + bytes().uleb(8).u64(0x400), {}, 0, "400-"},
        {"a scan that fails finds nothing", bare + sub + entry(7, 0x400, 1, 1), {}, 0, "400- 400-"},
        {"a broken child", bare + sub + bytes().uleb(99), {}, 0, "400-"},
        {"no child at all", bare, {}, 0, "0- ffffffffffffffff-"},
        {"a set", bare + sub, two.build(), KRV_LOOKUP_F_FAST, "40+ 27+ 28- 400-"},
        {"a set against its own bounds", own, at_40.build(), 0, "40- 1000+"},
        {"a later set replaces", bare, at_40.build() + last.build(48), 0, "40- fffffffffffffffe+ ffffffffffffffff-"},
        {"an empty set", bare + sub, aranges_set{}.build(), 0, "400+"},
        {"a segmented set", bare + sub, segmented.build(), 0, "40- 400+"},
        {"an unterminated set", bare + sub, open.build(), 0, "40- 400+"},
        {"a set of no unit", bare + sub, aranges_set{.info_offset = 7}.build() + at_40.build(32), 0, "40- 400+"},
        {"a damaged set", bare + sub, aranges_set{.unit_length = 0xfffffff1}.build(), 0, "400! 400!"},
    };
    for (const auto &row : rows) {
        handle h;
        const bytes first = simple_unit(row.dies), second = simple_unit(entry(2, 0x9000, 0x9100));
        krv_ctu_t *cu = h.attach(KRV_SEC_ARANGES, row.aranges).first_unit(abbrev_section, first + second);
        krv_ctu_t *other = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, first.size());
        std::istringstream answers(row.answers);
        bool damaged = false;
        for (std::string answer; answers >> answer;) {
            const uint64_t address = std::stoull(answer, nullptr, 16);
            const char yes = answer.back();
            const int code = yes == '?' ? KRV_ERR_NONE : yes == '-' ? KRV_ERR_NOTFOUND : KRV_ERR_CORRUPT;
            const bool covered = korva_cu_contains_addr(h, cu, address, row.flags) == B_TRUE;
            EXPECT_EQ(covered, yes == '+') << row.what << ": " << answer;
            EXPECT_TRUE(covered || korva_handle_get_errno(h) == code) << row.what << ": " << answer << " " << h.error();
            damaged = yes == '!';
        }
        EXPECT_NE(korva_cu_contains_addr(h, other, 0x90ff, 0), damaged) << row.what;
    }
}

// The offset of the unit that covers an address, asking every unit; -1: none.
static int64_t ask_every_unit(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags)
{
    for (const korva::unit &u : korva::handle_view(hp).units())
        if (korva_cu_contains_addr(hp, u.get(), address, flags) == B_TRUE)
            return static_cast<int64_t>(u.get()->dcu_offset);
    return -1;
}

static int64_t ask_index(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags)
{
    const krv_ctu_t *cu = korva_lookup_ctu_by_addr(hp, address, flags);
    return cu == nullptr ? -1 : static_cast<int64_t>(cu->dcu_offset);
}

TEST(Lookup, UnitOfAnAddress)
{
    const bytes bare = bytes().uleb(1), low = entry(2, 0x1000, 0x2000), wide = entry(2, 0x800, 0x3000);
    const bytes sub = bare + entry(5, 0x1800, 0x2800), inverted = entry(2, 0x2000, 0x1000);
    const bytes to_the_end = entry(2, 0x2f00, MAX), broken = bare + entry(7, 0x400, 1, 1);
    const bytes several = bare + entry(5, 0x100, 0x200) + entry(5, 0x180, 0x900) + entry(6, 0x3000, 8, 1);
    const aranges_set three{.tuples = {{0x1100, 0x100}, {0, 0x10}, {0x1180, 0x1000}}};
    const aranges_set wraps{.tuples = {{MAX - 15, 0x20}, {0x1500, 1}}};
    const struct {
        std::vector<bytes> units;
        bytes aranges;
    } rows[] = {
        {{wide, low}, {}},
        {{low, low, wide, to_the_end}, {}},
        {{inverted, wide, bare}, {}},
        {{sub, low, several}, {}}, // of which FAST knows one
        {{several, sub, broken, to_the_end}, {}},
        {{bare, wide, sub}, three.build()},
        {{bare, wide}, three.build() + wraps.build(80)},
        {{sub, low}, aranges_set{.info_offset = 7}.build()},
        {{low, wide}, aranges_set{.unit_length = 0xfffffff1}.build()},
        {{}, {}},
    };
    for (const auto &row : rows) {
        bytes info;
        for (const bytes &dies : row.units)
            info += simple_unit(dies);
        handle asked, indexed, mixed;
        for (handle *h : {&asked, &indexed, &mixed})
            h->attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_ARANGES, row.aranges).attach(KRV_SEC_INFO, info);
        const std::vector<uint64_t> bounds = {0,      0x10,   0x100,  0x180,  0x200,    0x800,  0x900,  0x1000,
                                              0x1100, 0x1180, 0x1200, 0x1500, 0x1501,   0x1800, 0x2000, 0x2180,
                                              0x2800, 0x2f00, 0x3000, 0x3008, MAX - 15, MAX};
        // FAST before anything is scanned, then after everything is; in between one unit after the other.
        for (const krv_lookup_flag_t flags : {KRV_LOOKUP_F_FAST, KRV_LOOKUP_F_NONE, KRV_LOOKUP_F_FAST}) {
            for (const uint64_t bound : bounds) {
                for (const uint64_t address : {bound - 1, bound, bound + 1}) {
                    const int64_t expected = ask_every_unit(asked, address, flags);
                    EXPECT_TRUE(flags == KRV_LOOKUP_F_FAST || ask_index(indexed, address, flags) == expected)
                        << std::hex << address;
                    EXPECT_EQ(ask_every_unit(mixed, address, flags), expected);
                    const int64_t known = ask_every_unit(mixed, address, KRV_LOOKUP_F_FAST);
                    EXPECT_EQ(ask_index(mixed, address, KRV_LOOKUP_F_FAST), known) << std::hex << address;
                }
            }
        }
    }
}

TEST(Lookup, UnitOfAnAddressSaysWhyNot)
{
    handle h, unknown, damaged;
    EXPECT_TRUE(refuses(h, korva_lookup_ctu_by_addr(h, 0, 0), "NOTFOUND: handle has no .debug_info"));
    h.attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_INFO, simple_unit(entry(2, 0x1000, 0x2000)));
    EXPECT_NE(korva_lookup_ctu_by_addr(h, 0x1000, KRV_LOOKUP_F_FAST), nullptr);
    EXPECT_TRUE(refuses(h, korva_lookup_ctu_by_addr(h, 0x2000, KRV_LOOKUP_F_FAST), "NOTFOUND"));

    const bytes scanned = simple_unit(bytes().uleb(1) + entry(5, 0x400, 0x480));
    unknown.attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_INFO, scanned);
    EXPECT_TRUE(refuses(unknown, korva_lookup_ctu_by_addr(unknown, 0x400, KRV_LOOKUP_F_FAST), "NONE"));
    EXPECT_NE(korva_lookup_ctu_by_addr(unknown, 0x400, 0), nullptr);
    EXPECT_NE(korva_lookup_ctu_by_addr(unknown, 0x400, KRV_LOOKUP_F_FAST), nullptr);

    damaged.attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_INFO, scanned);
    damaged.attach(KRV_SEC_ARANGES, aranges_set{.unit_length = 0xfffffff1}.build());
    EXPECT_TRUE(refuses(damaged, korva_lookup_ctu_by_addr(damaged, 0x400, 0),
                        "CORRUPT: reserved value (0xfffffff1) in 4-byte unit_length"));
}

TEST(Lookup, ASetThatNamesNoUnitIsReported)
{
    const std::string set = ": .debug_aranges header at offset 0x0 identifies with non-existent CU at offset 0x7.";
    for (const auto &[flags, error] : {std::pair{KRV_LOOKUP_F_FAST, "NONE" + set},
                                       {KRV_LOOKUP_F_NONE, "NOTFOUND" + set + " | DIE has no children"}}) {
        handle h;
        h.attach(KRV_SEC_ARANGES, aranges_set{.info_offset = 7}.build());
        krv_ctu_t *cu = h.first_unit(abbrevs("1 compile_unit"), unit{.dies = bytes().u8(1)}.build());
        EXPECT_FALSE(korva_cu_contains_addr(h, cu, 0x400, flags));
        EXPECT_EQ(h.error(), error);
    }
}

TEST(Lookup, EverythingIsReadOnce)
{
    handle h;
    h.watch();
    reader info{.contents = simple_unit(bytes().uleb(1) + entry(7, 0x400, 1, 1))};
    reader aranges{.contents = aranges_set{}.build() + aranges_set{.info_offset = 7}.build(32)};
    h.attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_INFO, &info).attach(KRV_SEC_ARANGES, &aranges);
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    h.log.clear();
    EXPECT_FALSE(korva_cu_contains_addr(h, cu, 0x400, 0));
    EXPECT_EQ(h.log, (std::vector<std::string>{
                         "1 .debug_aranges header at offset 0x20 identifies with non-existent CU at offset 0x7.",
                         "1 DW_AT_high encoded with illegal class"}));
    const unsigned reads = info.reads + aranges.reads;
    EXPECT_FALSE(korva_cu_contains_addr(h, cu, 0x400, 0));
    EXPECT_EQ(info.reads + aranges.reads, reads);
}

TEST(Lookup, UnitTable)
{
    const bytes first = simple_unit(bytes().uleb(1)),
                second = unit{.dwarf64 = true, .dies = bytes().uleb(1).u8(0)}.build();
    handle h;
    const auto count = [](krv_handle_t *, krv_ctu_t *cu, void *arg) { // stops at the second
        auto *seen = static_cast<std::vector<uint64_t> *>(arg);
        seen->push_back(cu->dcu_offset);
        return seen->size() == 2 ? 5 : 0;
    };
    std::vector<uint64_t> seen;
    EXPECT_TRUE(refuses(h, korva_iter_cu(h, KRV_SEC_INFO, count, &seen),
                        "INVALID: section is empty | failed to read CU header at offset 0 in .debug_info | "
                        "failed to obtain CU at offset 0 in .debug_info | unable to resize CU table"));
    krv_ctu_t none = {};
    EXPECT_FALSE(korva_cu_contains_addr(h, &none, 0, 0));
    EXPECT_EQ(h.error(), "NOTFOUND: handle has no .debug_info");

    h.attach(KRV_SEC_ABBREV, abbrev_section);
    h.attach(KRV_SEC_INFO, first + second + first + bytes().u32(0xfffffff2).fill(20)); // the last header is damaged
    krv_ctu_t *unit_at_0 = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    krv_ctu_t *wide = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, first.size());
    ASSERT_TRUE(unit_at_0 != nullptr && wide != nullptr);
    EXPECT_EQ(korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0), unit_at_0);
    for (const uint64_t offset : {uint64_t{1}, first.size() + second.size() + first.size(), MAX})
        EXPECT_TRUE(refuses(h, korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, offset), "NOTFOUND"));
    krv_cu_header_t header;
    ASSERT_EQ(korva_cu_get_header(h, wide, &header), 0);
    EXPECT_TRUE(refuses(h, korva_cu_get_header(h, wide, nullptr), "INVALID"));
    EXPECT_TRUE(header.offset == first.size() && header.size == second.size() && header.dwarf64 == 1 &&
                header.version == 4 && header.address_size == 8 && header.abbrev_offset == 0);
    EXPECT_EQ(korva_iter_cu(h, KRV_SEC_INFO, count, &seen), 5);
    EXPECT_EQ(seen, (std::vector<uint64_t>{0, first.size()}));
    EXPECT_EQ(korva_iter_cu(h, KRV_SEC_INFO, count, &seen), 0);
    EXPECT_EQ(seen.size(), 5U);

    for (const auto &[sec, error] : {std::pair{krv_secidx_t{KRV_SEC_TYPES}, "UNSUPPORTED: .debug_types is unsupported"},
                                     {42, "INVALID: invalid section (42)"},
                                     {KRV_SEC_LINE, "INVALID: invalid section (4)"},
                                     {-1, "INVALID: invalid section (4294967295)"}}) {
        EXPECT_TRUE(refuses(h, korva_iter_cu(h, sec, count, &seen), error));
        EXPECT_TRUE(refuses(h, korva_lookup_ctu_by_start_offset(h, sec, 0), error));
    }
}
