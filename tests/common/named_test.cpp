// SPDX-License-Identifier: Apache-2.0
//
// Functions by name, with the indexes that a file may have of them. An index that leaves a name out shows that it was
// believed, one that lists too much that it was tested.
#include "builders/indexes.h"
#include "support/handle.h"

#include <functional>
#include <gtest/gtest.h>

using namespace krv_test;

namespace
{

const char *const ABBREVS = "1 compile_unit+; 2 subprogram name:string linkage_name:string low_pc:addr; "
                            "3 subprogram name:string; 4 variable name:string const_value:data1";

bytes function(const char *name, const char *linkage_name)
{
    return bytes().uleb(2).cstr(name).cstr(linkage_name).u64(0x1000);
}

// Three units. Entries begin at 12, at 12 and 28 of the second, and at 12 of the third.
struct file {
    bytes units[3] = {unit{.dies = bytes().uleb(1) + function("f", "_f1") + bytes().uleb(3).cstr("decl")}.build(),
                      unit{.dies = bytes().uleb(1) + function("f", "_f2") + function("g", "_ns1g")}.build(),
                      unit{.dies = bytes().uleb(1) + function("h", "_h") + bytes().uleb(4).cstr("v").u8(1)}.build()};
    uint64_t second = units[0].size(), third = second + units[1].size();

    // "1f" is the function f of the first unit.
    std::string show(uint64_t entry) const
    {
        return entry == 12            ? "1f "
               : entry == second + 12 ? "2f "
               : entry == third + 12  ? "3h "
               : entry > third        ? "3v "
                                      : "2g ";
    }
};

std::string find(handle &h, const file &of, const char *name, unsigned flags)
{
    std::pair<const file *, std::string> found{&of, ""};
    const auto add = [](krv_handle_t *, const krv_entry_t *entry, void *arg) {
        auto *to = static_cast<std::pair<const file *, std::string> *>(arg);
        to->second += to->first->show(entry->offset);
        return 0;
    };
    return korva_iter_named_entries(h, name, flags, add, &found) == 0 ? found.second : h.error();
}

} // namespace

TEST(Named, Indexes)
{
    const file of;
    const uint64_t size = of.second, two = of.third - of.second;
    constexpr unsigned FUNCTIONS = KRV_NAMED_FUNCTIONS, ANY = FUNCTIONS | KRV_NAMED_INDEXED,
                       BOTH = FUNCTIONS | KRV_NAMED_VARIABLES;
    bytes strings;
    const name_index sound{.units = {0, of.second},
                           .entries = {{"f", 0, 12}, {"_f1", 0, 12}, {"f", 1, 12}, {"decl", 0, 1, DW_TAG_variable}}};
    const auto names = [&](const std::function<void(name_index *)> &change) {
        name_index index = sound;
        change(&index);
        return index.build(&strings);
    };
    const auto kept = [&](const std::function<void(bytes *)> &change) {
        bytes index = sound.build(&strings);
        change(&index);
        return index;
    };
    const gdb_index gdb{.units = {{0, size}, {of.second, two}},
                        .symbols = {{"ns::f(int (*)(int)) const", {gdb_index::function(0)}}, {"ff", {1}}}};
    const auto gdb_with = [&](const std::function<void(gdb_index *)> &change) {
        gdb_index index = gdb;
        change(&index);
        return index.build();
    };
    const bytes set = name_set{.unit = of.second, .unit_size = two, .names = {{12, "ns::f"}}}.build();
    const krv_secidx_t debug_names = KRV_SEC_EXT_NAMES, gdb_section = KRV_SEC_EXT_GDB_INDEX;
    const struct {
        const char *name;
        krv_secidx_t section;
        bytes index;
        const char *asked;
        unsigned flags;
        const char *answer, *note; // of the note its end
    } rows[] = {
        {"none", KRV_SEC_PUBNAMES, {}, "f", FUNCTIONS, "1f 2f ", ""},
        {"none", KRV_SEC_PUBNAMES, {}, "_ns1g", ANY, "2g ", ""},
        {"none", KRV_SEC_PUBNAMES, {}, "v", BOTH, "3v ", ""},
        {"believed", debug_names, sound.build(&strings), "f", FUNCTIONS, "1f 2f ", ""},
        {"linkage name", debug_names, sound.build(&strings), "_f1", FUNCTIONS, "1f ", ""},
        {"believed", debug_names, sound.build(&strings), "g", FUNCTIONS, "", ""},
        {"none found", debug_names, sound.build(&strings), "g", ANY, "2g ", ""},
        {"variables", debug_names, sound.build(&strings), "g", BOTH, "2g ", ""},
        {"not covered", debug_names, sound.build(&strings), "h", FUNCTIONS, "3h ", ""},
        {"64-bit", debug_names, names([](name_index *i) { i->dwarf64 = true; }), "g", FUNCTIONS, "", ""},
        {"without hashes", debug_names, names([](name_index *i) { i->buckets = 0; }), "g", FUNCTIONS, "", ""},
        {"many buckets", debug_names, names([](name_index *i) { i->buckets = 97; }), "g", FUNCTIONS, "", ""},
        {"two indexes", debug_names,
         name_index{.units = {0}, .entries = {{"f", 0, 12}}}.build(&strings) +
             name_index{.units = {of.second}}.build(&strings),
         "f", FUNCTIONS, "1f ", ""},
        {"another producer", debug_names, names([](name_index *i) { i->augmentation = "GDB2"; }), "g", FUNCTIONS, "2g ",
         ""},
        {"another producer", debug_names, names([](name_index *i) {
             i->augmentation = "GDB2";
             i->entries.pop_back();
             i->entries.pop_back();
         }),
         "f", ANY, "1f ", ""},
        {"not there", debug_names, names([](name_index *i) {
             i->entries.push_back({"g", 0, 12});
         }),
         "g", FUNCTIONS, "2g ", "what it lists at offset 0xc is not there"},
        {"within an entry", debug_names, names([](name_index *i) { i->entries[0].die = 13; }), "f", FUNCTIONS, "1f 2f ",
         "what it lists at offset 0xd is not there"},
        {"no unit", debug_names, names([](name_index *i) { i->units[1] = 5; }), "g", FUNCTIONS, "2g ",
         "it lists a unit that .debug_info does not have at offset 0x5"},
        {"unknown unit", debug_names, names([](name_index *i) { i->entries[0].unit = 2; }), "f", FUNCTIONS, "1f 2f ",
         "index at offset 0x0 of .debug_names has entries of no unit"},
        {"version", debug_names, names([](name_index *i) { i->version = 6; }), "g", FUNCTIONS, "2g ",
         "is of an unknown version"},
        {"tables", debug_names, names([](name_index *i) { i->abbrevs_size = UINT32_MAX; }), "g", FUNCTIONS, "2g ",
         "has tables that lead out of it"},
        {"abbreviations", debug_names, names([](name_index *i) { i->abbrevs_size = 3; }), "f", FUNCTIONS, "1f 2f ",
         "has entries that cannot be read"},
        {"cut", debug_names, sound.build(&strings).first(40), "g", FUNCTIONS, "2g ", "is cut off"},
        {"bucket", debug_names, kept([](bytes *b) { b->set(52, 9, 4).set(56, 9, 4); }), "g", FUNCTIONS, "2g ",
         "has a bucket that leads elsewhere"},
        {"order", debug_names, kept([](bytes *b) { b->set(60, 7, 4).set(64, 7, 4).set(68, 7, 4).set(56, 2, 4); }), "f",
         FUNCTIONS, "1f 2f ", "has names in no order"},
        {"gdb", gdb_section, gdb.build(), "f", ANY, "1f ", ""},
        {"gdb", gdb_section, gdb.build(), "f", FUNCTIONS, "1f 2f ", ""},
        {"gdb, version 9", gdb_section, gdb_with([](gdb_index *i) { i->version = 9; }), "f", ANY, "1f ", ""},
        {"gdb, version 6", gdb_section, gdb_with([](gdb_index *i) { i->version = 6; }), "f", ANY, "1f 2f ",
         "is of an unknown version"},
        {"gdb, unit", gdb_section, gdb_with([](gdb_index *i) { ++i->units[0].second; }), "f", ANY, "1f 2f ",
         "it lists a unit that .debug_info does not have at offset 0x0"},
        {"gdb, vector", gdb_section, gdb_with([](gdb_index *i) {
             i->symbols[0].units = {9, 1U << 28};
         }),
         "f", ANY, "1f 2f ", ""},
        {"gdb, pool", gdb_section, gdb_with([](gdb_index *i) { i->pool_offset = 999; }), "f", ANY, "1f 2f ",
         "has tables that lead out of it"},
        {"gdb, cut", gdb_section, gdb.build().first(gdb.build().size() - 1), "f", ANY, "1f 2f ",
         "has a name that leads out of it"},
        {"pubnames", KRV_SEC_PUBNAMES, set, "f", ANY, "1f 2f ", ""},
        {"pubnames", KRV_SEC_PUBNAMES, name_set{.unit_size = size, .names = {{12, "a"}}}.build() + set, "f", ANY, "2f ",
         ""},
        {"pubnames", KRV_SEC_PUBNAMES, set, "f", FUNCTIONS, "1f 2f ", ""},
        {"GNU", KRV_SEC_EXT_GNU_PUBNAMES,
         name_set{.unit = of.second, .unit_size = two, .names = {{28, "x::g(int)"}}, .flags = true}.build(), "g", ANY,
         "2g ", ""},
        {"pubnames, cut", KRV_SEC_PUBNAMES, bytes(set).set(0, 13, 4).first(17), "g", ANY, "2g ",
         "set at offset 0x0 of .debug_pubnames is damaged"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.name << " " << row.asked << " " << row.flags);
        handle h;
        h.extend();
        h.attach(KRV_SEC_ABBREV, abbrevs(ABBREVS));
        h.attach(KRV_SEC_INFO, of.units[0] + of.units[1] + of.units[2]);
        h.attach(KRV_SEC_STR, strings);
        reader source{.contents = row.index};
        if (row.index.size() % 2 == 0) // as one that is compressed
            h.attach(row.section, &source);
        else
            h.attach(row.section, row.index);
        for (int again = 0; again < 2; ++again)
            EXPECT_EQ(find(h, of, row.asked, row.flags), row.answer);
        const std::string note = *row.note == '\0' ? "" : std::string(row.note) + "\n";
        EXPECT_TRUE(h.notes.size() >= note.size() && h.notes.ends_with(note) && h.notes.empty() == note.empty())
            << h.notes;
    }
}

// Names that share all their entries are not read without end.
TEST(Named, Work)
{
    constexpr size_t MANY = 1000, TEXTS = 48; // the names' place in the index
    const file of;
    name_index index{.units = {0}, .buckets = 0, .entries = {{"f", 0, 12}}};
    for (size_t i = 1; i < MANY; ++i) {
        index.entries.push_back({"f", 0, 12});
        index.entries.push_back({text("n%zu", i), 0, 12});
    }
    bytes strings, built = index.build(&strings);
    for (size_t i = 0; i < MANY; ++i)
        built.set(TEXTS + 4 * i, 0, 4).set(TEXTS + 4 * (MANY + i), 0, 4);
    handle h;
    h.extend();
    h.attach(KRV_SEC_ABBREV, abbrevs(ABBREVS));
    h.attach(KRV_SEC_INFO, of.units[0] + of.units[1] + of.units[2]);
    h.attach(KRV_SEC_STR, strings);
    h.attach(KRV_SEC_EXT_NAMES, built);
    EXPECT_EQ(find(h, of, "f", KRV_NAMED_FUNCTIONS), "1f 2f ");
    EXPECT_TRUE(h.notes.ends_with("has entries that cannot be read\n")) << h.notes;
}
