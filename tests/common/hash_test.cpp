// SPDX-License-Identifier: Apache-2.0
//
// The hash table: growth, chains, duplicates.
#include "krv_hash.h"
#include "support/handle.h"

using namespace krv_test;

namespace
{

struct hash_deleter {
    void operator()(krv_hash_t *table) const { krv_hash_destroy(table); }
};

} // namespace

using hash_owner = std::unique_ptr<krv_hash_t, hash_deleter>;

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
    const hash_owner table(krv_hash_create(h, 0, KRV_HASH_UINT64));
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
    const hash_owner table(krv_hash_create(h, 0, KRV_HASH_STRING));
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
