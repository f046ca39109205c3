// SPDX-License-Identifier: Apache-2.0
//
// Units, entries, attributes, and the tree.
#include "builders/sections.h"
#include "krv_error.h"
#include "krv_info.h"
#include "krv_line.h"
#include "krv_names.h"
#include "support/handle.h"

#include <random>
#include <sys/mman.h>

using namespace krv_test;

using die_owner = std::unique_ptr<krv_die_t, krv_die_deleter>;

static constexpr uint64_t MAX = UINT64_MAX;

TEST(Info, Headers)
{
    const std::string size = " too large for existing section size ",
                      no_4 = "CORRUPT: form DW_FORM_sec_offset requires 4 bytes;  3 remaining | failed to read ";
    const struct {
        bytes section;
        std::string outcome; // without the last message
    } rows[] = {
        {unit{.dies = bytes().u8(1)}.build(), "length 8 version 4 abbrev 0 address 8 header 11 size 12 flags 0"},
        {unit{.version = 5, .abbrev_offset = 7, .address_size = 0}.build(),
         "length 7 version 5 abbrev 7 address 0 header 11 size 11 flags 0"},
        {unit{.dwarf64 = true, .abbrev_offset = 1UL << 40}.build(),
         "length 11 version 4 abbrev 1099511627776 address 8 header 23 size 23 flags 1"},
        {unit{.unit_length = 0xfffffff5}.build(), "CORRUPT: reserved value (0xfffffff5) in 4-byte unit_length"},
        {unit{.unit_length = 8}.build(), "CORRUPT: unit_length (8)" + size + "(11)"},
        {unit{.dwarf64 = true, .unit_length = MAX}.build(),
         "CORRUPT: unit_length (18446744073709551615)" + size + "(23)"},
        {unit{.dwarf64 = true, .unit_length = MAX - 11}.build(),
         "CORRUPT: unit_length (18446744073709551604)" + size + "(23)"},
        {bytes(), "INVALID: section is empty"},
        {bytes().fill(3), no_4 + "4-byte unit_length"},
        {bytes().u32(MAX).fill(7),
         "CORRUPT: form DW_FORM_sec_offset requires 8 bytes;  7 remaining | failed to read 8-byte unit_length"},
        {bytes().u32(1).fill(1), "CORRUPT: form DW_FORM_data2 requires 2 bytes;  1 remaining | failed to read version"},
        {bytes().u32(3).fill(5), no_4 + "debug_abbreviation_offset"},
        {bytes().u32(2).fill(6),
         "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining | failed to read address_size"},
    };
    for (const auto &row : rows) {
        handle h;
        krv_ctu_t cu = {};
        const bool good = krv_info_hdr_read(h.attach(KRV_SEC_INFO, row.section), &cu, KRV_SEC_INFO, 0) == 0;
        const std::string fields = text("length %lu version %u abbrev %lu address %u header %u size %zu flags %u",
                                        cu.dcu_unit_length, cu.dcu_version, cu.dcu_debug_abbrev_offset,
                                        cu.dcu_address_size, cu.dcu_header_size, cu.dcu_size, cu.dcu_flags);
        EXPECT_EQ(good ? fields : h.error(),
                  row.outcome + (good ? "" : " | failed to read CU header at offset 0 in .debug_info"));
    }

    handle h;
    h.attach(KRV_SEC_TYPES, bytes(unit{}.build()).fill(11)).attach(KRV_SEC_INFO, unit{}.build());
    krv_ctu_t cu = {};
    EXPECT_TRUE(refuses(h, krv_info_hdr_read(h, &cu, KRV_SEC_LINE, 0), "INVALID: invalid section (4)"));
    EXPECT_TRUE(refuses(h, krv_info_hdr_read(h, &cu, KRV_SEC_TYPES, 0),
                        no_4 + "type_offset | failed to read CU header at offset 0 in .debug_types"));
}

// One unit of one entry with one attribute: the value, or the error state without its last message. `version`: 0, or of a
// unit that is read with extensions, whose tables have two elements each, one behind the other.
static std::string read_value(const std::string &form, const bytes &datum, bool dwarf64, krv_activation_type_t target,
                              uint16_t version = 0)
{
    handle h(target);
    const bool extended = version != 0;
    if (extended)
        h.extend();
    h.attach(KRV_SEC_ABBREV, abbrevs("1 variable const_value:" + form));
    h.attach(KRV_SEC_STR, bytes().cstr("abc").cstr("def"));
    h.attach(KRV_SEC_EXT_LINE_STR, bytes().cstr("line"));
    h.attach(KRV_SEC_EXT_ALT_STR, bytes().cstr("alternate"));
    const bytes table = bytes().unit_length(dwarf64, 4 + (dwarf64 ? 16 : 8)).u16(5).u16(0);
    const bytes offsets = bytes().add(table).offset(dwarf64, 4).offset(dwarf64, 9);
    h.attach(KRV_SEC_EXT_STR_OFFSETS, offsets + offsets);
    h.attach(KRV_SEC_EXT_ADDR, bytes().unit_length(dwarf64, 20).u16(5).u16(0).u64(7).u64(8).u64(9));
    const uint8_t kind = version == 5 ? KRV_UNIT_COMPILE : 0;
    const bytes dies = bytes().uleb(1).add(datum);
    h.attach(KRV_SEC_INFO,
             unit{.dwarf64 = dwarf64, .version = extended ? version : uint16_t{4}, .kind = kind, .dies = dies}.build());
    krv_ctu_t cu;
    EXPECT_EQ(krv_info_hdr_read(h, &cu, KRV_SEC_INFO, 0), 0);
    const die_owner die(krv_alloc_die_by_cu_offset(h, &cu, cu.dcu_header_size));
    if (die == nullptr) {
        const std::string error = h.error(),
                          last = text(" | could not allocate DIE at +%u within CU at 0 within .debug_info",
                                      cu.dcu_header_size);
        EXPECT_EQ(error.rfind(" | "), error.rfind(last)) << error;
        return error.substr(0, error.rfind(" | "));
    }
    EXPECT_EQ(die->dwdie_bufsize, 1 + datum.size());
    krv_form_t got_form;
    krv_value_t *value;
    EXPECT_EQ(krv_get_die_attr(h, die.get(), DW_AT_const_value, &got_form, nullptr, &value), 0);
    EXPECT_TRUE(extended || (std::to_string(got_form) == form && std::to_string(value->sa_form) == form));
    const uint32_t form_class = krv_form_row(value->sa_actual, KRV_ALL_FORMS).classes;
    if (form_class == KRV_CLASS_STRING)
        return static_cast<char *>(value->sa_u.su_addr);
    if (form_class != KRV_CLASS_BLOCK && form_class != KRV_CLASS_EXPRLOC)
        return std::to_string(value->sa_u.su_signed);
    const auto *block = static_cast<krv_fd_t *>(value->sa_u.su_addr);
    EXPECT_TRUE(block->sfd_offset == 0 && block->sfd_remaining == block->sfd_size &&
                (block->sfd_u.buf == nullptr) == (block->sfd_size == 0));
    return block->sfd_size == 0 ? "empty block" : text("block of %lu from %u", block->sfd_size, block->sfd_u.buf[0]);
}

TEST(Info, Values)
{
    constexpr krv_activation_type_t I386 = KRV_ACTIVATION_I386;
    const std::string not_read = " | failed to read DIE's datum 0 (DW_AT_const_value attribute encoded as ";
    const std::string no_ref_addr = "INVALID: decoder passed invalid form 16 (DW_FORM_ref_addr)" + not_read;
    const struct {
        uint64_t form;
        const char *datum;
        std::string outcome;
        bool dwarf64 = false;
        krv_activation_type_t target = KRV_ACTIVATION_AMD64;
    } rows[] = {
        {DW_FORM_data1, "ff", "255"},
        {DW_FORM_sdata, "7f", "-1"},
        {DW_FORM_addr, "ff ff ff ff", "4294967295", true, I386},
        {DW_FORM_addr, "00 00 00 00 01 00 00 00", "4294967296"},
        {DW_FORM_strp, "05 00 00 00", "ef"},
        {DW_FORM_strp, "04 00 00 00 00 00 00 00", "def", true},
        {DW_FORM_strp, "09 00 00 00",
         "INVALID: can't seek beyond end | cannot seek to offset 9 in .debug_str" + not_read + "DW_FORM_strp form)"},
        {DW_FORM_string, "00", ""},
        {DW_FORM_block1, "00", "empty block"},
        {DW_FORM_block2, "02 00 09 08", "block of 2 from 9"},
        {DW_FORM_exprloc, "01 9c", "block of 1 from 156"},
        {DW_FORM_flag_present, "", "1"},
        {DW_FORM_indirect, "0b 80", "128"},
        {DW_FORM_indirect, "16 16 05 34 12", "4660"},
        {DW_FORM_indirect, "08 68 69 20 74 68 65 72 65 2c 20 79 6f 75 00", "hi there, you"}, // more than a slot holds
        {DW_FORM_indirect, "0e 04 00 00 00", "def"},
        {DW_FORM_indirect, "0a 03 07 06 05", "block of 3 from 7"},
        {DW_FORM_indirect, "19", "1"},
        {DW_FORM_indirect, "10 00", no_ref_addr + "DW_FORM_indirect form)"},
        {DW_FORM_ref_addr, "00 00 00 00", no_ref_addr + "DW_FORM_ref_addr form)"},
        {DW_FORM_string, "61 62", "CORRUPT: unterminated string" + not_read + "DW_FORM_string form)"},
        {DW_FORM_block4, "ff ff ff ff 00",
         "CORRUPT: form DW_FORM_block4 requires 4294967295 bytes for block;  1 remain" + not_read +
             "DW_FORM_block4 form)"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(read_value(std::to_string(row.form), bytes::hex(row.datum), row.dwarf64, row.target), row.outcome)
            << row.datum;
}

TEST(Info, ValuesOfLaterForms)
{
    const auto not_read = [](const std::string &form) {
        return " | failed to read DIE's datum 0 (attribute 0x1c encoded as DW_FORM_" + form + " form)";
    };
    const struct {
        const char *form, *datum;
        std::string outcome;
        bool dwarf64 = false;
        uint16_t version = 5;
    } rows[] = {
        {"strx", "00", "def"},
        {"strx", "80 00", "def", true},
        {"strx1", "01", "INVALID: can't seek beyond end | cannot seek to offset 9 in .debug_str" + not_read("strx1")},
        {"strx2", "02 00", // the elements of the next table
         "CORRUPT: index 2 at base 0x8 leads out of .debug_str_offsets" + not_read("strx2")},
        {"strx3", "00 00 00", "def"},
        {"strx4", "ff ff ff ff",
         "CORRUPT: index 4294967295 at base 0x10 leads out of .debug_str_offsets" + not_read("strx4"), true},
        {"addrx", "01", "8"},
        {"addrx1", "00", "7"},
        {"addrx2", "02 00", "CORRUPT: index 2 at base 0x8 leads out of .debug_addr" + not_read("addrx2")},
        {"addrx3", "00 00 00", "7"},
        {"addrx4", "01 00 00 00", "8", true},
        {"line_strp", "01 00 00 00", "ine"},
        {"strp_sup", "05 00 00 00", "nate"},
        {"GNU_strp_alt", "00 00 00 00 00 00 00 00", "alternate", true},
        {"implicit_const=-129", "", "-129"},
        {"data16", "03 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01", "block of 16 from 3"},
        {"rnglistx", "85 01", "133"},
        {"ref_addr", "ff ff ff ff", "4294967295"},
        {"ref_addr", "ff ff ff ff 00 00 00 00", "4294967295", false, 2}, // as wide as an address
        {"ref_sup8", "01 00 00 00 00 00 00 80", "-9223372036854775807"},
        {"GNU_ref_alt", "05 00 00 00", "5"},
        {"sdata", "ff ff ff ff ff ff ff ff ff 00", "9223372036854775807"}, // as clang writes it
        {"udata", "81 80 80 80 80 80 80 80 80 00", "1"},
        {"indirect", "a1 3e 01 00 00 00", "lternate"},
        {"indirect", "99 01",
         "INVALID: decoder passed invalid form 127 (unknown) | failed to read DIE's datum 0 (DW_AT_const_value "
         "attribute "
         "encoded as DW_FORM_indirect form)"},
        {"indirect", "1f 00 00 00 00", "line"},
        {"indirect", "1a 00", "def"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(read_value(row.form, bytes::hex(row.datum), row.dwarf64, KRV_ACTIVATION_AMD64, row.version),
                  row.outcome)
            << row.form << " " << row.datum;
}

// What a handle says of each unit: version, kind, what makes it the one it is, name.
static std::string list_units(handle &h)
{
    std::string list;
    const auto visit = [](krv_handle_t *hp, krv_ctu_t *cu, void *arg) {
        krv_cu_kind_t kind;
        EXPECT_EQ(korva_cu_get_kind(hp, cu, &kind), 0);
        static_cast<std::string *>(arg)->append(text("%u/%u %lx %lx %s %s; ", cu->dcu_version, kind.kind, kind.dwo_id,
                                                     kind.type_signature, cu->dcu_name == nullptr ? "-" : cu->dcu_name,
                                                     kind.dwo_name == nullptr ? "-" : kind.dwo_name));
        return 0;
    };
    return korva_iter_cu(h, KRV_SEC_INFO, visit, &list) == 0 ? list : h.error();
}

TEST(Info, KindsOfUnits)
{
    const bytes table = abbrevs("1 compile_unit name:string; 2 compile_unit 0x76:string; 3 partial_unit; "
                                "4 compile_unit 0x2130:string 0x2131:data8; 5 compile_unit name:strx1");
    const bytes named = bytes().uleb(1).cstr("a"), id = bytes().u64(0x1d);
    const bytes units =
        unit{.version = 5, .kind = KRV_UNIT_COMPILE, .dies = named}.build() +
        unit{.version = 5, .kind = KRV_UNIT_TYPE, .extra = bytes().u64(0x51).u32(30), .dies = named}.build() +
        unit{.version = 5, .kind = KRV_UNIT_SKELETON, .extra = id, .dies = bytes().uleb(2).cstr("a.dwo")}.build() +
        unit{.version = 4, .dies = bytes().uleb(3)}.build() +
        unit{.version = 4, .dies = bytes().uleb(4).cstr("b.dwo").u64(0x2d)}.build();
    const std::string sound = "5/1 0 0 a -; 5/2 0 51 a -; 5/4 1d 0 - a.dwo; 4/3 0 0 - -; 4/4 2d 0 - b.dwo; ";
    const bytes stepped_over = unit{.version = 6, .dies = named}.build() +
                               unit{.version = 5, .kind = 7, .dies = named}.build() +
                               unit{.version = 4, .dies = bytes().uleb(9)}.build() + unit{.dies = named}.build();
    const auto note = [](const char *what) { return text("!.debug_info %s", what); };
    const struct {
        uint32_t extensions;
        const bytes &info;
        std::string list, notes;
    } rows[] = {
        {KRV_EXT_DWARF5, units, sound,
         ".debug_info 42 unit at offset 0x2a of .debug_info waits for its split unit in a.dwo, which is not read\n"
         ".debug_info 81 unit at offset 0x51 of .debug_info waits for its split unit in b.dwo, which is not read\n"},
        {KRV_EXT_AS_WRITTEN, unit{.version = 5, .kind = 1, .dies = named}.build(), "5/0 0 0 - -; ",
         note("0 unit at offset 0x0 of .debug_info is DWARF 5, and libkorva reads DWARF 2 to 4\n")},
        {KRV_EXT_DWARF5 | KRV_EXT_AS_WRITTEN, stepped_over, "6/0 0 0 - -; 5/0 0 0 - -; 4/0 0 0 - -; 4/1 0 0 a -; ",
         note("0 unit at offset 0x0 of .debug_info is DWARF 6, and libkorva reads DWARF 2 to 5\n") +
             note("14 unit at offset 0xe of .debug_info is of an unknown type\n") +
             note("29 unit at offset 0x1d of .debug_info cannot be read: abbreviation code 9 not found\n")},
        {KRV_EXT_DWARF5, stepped_over, "6/0 0 0 - -; 5/0 0 0 - -; ",
         note("0 unit at offset 0x0 of .debug_info is DWARF 6, and libkorva reads DWARF 2 to 5\n") +
             note("14 unit at offset 0xe of .debug_info is of an unknown type\n") +
             note("29 .debug_info cannot be read from offset 0x1d on: abbreviation code 9 not found\n")},
    };
    for (const auto &row : rows) {
        handle h;
        h.extend(row.extensions).attach(KRV_SEC_ABBREV, table).attach(KRV_SEC_INFO, row.info);
        EXPECT_EQ(list_units(h), row.list);
        EXPECT_EQ(h.notes, row.notes);
        EXPECT_TRUE(
            refuses(h, korva_handle_set_opt(h, KRV_OPT_EXT_AS_WRITTEN, uint64_t{~row.extensions & KRV_EXT_AS_WRITTEN}),
                    "INVALID: an extension cannot be switched after the first query"));
    }
}

namespace
{

// A unit of entries by these abbreviations, its root first.
struct tree {
    handle h;
    krv_ctu_t *cu;
    krv_die_t *root = nullptr;

    explicit tree(const bytes &dies)
        : cu(h.first_unit(abbrevs("1 compile_unit+ name:string; 2 subprogram+ name:string;"
                                  "3 subprogram+ sibling:ref4 name:string; 4 variable name:string;"
                                  "5 variable type:ref_udata import:ref_sig8 producer:data4;"
                                  "6 lexical_block+; 7 lexical_block; 8 subprogram+ sibling:data4"),
                          unit{.dies = dies}.build()))
    {
        if (cu != nullptr)
            korva_get_cu_cudie(h, cu, &root);
    }

    // The names of the root's children, and how their walk ended.
    std::string children()
    {
        std::string names;
        const auto add = [](krv_handle_t *hp, krv_die_t *child, void *arg) {
            char buf[16];
            *static_cast<std::string *>(arg) += korva_get_die_at_name(hp, child, buf, sizeof(buf)) == 0 ? buf : "-";
            return 0;
        };
        const int result = krv_iter_children_in_die(h, root, add, &names);
        return names + " " + std::to_string(result) + " " + h.error();
    }
};

bytes named(uint64_t code, const char *name)
{
    return bytes().uleb(code).cstr(name);
}

} // namespace

TEST(Info, WalksOverChildren)
{
    const bytes root = named(1, "r"), end = bytes().u8(0), leaf = named(4, "d");
    const bytes nested = named(2, "a") + named(2, "x") + bytes().u8(6).u8(7).u8(0) + end + named(4, "y") + end;
    const auto link = [&](uint64_t target) {
        return root + bytes().uleb(3).u32(target).cstr("a") + named(4, "x") + end + leaf + end;
    }; // at 14, 21, 25, 28
    const auto garbage = bytes().uleb(3).offset_of("next", 4).cstr("a").fill(5, 0x7f).label("next");
    const std::string no_child = "CORRUPT: Couldn't obtain child for .debug_info DIE at 0/+";
    const std::string at_17 = " | could not allocate DIE at +17 within CU at 0 within .debug_info";
    const auto broken = [](uint64_t to) {
        return text("a -1 CORRUPT: sibling at +%lu of DIE at +14 within CU at 0 does not lead forward", to);
    };
    const struct {
        const char *what;
        bytes dies;
        std::string outcome;
    } rows[] = {
        {"no link anywhere", root + nested + leaf + end, "ad 0 NOTFOUND"},
        {"a link", link(25), "ad 0 NOTFOUND"},
        {"a link across garbage", root + garbage + leaf + end, "ad 0 NOTFOUND"},
        {"one level down", root + named(2, "b") + garbage + end + leaf + end, "bd 0 NOTFOUND"},
        {"a link to its first child", link(21), "ax 0 NOTFOUND"},
        {"a link to itself", link(14), broken(14)},
        {"a link to the root", link(11), broken(11)},
        {"a link to 0", link(0), broken(0)},
        {"a link out of the unit", link(29), broken(29)},
        {"a link far away", link(MAX), broken(4294967295)},
        {"a link that is no reference", root + bytes().uleb(8).u32(30) + leaf + end + end,
         "- -1 INVALID: attribute DW_AT_sibling is not a reference"},
        {"the same, one level down", root + named(2, "b") + bytes().uleb(8).u32(30) + leaf + end + end + end,
         "b -1 INVALID: attribute DW_AT_sibling is not a reference"},
        {"no children", root + end, " 0 NOTFOUND: DIE has no children"},
        {"a child that has none, against its flag", root + named(2, "a") + end + end, "a -1 " + no_child + "14"},
        {"a grandchild that has none", root + named(2, "a") + named(2, "b") + end + end, "a -1 " + no_child + "17"},
        {"an unknown code", root + leaf + bytes().u8(99),
         "d -1 CORRUPT: abbreviation code 99 not found | failed to obtain abbreviation for code 99" + at_17},
        {"the same, one level down", root + named(2, "a") + bytes().u8(7).u8(99),
         "a -1 CORRUPT: abbreviation code 99 not found | failed to obtain abbreviation for code 99 | could not "
         "allocate DIE at +18 within CU at 0 within .debug_info"},
        {"a code beyond 32 bits", root + leaf + bytes().uleb((1UL << 32) + 4).cstr("d") + end,
         "d -1 CORRUPT: abbreviation code 4 not found | failed to obtain abbreviation for code 4294967300" + at_17},
        {"the section ends", root + leaf,
         "d -1 CORRUPT: DW_FORM_udata datum unterminated by end of section | failed to read DIE's abbreviation code" +
             at_17},
    };
    for (const auto &row : rows)
        EXPECT_EQ(tree(row.dies).children(), row.outcome) << row.what;

    tree t(root + leaf + leaf + leaf + end);
    int calls = 0;
    const auto stop = [](krv_handle_t *, krv_die_t *, void *arg) { return ++*static_cast<int *>(arg) == 2 ? 7 : 0; };
    EXPECT_EQ(krv_iter_children_in_die(t.h, t.root, stop, &calls), 7);
    EXPECT_EQ(calls, 2);
}

TEST(Info, References)
{
    tree t(named(1, "r") + bytes().uleb(5).uleb(11).u64(1).u32(2) + bytes().u8(0));
    const die_owner child(krv_alloc_die_child(t.h, t.root));
    ASSERT_NE(child, nullptr);
    const die_owner referred(krv_alloc_die_by_attribute(t.h, child.get(), DW_AT_type));
    ASSERT_NE(referred, nullptr);
    EXPECT_TRUE(child->dwdie_cu_offset == 14 && referred->dwdie_cu_offset == 11);
    for (const auto &[attr, outcome] : {std::pair{DW_AT_import, "UNSUPPORTED: unsupported reference"},
                                        {DW_AT_producer, "INVALID: attribute DW_AT_producer is not a reference"},
                                        {DW_AT_location, "NOTFOUND"}}) {
        krv_clear_error(t.h);
        EXPECT_TRUE(refuses(t.h, krv_alloc_die_by_attribute(t.h, child.get(), attr), outcome));
    }
    EXPECT_TRUE(refuses(t.h, krv_alloc_die_sibling(t.h, child.get()), "NOTFOUND")); // the null entry
    EXPECT_TRUE(refuses(t.h, krv_alloc_die_child(t.h, child.get()), "NOTFOUND"));
    EXPECT_TRUE(
        refuses(t.h, krv_alloc_die_by_cu_offset(t.h, t.cu, MAX),
                "INVALID: can't seek beyond end | could not allocate DIE at -1 within CU at 0 within .debug_info"));

    char buf[4] = {};
    EXPECT_TRUE(refuses(t.h, korva_get_die_at_producer(t.h, child.get(), buf, 4), "INVALID"));
    EXPECT_TRUE(refuses(t.h, korva_get_die_at_producer(t.h, t.root, buf, 4), "NOTFOUND"));
}

TEST(Info, UnitNames)
{
    const std::string long_dir(2000, 'd');
    const bytes first = unit{.dies = bytes().uleb(1).cstr("main.c").cstr(long_dir).cstr("zeph")}.build();
    const bytes second = unit{.dies = bytes().uleb(2).u8(DW_FORM_string).cstr("x.c")}.build();
    const bytes third = unit{.dies = bytes().uleb(3).u8(1)}.build();
    handle h;
    krv_ctu_t *cu = h.first_unit(abbrevs("1 compile_unit name:string comp_dir:string ZEPH_original_name:string;"
                                         "2 compile_unit name:indirect; 3 compile_unit name:data1"),
                                 first + second + third);
    krv_ctu_t *bare = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, first.size());
    ASSERT_TRUE(cu != nullptr && bare != nullptr);
    EXPECT_STREQ(cu->dcu_name, "main.c");
    EXPECT_EQ(cu->dcu_comp_dir, std::string(1023, 'd'));
    EXPECT_STREQ(bare->dcu_name, "x.c");
    EXPECT_EQ(bare->dcu_comp_dir, nullptr);
    for_each_room(7, [&](uint8_t *room, size_t size, bool fits) {
        ASSERT_EQ(korva_get_die_at_name(h, cu->dcu_compile_unit, reinterpret_cast<char *>(room), size), 0);
        EXPECT_STREQ(reinterpret_cast<char *>(room), fits ? "main.c" : "main.");
    });
    char buf[8];
    EXPECT_EQ(korva_get_die_at_ZEPH_original_name(h, cu->dcu_compile_unit, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "zeph");
    EXPECT_EQ(h->sh_cu_table_entries, 2U); // the third has a name that is none, which ends the table
    EXPECT_TRUE(
        refuses(h, krv_cu_alloc(h, KRV_SEC_INFO, first.size() + second.size()),
                text("INVALID: failed to obtain CU at offset %zu in .debug_info", first.size() + second.size())));
}

// What was read of sections stays when others take their place, and the first ones are no more.
TEST(Info, SectionsThatAreReplaced)
{
    const bytes table = abbrevs(
        "1 compile_unit+ name:string comp_dir:strp stmt_list:sec_offset; 2 subprogram low_pc:addr high_pc:data4");
    const bytes twice = abbrevs("1 compile_unit+ name:string comp_dir:strp stmt_list:sec_offset; 1 variable");
    const bytes info = unit{.dies = bytes().u8(1).cstr("a.c").u32(2).u32(0).u8(2).u64(0x400).u32(0x80).u8(0)}.build();
    const bytes str = bytes().cstr("//usr");
    for (const bool built : {true, false}) { // or a first entry that cannot be read, but for its abbreviation
        SCOPED_TRACE(built);
        handle h;
        std::vector<std::unique_ptr<uint8_t[]>> buffers;
        const auto attach = [&](krv_secidx_t sec, const bytes &contents) {
            buffers.push_back(exact_copy(contents));
            ASSERT_EQ(korva_attach_section(h, sec, contents.size(), KRV_FD_TYPE_MEMORY, buffers.back().get()), 0);
            EXPECT_EQ(h.error(), "NONE");
        };
        attach(KRV_SEC_ABBREV, table);
        attach(KRV_SEC_INFO, info);
        if (built)
            attach(KRV_SEC_STR, str);
        h.attach(KRV_SEC_LINE, line_unit{}.build());
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
        EXPECT_EQ(cu != nullptr, built);
        EXPECT_EQ(!built || korva_line_get_cu_lnph(h, cu) != nullptr, true);
        for (const krv_secidx_t sec : {KRV_SEC_ABBREV, KRV_SEC_INFO, KRV_SEC_STR})
            attach(sec, sec == KRV_SEC_ABBREV ? twice : sec == KRV_SEC_INFO ? info : str);
        if (built)
            attach(KRV_SEC_STR, bytes().fill(9, 'x'));
        buffers.erase(buffers.begin(), buffers.begin() + (built ? 3 : 2));
        cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
        ASSERT_NE(cu, nullptr) << h.error();
        EXPECT_TRUE(korva_cu_contains_addr(h, cu, 0x47f, KRV_LOOKUP_F_NONE)) << h.error();
        EXPECT_STREQ(cu->dcu_name, "a.c");
        EXPECT_STREQ(cu->dcu_comp_dir, "usr");
        EXPECT_STREQ(krv_lnfe_absolute_path(h, korva_line_get_cu_lnph(h, cu)->sln_files[0]), "usr/a.c");
        char dir[8];
        EXPECT_EQ(korva_get_die_at_comp_dir(h, cu->dcu_compile_unit, dir, sizeof(dir)), 0);
        EXPECT_STREQ(dir, "usr");
    }
}

// As written, tables that begin with the same bytes give units one abbreviation: while those bytes are there.
TEST(Info, UnitsThatBeginAlike)
{
    const auto table = [](const char *order, const char *rest) {
        return abbrevs(std::string("1 compile_unit ") + order + "; 2 variable" + rest);
    };
    const char *const plain = "name:string low_pc:addr high_pc:data4";
    const auto named = bytes().uleb(1).cstr("a").u64(0x400).u32(8);
    const auto placed = [](uint64_t low, const char *name) { return bytes().uleb(1).u64(low).u32(8).cstr(name); };
    const struct {
        bytes table, die;
        bool is_shared;
        const char *name = "a";
    } rows[] = {
        {table(plain, ""), named, false},
        {table(plain, " name:string"), named, true},
        {table("name:string low_pc:addr high_pc:data8", ""), bytes().uleb(1).cstr("a").u64(0x400).u64(8), false},
        {table("low_pc:addr high_pc:data4 name:string", ""), placed(0x400, "a"), false},
        {table("name:string", ""), bytes().uleb(1).cstr("a"), false},
        {bytes(), bytes().uleb(2), false, nullptr}, // the second of the table before
        {table(plain, ""), named, false},
        {table(plain, "").u8(0).fill(3), named, true},
        {table("name:indirect", ""), bytes().uleb(1).uleb(DW_FORM_string).cstr("a"), false},
        {table("name:indirect", ""), bytes().uleb(1).uleb(0x99), false, nullptr}, // no such form: it is stepped over
        {table("name:indirect", ""), bytes().uleb(1).uleb(DW_FORM_string).cstr("a"), false},
    };
    bytes tables, info;
    for (const auto &row : rows) {
        const size_t start = row.table.size() == 0 ? tables.size() - table("name:string", "").size() : tables.size();
        tables += row.table;
        info += unit{.abbrev_offset = start, .dies = row.die}.build();
    }
    handle h;
    h.extend(KRV_EXT_AS_WRITTEN).attach(KRV_SEC_ABBREV, tables).attach(KRV_SEC_INFO, info);
    ASSERT_NE(korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0), nullptr) << h.error();
    ASSERT_EQ(h->sh_cu_table_entries, std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i) {
        krv_ctu_t *cu = h->sh_cu_table[i];
        EXPECT_STREQ(cu->dcu_name, rows[i].name) << i;
        EXPECT_EQ(i != 0 && cu->dcu_compile_unit->dwdie_abbrev_cache ==
                                h->sh_cu_table[i - 1]->dcu_compile_unit->dwdie_abbrev_cache,
                  rows[i].is_shared)
            << i;
    }

    const bytes other = table("low_pc:addr high_pc:data4 name:string", "");
    const bytes first = unit{.dies = named}.build();
    const bytes second = unit{.abbrev_offset = other.size(), .dies = placed(0x800, "b")}.build();
    const std::unique_ptr<uint8_t[]> others = exact_copy(other + other);
    handle replaced;
    replaced.extend(KRV_EXT_AS_WRITTEN | KRV_EXT_DWARF5).attach(KRV_SEC_INFO, first + second);
    replaced.attach(KRV_SEC_ABBREV, table(plain, "") + table(plain, ""));
    const bytes set = aranges_set{.tuples = {{0x400, 8}}}.build();
    replaced.attach(KRV_SEC_ARANGES,
                    set + aranges_set{.info_offset = first.size(), .tuples = {{0x800, 8}}}.build(set.size()));
    for (const auto &[address, name] : {std::pair(0x400U, "a"), std::pair(0x800U, "b")}) {
        krv_ctu_t *cu = korva_lookup_ctu_by_addr(replaced, address, KRV_LOOKUP_F_FAST);
        ASSERT_NE(cu, nullptr) << replaced.error();
        EXPECT_STREQ(cu->dcu_name, name);
        ASSERT_EQ(korva_attach_section(replaced, KRV_SEC_ABBREV, 2 * other.size(), KRV_FD_TYPE_MEMORY, others.get()),
                  0);
    }
    EXPECT_EQ(replaced->sh_cu_table_entries, 0U); // each unit was read by itself
}

// A call that reads a string asks the handle for an entry elsewhere, while the rest of its own entry is still to be read.
TEST(Info, CallsThatReadOtherEntries)
{
    static krv_ctu_t *other;
    const auto read = [](void *arg, void *buf, size_t count, uint64_t offset) -> int64_t {
        if (krv_ctu_t *const cu = std::exchange(other, nullptr))
            krv_free_die(krv_alloc_die_by_cu_offset(static_cast<krv_handle_t *>(arg), cu, cu->dcu_header_size));
        std::memcpy(buf, &"text"[offset], count);
        return static_cast<int64_t>(count);
    };
    const auto made = [](const char *name) {
        bytes child = bytes().uleb(2).u32(0).cstr(name).u32(0x1234).u32(0);
        return unit{.dies = bytes().uleb(1) + child.u8(0).fill(40)}.build();
    };
    handle h;
    h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit+; 2 variable name:strp linkage_name:string decl_line:data4"
                                     " comp_dir:strp"));
    h.attach(KRV_SEC_INFO, made("first") + made("second"));
    korva_attach_section(h, KRV_SEC_STR, size_t{5}, KRV_FD_TYPE_CB, +read, static_cast<krv_handle_t *>(h));
    ASSERT_NE(korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0), nullptr) << h.error();
    ASSERT_EQ(h->sh_cu_table_entries, 2U);
    for (const uint32_t i : {0U, 1U}) {
        other = h->sh_cu_table[1 - i];
        krv_die_t *child = krv_alloc_die_child(h, h->sh_cu_table[i]->dcu_compile_unit);
        ASSERT_NE(child, nullptr) << h.error();
        EXPECT_EQ(other, nullptr); // it was read
        EXPECT_STREQ(static_cast<char *>(child->dwdie_attrs[0].sa_u.su_addr), "text");
        EXPECT_STREQ(static_cast<char *>(child->dwdie_attrs[1].sa_u.su_addr), i == 0 ? "first" : "second");
        EXPECT_EQ(child->dwdie_attrs[2].sa_u.su_unsigned, 0x1234U);
        EXPECT_EQ(child->dwdie_bufsize, 1U + 4 + (i == 0 ? 6 : 7) + 4 + 4);
        krv_free_die(child);
    }
}

// While large units are met, and asked for their names, the call reads what is needed: memory is not touched.
TEST(Info, UnitsFarApart)
{
    const bytes strings = bytes().cstr("gcc").cstr("/usr").cstr("a.c").cstr("b.c");
    const auto padded = [](const bytes &die) { return bytes(die).fill((16 << 10) - die.size()); };
    const bytes units[] = {unit{.dies = padded(bytes().u8(1).u32(0).u32(9).u32(4))}.build(),
                           unit{.version = 5, .kind = 1, .dies = padded(bytes().u8(2).cstr("in.c").u32(4))}.build(),
                           unit{.version = 5, .kind = 1, .dies = padded(bytes().u8(3).u8(0).u32(4))}.build()};
    reader info{.contents = units[0] + units[1] + units[2]}, str{.contents = strings}, line_str{.contents = strings};
    handle h;
    korva_handle_set_opt(h, KRV_OPT_EXT_DWARF5, uint64_t{1});
    korva_handle_set_opt(h, KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
    EXPECT_TRUE(refuses(h, korva_attach_section_reader(h, KRV_SEC_INFO, reader::read, &info),
                        "INVALID: .debug_info is not attached from memory"));
    EXPECT_TRUE(
        refuses(h, korva_attach_section_reader(h, 99, reader::read, &info), "INVALID: section index 99 too large"));
    h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit producer:strp name:strp comp_dir:strp; 2 compile_unit name:string"
                                     " comp_dir:line_strp; 3 compile_unit name:strx1 comp_dir:strp"));
    h.attach(KRV_SEC_EXT_STR_OFFSETS, bytes().u32(8).u16(5).u16(0).u32(13));
    std::vector<std::pair<void *, size_t>> mapped;
    for (const auto &[sec, source] : {std::pair(int{KRV_SEC_INFO}, &info), std::pair(int{KRV_SEC_STR}, &str),
                                      std::pair(int{KRV_SEC_EXT_LINE_STR}, &line_str)}) {
        const size_t size = source->contents.size();
        void *memory = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        mapped.emplace_back(memory, size);
        korva_attach_section(h, sec, size, KRV_FD_TYPE_MEMORY, static_cast<uint8_t *>(memory));
        ASSERT_EQ(korva_attach_section_reader(h, sec, reader::read, source), 0);
    }
    uint64_t offset = 0;
    for (const auto &[size, expected] :
         {std::pair(units[0].size(), "/usr/a.c"), std::pair(units[1].size(), "/usr/in.c"),
          std::pair(units[2].size(), "/usr/b.c")}) {
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, offset);
        ASSERT_NE(cu, nullptr) << h.error();
        char name[8] = "", dir[8] = "";
        EXPECT_EQ(korva_get_die_at_name(h, cu->dcu_compile_unit, name, sizeof(name)), 0);
        EXPECT_EQ(korva_get_die_at_comp_dir(h, cu->dcu_compile_unit, dir, sizeof(dir)), 0);
        EXPECT_EQ(std::string(dir) + "/" + name, expected);
        EXPECT_EQ(std::string(cu->dcu_comp_dir) + "/" + cu->dcu_name, expected);
        offset += size;
    }
    EXPECT_EQ(info.reads, 3U);
    EXPECT_EQ(str.reads, 4U); // what the unit before has is not read again
    for (const auto &[memory, size] : mapped)
        munmap(memory, size);
}

// Sections of a file may overlap: a string that one has whole leads out of the other.
TEST(Info, SectionsThatOverlap)
{
    const bytes info = unit{.dies = bytes().u8(1).u32(16).fill(14, 'x')}.build(); // the other string stands at 16, too
    const std::unique_ptr<uint8_t[]> file = exact_copy(bytes(info).fill(30, 'x').u8(0));
    handle h;
    h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit name:strp comp_dir:string producer:string"));
    for (const auto &[sec, size] : {std::pair(KRV_SEC_INFO, info.size()), std::pair(KRV_SEC_STR, info.size() + 31)})
        korva_attach_section(h, sec, size, KRV_FD_TYPE_MEMORY, file.get());
    EXPECT_EQ(korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0), nullptr);
    const std::string error = h.error();
    reader source{.contents = bytes(info).fill(30, 'x').u8(0)};
    for (const krv_secidx_t sec : {KRV_SEC_INFO, KRV_SEC_STR})
        korva_attach_section_reader(h, sec, reader::read, &source);
    EXPECT_EQ(korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0), nullptr);
    EXPECT_EQ(h.error(), error);
}

// All units, all their entries, and every message on the way.
static std::string dump(handle &h)
{
    h.watch();
    std::string all;
    const auto entry = [](krv_handle_t *hp, krv_die_t *die, void *arg) {
        auto *to = static_cast<std::string *>(arg);
        *to += text("%lx:%u+%zu", die->dwdie_section_offset, die->dwdie_code, die->dwdie_bufsize);
        for (uint32_t i = 0; i < die->dwdie_abbrev_cache->dwa_nafpairs; ++i) {
            const krv_value_t &value = die->dwdie_attrs[i];
            const uint32_t classes = krv_form_row(value.sa_actual, KRV_ALL_FORMS).classes;
            const auto *block = static_cast<krv_fd_t *>(value.sa_u.su_addr);
            if ((classes & KRV_CLASS_STRING) != 0)
                *to += std::string(" ") + static_cast<char *>(value.sa_u.su_addr);
            else if ((classes & (KRV_CLASS_BLOCK | KRV_CLASS_EXPRLOC)) != 0)
                *to += " [" + std::string(reinterpret_cast<const char *>(block->sfd_u.buf), block->sfd_size) + "]";
            else
                *to += text(" %lx", value.sa_u.su_unsigned);
        }
        *to += "\n" + error_line(hp) + "\n";
        return 0;
    };
    korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    for (uint32_t i = 0; i < h->sh_cu_table_entries; ++i) {
        krv_die_t *root = h->sh_cu_table[i]->dcu_compile_unit;
        entry(h, root, &all);
        const int result = krv_iter_children_in_die(h, root, entry, &all);
        all += text("%d %s\n", result, h.error().c_str());
    }
    for (const std::string &message : h.log)
        all += message + "\n";
    return all;
}

// As written: each unit's first entry has the abbreviation of its own table. Returns how many share that of the one before.
static unsigned expect_own_abbreviations(const bytes &table, const bytes &info, const bytes &strings)
{
    handle h;
    h.extend(KRV_EXT_DWARF5 | KRV_EXT_AS_WRITTEN).attach(KRV_SEC_ABBREV, table).attach(KRV_SEC_INFO, info);
    h.attach(KRV_SEC_STR, strings);
    korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    unsigned shared = 0;
    for (uint32_t i = 0; i < h->sh_cu_table_entries; ++i) {
        krv_ctu_t *cu = h->sh_cu_table[i];
        const krv_abbrev_t *its = cu->dcu_compile_unit->dwdie_abbrev_cache;
        krv_au_t *au = krv_cu_abbrevs(h, cu);
        const krv_abbrev_t *own = au == nullptr ? nullptr : krv_get_abbrev(h, au, cu->dcu_compile_unit->dwdie_code);
        shared += i != 0 && its == h->sh_cu_table[i - 1]->dcu_compile_unit->dwdie_abbrev_cache ? 1 : 0;
        if (own == nullptr || its->dwa_tag == 0) // damaged further on, or stepped over
            continue;
        EXPECT_EQ(its->dwa_tag, own->dwa_tag);
        EXPECT_EQ(its->dwa_flags, own->dwa_flags);
        EXPECT_TRUE(std::equal(its->dwa_afpairs, its->dwa_afpairs + its->dwa_nafpairs, own->dwa_afpairs,
                               own->dwa_afpairs + own->dwa_nafpairs, [](krv_afpair_t a, krv_afpair_t b) {
                                   return a.dwafp_attribute == b.dwafp_attribute && a.dwafp_form == b.dwafp_form;
                               }));
    }
    return shared;
}

// Tables and entries in memory are scanned, behind a call-back they are decoded, and large units are met by a call beside memory, which
// may fail at any time; over random bytes all come to the same. Numbers are small, so that many bytes mean something.
TEST(Info, MemoryAndCallBack)
{
    std::mt19937 random(1);
    const auto any = [&random](unsigned below) { return static_cast<uint8_t>(random() % below); };
    unsigned entries = 0, shared = 0;
    for (int round = 0; round < 3000; ++round) {
        bytes table, dies;
        for (unsigned code = 1; code < 5; ++code) {
            table.uleb(any(20) == 0 ? any(200) : code).uleb(code == 1 ? 0x11U : any(60)).u8(any(3));
            for (unsigned pairs = any(6); pairs != 0; --pairs)
                table.uleb(any(30) == 0 ? any(130) << 7 : 1U + any(100)).uleb(any(30) == 0 ? any(255) : 1U + any(25));
            table.u8(0).u8(any(40) == 0 ? 1 : 0);
        }
        for (int left = 200; left != 0; --left)
            dies.u8(any(4) == 0 ? any(255) : any(6));
        if (round % 30 == 0)
            dies.fill(16 << 10); // so large that the unit behind is met so, too
        const size_t second = any(2) == 0 ? 0 : table.size();
        if (second != 0)
            table += bytes(table).fill(any(2));
        const bool is_later = any(3) == 0;
        const bytes info = unit{.dwarf64 = any(2) == 0, .dies = bytes().u8(1) + dies}.build() +
                           unit{.version = is_later ? uint16_t{5} : uint16_t{4},
                                .abbrev_offset = second,
                                .kind = is_later ? any(4) : uint8_t{0},
                                .dies = bytes().u8(1) + dies}
                               .build();
        reader abbrev{.contents = table.fill(any(2))}, behind{.contents = info},
            strings{.contents = bytes().fill(300, 'a')};
        handle memory, call_back, beside;
        for (handle *h : {&memory, &call_back, &beside})
            h->extend(round % 2 == 0 ? 0 : KRV_EXT_DWARF5);
        memory.attach(KRV_SEC_ABBREV, abbrev.contents).attach(KRV_SEC_INFO, info).attach(KRV_SEC_STR, strings.contents);
        call_back.attach(KRV_SEC_ABBREV, &abbrev).attach(KRV_SEC_INFO, &behind).attach(KRV_SEC_STR, &strings);
        const std::string expected = dump(call_back);
        ASSERT_EQ(dump(memory), expected) << round;
        beside.attach(KRV_SEC_ABBREV, abbrev.contents).attach(KRV_SEC_INFO, info).attach(KRV_SEC_STR, strings.contents);
        reader infos{.contents = info}, names{.contents = strings.contents};
        reader &faulty = any(2) == 0 ? infos : names;
        faulty.kind = any(2) == 0 ? fault::fails : fault::short_;
        faulty.fault_at = any(6);
        korva_attach_section_reader(beside, KRV_SEC_INFO, reader::read, &infos);
        korva_attach_section_reader(beside, KRV_SEC_STR, reader::read, &names);
        ASSERT_EQ(dump(beside), expected) << round;
        shared += expect_own_abbreviations(abbrev.contents, info, strings.contents);
        entries += static_cast<unsigned>(std::count(expected.begin(), expected.end(), ':'));
    }
    EXPECT_GT(entries, 4500U); // the bytes do mean something
    EXPECT_GT(shared, 100U);
}
