// SPDX-License-Identifier: Apache-2.0
//
// A chained hash table with 64-bit or string keys and a reader-writer lock of its own. It only grows, stores keys
// and values by value, and never owns what a pointer points to. Insertion is the publish step of a cache: the caller
// that lost a race gets the stored value back.
#ifndef KRV_HASH_H
#define KRV_HASH_H

#include "krv_types.h"

#include <bit>

union krv_hash_key_t {
    uint64_t dwhk_u;
    const void *dwhk_p; // string tables: the NUL-terminated string
};

struct krv_hash_elem_t {
    krv_hash_key_t dwhe_key; // first, so that an entry can stand where a key is wanted
    void *dwhe_value;
    krv_hash_elem_t *dwhe_next;
};

typedef struct krv_hash krv_hash_t;
typedef uint32_t krv_hash_hash_f(const krv_hash_t *table, const krv_hash_key_t *key); // bucket index
typedef uint32_t krv_hash_cmp_f(const krv_hash_key_t *a, const krv_hash_key_t *b);    // non-zero when equal
typedef int krv_hash_iter_f(void *value);                                             // non-zero stops

// Entries are never given back one by one, so they are allocated many at a time.
struct krv_hash_chunk_t {
    krv_hash_chunk_t *dwhc_next;
    krv_hash_elem_t dwhc_elems[];
};

struct krv_hash {
    krv_hash_elem_t **dwhsh_buckets;
    uint32_t dwhsh_nbuckets; // a power of two, at least 16
    uint32_t dwhsh_occupancy;
    krv_rwlock_t dwhsh_rwlock;
    krv_hash_hash_f *dwhsh_hash;
    krv_hash_cmp_f *dwhsh_cmp;
    krv_hash_chunk_t *dwhsh_chunks; // storage of the entries, the latest first
    krv_hash_elem_t *dwhsh_unused;  // free entries of the latest chunk,
    uint32_t dwhsh_nunused;         // and their number
};

typedef int krv_hash_type_t;
enum { KRV_HASH_STRING = 0, KRV_HASH_UINT64 = 1 };

krv_hash_hash_f krv_hash_hash_string, krv_hash_hash_uint64;
krv_hash_cmp_f krv_hash_cmp_string, krv_hash_cmp_uint64;

// A new table with at least `size` buckets. NULL: KRV_ERR_NOMEM, or KRV_ERR_INVALID for an unknown type.
krv_hash_t *krv_hash_create(krv_handle_t *hp, unsigned int size, krv_hash_type_t type);

// The table with 64-bit keys in a slot, made when it is first asked for. NULL: KRV_ERR_NOMEM.
krv_hash_t *krv_hash_get(krv_handle_t *hp, krv_hash_t **slot);

// The slot of a key, of tables that are several so that threads seldom need the same one.
template <size_t N>
krv_hash_t **krv_hash_slot(krv_hash_t *(&slots)[N], uint64_t key)
{
    static_assert(std::has_single_bit(N) && N > 1);
    return &slots[(key * 0x9e3779b97f4a7c15U) >> (64 - std::countr_zero(N))];
}

// Frees the table, not its keys and values. Takes no lock.
void krv_hash_destroy(krv_hash_t *table);

// The stored value, or NULL with KRV_ERR_NOTFOUND.
void *krv_hash_lookup(krv_handle_t *hp, krv_hash_t *table, const krv_hash_key_t *key);

// Returns value when it was inserted, the value already stored under an equal key (KRV_ERR_EXISTS), or NULL
// (KRV_ERR_NOMEM).
void *krv_hash_insert(krv_handle_t *hp, krv_hash_t *table, const krv_hash_key_t *key, void *value);

// Grows to at least `size` buckets, under the write lock. 0 or -1.
int krv_hash_resize(krv_handle_t *hp, krv_hash_t *table, unsigned int size);

// Calls fn on every value; the first non-zero result, or 0. fn may free the value. Takes no lock.
int krv_hash_iter(krv_hash_t *table, krv_hash_iter_f *fn);

// Leaves no table in any slot; fn frees the values.
template <size_t N>
void krv_hash_drop(krv_hash_t *(&slots)[N], krv_hash_iter_f *fn)
{
    for (krv_hash_t *&table : slots) {
        if (table == nullptr)
            continue;
        krv_hash_iter(table, fn);
        krv_hash_destroy(table);
        table = nullptr;
    }
}

#endif
