// SPDX-License-Identifier: Apache-2.0
#include "krv_hash.h"

#include "krv_error.h"
#include "krv_mem.h"

#include <cstring>

constexpr uint32_t MIN_BUCKETS = 16;

uint32_t krv_hash_hash_string(const krv_hash_t *table, const krv_hash_key_t *key)
{
    KRV_ASSERT(key->dwhk_p != NULL);
    uint64_t h = 5381;
    for (auto *s = static_cast<const unsigned char *>(key->dwhk_p); *s != 0; ++s)
        h = h * 33 ^ *s;
    return static_cast<uint32_t>(h & (table->dwhsh_nbuckets - 1));
}

uint32_t krv_hash_hash_uint64(const krv_hash_t *table, const krv_hash_key_t *key)
{
    return static_cast<uint32_t>(key->dwhk_u & (table->dwhsh_nbuckets - 1));
}

uint32_t krv_hash_cmp_string(const krv_hash_key_t *a, const krv_hash_key_t *b)
{
    if (a->dwhk_p == nullptr || b->dwhk_p == nullptr)
        return a->dwhk_p == b->dwhk_p;
    return std::strcmp(static_cast<const char *>(a->dwhk_p), static_cast<const char *>(b->dwhk_p)) == 0;
}

uint32_t krv_hash_cmp_uint64(const krv_hash_key_t *a, const krv_hash_key_t *b)
{
    return a->dwhk_u == b->dwhk_u;
}

static uint32_t bucket_count(uint32_t hint)
{
    uint32_t n = MIN_BUCKETS;
    while (n < hint && n <= UINT32_MAX / 2)
        n *= 2;
    return n;
}

static krv_hash_elem_t **alloc_buckets(krv_handle_t *hp, uint32_t n)
{
    return static_cast<krv_hash_elem_t **>(krv_zalloc(hp, size_t{n} * sizeof(krv_hash_elem_t *)));
}

krv_hash_t *krv_hash_create(krv_handle_t *hp, unsigned int size, krv_hash_type_t type)
{
    krv_owner<krv_hash_t> table(krv_new<krv_hash_t>(hp));
    if (table == nullptr)
        return nullptr;
    const uint32_t nbuckets = bucket_count(size);
    krv_owner<krv_hash_elem_t *> buckets(alloc_buckets(hp, nbuckets));
    if (buckets == nullptr)
        return nullptr;
    switch (type) {
    case KRV_HASH_STRING:
        table->dwhsh_hash = krv_hash_hash_string;
        table->dwhsh_cmp = krv_hash_cmp_string;
        break;
    case KRV_HASH_UINT64:
        table->dwhsh_hash = krv_hash_hash_uint64;
        table->dwhsh_cmp = krv_hash_cmp_uint64;
        break;
    default:
        krv_fail(hp, KRV_ERR_INVALID, "invalid hash type");
        return nullptr;
    }
    table->dwhsh_buckets = buckets.release();
    table->dwhsh_nbuckets = nbuckets;
    krv_rwlock_init(&table->dwhsh_rwlock);
    return table.release();
}

krv_hash_t *krv_hash_get(krv_handle_t *hp, krv_hash_t **slot)
{
    if (krv_hash_t *table = krv_load(slot))
        return table;
    krv_hash_t *fresh = krv_hash_create(hp, 0, KRV_HASH_UINT64);
    return fresh == nullptr ? nullptr : krv_publish(slot, fresh, krv_hash_destroy);
}

void krv_hash_destroy(krv_hash_t *table)
{
    krv_hash_chunk_t *next;
    for (krv_hash_chunk_t *chunk = table->dwhsh_chunks; chunk != nullptr; chunk = next) {
        next = chunk->dwhc_next;
        krv_free(chunk);
    }
    krv_free(table->dwhsh_buckets);
    krv_rwlock_destroy(&table->dwhsh_rwlock);
    krv_free(table);
}

// Makes sure of one unused entry; as many come at a time as the buckets are due. Caller holds the write lock.
static bool reserve_elem(krv_handle_t *hp, krv_hash_t *table)
{
    if (table->dwhsh_nunused != 0)
        return true;
    const uint32_t count = table->dwhsh_nbuckets / 2;
    auto *chunk =
        static_cast<krv_hash_chunk_t *>(krv_alloc(hp, sizeof(krv_hash_chunk_t) + count * sizeof(krv_hash_elem_t)));
    if (chunk == nullptr)
        return false;
    chunk->dwhc_next = table->dwhsh_chunks;
    table->dwhsh_chunks = chunk;
    table->dwhsh_unused = chunk->dwhc_elems;
    table->dwhsh_nunused = count;
    return true;
}

// Caller holds the lock. NULL when the key is absent.
static krv_hash_elem_t *find(const krv_hash_t *table, const krv_hash_key_t *key)
{
    if (table->dwhsh_cmp == krv_hash_cmp_uint64) { // as nearly all are: without a call for each entry
        krv_hash_elem_t *e = table->dwhsh_buckets[krv_hash_hash_uint64(table, key)];
        while (e != nullptr && e->dwhe_key.dwhk_u != key->dwhk_u)
            e = e->dwhe_next;
        return e;
    }
    krv_hash_elem_t *e = table->dwhsh_buckets[table->dwhsh_hash(table, key)];
    while (e != nullptr && table->dwhsh_cmp(&e->dwhe_key, key) == 0)
        e = e->dwhe_next;
    return e;
}

static void push_front(krv_hash_t *table, krv_hash_elem_t *e)
{
    krv_hash_elem_t **bucket = &table->dwhsh_buckets[table->dwhsh_hash(table, &e->dwhe_key)];
    e->dwhe_next = *bucket;
    *bucket = e;
}

// Caller holds the write lock.
static int grow(krv_handle_t *hp, krv_hash_t *table, uint32_t size)
{
    const uint32_t old_count = table->dwhsh_nbuckets;
    const uint32_t new_count = bucket_count(size);
    if (new_count <= old_count)
        return 0;
    krv_hash_elem_t **fresh = alloc_buckets(hp, new_count);
    if (fresh == nullptr)
        return -1;
    krv_hash_elem_t **old = table->dwhsh_buckets;
    table->dwhsh_buckets = fresh;
    table->dwhsh_nbuckets = new_count; // before rehashing: the bucket functions mask with it
    for (uint32_t i = 0; i < old_count; ++i) {
        krv_hash_elem_t *next;
        for (krv_hash_elem_t *e = old[i]; e != nullptr; e = next) {
            next = e->dwhe_next;
            push_front(table, e);
        }
    }
    krv_free(old);
    return 0;
}

void *krv_hash_lookup(krv_handle_t *hp, krv_hash_t *table, const krv_hash_key_t *key)
{
    {
        const krv_read_guard guard(&table->dwhsh_rwlock);
        if (const krv_hash_elem_t *e = find(table, key))
            return e->dwhe_value;
    }
    krv_errno(hp) = KRV_ERR_NOTFOUND;
    return nullptr;
}

void *krv_hash_insert(krv_handle_t *hp, krv_hash_t *table, const krv_hash_key_t *key, void *value)
{
    const krv_write_guard guard(&table->dwhsh_rwlock);
    const uint32_t nbuckets = table->dwhsh_nbuckets;
    if (!reserve_elem(hp, table))
        return nullptr;
    if (table->dwhsh_occupancy > nbuckets / 2 && nbuckets <= UINT32_MAX / 2 && grow(hp, table, nbuckets * 2) != 0)
        return nullptr;
    if (const krv_hash_elem_t *e = find(table, key)) {
        krv_errno(hp) = KRV_ERR_EXISTS;
        return e->dwhe_value;
    }
    krv_hash_elem_t *fresh = table->dwhsh_unused++;
    --table->dwhsh_nunused;
    *fresh = {*key, value, nullptr};
    push_front(table, fresh);
    ++table->dwhsh_occupancy;
    return value;
}

int krv_hash_resize(krv_handle_t *hp, krv_hash_t *table, unsigned int size)
{
    const krv_write_guard guard(&table->dwhsh_rwlock);
    return size <= table->dwhsh_nbuckets ? 0 : grow(hp, table, size);
}

int krv_hash_iter(krv_hash_t *table, krv_hash_iter_f *fn)
{
    for (uint32_t i = 0; i < table->dwhsh_nbuckets; ++i)
        for (krv_hash_elem_t *e = table->dwhsh_buckets[i]; e != nullptr; e = e->dwhe_next)
            if (const int result = fn(e->dwhe_value))
                return result;
    return 0;
}
