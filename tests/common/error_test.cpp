// SPDX-License-Identifier: Apache-2.0
//
// The error state, the debug call-back, and the assertion.
#include "krv_error.h"
#include "krv_names.h"
#include "support/handle.h"

using namespace krv_test;

TEST(Error, SixteenMessagesOf255Characters)
{
    handle h;
    h.watch();
    krv_push_error(h, "%s", std::string(300, 'x').c_str());
    for (int i = 2; i <= 20; ++i)
        krv_push_error(h, "message %d", i);
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(h, &count);
    ASSERT_EQ(count, 16U);
    EXPECT_EQ(messages[0], std::string(255, 'x'));
    EXPECT_STREQ(messages[15], "message 16");
    EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_NONE); // pushing never sets a code
    ASSERT_EQ(h.log.size(), 16U);
    EXPECT_EQ(h.log[0], "1 " + std::string(255, 'x'));
    EXPECT_EQ(h.log[15], "16 message 16");

    EXPECT_TRUE(refuses(h, korva_attach_section(h, KRV_SEC_INFO, 0, KRV_FD_TYPE_MEMORY, nullptr),
                        "INVALID: section size is zero"));
    EXPECT_EQ(h.log.back(), "1 section size is zero"); // positions begin again after a clear
    EXPECT_EQ(korva_handle_set_opt(h, KRV_OPT_BASE_ADDR, 0UL), 0);
    EXPECT_EQ(h.error(), "NONE");
}

// A debug call-back may ask its handle, which clears the code: the failure's code still stands afterwards.
TEST(Error, CallBackThatQueries)
{
    static krv_handle_t *asked;
    static void *seen;
    seen = &seen;
    handle h;
    asked = h;
    const auto ask = [](unsigned int, const char *, void *arg) {
        seen = arg;
        korva_handle_set_opt(asked, KRV_OPT_BASE_ADDR, 0UL);
    };
    ASSERT_EQ(korva_handle_set_opt(h, KRV_OPT_DEBUG_FUNC, +ask), 0);
    EXPECT_EQ(korva_attach_section(h, KRV_MAX_SEC, 1, KRV_FD_TYPE_MEMORY, nullptr), -1);
    EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_INVALID);
    EXPECT_EQ(seen, nullptr); // the argument until it is set
}

TEST(ErrorDeathTest, Assertions)
{
    handle h;
    unsigned int count;
    const char *place = "libkorva: common/krv_error.cpp:[0-9]+: korva_handle_get_err";
    EXPECT_DEATH(korva_handle_get_errno(nullptr), std::string(place) + "no: assertion failed: hp != NULL\n");
    EXPECT_DEATH(korva_handle_get_errmsgs(nullptr, &count),
                 std::string(place) + "msgs: assertion failed: hp != NULL\n");
    EXPECT_DEATH(korva_handle_get_errmsgs(h, nullptr), std::string(place) + "msgs: assertion failed: count != NULL\n");
    EXPECT_DEATH(krv_print_define(KRV_DEF_MAX, 1), "index < sizeof \\(_krv_name_tables\\) / "
                                                   "sizeof \\(_krv_name_tables\\[0\\]\\)\n");
}
