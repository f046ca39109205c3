// SPDX-License-Identifier: Apache-2.0
#include "krv_mem.h"

#include <cstdlib>

void *krv_zalloc(krv_handle_t *hp, size_t size)
{
    void *p = std::calloc(1, size == 0 ? 1 : size);
    if (p == nullptr)
        hp->sh_errno = KRV_ERR_NOMEM;
    return p;
}

void *krv_realloc(krv_handle_t *hp, void *p, size_t size)
{
    if (p == nullptr && size == 0)
        return nullptr;
    void *moved = std::realloc(p, size == 0 ? 1 : size);
    if (moved == nullptr)
        hp->sh_errno = KRV_ERR_NOMEM;
    return moved;
}

void krv_free(void *p)
{
    std::free(p);
}

char *krv_strdup(krv_handle_t *hp, const char *s)
{
    const size_t size = std::strlen(s) + 1;
    auto *copy = static_cast<char *>(krv_zalloc(hp, size));
    if (copy != nullptr)
        std::memcpy(copy, s, size);
    return copy;
}
