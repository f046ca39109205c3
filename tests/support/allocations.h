// SPDX-License-Identifier: Apache-2.0
//
// Stands between the library under test and the allocator. For one source of a test that is linked with --wrap for each
// of these functions, and says which allocations are granted; it may count. With KRV_TEST_NEW also operator new, whose
// callers are the loader, and the test too.
#ifndef KRV_TEST_ALLOCATIONS_H
#define KRV_TEST_ALLOCATIONS_H

#include <cstdlib>
#include <new>

static bool granted(size_t size); // the test's own

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *p, size_t size);
char *__real_strdup(const char *s);

void *__wrap_malloc(size_t size)
{
    return granted(size) ? __real_malloc(size) : nullptr;
}
void *__wrap_calloc(size_t count, size_t size)
{
    return granted(count * size) ? __real_calloc(count, size) : nullptr;
}
void *__wrap_realloc(void *p, size_t size)
{
    return granted(size) ? __real_realloc(p, size) : nullptr;
}
char *__wrap_strdup(const char *s)
{
    return granted(0) ? __real_strdup(s) : nullptr;
}
}

#ifdef KRV_TEST_NEW
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return __wrap_malloc(size != 0 ? size : 1);
}
void *operator new(size_t size)
{
    if (void *p = operator new(size, std::nothrow))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept
{
    std::free(p);
}
void operator delete(void *p, size_t) noexcept
{
    std::free(p);
}
#endif

#endif
