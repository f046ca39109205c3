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

void krv_clear_error_of(krv_error_state *error)
{
    if (error->count != 0)
        error->count = 0;
    if (error->code != KRV_ERR_NONE)
        error->code = KRV_ERR_NONE;
}

bool krv_looks_ran_out(krv_handle_t *hp)
{
    krv_relaxed<int32_t> &code = krv_errno(hp);
    if (hp->sh_is_spent)
        code = KRV_ERR_NOMEM;
    return code == KRV_ERR_NOMEM;
}

// Threads' own error states have no texts before they need them. Without memory a message is lost; the code is not.
static bool has_room(char **text)
{
    if (*text == nullptr)
        *text = static_cast<char *>(std::calloc(1, KRV_MAX_ERROR_SIZE));
    return *text != nullptr;
}

[[gnu::format(printf, 2, 0)]] static void push(krv_handle_t *hp, const char *format, va_list ap)
{
    krv_error_state *const error = krv_error_of(hp);
    char message[KRV_MAX_ERROR_SIZE];
    uint32_t slot = error->count;
    if (slot >= KRV_MAX_ERRORS || (hp->sh_builder == pthread_self() && hp->sh_is_quiet))
        return;
    const int length = std::vsnprintf(message, sizeof(message), format, ap);
    const size_t kept = length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof(message) - 1);
    message[kept] = '\0';
    {
        const krv_write_guard guard(&hp->sh_error_lock);
        slot = error->count;
        if (slot >= KRV_MAX_ERRORS || !has_room(&error->texts[slot]))
            return;
        std::memcpy(error->texts[slot], message, kept + 1);
        error->count = slot + 1;
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
    krv_error_state *const error = krv_error_of(hp);
    const uint32_t count = error->count;
    const uint32_t kept = count < KRV_MAX_ERRORS ? count : KRV_MAX_ERRORS - 1; // of the others
    if (!has_room(&error->texts[kept]))
        return;
    std::rotate(error->texts, error->texts + kept, error->texts + kept + 1);
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(error->texts[0], KRV_MAX_ERROR_SIZE, format, ap);
    va_end(ap);
    error->count = kept + 1;
}

int krv_fail(krv_handle_t *hp, int code, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    push(hp, format, ap);
    va_end(ap);
    krv_errno(hp) = code; // last: a debug call-back may query the handle, which clears the code
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
    const int code = krv_errno(hp);
    return code == KRV_ERR_NOMEM && hp->sh_is_spent ? int{KRV_ERR_EXT_LIMIT} : code;
}

char **korva_handle_get_errmsgs(krv_handle_t *hp, unsigned int *count)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(count != NULL);
    krv_error_state *const error = krv_error_of(hp);
    *count = error->count;
    return error->texts;
}
