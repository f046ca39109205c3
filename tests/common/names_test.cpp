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
    const std::tuple<krv_def_t, unsigned int, const char *> added[] = {
        {KRV_DEF_AT, 0x8c, "DW_AT_loclists_base"},
        {KRV_DEF_AT, 0x2137, "DW_AT_GNU_locviews"},
        {KRV_DEF_TAG, 0x48, "DW_TAG_call_site"},
        {KRV_DEF_FORM, 0x1f21, "DW_FORM_GNU_strp_alt"},
        {KRV_DEF_OP, 0xa3, "DW_OP_entry_value"},
        {KRV_DEF_LANG, 0x1c, "DW_LANG_Rust"},
        {KRV_DEF_LANG, 0x21, "DW_LANG_C_plus_plus_14"}, // 33, as other tools print it
        {KRV_DEF_ATE, 0x12, "DW_ATE_ASCII"},
        {KRV_DEF_CC, 5, "DW_CC_pass_by_value"},
        {KRV_DEF_EH, 0x80, "DW_EH_PE_indirect"},
        {KRV_DEF_CFA, 0x2e, "DW_CFA_GNU_args_size"},
        {KRV_DEF_AT, 3, "DW_AT_name"},
    };
    handle extended;
    extended.extend();
    for (const auto &[index, key, name] : added) {
        EXPECT_STREQ(korva_print_define(extended, index, key), name);
        EXPECT_EQ(korva_print_define(h, index, key) != nullptr, key == 3);
    }
    EXPECT_TRUE(
        refuses(extended, korva_print_define(extended, KRV_DEF_LNE, 5), "INVALID: unknown key (5) for index (9)"));
    for (const krv_def_t index : {15, -1}) {
        EXPECT_TRUE(refuses(h, korva_print_define(h, index, 1), text("INVALID: index (%d) out of range", index)));
    }
}
