// SPDX-License-Identifier: Apache-2.0
#include "krv_error.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void krv_assert_fail(const char *cond, const char *file, int line, const char *func)
{
    std::fprintf(stderr, "libkorva: %s:%d: %s: assertion failed: %s\n", file, line, func, cond);
    std::abort();
}

[[gnu::format(printf, 2, 0)]] static void push(krv_handle_t *hp, const char *format, va_list ap)
{
    char message[KRV_MAX_ERROR_SIZE];
    uint32_t slot = hp->sh_nerrors;
    if (slot >= KRV_MAX_ERRORS)
        return;
    const int length = std::vsnprintf(message, sizeof(message), format, ap);
    const size_t kept = length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof(message) - 1);
    message[kept] = '\0';
    {
        const krv_write_guard guard(&hp->sh_error_lock);
        slot = hp->sh_nerrors;
        if (slot >= KRV_MAX_ERRORS)
            return;
        std::memcpy(hp->sh_errors[slot], message, kept + 1);
        hp->sh_nerrors = slot + 1;
    }

    const krv_opt_t *func = &hp->sh_opts[KRV_OPT_DEBUG_FUNC];
    if (func->sopt_set != B_TRUE || func->sopt_u.o_addr == nullptr)
        return;
    const krv_opt_t *arg = &hp->sh_opts[KRV_OPT_DEBUG_FUNC_ARG];
    auto *debug = reinterpret_cast<krv_debug_f *>(func->sopt_u.o_addr);
    debug(slot + 1, message, arg->sopt_set == B_TRUE ? arg->sopt_u.o_addr : nullptr);
}

void krv_push_error(krv_handle_t *hp, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    push(hp, format, ap);
    va_end(ap);
}

void krv_restore_error(krv_handle_t *hp, const char *format, ...)
{
    const krv_write_guard guard(&hp->sh_error_lock);
    const uint32_t count = hp->sh_nerrors;
    const uint32_t kept = count < KRV_MAX_ERRORS ? count : KRV_MAX_ERRORS - 1; // of the others
    std::rotate(hp->sh_errors, hp->sh_errors + kept, hp->sh_errors + kept + 1);
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(hp->sh_errors[0], KRV_MAX_ERROR_SIZE, format, ap);
    va_end(ap);
    hp->sh_nerrors = kept + 1;
}

int krv_fail(krv_handle_t *hp, int code, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    push(hp, format, ap);
    va_end(ap);
    hp->sh_errno = code; // last: a debug call-back may query the handle, which clears the code
    return -1;
}

int krv_note(krv_handle_t *hp, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    push(hp, format, ap);
    va_end(ap);
    return -1;
}

int korva_handle_get_errno(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    const int code = hp->sh_errno;
    return code == KRV_ERR_NOMEM && hp->sh_is_spent ? int{KRV_ERR_EXT_LIMIT} : code;
}

char **korva_handle_get_errmsgs(krv_handle_t *hp, unsigned int *count)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(count != NULL);
    *count = hp->sh_nerrors;
    return hp->sh_errors;
}
