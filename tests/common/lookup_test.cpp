// SPDX-License-Identifier: Apache-2.0
//
// Address-range sets, the unit table, and which unit covers an address.
#include "krv_lookup.h"

#include "builders/sections.h"
#include "korva.hpp"
#include "support/handle.h"

#include <algorithm>
#include <sstream>
#include <tuple>

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
            "10 lexical_block low_pc:addr high_pc:addr; 11 compile_unit+ low_pc:addr ranges:sec_offset;"
            "12 compile_unit+ 0x73:sec_offset 0x74:sec_offset low_pc:0x1b ranges:0x23; 13 compile_unit+ ranges:data4;"
            "14 subprogram+ ranges:sec_offset name:string location:block1; 15 partial_unit+;"
            "16 compile_unit+ low_pc:addr high_pc:sdata; 17 variable name:0x7e");

static bytes entry(uint64_t code, uint64_t low, uint64_t high, size_t high_width = 8)
{
    return bytes().uleb(code).u64(low).uint(high, high_width);
}

static bytes simple_unit(const bytes &dies)
{
    return unit{.dies = dies + bytes().u8(0)}.build();
}

// Holds the answers for a unit against those expected: an address and +: yes; -: no; ?: not known; !: corrupt. Whether the
// last one is that.
static bool answer_all(handle &h, krv_ctu_t *cu, krv_lookup_flag_t flags, const char *expected, const char *what)
{
    std::istringstream answers(expected);
    bool damaged = false;
    for (std::string answer; answers >> answer;) {
        const uint64_t address = std::stoull(answer, nullptr, 16);
        const char yes = answer.back();
        const int code = yes == '?' ? KRV_ERR_NONE : yes == '-' ? KRV_ERR_NOTFOUND : KRV_ERR_CORRUPT;
        const bool covered = korva_cu_contains_addr(h, cu, address, flags) == B_TRUE;
        EXPECT_EQ(covered, yes == '+') << what << ": " << answer;
        EXPECT_TRUE(covered || korva_handle_get_errno(h) == code) << what << ": " << answer << " " << h.error();
        damaged = yes == '!';
    }
    return damaged;
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
        const char *answers;
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
        const bool damaged = answer_all(h, cu, row.flags, row.answers, row.what);
        EXPECT_NE(korva_cu_contains_addr(h, other, 0x90ff, 0), damaged) << row.what;
    }
}

// A range list of DWARF 5: the kind of an item, then its operands, as numbers or as addresses.
static bytes rle(uint64_t kind, const std::vector<uint64_t> &numbers, size_t addresses = 0)
{
    bytes b = bytes().u8(kind);
    for (size_t i = 0; i < numbers.size(); ++i)
        i < addresses ? b.u64(numbers[i]) : b.uleb(numbers[i]);
    return b;
}

static bytes pairs(const std::vector<uint64_t> &bounds) // of .debug_ranges
{
    bytes b;
    for (const uint64_t bound : bounds)
        b.u64(bound);
    return b;
}

TEST(Lookup, AddressesOfAUnitAsWritten)
{
    const bytes bare = bytes().uleb(1), sub = entry(5, 0x400, 0x480), own = entry(2, 0x1000, 0x2000), end = rle(0, {});
    const bytes listed = bytes().uleb(11).u64(0x100).u32(16), indexed = bytes().uleb(12).u32(8).u32(12).uleb(0).uleb(1);
    const bytes part =
        bytes().uleb(14).u32(16).cstr("f").u8(1).u8(0) + bytes().uleb(9) + sub + bytes().u8(0).u8(0).u8(0);
    const bytes list =
        bytes().fill(16) + pairs({0x10, 0x20, 8, 8, MAX, 0x5000, 0, 4, MAX, MAX, 3, 4, 0, 0, 0x900, 0x910});
    const bytes items = rle(4, {0, 16}) + rle(5, {0x10000}, 1) + rle(4, {0x10, 0x20}) + rle(1, {1}) + rle(4, {0, 8}) +
                        rle(2, {1, 2}) + rle(3, {2, 4}) + rle(6, {0x40000, 0x40010}, 2) + rle(7, {0x50000, 16}, 1) +
                        rle(5, {MAX}, 1) + rle(4, {0x7000, 0x7010}) + rle(7, {1, 8}, 1) + end + rle(7, {0x9800, 16}, 1);
    const char *const live =
        "500+ 50f+ 510- 10010+ 10020- 20000+ 200ff+ 20103+ 20104- 40000+ 5000f+ 50010- 7000- 1- 9800-";
    const aranges_set two{.tuples = {{0x40, 8}, {0, 8}, {0, 0}, {0x20, 8}}}, dead{.tuples = {{1, 8}}};
    const aranges_set later{.version = 3, .tuples = {{0x60, 8}}, .terminated = false},
        old{.version = 1, .tuples = {{1, 2}}}, packed{.padding = 0, .tuples = {{0x80, 8}}};
    const std::string unit_note = ".debug_info 0 ranges of the unit at offset 0x0 of .debug_info: ";
    const auto left_out = [](int count) {
        return text(".debug_info 0 %d ranges of the unit at offset 0x0 of .debug_info are of code that is not in the "
                    "object: left "
                    "out\n",
                    count);
    };
    const struct {
        const char *what;
        bytes dies; // of the first of two units
        bytes aranges, lists;
        krv_lookup_flag_t flags;
        const char *answers;
        std::string notes;
    } rows[] = {
        {"high_pc is any constant", bytes().uleb(16).u64(0x1000).sleb(0x100), {}, {}, 0, "10ff+ 1100-", ""},
        {"bounds that are no code", entry(2, 1, 9), {}, {}, 0, "1- 8-", left_out(1)},
        {"functions anywhere",
         bare + part + entry(6, 0x800, 4, 1),
         {},
         list,
         0,
         "3ff- 10+ 400+ 47f+ 5003+ 800-",
         left_out(1)},
        {"which are not looked for", bare + part, {}, list, KRV_LOOKUP_F_FAST, "10? 400?", ""},
        {"not in a partial unit", bytes().uleb(15) + part, {}, list, 0, "10- 400-", ""},
        {"a list and a new base",
         listed,
         {},
         list,
         KRV_LOOKUP_F_FAST,
         "110+ 11f+ 120- 108- 5003+ 5004- 3- 900- a00-",
         left_out(1)},
        {"a list by a plain number", bytes().uleb(13).u32(16), {}, list, 0, "10+ 20- 5000+", left_out(1)},
        {"sets joined, before all",
         own,
         two.build() + later.build(80) + packed.build(80 + 44),
         {},
         0,
         "40+ 27+ 28- 0- 67+ 68- 87+ 1000+ 2000-", // and what they leave out
         ".debug_aranges 0 1 ranges of .debug_aranges are of code that is not in the object: left out\n"},
        {"functions that were dropped",
         own,
         dead.build(),
         {},
         0,
         "1- 1000+",
         ".debug_aranges 0 1 ranges of .debug_aranges are of code that is not in the object: left out\n"},
        {"an empty set", own, aranges_set{}.build(), {}, 0, "1000+", ""},
        {"its functions are not looked for",
         bare + sub,
         two.build(),
         {},
         0,
         "40+ 400-",
         ".debug_aranges 0 1 ranges of .debug_aranges are of code that is not in the object: left out\n"},
        {"sets that are damaged",
         own,
         old.build() + aranges_set{.info_offset = 999}.build(48) + two.build().first(20),
         {},
         0,
         "1000+ 40-",
         "!.debug_aranges 0 1 of 2 sets of .debug_aranges cannot be read: left out\n!.debug_aranges 0 1 of 2 sets of "
         ".debug_aranges name no unit: left "
         "out\n!.debug_aranges 80 .debug_aranges ends within the set at offset 0x50: left out\n"},
        {"no list",
         listed,
         {},
         bytes().fill(16),
         0,
         "100-",
         "!" + unit_note + "range list at offset 0x10 leads out of .debug_ranges\n"},
        {"a list without end",
         listed,
         {},
         list.first(48),
         0,
         "110+ 108-",
         "!" + unit_note + "range list at offset 0x10 of .debug_ranges has no end\n"},
        {"a list that is cut",
         listed,
         {},
         list.first(60),
         0,
         "110+ 108-",
         "!" + unit_note + "form DW_FORM_addr requires 8 bytes;  4 remaining\n"},
        {"every kind of item", indexed, {}, items, 0, live, left_out(2)},
        {"functions before an entry of an unknown form",
         bare + sub + bytes().uleb(17),
         {},
         {},
         0,
         "400+ 480-",
         "!" + unit_note + "decoder passed invalid form 127 (unknown)\n"},
        {"an unknown kind",
         indexed,
         {},
         rle(7, {0x600, 4}, 1) + bytes().u8(8),
         0,
         "600+",
         "!" + unit_note + "unknown kind 0x8 of range\n"},
        {"a wrong index",
         indexed,
         {},
         rle(3, {3, 4}),
         0,
         "500-",
         "!" + unit_note + "index 3 at base 0x8 leads out of .debug_addr\n"},
        {"no list of that number",
         bytes().uleb(12).u32(8).u32(12).uleb(0).uleb(2),
         {},
         end,
         0,
         "500-",
         "!" + unit_note + "index 2 at base 0xc leads out of .debug_rnglists\n"},
    };
    for (const auto &row : rows) {
        handle h;
        const bool indexes = row.dies.data()[0] == 12;
        const bytes first = unit{.version = static_cast<uint16_t>(indexes ? 5 : 4),
                                 .kind = static_cast<uint8_t>(indexes),
                                 .dies = row.dies + bytes().u8(0)}
                                .build();
        h.extend().attach(KRV_SEC_ARANGES, row.aranges);
        h.attach(KRV_SEC_EXT_RANGES, indexes ? bytes() : row.lists);
        h.attach(KRV_SEC_EXT_RNGLISTS,
                 bytes().u32(16 + row.lists.size()).u16(5).u16(8).u32(2).u32(0).u32(8) + row.lists);
        h.attach(KRV_SEC_EXT_ADDR, bytes().u32(28).u16(5).u16(8).u64(0x500).u64(0x20000).u64(0x20100));
        krv_ctu_t *cu = h.first_unit(abbrev_section, first + simple_unit(entry(2, 0x9000, 0x9100)));
        answer_all(h, cu, row.flags, row.answers, row.what);
        EXPECT_EQ(h.notes, row.notes) << row.what;
        EXPECT_EQ(korva_lookup_ctu_by_addr(h, 0x90ff, row.flags)->dcu_offset, first.size()) << row.what;
    }
}

// With code that was named, all else is left out.
TEST(Lookup, RangesOutsideOfNamedCode)
{
    handle h;
    h.extend().attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_INFO, simple_unit(bytes().uleb(11).u64(0).u32(0)));
    h.attach(KRV_SEC_EXT_RANGES, pairs({0, 8, 0x20, 0x30, 0x28, 0x40, 0, 0}));
    for (const auto &[start, size] : {std::pair{0x20, 0x10}, {0x50, 8}, {0, 0x10}, {8, 0x18}}) // in any order, joined
        EXPECT_EQ(korva_handle_add_code(h, static_cast<uint64_t>(start), static_cast<uint64_t>(size)), 0);
    for (const auto &[address, is_covered] : {std::pair{0, true}, {8, false}, {0x2f, true}, {0x30, false}})
        EXPECT_EQ(korva_lookup_ctu_by_addr(h, static_cast<uint64_t>(address), 0) != nullptr, is_covered) << address;
    EXPECT_TRUE(refuses(h, korva_handle_add_code(h, 0x100, 1), "INVALID: code cannot be named after the first query"));
}

// One address reads one unit, and the table has the same record. Of sets that name no unit, one is told once.
TEST(Lookup, AUnitByItself)
{
    const bytes first = simple_unit(bytes().uleb(1)), second = unit{.version = 6, .dies = bytes().uleb(1)}.build();
    const aranges_set sets[] = {{.info_offset = first.size() + second.size(), .tuples = {{0x2000, 8}}},
                                {.tuples = {{0x1000, 8}}},
                                {.info_offset = first.size(), .tuples = {{0x3000, 8}}},
                                {.info_offset = 3, .tuples = {{0x4000, 8}}}};
    bytes aranges;
    for (const aranges_set &set : sets)
        aranges += set.build(aranges.size());
    handle h;
    h.extend().attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_ARANGES, aranges);
    h.attach(KRV_SEC_INFO, first + second + first);
    const krv_ctu_t *cu = korva_lookup_ctu_by_addr(h, 0x2007, KRV_LOOKUP_F_FAST);
    ASSERT_NE(cu, nullptr);
    EXPECT_TRUE(cu->dcu_offset == first.size() + second.size() && h->sh_cu_table_entries == 0 && h.notes.empty());
    for (int n = 0; n < 2; ++n) // and then the table is read, for what sets may have left out
        EXPECT_TRUE(refuses(h, korva_lookup_ctu_by_addr(h, 0x3000, 0), "NOTFOUND") &&
                    refuses(h, korva_lookup_ctu_by_addr(h, 0x4000, 0), "NOTFOUND"));
    EXPECT_EQ(h->sh_cu_table_entries, 3U);
    EXPECT_EQ(korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, cu->dcu_offset), cu);
    EXPECT_EQ(korva_lookup_ctu_by_addr(h, 0x1000, 0), h->sh_cu_table[0]);
    EXPECT_EQ(h.notes, "!.debug_info 13 unit at offset 0xd of .debug_info is DWARF 6, and libkorva reads DWARF 2 to 5\n"
                       "!.debug_aranges 144 set at offset 0x90 of .debug_aranges names no unit that can be read: "
                       "unit_length (1024) too large for existing section size (38)\n");
}

using offsets = std::vector<uint64_t>;

// The offsets of all units that cover an address, or of the first, asking one unit after the other.
static offsets ask_units(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags, size_t most = SIZE_MAX)
{
    offsets found;
    for (const korva::unit &u : korva::handle_view(hp).units())
        if (found.size() < most && korva_cu_contains_addr(hp, u.get(), address, flags) == B_TRUE)
            found.push_back(u.get()->dcu_offset);
    return found;
}

// The same by the index, whose first answer is the first of all.
static offsets ask_index(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags)
{
    offsets found;
    for (krv_ctu_t *cu = nullptr; (cu = korva_lookup_next_ctu_by_addr(hp, cu, address, flags)) != nullptr;)
        found.push_back(cu->dcu_offset);
    const krv_ctu_t *first = korva_lookup_ctu_by_addr(hp, address, flags);
    EXPECT_EQ(first == nullptr ? offsets() : offsets{first->dcu_offset},
              offsets(found.begin(), found.begin() + !found.empty()));
    return found;
}

// Many addresses at once have the answers that each has by itself.
static testing::AssertionResult same_at_once(krv_handle_t *hp, const std::vector<uint64_t> &addrs,
                                             krv_lookup_flag_t flags)
{
    std::vector<krv_ctu_t *> units(addrs.size());
    std::vector<krv_row_t> rows(addrs.size());
    const int result = korva_lookup_rows(hp, addrs.data(), addrs.size(), flags, units.data(), rows.data());
    const std::string error = error_line(hp);
    std::vector<krv_row_t> visited(addrs.size());
    const auto visit = [](krv_handle_t *, size_t index, const krv_row_t *row, const krv_call_t *, size_t, void *to) {
        (*static_cast<std::vector<krv_row_t> *>(to))[index] = *row;
        return 0;
    };
    const int visits = flags != KRV_LOOKUP_F_NONE
                           ? 0
                           : korva_iter_chains(hp, addrs.data(), addrs.size(), KRV_CHAINS_F_ROWS, visit, &visited);
    const krv_opt_t &bias = hp->sh_opts[KRV_OPT_BASE_ADDR];
    for (size_t i = 0; i < addrs.size(); ++i) {
        krv_ctu_t *unit = korva_lookup_ctu_by_addr(hp, addrs[i] - bias.sopt_u.o_ulong, flags);
        const int errnum = korva_handle_get_errno(hp);
        if (unit == nullptr && errnum != KRV_ERR_NOTFOUND && errnum != KRV_ERR_NONE)
            return result == -1 && error == error_line(hp) ? testing::AssertionSuccess()
                                                           : testing::AssertionFailure() << error;
        krv_row_t row;
        if (unit == nullptr || korva_lookup_row(hp, unit, addrs[i], 1, addrs[i], &row) != 0)
            row = {.address = 0,
                   .file = nullptr,
                   .number = KRV_ROW_NONE,
                   .line = 0,
                   .column = 0,
                   .discriminator = 0,
                   .is_stmt = 0};
        const auto values = [](const krv_row_t &r) {
            return std::tie(r.address, r.file, r.number, r.line, r.column, r.discriminator, r.is_stmt);
        };
        if (result != 0 || units[i] != unit || values(rows[i]) != values(row))
            return testing::AssertionFailure() << error << ": " << std::hex << addrs[i] << ", row " << rows[i].number;
        krv_row_t with_calls;
        size_t count;
        if (flags == KRV_LOOKUP_F_NONE &&
            (korva_lookup_chain(hp, addrs[i], &with_calls, nullptr, 0, &count) != 0 ||
             values(with_calls) != values(row) || visits != 0 || values(visited[i]) != values(row)))
            return testing::AssertionFailure() << error_line(hp) << ": with calls " << std::hex << addrs[i];
    }
    return testing::AssertionSuccess();
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
    for (const uint32_t extensions : {0U, KRV_EXT_AS_WRITTEN})
        for (const auto &row : rows) {
            bytes info;
            for (const bytes &dies : row.units)
                info += simple_unit(dies);
            handle asked, indexed, mixed;
            for (handle *h : {&asked, &indexed, &mixed})
                h->extend(extensions)
                    .attach(KRV_SEC_ABBREV, abbrev_section)
                    .attach(KRV_SEC_ARANGES, row.aranges)
                    .attach(KRV_SEC_INFO, info);
            const std::vector<uint64_t> bounds = {0,      0x10,   0x100,  0x180,  0x200,    0x800,  0x900,  0x1000,
                                                  0x1100, 0x1180, 0x1200, 0x1500, 0x1501,   0x1800, 0x2000, 0x2180,
                                                  0x2800, 0x2f00, 0x3000, 0x3008, MAX - 15, MAX};
            // FAST before anything is scanned, then after everything is; in between one unit after the other.
            for (const krv_lookup_flag_t flags : {KRV_LOOKUP_F_FAST, KRV_LOOKUP_F_NONE, KRV_LOOKUP_F_FAST}) {
                EXPECT_TRUE(same_at_once(mixed, {bounds.rbegin(), bounds.rend()}, flags));
                for (const uint64_t bound : bounds) {
                    for (const uint64_t address : {bound - 1, bound, bound + 1}) {
                        offsets expected = ask_units(asked, address, flags);
                        EXPECT_TRUE(flags == KRV_LOOKUP_F_FAST || ask_index(indexed, address, flags) == expected)
                            << std::hex << address;
                        expected.resize(std::min(expected.size(), size_t{1}));
                        EXPECT_EQ(ask_units(mixed, address, flags, 1), expected);
                        const offsets known = ask_units(mixed, address, KRV_LOOKUP_F_FAST);
                        EXPECT_EQ(ask_index(mixed, address, KRV_LOOKUP_F_FAST), known) << std::hex << address;
                    }
                }
            }
        }
}

TEST(Lookup, RowsOfManyAddresses)
{
    // Sequences out of order, rows that descend, rows of one address, a gap; then a program that fails, and no program.
    std::string dense = "at 1300 copy pc 16 end at 1000 ";
    for (int i = 0; i < 40; ++i)
        dense += i % 7 == 0 ? "copy line 1 copy pc 3 " : "copy line 2 pc 5 ";
    const bytes program_1 = line_unit{.program = program(dense + "end")}.build();
    const bytes program_2 =
        line_unit{.program = program("at 2000 copy at 2040 line 1 copy at 2010 line 1 copy at 2080 end")}.build();
    const bytes failing = line_unit{.program = program("at 3000 copy pc 16 end") + bytes().u8(0).uleb(9)}.build();
    const auto unit_at = [&](const bytes &before, uint64_t low, uint64_t size) {
        return unit{.dies = bytes().uleb(1).u32(static_cast<uint32_t>(before.size())).u64(low).u64(size)}.build();
    };
    const bytes second = program_1 + program_2;
    const bytes info = unit_at({}, 0x1000, 0x400) + unit_at(program_1, 0x2000, 0x100) + unit_at(second, 0x3000, 0x20) +
                       unit{.dies = bytes().uleb(2).u64(0x3010).u64(0x40)}.build() + unit_at({}, 0x1200, 0x1000);
    std::vector<uint64_t> addrs;
    for (uint64_t i = 0; i < 3000; ++i)
        addrs.push_back(0xfe0 + i * 7919 % 0x20a0);
    addrs.insert(addrs.end(), {0x1300, 0x1300, 0, MAX, 0x1234});
    for (const uint32_t extensions : {0U, KRV_EXT_AS_WRITTEN, KRV_EXT_AS_WRITTEN | KRV_EXT_DWARF5})
        for (const uint64_t bias : {uint64_t{0}, uint64_t{0x1000}, MAX}) {
            handle h;
            h.extend(extensions).attach(KRV_SEC_LINE, second + failing).attach(KRV_SEC_INFO, info);
            h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit stmt_list:sec_offset low_pc:addr high_pc:data8;"
                                             "2 compile_unit low_pc:addr high_pc:data8"));
            if (extensions == KRV_EXT_AS_WRITTEN) // of some of what the units claim
                h.attach(KRV_SEC_ARANGES, aranges_set{.tuples = {{0x1000, 0x80}, {0x1300, 0x10}}}.build());
            if (bias != 0)
                korva_handle_set_opt(h, KRV_OPT_BASE_ADDR, bias);
            EXPECT_TRUE(same_at_once(h, {0x1000 + bias}, 0)); // the unit, the matrix and the sequence are known then
            EXPECT_TRUE(same_at_once(h, addrs, 0));
            std::sort(addrs.begin(), addrs.end());
            EXPECT_TRUE(same_at_once(h, addrs, KRV_LOOKUP_F_FAST));
            std::reverse(addrs.begin(), addrs.end());
        }
    handle h;
    EXPECT_EQ(korva_lookup_rows(h, nullptr, 0, 0, nullptr, nullptr), 0);
    EXPECT_TRUE(refuses(h, korva_lookup_rows(h, addrs.data(), 1, 0, nullptr, nullptr), "INVALID"));
    EXPECT_EQ(korva_lookup_rows(nullptr, nullptr, 0, 0, nullptr, nullptr), -1);
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
