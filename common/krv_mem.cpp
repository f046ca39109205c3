// SPDX-License-Identifier: Apache-2.0
#include "krv_mem.h"
#include "krv_budget.h"

#include <cstdlib>

// Up to this size an allocation is one of many: the C library's malloc takes it from what the thread freed last, which
// its calloc does not.
constexpr size_t SMALL = 1024;

static void *alloc(krv_handle_t *hp, size_t size)
{
    void *p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr)
        krv_errno(hp) = KRV_ERR_NOMEM;
    return p;
}

static void *zalloc(krv_handle_t *hp, size_t size)
{
    if (size <= SMALL) {
        void *p = alloc(hp, size);
        return p == nullptr ? nullptr : std::memset(p, 0, size);
    }
    void *p = std::calloc(1, size);
    if (p == nullptr)
        krv_errno(hp) = KRV_ERR_NOMEM;
    return p;
}

static void *resize(krv_handle_t *hp, void *p, size_t size)
{
    void *moved = std::realloc(p, size == 0 ? 1 : size);
    if (moved == nullptr)
        krv_errno(hp) = KRV_ERR_NOMEM;
    return moved;
}

// With a budget: functions of their own, so that whoever has none does not pay for what these keep in registers.

[[gnu::noinline]] static void *alloc_from_budget(krv_handle_t *hp, size_t size)
{
    return krv_budget_take_bytes(hp, size) ? alloc(hp, size) : nullptr;
}

[[gnu::noinline]] static void *zalloc_from_budget(krv_handle_t *hp, size_t size)
{
    return krv_budget_take_bytes(hp, size) ? zalloc(hp, size) : nullptr;
}

[[gnu::noinline]] static void *resize_from_budget(krv_handle_t *hp, void *p, size_t size)
{
    return krv_budget_take_bytes(hp, size) ? resize(hp, p, size) : nullptr;
}

void *krv_alloc(krv_handle_t *hp, size_t size)
{
    return hp->sh_budget == nullptr ? alloc(hp, size) : alloc_from_budget(hp, size);
}

void *krv_zalloc(krv_handle_t *hp, size_t size)
{
    return hp->sh_budget == nullptr ? zalloc(hp, size) : zalloc_from_budget(hp, size);
}

void *krv_realloc(krv_handle_t *hp, void *p, size_t size)
{
    if (p == nullptr && size == 0)
        return nullptr;
    return hp->sh_budget == nullptr ? resize(hp, p, size) : resize_from_budget(hp, p, size);
}

void krv_free(void *p)
{
    std::free(p);
}

char *krv_strdup(krv_handle_t *hp, const char *s)
{
    const size_t size = std::strlen(s) + 1;
    auto *copy = static_cast<char *>(krv_alloc(hp, size));
    if (copy != nullptr)
        std::memcpy(copy, s, size);
    return copy;
}
