// SPDX-License-Identifier: Apache-2.0
//
// Memory of a handle. Running out is an error code in the handle, never a throw and never a message.
#ifndef KRV_MEM_H
#define KRV_MEM_H

#include "krv_error.h"

#include <cstring>
#include <limits>
#include <memory>

void *krv_alloc(krv_handle_t *hp, size_t size);            // not zeroed; NULL with KRV_ERR_NOMEM
void *krv_zalloc(krv_handle_t *hp, size_t size);           // zeroed; NULL with KRV_ERR_NOMEM
void *krv_realloc(krv_handle_t *hp, void *p, size_t size); // NULL with KRV_ERR_NOMEM, p still valid; NULL for (NULL, 0)
void krv_free(void *p);

// A copy of a string. NULL with KRV_ERR_NOMEM.
char *krv_strdup(krv_handle_t *hp, const char *s);

struct krv_free_deleter {
    void operator()(void *p) const { krv_free(p); }
};

// Owns one plain allocation until release().
template <typename T>
using krv_owner = std::unique_ptr<T, krv_free_deleter>;

template <typename T>
T *krv_new(krv_handle_t *hp)
{
    return static_cast<T *>(krv_zalloc(hp, sizeof(T)));
}

// Makes room for one more element in a table whose capacity doubles, from `first` when it is empty. On failure
// (KRV_ERR_NOMEM) the table is as it was.
template <typename T, typename N>
bool krv_table_grow(krv_handle_t *hp, T **table, N *capacity, N entries, N first)
{
    if (entries < *capacity)
        return true;
    constexpr uint64_t most = std::numeric_limits<size_t>::max() / sizeof(T);
    const uint64_t limit = most < std::numeric_limits<N>::max() ? most : std::numeric_limits<N>::max();
    const uint64_t wanted = *capacity == 0 ? uint64_t{first} : uint64_t{*capacity} * 2;
    if (*capacity > limit / 2 || wanted > limit) {
        krv_errno(hp) = KRV_ERR_NOMEM;
        return false;
    }
    auto *grown = static_cast<T *>(krv_realloc(hp, *table, static_cast<size_t>(wanted) * sizeof(T)));
    if (grown == nullptr)
        return false;
    *table = grown;
    *capacity = static_cast<N>(wanted);
    return true;
}

// Gives back what a table does not use. An empty table becomes NULL. False (KRV_ERR_NOMEM) leaves it as it was.
template <typename T, typename N>
bool krv_table_trim(krv_handle_t *hp, T **table, N *capacity, N entries)
{
    if (entries == 0) {
        krv_free(*table);
        *table = nullptr;
    } else {
        auto *exact = static_cast<T *>(krv_realloc(hp, *table, static_cast<size_t>(entries) * sizeof(T)));
        if (exact == nullptr)
            return false;
        *table = exact;
    }
    *capacity = entries;
    return true;
}

#endif
