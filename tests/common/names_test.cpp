// SPDX-License-Identifier: Apache-2.0
//
// Names of constants, and form classes.
#include "krv_dwarf.h"
#include "krv_names.h"
#include "support/handle.h"

#include <gtest/gtest.h>

using namespace krv_test;

TEST(Names, Print)
{
    handle h;
    const std::tuple<krv_def_t, unsigned int, const char *> known[] = {
        {KRV_DEF_FORM, 0x01, "DW_FORM_addr"},
        {KRV_DEF_FORM, 0x20, "DW_FORM_ref_sig8"},
        {KRV_DEF_AT, 0x2224, "DW_AT_ZEPH_amd64_parmdump"},
        {KRV_DEF_AT, 0x6e, "DW_AT_linkage_name"},
        {KRV_DEF_TAG, 0x4206, "DW_TAG_ZEPH_codeflags"},
        {KRV_DEF_CFA, 0x80, "DW_CFA_offset"},
        {KRV_DEF_CFA, 0x30, "DW_CFA_VESK_arg_loc"},
        {KRV_DEF_OP, 0x9c, "DW_OP_call_frame_cfa"},
        {KRV_DEF_CHILDREN, 0, "DW_CHILDREN_no"},
        {KRV_DEF_LANG, 0x14, "DW_LANG_Python"},
    };
    for (const auto &[index, key, name] : known)
        EXPECT_STREQ(korva_print_define(h, index, key), name);
    const std::pair<krv_def_t, unsigned int> unknown[] = {
        {KRV_DEF_FORM, 2},   {KRV_DEF_AT, 4},  {KRV_DEF_AT, 0x6f}, {KRV_DEF_AT, UINT_MAX}, {KRV_DEF_TAG, 0x3e},
        {KRV_DEF_CFA, 0x81}, {KRV_DEF_LNE, 0}, {KRV_DEF_OP, 7},    {KRV_DEF_EH, 0x1b},
    };
    for (const auto &[index, key] : unknown) {
        EXPECT_EQ(korva_print_define(h, index, key), nullptr);
        EXPECT_EQ(h.error(), text("INVALID: unknown key (%d) for index (%d)", static_cast<int>(key), index));
    }
    for (const krv_def_t index : {15, -1}) {
        EXPECT_EQ(korva_print_define(h, index, 1), nullptr);
        EXPECT_EQ(h.error(), text("INVALID: index (%d) out of range", index));
    }
    EXPECT_EQ(korva_print_define(nullptr, KRV_DEF_AT, 3), nullptr);
}

// Every key is tried: the tables hold the standard's numbers of names, each under its class's prefix.
TEST(Names, TablesAreComplete)
{
    const struct {
        const char *prefix;
        unsigned int entries, lowest, highest;
    } classes[KRV_DEF_MAX] = {
        {"DW_AT_", 100, 0x01, 0x2224}, {"DW_ATE_", 16, 1, 0x10},   {"DW_CC_", 3, 1, 3},       {"DW_CFA_", 28, 0, 0xc0},
        {"DW_CHILDREN_", 2, 0, 1},     {"DW_EH_PE_", 13, 0, 0xff}, {"DW_FORM_", 25, 1, 0x20}, {"DW_INL_", 4, 0, 3},
        {"DW_LANG_", 20, 1, 0x14},     {"DW_LNE_", 4, 1, 4},       {"DW_LNS_", 12, 1, 12},    {"DW_OP_", 154, 3, 0x9f},
        {"DW_ORD_", 2, 0, 1},          {"DW_TAG_", 61, 1, 0x4206}, {"DW_VIS_", 3, 1, 3},
    };
    for (unsigned int index = 0; index < KRV_DEF_MAX; ++index) {
        unsigned int found = 0, lowest = 0, highest = 0;
        for (unsigned int key = 0; key <= 0x10000; ++key) {
            const char *name = krv_print_define(index, key);
            if (name == nullptr)
                continue;
            EXPECT_EQ(std::string(name).rfind(classes[index].prefix, 0), 0U) << name;
            lowest = found++ == 0 ? key : lowest;
            highest = key;
        }
        EXPECT_EQ(found, classes[index].entries) << classes[index].prefix;
        EXPECT_TRUE(lowest == classes[index].lowest && highest == classes[index].highest) << classes[index].prefix;
    }
}

TEST(Names, FormClasses)
{
    const struct {
        uint32_t mask;
        std::vector<unsigned> forms;
    } rows[] = {
        {KRV_CLASS_ADDRESS, {0x01}},
        {KRV_CLASS_BLOCK, {0x03, 0x04, 0x09, 0x0a}},
        {KRV_CLASS_CONSTANT, {0x05, 0x06, 0x07, 0x0b, 0x0d, 0x0f}}, // data4 and data8 too: never section pointers
        {KRV_CLASS_EXPRLOC, {0x18}},
        {KRV_CLASS_FLAG, {0x0c, 0x19}},
        {0x1e0, {0x17}},
        {KRV_CLASS_REFERENCE, {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x20}},
        {KRV_CLASS_STRING, {0x08, 0x0e}},
    };
    std::map<unsigned, uint32_t> expected;
    for (const auto &row : rows)
        for (const unsigned form : row.forms)
            expected[form] = row.mask;
    for (unsigned form = 0; form <= 0xff; ++form)
        EXPECT_EQ(krv_get_form_class(static_cast<krv_form_t>(form)), expected[form]) << form;
}
