// SPDX-License-Identifier: Apache-2.0
//
// Names of constants, and form classes.
#include "krv_dwarf.h"
#include "krv_names.h"
#include "support/handle.h"

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
        EXPECT_TRUE(refuses(h, korva_print_define(h, index, key),
                            text("INVALID: unknown key (%d) for index (%d)", static_cast<int>(key), index)));
    }
    for (const krv_def_t index : {15, -1}) {
        EXPECT_TRUE(refuses(h, korva_print_define(h, index, 1), text("INVALID: index (%d) out of range", index)));
    }
}
