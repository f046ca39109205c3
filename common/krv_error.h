// SPDX-License-Identifier: Apache-2.0
//
// The handle's error state: a code and a short stack of messages, cause first. Threads that share a handle mix their
// codes and messages, but each of these is whole; unless each was asked to have an error state of its own.
#ifndef KRV_ERROR_H
#define KRV_ERROR_H

#include "krv_types.h"

#include <cstddef>

// Of the calling thread.
krv_error_state *krv_own_error(krv_handle_t *hp); // with KRV_OPT_EXT_THREADS
inline krv_error_state *krv_error_of(krv_handle_t *hp)
{
    return hp->sh_threads == nullptr ? &hp->sh_error : krv_own_error(hp);
}
inline krv_relaxed<int32_t> &krv_errno(krv_handle_t *hp)
{
    return krv_error_of(hp)->code;
}

// Whether there is surely nothing, in one look at code and count. Queries ask so often that it counts.
inline bool krv_is_clear(const krv_handle_t *hp)
{
#ifdef KRV_SANITIZE_THREAD
    return hp->sh_error.code == KRV_ERR_NONE && hp->sh_error.count == 0;
#else
    typedef uint64_t both __attribute__((may_alias));
    static_assert(offsetof(krv_error_state, count) == sizeof(int32_t) && KRV_ERR_NONE == 0);
    return *reinterpret_cast<const volatile both *>(&hp->sh_error) == 0;
#endif
}

// Empties code and messages; the texts in the slots stay until overwritten. What is empty already is not stored again: the
// threads that share a handle would wait for each other's stores.
void krv_clear_error_of(krv_error_state *error);
inline void krv_clear_error(krv_handle_t *hp)
{
    if (__builtin_expect(!krv_is_clear(hp), 0))
        krv_clear_error_of(krv_error_of(hp));
}

// Whether memory ran out, or a budget, of which nothing may be concluded. That a budget is used up stays known whatever other
// threads make of the code.
bool krv_looks_ran_out(krv_handle_t *hp);
inline bool krv_ran_out(krv_handle_t *hp)
{
    return (!krv_is_clear(hp) || hp->sh_is_spent) && krv_looks_ran_out(hp);
}

// Forgets what stands in the way of no answer. False: memory ran out, which does.
inline bool krv_forgive(krv_handle_t *hp)
{
    if (krv_ran_out(hp))
        return false;
    krv_clear_error(hp);
    return true;
}

// Whether what failed is memory or reading, which says nothing of what was read.
inline bool krv_is_passing(krv_handle_t *hp)
{
    return krv_ran_out(hp) || krv_errno(hp) == KRV_ERR_IO;
}

// Appends one message, cut to 255 characters; a 17th is dropped. Never touches the code.
[[gnu::format(printf, 2, 3)]] void krv_push_error(krv_handle_t *hp, const char *format, ...);

// Puts a message back in front of all others, when a step that ran after it has cleared it. The debug call-back has had
// it before.
[[gnu::format(printf, 2, 3)]] void krv_restore_error(krv_handle_t *hp, const char *format, ...);

// A failure in one line: the code and its message. Returns -1.
[[gnu::format(printf, 3, 4)]] int krv_fail(krv_handle_t *hp, int code, const char *format, ...);

// A caller's summary of a failure whose code is set already. Returns -1.
[[gnu::format(printf, 2, 3)]] int krv_note(krv_handle_t *hp, const char *format, ...);

// A failure without a message. Returns -1.
inline int krv_fail_code(krv_handle_t *hp, int code)
{
    krv_errno(hp) = code;
    return -1;
}

#endif
