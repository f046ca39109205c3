// SPDX-License-Identifier: Apache-2.0
//
// What everything stands on: the error state, the debug call-back and the assertion; the hash table; binary search.
#include "krv_error.h"
#include "krv_hash.h"
#include "krv_names.h"
#include "krv_search.h"
#include "support/handle.h"

#include <algorithm>

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

// The hash table: growth, chains, duplicates.

using hash_owner = std::unique_ptr<krv_hash_t, decltype(&krv_hash_destroy)>;

static void *value_of(uint64_t n)
{
    static char values[0x10000];
    return &values[n % sizeof(values)];
}

static void *insert(krv_handle_t *hp, const hash_owner &table, uint64_t key)
{
    const krv_hash_key_t k = {.dwhk_u = key};
    return krv_hash_insert(hp, table.get(), &k, value_of(key));
}

static void *lookup(krv_handle_t *hp, const hash_owner &table, uint64_t key)
{
    const krv_hash_key_t k = {.dwhk_u = key};
    return krv_hash_lookup(hp, table.get(), &k);
}

TEST(Hash, InsertLookupIterate)
{
    static unsigned calls;
    calls = 0;
    handle h;
    const hash_owner table(krv_hash_create(h, 0, KRV_HASH_UINT64), krv_hash_destroy);
    EXPECT_EQ(krv_hash_iter(table.get(), [](void *) { return 1; }), 0);
    for (uint64_t key = 0; key < 10; ++key) {
        EXPECT_EQ(table->dwhsh_nbuckets, 16U);                     // grows at the tenth insertion
        EXPECT_EQ(insert(h, table, key * 16), value_of(key * 16)); // one chain
    }
    EXPECT_EQ(table->dwhsh_nbuckets, 32U);
    for (uint64_t key = 0; key < 10; ++key)
        EXPECT_EQ(lookup(h, table, key * 16), value_of(key * 16));
    EXPECT_EQ(h.error(), "NONE");
    EXPECT_TRUE(refuses(h, lookup(h, table, 1), "NOTFOUND"));
    const krv_hash_key_t again = {.dwhk_u = 16};
    EXPECT_EQ(krv_hash_insert(h, table.get(), &again, &h), value_of(16));
    EXPECT_EQ(h.error(), "EXISTS");
    EXPECT_EQ(table->dwhsh_occupancy, 10U);
    EXPECT_EQ(krv_hash_iter(table.get(), [](void *) { return ++calls == 2 ? 7 : 0; }), 7);
    EXPECT_EQ(calls, 2U);
    EXPECT_EQ(krv_hash_iter(table.get(), [](void *) { return ++calls == 0 ? 1 : 0; }), 0);
    EXPECT_EQ(calls, 12U);
    EXPECT_EQ(krv_hash_resize(h, table.get(), 16) + krv_hash_resize(h, table.get(), 256), 0); // it never shrinks
    EXPECT_TRUE(table->dwhsh_nbuckets == 256 && lookup(h, table, 144) == value_of(144));
    EXPECT_TRUE(refuses(h, krv_hash_create(h, 0, 2), "INVALID: invalid hash type"));
}

TEST(Hash, StringKeys)
{
    handle h;
    const hash_owner table(krv_hash_create(h, 0, KRV_HASH_STRING), krv_hash_destroy);
    const std::string copy = "a"; // found by its content, not by its pointer
    const krv_hash_key_t same = {.dwhk_p = copy.c_str()}, null = {.dwhk_p = nullptr};
    const std::pair<const char *, uint64_t> rows[] = {
        {"", 5381}, {"a", 5381 * 33 ^ 97}, {"ab", (5381 * 33 ^ 97) * 33 ^ 98}, {"\xff", 5381 * 33 ^ 0xff}};
    for (const auto &[name, hash] : rows) {
        const krv_hash_key_t key = {.dwhk_p = name};
        EXPECT_EQ(krv_hash_hash_string(table.get(), &key), hash & 15);
        EXPECT_EQ(krv_hash_insert(h, table.get(), &key, value_of(hash)), value_of(hash));
    }
    EXPECT_EQ(krv_hash_lookup(h, table.get(), &same), value_of(rows[1].second));
    EXPECT_TRUE(krv_hash_cmp_string(&null, &null) && !krv_hash_cmp_string(&null, &same) &&
                !krv_hash_cmp_string(&same, &null));
}

// Every value among arrays of every length to twenty, dense, sparse and with runs of equal keys, from every guess.
TEST(Search, CountsWhatIsNotAbove)
{
    const auto key = [](uint64_t k) { return k; };
    for (const uint64_t step : {0, 1, 3})
        for (size_t count = 0; count <= 20; ++count) {
            std::vector<uint64_t> keys(count);
            for (size_t i = 0; i < count; ++i)
                keys[i] = 10 + i * step + (i / 4) * 2;
            for (uint64_t value = 8; value < 90; ++value) {
                const auto expected = static_cast<size_t>(std::ranges::upper_bound(keys, value) - keys.begin());
                EXPECT_EQ(krv_count_not_above(keys.data(), count, value, key), expected);
                for (size_t guess = 0; guess < count; ++guess)
                    EXPECT_EQ(krv_count_not_above_near(keys.data(), count, guess, value, key), expected)
                        << count << " " << value << " from " << guess;
            }
        }
}
