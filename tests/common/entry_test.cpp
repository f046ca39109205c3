// SPDX-License-Identifier: Apache-2.0
//
// Entries by cursor, their values, and the calls around an address.
#include "support/activation.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace krv_test;

namespace
{

std::string show(const krv_attr_t &a)
{
    const auto number = static_cast<unsigned long>(a.number);
    const std::string bytes(reinterpret_cast<const char *>(a.bytes), a.size);
    switch (a.kind) {
    case KRV_ATTR_STRING:
        return text("'%s'", bytes.c_str());
    case KRV_ATTR_BLOCK:
    case KRV_ATTR_EXPRESSION:
        return text("%c%lu", a.kind == KRV_ATTR_BLOCK ? 'b' : 'x', a.size);
    case KRV_ATTR_REFERENCE:
        return text("%s%lu", a.is_alternate ? "alt" : "ref", number);
    case KRV_ATTR_CONSTANT:
        return a.is_signed ? text("%ld", static_cast<long>(a.number)) : text("%lu", number);
    default:
        return text("%d:0x%lx", a.kind, number);
    }
}

// What attributes an entry has, or how reading them ends.
std::string attributes(handle &h, krv_entry_t entry)
{
    std::string all;
    krv_attr_t a, at_once[4];
    size_t count = 0, i = 0;
    krv_entry_t copy = entry;
    const bool whole = korva_entry_get_attrs(h, &copy, at_once, 4, &count) == 0;
    int read;
    while ((read = korva_entry_next_attr(h, &entry, &a)) == 1) {
        all += (all.empty() ? "" : " ") + show(a);
        EXPECT_TRUE(i < count && show(at_once[i]) == show(a) && at_once[i++].form == a.form);
        krv_attr_t same; // of several the first
        EXPECT_EQ(korva_entry_get_attr(h, &entry, a.attribute, &same), 0);
        EXPECT_LE(a.attribute == DW_AT_const_value ? 0U : 1U, same.attribute == a.attribute ? 1U : 0U);
    }
    const std::string error = h.error();
    EXPECT_EQ(read == 0 && i == count, whole);
    EXPECT_EQ(copy.at, entry.at);
    return read == 0 ? all : all + " " + error;
}

// Whether a unit's entries are visited as they are walked; `from` is the first one.
testing::AssertionResult visited_as_walked(handle &h, const krv_entry_t &from)
{
    std::string visited, walked;
    const auto add = [](krv_handle_t *, const krv_entry_t *entry, const krv_attr_t *attrs, size_t count, void *arg) {
        auto *all = static_cast<std::string *>(arg);
        *all += text("%lx %u:", entry->offset, entry->depth);
        for (size_t i = 0; i < count; ++i)
            *all += " " + show(attrs[i]);
        return 0;
    };
    const int result = korva_iter_entries(h, from.unit, add, &visited);
    const std::string error = h.error();
    krv_entry_t entry = from;
    int moved = 0;
    krv_attr_t attrs[16];
    size_t count = 0;
    for (; moved == 0; moved = korva_entry_next(h, &entry)) {
        if (korva_entry_get_attrs(h, &entry, attrs, 16, &count) != 0)
            break;
        add(h, &entry, attrs, count, &walked);
    }
    const bool ended = moved != 0 && korva_handle_get_errno(h) == KRV_ERR_NOTFOUND;
    return visited == walked && (result == 0) == ended && (ended || error == h.error())
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << visited << error;
}

krv_entry_t first_of(handle &h, uint64_t unit_offset = 0)
{
    krv_entry_t entry = {};
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, unit_offset);
    EXPECT_EQ(korva_entry_first(h, cu, &entry), 0) << h.error();
    return entry;
}

} // namespace

TEST(Entry, Values)
{
    const struct {
        const char *form;
        bytes value;
        const char *expected;
    } rows[] = {
        {"data1", bytes().u8(0xff), "255"},
        {"data8", bytes().u64(UINT64_MAX), "18446744073709551615"},
        {"udata", bytes::hex("ffffffffffffffffff01"), "18446744073709551615"},
        {"udata", bytes::hex("81808000"), "1"}, // padded
        {"udata", bytes::hex("ffffffffffffffffff03"),
         " CORRUPT: attribute 0x1c of the entry at offset 0xb of .debug_info is cut off, or too large"},
        {"sdata", bytes().sleb(-129), "-129"},
        {"sdata", bytes::hex("ffffffffffffffffff00"), "9223372036854775807"},
        {"sdata", bytes::hex("ffffffffffffffffff7f"), "-1"},
        {"addr", bytes().u64(0x1234), "1:0x1234"},
        {"flag", bytes().u8(2), "3:0x2"},
        {"flag_present", bytes(), "3:0x1"},
        {"string", bytes().cstr("abc"), "'abc'"},
        {"string", bytes().u8('a'), " CORRUPT: attribute 0x1c of the entry at offset 0xb of .debug_info is cut off"},
        {"strp", bytes().u32(2), "'r'"},
        {"strp", bytes().u32(4),
         " CORRUPT: string at offset 0x4 leads out of .debug_str | "
         "attribute 0x1c of the entry at offset 0xb of .debug_info cannot be read"},
        {"line_strp", bytes().u32(1), "'ine'"},
        {"strx1", bytes().u8(1), "'tr'"},
        {"strx1", bytes().u8(2),
         " CORRUPT: index 2 at base 0x8 leads out of .debug_str_offsets | "
         "attribute 0x1c of the entry at offset 0xb of .debug_info cannot be read"},
        {"addrx", bytes().uleb(1), "1:0x4000"},
        {"block1", bytes().u8(2).u16(0), "b2"},
        {"block4", bytes().u32(1), " CORRUPT: attribute 0x1c of the entry at offset 0xb of .debug_info is cut off"},
        {"exprloc", bytes().uleb(1).u8(0x50), "x1"},
        {"data16", bytes().fill(16), "b16"},
        {"ref1", bytes().u8(0x20), "ref32"},
        {"ref_udata", bytes().uleb(0x81).fill(8), "ref129"},
        {"ref_addr", bytes().u32(0x999), "ref2457"},
        {"GNU_ref_alt", bytes().u32(7), "alt7"},
        {"ref_sig8", bytes().u64(5), "8:0x5"},
        {"sec_offset", bytes().u32(9), "9:0x9"},
        {"rnglistx", bytes().uleb(0), "9:0x10"},
        {"implicit_const=-3", bytes(), "-3"},
        {"indirect", bytes().uleb(0x16).uleb(0x0b).u8(7), "7"},
        {"indirect", bytes().uleb(0x21),
         " CORRUPT: attribute 0x1c of the entry at offset 0xb of .debug_info is cut off, or of an unknown form"},
        {"indirect", bytes().uleb(0x77),
         " CORRUPT: attribute 0x1c of the entry at offset 0xb of .debug_info is of an unknown form"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.form);
        handle h;
        h.extend();
        h.attach(KRV_SEC_ABBREV,
                 abbrevs("1 compile_unit+; 2 variable name:data1 const_value:" + std::string(row.form)));
        h.attach(KRV_SEC_STR, bytes().cstr("str"));
        h.attach(KRV_SEC_EXT_LINE_STR, bytes().cstr("line"));
        h.attach(KRV_SEC_EXT_STR_OFFSETS, bytes().u32(12).u16(5).u16(0).u32(0).u32(1));
        h.attach(KRV_SEC_EXT_ADDR, bytes().u32(20).u16(5).u16(8).u64(0x3000).u64(0x4000));
        h.attach(KRV_SEC_EXT_RNGLISTS, bytes().u32(13).u16(5).u16(8).u32(1).u32(4).u8(0));
        const bytes dies = bytes().uleb(1).uleb(2).u8(1).add(row.value);
        h.attach(KRV_SEC_INFO, unit{.version = 5, .kind = KRV_UNIT_COMPILE, .dies = dies}.build());
        krv_entry_t entry = first_of(h);
        EXPECT_TRUE(visited_as_walked(h, entry)) << row.form;
        ASSERT_EQ(korva_entry_next(h, &entry), 0) << h.error();
        std::string expected = row.expected;
        if (const size_t at = expected.find("0xb of"); at != std::string::npos)
            expected.replace(at, 3, "0xd");
        EXPECT_EQ(attributes(h, entry), (expected[0] == ' ' ? "1" : "1 ") + expected);
    }
}

namespace
{

// Offset, depth and tag of the cursor.
std::string where(const krv_entry_t &e)
{
    return text("%lu/%u/%x", e.offset, e.depth, e.tag);
}

const char *const TREE =
    "1 compile_unit+; 2 namespace+; 3 structure_type+ sibling:ref1; 4 member name:string; 5 base_type+";

// Entries at 11; 12 in it, with 13 and 17 in that, 13 linked past its member; 20, an entry with an empty list of children.
bytes tree()
{
    return bytes().uleb(1).uleb(2).uleb(3).u8(19).uleb(4).cstr("m").u8(0).uleb(4).cstr("n").u8(0).uleb(5).u8(0).u8(0);
}

} // namespace

TEST(Entry, Tree)
{
    handle h;
    h.attach(KRV_SEC_ABBREV, abbrevs(TREE));
    h.attach(KRV_SEC_INFO, unit{.dies = tree()}.build());
    krv_entry_t e = first_of(h);
    EXPECT_TRUE(visited_as_walked(h, e));
    const auto stop = [](krv_handle_t *, const krv_entry_t *, const krv_attr_t *, size_t, void *) { return 5; };
    EXPECT_EQ(korva_iter_entries(h, e.unit, stop, nullptr), 5);
    EXPECT_EQ(korva_iter_entries(h, nullptr, stop, nullptr), -1);
    std::string all = where(e);
    while (korva_entry_next(h, &e) == 0)
        all += " " + where(e);
    EXPECT_EQ(h.error(), "NOTFOUND");
    EXPECT_EQ(all, "11/0/11 12/1/39 13/2/13 15/3/d 19/2/d 23/1/24");

    const struct {
        uint64_t offset;
        const char *child, *sibling, *ancestors;
    } rows[] = {
        {11, "12/1/39", "NOTFOUND", ""},       {12, "13/1/13", "23/0/24", "11"},
        {13, "15/1/d", "19/0/d", "11 12"},     {15, "NOTFOUND", "NOTFOUND", "11 12 13"},
        {19, "NOTFOUND", "NOTFOUND", "11 12"}, {23, "NOTFOUND", "NOTFOUND", "11"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.offset);
        krv_entry_t at, moved;
        ASSERT_EQ(korva_entry_at(h, KRV_SEC_INFO, row.offset, &at), 0) << h.error();
        moved = at;
        EXPECT_EQ(korva_entry_child(h, &moved) == 0 ? where(moved) : h.error(), row.child);
        moved = at;
        EXPECT_EQ(korva_entry_sibling(h, &moved) == 0 ? where(moved) : h.error(), row.sibling);
        krv_entry_t above[8];
        size_t count = 0;
        EXPECT_EQ(korva_entry_get_ancestors(h, &at, above, 8, &count), 0) << h.error();
        std::string ancestors;
        for (size_t i = 0; i < count; ++i)
            ancestors += (i == 0 ? "" : " ") + std::to_string(above[i].offset);
        EXPECT_EQ(ancestors, row.ancestors);
    }
    krv_entry_t none;
    for (const uint64_t offset : {uint64_t{0}, uint64_t{10}, uint64_t{24}, uint64_t{26}, UINT64_MAX})
        EXPECT_TRUE(refuses(h, korva_entry_at(h, KRV_SEC_INFO, offset, &none), "NOTFOUND")) << offset;
}

TEST(Entry, Damage)
{
    const struct {
        const char *abbrevs;
        bytes dies;
        const char *error;
    } rows[] = {
        {"1 compile_unit+", bytes().uleb(1).u8(0x80), "CORRUPT: entry at offset 0xc of .debug_info is cut off"},
        {"1 compile_unit+", bytes().uleb(1).uleb(7),
         "CORRUPT: abbreviation code 7 not found | entry at offset 0xc of .debug_info cannot be read"},
        {"1 compile_unit+; 2 member name:data8", bytes().uleb(1).uleb(2).u32(0),
         "CORRUPT: entry at offset 0xc of .debug_info has values that are cut off or unknown"},
        {"1 compile_unit+; 2 member name:0x7f", bytes().uleb(1).uleb(2).u32(0),
         "CORRUPT: entry at offset 0xc of .debug_info has values that are cut off or unknown"},
    };
    for (const auto &row : rows) {
        handle h;
        h.attach(KRV_SEC_ABBREV, abbrevs(row.abbrevs));
        h.attach(KRV_SEC_INFO, unit{.dies = row.dies}.build());
        krv_entry_t e = first_of(h);
        EXPECT_TRUE(visited_as_walked(h, e));
        while (korva_entry_next(h, &e) == 0)
            ;
        EXPECT_EQ(h.error(), row.error);
    }
    handle h; // a sibling that leads back, and one that leads out
    h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit+; 2 namespace+ sibling:ref1"));
    for (const uint8_t sibling : {uint8_t{12}, uint8_t{99}}) {
        h.attach(KRV_SEC_INFO, unit{.dies = bytes().uleb(1).uleb(2).u8(sibling).u16(0)}.build());
        krv_entry_t e = first_of(h);
        ASSERT_EQ(korva_entry_next(h, &e), 0);
        EXPECT_TRUE(refuses(h, korva_entry_sibling(h, &e),
                            "CORRUPT: entry at offset 0xc of .debug_info has a sibling that does not lead forward"));
    }
}

namespace
{

const char *const CALLS =
    "1 compile_unit+ low_pc:addr high_pc:data4; 2 subprogram+ name:string low_pc:addr high_pc:data4; "
    "3 inlined_subroutine+ abstract_origin:ref4 low_pc:addr high_pc:data4 call_file:data1 call_line:data1; 4 "
    "lexical_block+; "
    "5 subprogram name:string linkage_name:string decl_line:data1; 6 subprogram specification:ref4; "
    "7 subprogram abstract_origin:ref4; 8 inlined_subroutine abstract_origin:ref4 ranges:sec_offset; "
    "9 variable name:string const_value:data1";

bytes subprogram(const char *name, uint64_t low, uint64_t size)
{
    return bytes().uleb(2).cstr(name).u64(low).u32(size);
}

bytes inlined(const char *origin, uint64_t low, uint64_t size, uint8_t line)
{
    return bytes().uleb(3).offset_of(origin, 4).u64(low).u32(size).u8(0).u8(line);
}

std::string text_of(const krv_call_t *calls, size_t count)
{
    std::string all;
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(calls[i].name_size, calls[i].name == nullptr ? 0 : std::strlen(calls[i].name));
        EXPECT_EQ(calls[i].linkage_name_size,
                  calls[i].linkage_name == nullptr ? 0 : std::strlen(calls[i].linkage_name));
        all += (i == 0 ? "" : " < ") + std::string(calls[i].name == nullptr ? "?" : calls[i].name) +
               (calls[i].linkage_name == nullptr ? "" : text("(%s)", calls[i].linkage_name)) +
               (calls[i].decl_line == 0 ? "" : text("#%u", calls[i].decl_line)) +
               (calls[i].is_inlined != 0 ? text("@%u", calls[i].call_line) : "");
    }
    return all;
}

std::string chain_of(handle &h, uint64_t address, size_t room = 8)
{
    krv_call_t calls[8];
    size_t count = 0;
    if (korva_lookup_calls(h, address, calls, room, &count) != 0)
        return h.error();
    return text_of(calls, std::min(count, room)) + (count > room ? text(" < %lu", count - room) : "");
}

// What a visitor of chains was shown, by the index of the address.
struct seen_chains {
    std::vector<std::string> texts;
    std::vector<size_t> order;
    size_t stops_after = SIZE_MAX; // with 7

    static int visit(krv_handle_t *, size_t index, const krv_row_t *row, const krv_call_t *calls, size_t count,
                     void *arg)
    {
        auto *to = static_cast<seen_chains *>(arg);
        EXPECT_EQ(row->number, KRV_ROW_NONE);
        to->texts.resize(std::max(to->texts.size(), index + 1));
        to->texts[index] = text_of(calls, count);
        to->order.push_back(index);
        return to->order.size() == to->stops_after ? 7 : 0;
    }
};

} // namespace

// Where a call is said to be in file 0, that is a file of version 5 only.
TEST(Calls, FileZero)
{
    for (const uint16_t version : {4, 5}) {
        handle h;
        h.extend();
        h.attach(KRV_SEC_ABBREV,
                 abbrevs("1 compile_unit+ stmt_list:sec_offset low_pc:addr high_pc:data4; 2 subprogram+ "
                         "low_pc:addr high_pc:data4; 3 inlined_subroutine abstract_origin:ref4 low_pc:addr "
                         "high_pc:data4 call_file:data1 call_line:data1"));
        bytes dies = bytes().uleb(1).u32(0).u64(0x1000).u32(0x20).label("f").uleb(2).u64(0x1000).u32(0x20);
        dies += inlined("f", 0x1008, 8, 3) + bytes().u16(0);
        const auto kind = static_cast<uint8_t>(version == 5 ? KRV_UNIT_COMPILE : 0);
        h.attach(KRV_SEC_INFO, unit{.version = version, .kind = kind, .dies = dies}.build());
        h.attach(KRV_SEC_LINE, line_unit{.v5 = version == 5, .files = {{"zero.c"}, {"one.c"}}}.build());
        krv_call_t calls[2];
        size_t count = 0;
        ASSERT_EQ(korva_lookup_calls(h, 0x1008, calls, 2, &count), 0) << h.error();
        ASSERT_TRUE(count == 2 && calls[0].call_unit != nullptr && calls[0].call_file == 0);
        krv_lnfe_t *file = nullptr;
        const int result = korva_cu_get_file(h, calls[0].call_unit, 0, &file);
        EXPECT_EQ(result == 0 ? korva_lnfe_path(h, file, B_FALSE) : h.error(), version == 5 ? "zero.c" : "NOTFOUND");
    }
}

TEST(Calls, Chain)
{
    handle h;
    h.extend();
    h.attach(KRV_SEC_ABBREV, abbrevs(CALLS));
    bytes dies = bytes().uleb(1).u64(0x1000).u32(UINT32_MAX);
    dies.label("decl").uleb(5).cstr("a").cstr("_Za").u8(7);
    dies.label("a").uleb(6).offset_of("decl", 4); // what is inlined leads to its declaration
    dies.label("b").uleb(7).offset_of("c", 4);    // in a circle
    dies.label("c").uleb(7).offset_of("b", 4);
    dies += subprogram("f", 0x1000, 0x100);
    dies += inlined("a", 0x1010, 0x20, 1) + inlined("b", 0x1018, 8, 2) + bytes().u8(0).u8(0);
    dies += bytes().uleb(4) + inlined("a", 0x1020, 0x20, 3) + bytes().u8(0).u8(0); // overlaps: the one behind answers
    dies += bytes().uleb(8).offset_of("a", 4).u32(0);                              // by its list
    dies += bytes().uleb(8).offset_of("a", 4).u32(0x999);                          // no list: never met
    dies += subprogram("nested", 0x1200, 0x10) + inlined("a", 0x1208, 1, 4) + bytes().u8(0).u8(0) + bytes().u8(0);
    dies += subprogram("far", 0x1300, 0x10); // with calls, and itself, more than 4 GiB from the others
    dies += bytes().uleb(8).offset_of("a", 4).u32(0x40) + bytes().u8(0);
    dies += subprogram("farther", 0x100000f00, 0x200) + bytes().u8(0);
    dies += subprogram("g", 0x1100, 0x10) + bytes().u8(0) + bytes().uleb(9).cstr("v").u8(1) + bytes().u8(0);
    h.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
    h.attach(
        KRV_SEC_EXT_RANGES,
        bytes().u64(UINT64_MAX).u64(0).u64(0x1080).u64(0x1088).u64(0x1090).u64(0x1098).u64(0).u64(0) +
            bytes().u64(UINT64_MAX).u64(0).u64(0x1304).u64(0x1308).u64(0x300000000).u64(0x300000008).u64(0).u64(0));
    const struct {
        uint64_t address;
        const char *chain;
    } rows[] = {
        {0x0fff, "NOTFOUND"},
        {0x1000, "f"},
        {0x1010, "a(_Za)#7@1 < f"},
        {0x1018, "?@2 < a(_Za)#7@1 < f"},
        {0x101f, "?@2 < a(_Za)#7@1 < f"},
        {0x1020, "a(_Za)#7@3 < f"},
        {0x103f, "a(_Za)#7@3 < f"},
        {0x1040, "f"},
        {0x1087, "a(_Za)#7@0 < f"},
        {0x1088, "f"},
        {0x1090, "a(_Za)#7@0 < f"},
        {0x1108, "g"},
        {0x1110, "NOTFOUND"},
        {0x1200, "nested"},
        {0x1208, "a(_Za)#7@4 < nested"},
        {0x1303, "far"},
        {0x1307, "a(_Za)#7@0 < far"},
        {0x1308, "far"},
        {0x100000eff, "NOTFOUND"},
        {0x100000ffe, "farther"},
    };
    std::vector<uint64_t> addresses; // for the batch: descending
    std::vector<std::string> expected;
    for (const auto &row : rows) {
        EXPECT_EQ(chain_of(h, row.address), row.chain) << std::hex << row.address;
        addresses.insert(addresses.begin(), row.address);
        expected.insert(expected.begin(), std::string(row.chain) == "NOTFOUND" ? "" : row.chain);
    }
    EXPECT_EQ(chain_of(h, 0x1018, 1), "?@2 < 2");

    seen_chains given, ascending{.texts = {}, .order = {}, .stops_after = 18}, rows_only;
    const auto iterate = [&](unsigned flags, seen_chains *to) {
        return korva_iter_chains(h, addresses.data(), addresses.size(), flags, seen_chains::visit, to);
    };
    EXPECT_EQ(iterate(KRV_CHAINS_F_NONE, &given), 0);
    EXPECT_EQ(given.texts, expected);
    EXPECT_TRUE(std::is_sorted(given.order.begin(), given.order.end()));
    EXPECT_EQ(iterate(KRV_CHAINS_F_ASCENDING, &ascending), 7);
    EXPECT_EQ(ascending.order.front(), 19U);
    EXPECT_TRUE(std::equal(ascending.texts.begin() + 2, ascending.texts.end(), expected.begin() + 2));
    EXPECT_EQ(iterate(KRV_CHAINS_F_ROWS, &rows_only), 0);
    EXPECT_EQ(rows_only.texts, std::vector<std::string>(addresses.size()));
    EXPECT_EQ(iterate(4, &ascending), -1);

    std::string named;
    const auto add = [](krv_handle_t *, const krv_entry_t *entry, void *arg) {
        *static_cast<std::string *>(arg) += text("%x ", entry->tag);
        return 0;
    };
    for (const char *name : {"f", "nested", "v", "a", "_Za"})
        EXPECT_EQ(korva_iter_named_entries(h, name, KRV_NAMED_FUNCTIONS | KRV_NAMED_VARIABLES, add, &named), 0);
    EXPECT_EQ(korva_iter_named_entries(h, "v", KRV_NAMED_FUNCTIONS, add, &named), 0);
    EXPECT_EQ(named, "2e 2e 34 ");
}

// Calls in one another, deeper than a visitor is shown, and beside one another: what chains have in common is shown anew.
TEST(Calls, DeepChains)
{
    constexpr size_t DEPTH = 300, SHOWN = 256;
    handle h;
    h.extend();
    h.attach(KRV_SEC_ABBREV, abbrevs(CALLS));
    bytes dies = bytes().uleb(1).u64(0x1000).u32(UINT32_MAX).label("a").uleb(5).cstr("a").cstr("_Za").u8(7);
    dies += subprogram("f", 0x1000, 2 * DEPTH);
    const auto line_at = [](size_t depth) { return static_cast<uint8_t>(depth % 199); };
    for (size_t depth = 0; depth < DEPTH; ++depth) // each begins an address behind its caller, and ends one before
        dies += inlined("a", 0x1000 + depth + 1, 2 * (DEPTH - depth) - 2, line_at(depth));
    h.attach(KRV_SEC_INFO, unit{.dies = dies.fill(DEPTH + 2)}.build());
    std::vector<uint64_t> addresses;
    std::vector<std::string> expected;
    for (const size_t depth :
         {299UL, 298UL, 297UL, 40UL, 254UL, 255UL, 256UL, 255UL, 3UL, 0UL, 3UL, 2UL, 299UL, 0UL, 0UL, 17UL}) {
        addresses.push_back(0x1000 + (addresses.size() % 2 == 0 ? depth : 2 * DEPTH - 1 - depth));
        std::string chain;
        for (size_t i = depth; i > (depth < SHOWN ? 0 : depth - SHOWN + 1); --i)
            chain += text("a(_Za)#7@%u < ", line_at(i - 1));
        expected.push_back(chain + "f");
    }
    for (const unsigned flags : {KRV_CHAINS_F_NONE, KRV_CHAINS_F_ASCENDING}) {
        seen_chains seen;
        EXPECT_EQ(korva_iter_chains(h, addresses.data(), addresses.size(), flags, seen_chains::visit, &seen), 0);
        EXPECT_EQ(seen.texts, expected);
    }
}

// What the alternate file has is found there, also where its strings lie.
TEST(Calls, AlternateFile)
{
    handle h;
    h.extend();
    h.attach(KRV_SEC_ABBREV,
             abbrevs("1 compile_unit+; 2 subprogram abstract_origin:GNU_ref_alt low_pc:addr high_pc:data1"));
    const bytes header = unit{.dies = bytes().uleb(1).uleb(2).cstr("first")}.build();
    h.attach(KRV_SEC_EXT_ALT_ABBREV,
             abbrevs("1 partial_unit+; 2 subprogram name:string; 3 subprogram specification:ref4; "
                     "4 subprogram name:strp"));
    bytes dies = bytes().uleb(1).label("a").uleb(3).offset_of("d", 4).label("d").uleb(4).u32(1);
    h.attach(KRV_SEC_EXT_ALT_INFO, header + unit{.dies = dies}.build());
    h.attach(KRV_SEC_EXT_ALT_STR, bytes().cstr("xname"));
    h.attach(KRV_SEC_INFO, unit{.dies = bytes().uleb(1).uleb(2).u32(header.size() + 12).u64(0x1000).u8(8)}.build());
    EXPECT_EQ(chain_of(h, 0x1004), "name");
    krv_entry_t there; // whose unit is one like others, but without a first entry and addresses
    krv_call_t call;
    ASSERT_EQ(korva_entry_at(h, KRV_SEC_EXT_ALT_INFO, header.size() + 11, &there), 0) << h.error();
    EXPECT_EQ(korva_entry_get_call(h, &there, &call), 0);
    EXPECT_FALSE(korva_cu_contains_addr(h, there.unit, 0x1004, 0));
    EXPECT_EQ(korva_line_get_cu_lnph(h, there.unit), nullptr);
}

// Nested calls, and as many beside each other: each entry is walked a fixed number of times.
TEST(Calls, Many)
{
    constexpr uint64_t MANY = 50000;
    for (const bool nested : {true, false}) {
        handle h;
        h.extend();
        h.attach(KRV_SEC_ABBREV, abbrevs(CALLS));
        bytes dies = bytes().uleb(1).u64(0x1000).u32(4 * MANY).label("f") + subprogram("f", 0x1000, 4 * MANY);
        for (uint64_t i = 0; i < MANY; ++i) {
            dies.uleb(3).u32(24).u64(0x1000 + i).u32(nested ? 2 * MANY - 2 * i : 1).u8(0).u8(i);
            if (!nested)
                dies.u8(0);
        }
        h.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
        krv_call_t calls[2];
        size_t count = 0;
        ASSERT_EQ(korva_lookup_calls(h, 0x1000 + MANY - 1, calls, 2, &count), 0) << h.error();
        EXPECT_EQ(count, nested ? MANY + 1 : 2);
        EXPECT_EQ(calls[0].call_line, (MANY - 1) & 0xff);
        krv_entry_t above[1];
        EXPECT_EQ(korva_entry_get_ancestors(h, &calls[0].entry, above, 1, &count), 0);
        EXPECT_EQ(count, nested ? MANY + 1 : 2);
    }
}

// Types as C writes them, and how large an object of them is.
TEST(Variables, Types)
{
    handle h;
    h.attach(
        KRV_SEC_ABBREV,
        abbrevs("1 compile_unit+ language:data1; 2 base_type name:string byte_size:data1 encoding:data1; "
                "3 pointer_type type:ref4; 4 const_type type:ref4; 5 array_type+ type:ref4; "
                "6 subrange_type upper_bound:data1; 7 subroutine_type type:ref4; 8 structure_type name:string "
                "byte_size:data1; "
                "9 typedef name:string type:ref4; 10 pointer_type; 11 subrange_type; 12 union_type byte_size:data1; "
                "13 variable type:ref4; 14 variable; 15 subprogram abstract_origin:ref4; 16 reference_type type:ref4"));
    const char *const types[] = {"int", "pc", "cc", "cpc",  "a",    "pa",  "ap",  "fp",
                                 "s",   "t",  "u",  "open", "loop", "ref", "many"};
    bytes dies = bytes().uleb(1).u8(0x0c);
    dies.label("int").uleb(2).cstr("int").u8(4).u8(5);
    dies.label("char").uleb(2).cstr("char").u8(1).u8(6);
    const auto to = [&dies](const char *label, uint64_t code, const char *type) {
        dies.label(label).uleb(code).offset_of(type, 4);
    };
    to("cc", 4, "char");
    to("pc", 3, "cc");
    to("cpc", 4, "pc");
    to("a", 5, "int");
    dies.uleb(6).u8(1).uleb(6).u8(2).u8(0);
    to("pa", 3, "a");
    to("ap", 5, "pc");
    dies.uleb(6).u8(3).u8(0);
    to("f", 7, "int");
    to("fp", 3, "f");
    dies.label("s").uleb(8).cstr("s").u8(12);
    to("ct", 4, "t");
    dies.label("t").uleb(9).cstr("t").offset_of("pa", 4);
    dies.label("u").uleb(12).u8(16);
    to("open", 5, "int");
    dies.uleb(11).u8(0);
    to("loop", 4, "loop");
    to("ref", 16, "ct");
    to("many", 5, "int"); // the last dimension is one too many
    std::string dimensions;
    for (unsigned i = 0; i < 64; ++i, dimensions += "[1]")
        dies.uleb(6).u8(0);
    dies.uleb(6).u8(4).u8(0);
    for (const char *type : types)
        to(text("v%s", type).c_str(), 13, type);
    dies.label("none").uleb(14).u8(0);
    h.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
    std::string all;
    krv_entry_t e = first_of(h);
    while (korva_entry_next(h, &e) == 0) {
        if (e.tag != DW_TAG_variable)
            continue;
        char buf[64];
        krv_type_t type;
        const bool found = korva_entry_get_type_text(h, &e, buf, sizeof(buf)) == 0;
        all += found ? std::string(buf) : h.error();
        EXPECT_EQ(korva_entry_get_type(h, &e, &type), found ? 0 : -1);
        all += text(" %lu\n", found ? type.size : 0);
    }
    EXPECT_EQ(all, "int 4\nconst char * 8\nconst char 1\nconst char *const 8\nint [2][3] 24\nint (*)[2][3] 8\n"
                   "const char *[4] 32\nint (*)(...) 8\nstruct s 12\nt 8\nunion {...} 16\nint [] 0\n"
                   "CORRUPT: entry at offset 0x" +
                       text("%zx", dies.where("vloop") + unit{}.header_size()) +
                       " of .debug_info has a type that leads to too many others 0\nconst t & 8\nint " +
                       dimensions.substr(0, 59) + " 4\nvoid 0\n");
}

// What types stand in, which C does not name; and types that have units of their own, in .debug_info or .debug_types, also
// behind a declaration that has nothing but the signature.
TEST(Variables, ScopesAndSignatures)
{
    constexpr uint8_t CXX = 4, C = 12;
    for (const uint8_t language : {CXX, C})
        for (const bool v5 : {true, false}) {
            SCOPED_TRACE(testing::Message() << language << " " << v5);
            handle h;
            h.extend();
            h.attach(KRV_SEC_ABBREV,
                     abbrevs("1 compile_unit+ language:data1; 2 namespace+ name:string; 3 namespace+; "
                             "4 structure_type+ name:string byte_size:data1; 5 typedef name:string type:ref4; "
                             "6 structure_type+ byte_size:data1; 7 subprogram+; 8 variable type:ref4; "
                             "9 structure_type 0x69:ref_sig8; 10 variable type:ref_sig8; "
                             "11 enumeration_type name:string byte_size:data1; 12 type_unit+ language:data1; "
                             "13 structure_type specification:ref4 byte_size:data1"));
            const bytes end = bytes().u8(0);
            bytes dies = bytes().uleb(1).u8(language).uleb(2).cstr("ns").label("s").uleb(4).cstr("s").u8(4);
            dies.label("t").uleb(5).cstr("t").offset_of("s", 4);
            dies += bytes().uleb(6).u8(1).label("e").uleb(11).cstr("e").u8(2) + end + end; // in what has no name
            dies += bytes().uleb(3).label("a").uleb(4).cstr("a").u8(1) + end + end + end;
            dies.label("out").uleb(13).offset_of("s", 4).u8(8);
            dies += bytes().uleb(7).label("l").uleb(4).cstr("l").u8(2) + end + end;
            dies.label("decl").uleb(9).u64(7);
            for (const char *type : {"s", "t", "e", "a", "out", "l", "decl"})
                dies.uleb(8).offset_of(type, 4);
            dies += bytes().uleb(10).u64(7).uleb(10).u64(8);
            bytes own = bytes().uleb(12).u8(language).uleb(2).cstr("own").label("type").uleb(4).cstr("x").u8(16).u8(0);
            const auto type_unit = [&](uint8_t kind) {
                const size_t extra = 8 + 4, at = unit{.kind = kind}.header_size() + extra + own.where("type");
                return unit{.version = static_cast<uint16_t>(kind == 0 ? 4 : 5),
                            .kind = kind,
                            .extra = bytes().u64(7).u32(at),
                            .dies = own};
            };
            if (v5) {
                h.attach(KRV_SEC_INFO, unit{.version = 5, .kind = KRV_UNIT_COMPILE, .dies = dies}.build() +
                                           type_unit(KRV_UNIT_TYPE).build());
            } else {
                h.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
                h.attach(KRV_SEC_TYPES, type_unit(0).build());
            }
            std::string all;
            krv_entry_t e = first_of(h);
            while (korva_entry_next(h, &e) == 0) {
                char buf[64];
                krv_type_t type;
                if (e.tag != DW_TAG_variable)
                    continue;
                const bool found = korva_entry_get_type_text(h, &e, buf, sizeof(buf)) == 0;
                all += found ? std::string(buf) : h.error();
                EXPECT_EQ(korva_entry_get_type(h, &e, &type), found ? 0 : -1);
                all += text(" %lu\n", found ? type.size : 0);
            }
            EXPECT_EQ(all, language == CXX ? "ns::s 4\nns::s::t 4\nns::s::{...}::e 2\nns::(anonymous namespace)::a 1\n"
                                             "ns::s 8\nl 2\nown::x 16\nown::x 16\n"
                                             "NOTFOUND: no type unit has the signature 0x8 0\n"
                                           : "struct s 4\nt 4\nenum e 2\nstruct a 1\nstruct s 8\nstruct l 2\n"
                                             "struct x 16\nstruct x 16\n"
                                             "NOTFOUND: no type unit has the signature 0x8 0\n");
        }
}

// What is not where the frame could have it: of a thread, or known to the caller.
TEST(Variables, NotRead)
{
    const char *thread = "the variable is of a thread, whose storage is not looked for",
               *caller = "only the caller knows the value of the parameter";
    const std::pair<const char *, const char *> rows[] = {
        {"03 1000000000000000 e0", thread}, {"0e 1000000000000000 9b", thread}, {"fa 0b000000 9f", caller}};
    for (const auto &[location, reason] : rows) {
        stopped s({});
        s.h.extend().attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit+; 2 subprogram+; 3 variable location:exprloc"));
        const bytes code = bytes::hex(location);
        const bytes dies = bytes().uleb(1).uleb(2).uleb(3).uleb(code.size()).add(code).u16(0);
        s.h.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
        krv_entry_t function = first_of(s.h);
        ASSERT_EQ(korva_entry_next(s.h, &function), 0);
        krv_variable_t variable = {
            .entry = function, .name = nullptr, .decl_line = 0, .is_parameter = 0, .reserved = {}};
        ASSERT_EQ(korva_entry_next(s.h, &variable.entry), 0);
        const krv_variable_frame_t frame = {s.h, s.ap.get(), &function, 0x1000, 0};
        uint8_t value[8], valid[8], inreg[8];
        uint64_t count = 0;
        EXPECT_EQ(korva_variable_read(s.h, &variable, &frame, value, valid, inreg, sizeof(value), &count), -1);
        EXPECT_NE(s.h.error().find(reason), std::string::npos) << s.h.error();
    }
}

// Blocks that do not cover the address, and what was inlined, keep their variables to themselves.
TEST(Variables, Scope)
{
    handle h;
    h.attach(KRV_SEC_ABBREV,
             abbrevs("1 compile_unit+; 2 subprogram+; 3 lexical_block+ low_pc:addr high_pc:data1; "
                     "4 formal_parameter name:string; 5 variable name:string; 6 inlined_subroutine+; 7 lexical_block+; "
                     "8 variable abstract_origin:ref4"));
    const auto named = [](uint64_t code, const char *name) { return bytes().uleb(code).cstr(name); };
    const bytes end = bytes().u8(0);
    bytes dies = bytes().uleb(1).label("out") + named(5, "out") + bytes().uleb(2) + named(4, "p") + named(5, "v");
    dies += bytes().uleb(3).u64(0x1000).u8(8) + named(5, "a") + end;
    dies += bytes().uleb(3).u64(0x1008).u8(8) + named(5, "b") + bytes().uleb(7) + named(5, "c") + end + end;
    dies += bytes().uleb(6) + named(4, "i") + end + bytes().uleb(8).offset_of("out", 4) + end;
    h.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
    krv_entry_t function = first_of(h);
    ASSERT_EQ(korva_entry_next(h, &function), 0);
    ASSERT_EQ(korva_entry_next(h, &function), 0);
    const auto add = [](krv_handle_t *, const krv_variable_t *variable, void *arg) {
        *static_cast<std::string *>(arg) += text("%s%s ", variable->name, variable->is_parameter != 0 ? "()" : "");
        return 0;
    };
    std::string first, second;
    EXPECT_EQ(korva_iter_variables(h, &function, 0x1004, add, &first), 0);
    EXPECT_EQ(korva_iter_variables(h, &function, 0x100f, add, &second), 0);
    EXPECT_EQ(first, "p() v a out ");
    EXPECT_EQ(second, "p() v b c out ");
}
