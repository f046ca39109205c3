// SPDX-License-Identifier: Apache-2.0
//
// Counts the bytes that the library under test asks for. For one source of a test that is linked with
// --wrap=malloc,--wrap=calloc,--wrap=realloc.
#ifndef KRV_TEST_COUNTED_ALLOCATIONS_H
#define KRV_TEST_COUNTED_ALLOCATIONS_H

#include <cstddef>

static size_t allocated; // bytes, since it was set to 0
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *p, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *p, size_t size);

void *__wrap_malloc(size_t size)
{
    allocated += size;
    return __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    allocated += count * size;
    return __real_calloc(count, size);
}
void *__wrap_realloc(void *p, size_t size)
{
    allocated += size;
    return __real_realloc(p, size);
}
}

#endif
