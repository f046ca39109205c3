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

// The linker leads the libraries' calls of a function here (--wrap=NAME).
#define KRV_TEST_WRAP(result, name, allowed, failed, parameters, ...)                                                  \
    extern "C" result __real_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters                                                                         \
    {                                                                                                                  \
        return (allowed) ? __real_##name(__VA_ARGS__) : (failed);                                                      \
    }

KRV_TEST_WRAP(void *, malloc, granted(size), nullptr, (size_t size), size)
KRV_TEST_WRAP(void *, calloc, granted(count *size), nullptr, (size_t count, size_t size), count, size)
KRV_TEST_WRAP(void *, realloc, granted(size), nullptr, (void *p, size_t size), p, size)
KRV_TEST_WRAP(char *, strdup, granted(0), nullptr, (const char *s), s)

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
