// SPDX-License-Identifier: Apache-2.0
//
// Abbreviation tables.
#include "builders/sections.h"
#include "krv_abbrev.h"
#include "support/handle.h"

using namespace krv_test;

// A table in one line, "1/11+ 3/8 25/8; 2/2e": code, tag, + for children, pairs; or the error state.
static std::string dump(const krv_abbrev_t *a)
{
    std::string one = text("%u/%x", a->dwa_code, a->dwa_tag);
    one += a->dwa_flags == KRV_ABBREV_FLAG_PARENT ? "+" : "";
    for (uint32_t k = 0; k < a->dwa_nafpairs; ++k)
        one += text(" %x/%x", a->dwa_afpairs[k].dwafp_attribute, a->dwa_afpairs[k].dwafp_form);
    return one;
}

static std::string dump(handle &h, krv_au_t *au)
{
    if (au == nullptr)
        return h.error();
    std::string table;
    EXPECT_EQ(krv_get_abbrev(h, au, 77), nullptr);
    EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_CORRUPT);
    for (uint64_t i = 0; i < au->sau_abbrev_table_entries; ++i) {
        const krv_abbrev_t *a = &au->sau_abbrev_table[i];
        EXPECT_EQ(krv_get_abbrev(h, au, a->dwa_code), a);
        table += (i == 0 ? "" : "; ") + dump(a);
    }
    return table;
}

TEST(Abbrev, Tables)
{
    const bytes two = abbrevs("1 0x11+ name:string 0x2222:strp; 4294967295 subprogram+");
    const std::string far = "INVALID: can't seek beyond end | can't seek to 100 in .debug_abbrev";
    const std::string corrupt = "CORRUPT: DW_FORM_udata datum unterminated by end of section | ";
    const std::string too_wide = "NOSPACE: DW_FORM_udata datum requires ";
    const struct {
        bytes section;
        uint64_t offset;
        std::string outcome;
    } rows[] = {
        {two, 0, "1/11+ 3/8 2222/e; 4294967295/2e+"},
        {bytes::hex("00 01"), 0, ""},
        {bytes::hex("aa") + two, 1, "1/11+ 3/8 2222/e; 4294967295/2e+"},
        {bytes::hex("01 11 00 00 00"), 0, "1/11"}, // no null code
        {bytes::hex("01 11 00"), 0, "1/11"},       // the pairs never begin
        {bytes::hex("01 11 00 03 08"), 0, ""},     // the pairs never end
        {bytes::hex("01 11 00 00 00 02 12 00 03 08"), 0, "1/11"},
        {bytes::hex("01 11 00 03 00 25 08 00 00 00"), 0, "1/11 3/0 25/8"},           // form 0: kept
        {bytes::hex("01 11 00 03 08 00 08 02 12 00 00 00 00"), 0, "1/11 3/8; 2/12"}, // attribute 0: ends the pairs
        {bytes::hex("01 11 00 03 08 00 08"), 0, ""},                                 // and there the section, too
        {bytes::hex("01 11 00 00 00 01 12 00 00 00 00"), 0, "EXISTS: error hashing abbreviation"},
        {bytes::hex("80 80 80 80 10 11"), 0,
         too_wide + "8 bytes;  storage offers 4 | failed to read code for abbreviation at offset 0"},
        {bytes::hex("01 80 80 04 00"), 0,
         too_wide + "4 bytes;  storage offers 2 | failed to read tag for abbreviation at offset 0"},
        {bytes::hex("01 11 00 03 08 80 80 04 08"), 0,
         too_wide + "4 bytes;  storage offers 2 | failed to read attribute 2 for abbreviation 1 at offset 0"},
        {bytes::hex("01 11 00 03 08 25 80 02"), 0,
         too_wide + "2 bytes;  storage offers 1 | failed to read form 2 for abbreviation 1 at offset 0"},
        {bytes::hex("81"), 0, corrupt + "failed to read code for abbreviation at offset 0"},
        {bytes::hex("01"), 0, corrupt + "failed to read tag for abbreviation at offset 0"},
        {bytes::hex("01 11"), 0,
         "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining | failed to read children flag for abbreviation at "
         "offset 0"},
        {bytes::hex("01 11 00 83"), 0, corrupt + "failed to read attribute 1 for abbreviation 1 at offset 0"},
        {bytes::hex("01 11 00 03"), 0, corrupt + "failed to read form 1 for abbreviation 1 at offset 0"},
        {two, 100, far},
        {bytes(), 100, "INVALID: section is empty | can't seek to 100 in .debug_abbrev"},
    };
    for (const auto &row : rows) {
        handle h;
        h.attach(KRV_SEC_ABBREV, row.section);
        krv_au_t *au = krv_get_au_by_offset(h, row.offset);
        EXPECT_EQ(dump(h, au), row.outcome);
        EXPECT_EQ(krv_get_au_by_offset(h, row.offset), au); // cached; a failure is not
        krv_single_abbrev_t single;
        const bool checked = krv_abbrev_check_table(h, row.offset, 1, &single);
        EXPECT_TRUE(!checked || dump(h, au).starts_with(dump(&single.ssa_abbrev))) << row.outcome;
    }
    for_each_prefix(two, [](const bytes &prefix) { // none reads beyond its end, or leaks
        handle h;
        krv_get_au_by_offset(h.attach(KRV_SEC_ABBREV, prefix), 0);
    });
}

// Where extensions are on, tables of the same bytes are one. What a section that was replaced had is not looked at again.
TEST(Abbrev, TablesOfTheSameBytes)
{
    const bytes one = abbrevs("1 variable name:string"), other = abbrevs("1 variable name:strp");
    handle h, strict;
    h.extend();
    for (handle *each : {&h, &strict})
        each->attach(KRV_SEC_ABBREV, other + one + one);
    krv_au_t *first = krv_get_au_by_offset(h, one.size());
    EXPECT_EQ(krv_get_au_by_offset(h, 2 * one.size()), first);
    EXPECT_NE(krv_get_au_by_offset(strict, one.size()), krv_get_au_by_offset(strict, 2 * one.size()));
    ASSERT_EQ(krv_abbrev_forget_checks(h), 0);
    EXPECT_EQ(dump(h, krv_get_au_by_offset(h.attach(KRV_SEC_ABBREV, one), 0)), dump(h, first));
}

TEST(Abbrev, ManyOfEverything)
{
    std::string recipe = "1 variable", expected = "1/34";
    for (int i = 2; i <= 400; ++i) {
        recipe += i % 20 == 0 ? text("; %d variable", i) : " type:ref4";
        expected += i % 20 == 0 ? text("; %d/34", i) : " 49/13";
    }
    handle h;
    EXPECT_EQ(dump(h, krv_get_au_by_offset(h.attach(KRV_SEC_ABBREV, abbrevs(recipe)), 0)), expected);
}

// Which tables units are read without, one after the other.
TEST(Abbrev, CheckedTables)
{
    const std::string many = [] {
        std::string pairs;
        for (int i = 0; i < 65; ++i)
            pairs += " type:ref4";
        return pairs;
    }();
    const bytes first = abbrevs("1 0x11+ name:string 0x2222:strp; 2 0x2e low_pc:addr; 3 variable" + many);
    const bytes disordered = abbrevs("2 0x11; 1 0x2e"), damaged = bytes::hex("01 11 00 03 08 00 00 02 80");
    const uint64_t second = first.size(), third = 2 * second, fourth = 3 * second, fifth = 4 * second,
                   sixth = fifth + disordered.size();
    const struct {
        uint64_t offset, code;
        const char *outcome; // NULL: the table has to be read
    } rows[] = {
        {0, 2, "2/2e 11/1"},
        {0, 1, "1/11+ 3/8 2222/e"}, // again
        {0, 2, nullptr},            // again, but not the first
        {second, 1, "1/11+ 3/8 2222/e"},
        {0, 1, nullptr}, // behind the last
        {second + 1, 1, nullptr},
        {third, 4, nullptr},  // lacks the code
        {third, 1, nullptr},  // one that failed is not looked at again
        {fourth, 3, nullptr}, // too many pairs
        {fifth, 1, nullptr},
        {sixth, 1, nullptr},
        {sixth + damaged.size(), 1, nullptr},
    };
    const bytes section = first + first + first + first + disordered + damaged;
    handle h;
    h.attach(KRV_SEC_ABBREV, section);
    for (const auto &row : rows) {
        krv_single_abbrev_t single;
        const bool taken = krv_abbrev_check_table(h, row.offset, row.code, &single);
        EXPECT_EQ(taken ? dump(&single.ssa_abbrev) : "", row.outcome == nullptr ? "" : row.outcome) << row.offset;
        EXPECT_TRUE(h->sh_abbrev_checks.end > row.offset || row.offset == section.size()) << row.offset;
    }
}

TEST(Abbrev, IllegalPairsAreReported)
{
    handle h;
    h.watch();
    h.attach(KRV_SEC_ABBREV, bytes::hex("07 11 00 25 08 03 00 00 08 00"));
    krv_au_t *au = krv_get_au_by_offset(h, 0);
    const std::string common = "for abbreviation 7 at offset 0 has illegal combination of ";
    EXPECT_EQ(h.log, (std::vector<std::string>{"1 attribute/form pair 2 " + common + "DW_AT_name/0",
                                               "1 attribute/form pair 3 " + common + "0/DW_FORM_string"}));
    EXPECT_EQ(dump(h, au), "7/11 25/8 3/0");
}
