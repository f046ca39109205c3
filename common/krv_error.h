// SPDX-License-Identifier: Apache-2.0
//
// The handle's error state: a code and a short stack of messages, cause first. Threads that share a handle mix their
// codes and messages, but each of these is whole.
#ifndef KRV_ERROR_H
#define KRV_ERROR_H

#include "krv_types.h"

// Empties code and messages; the texts in the slots stay until overwritten. What is empty already is not stored again: the
// threads that share a handle would wait for each other's stores.
inline void krv_clear_error(krv_handle_t *hp)
{
    if (hp->sh_nerrors != 0)
        hp->sh_nerrors = 0;
    if (hp->sh_errno != KRV_ERR_NONE)
        hp->sh_errno = KRV_ERR_NONE;
}

// Whether memory ran out, or a budget, of which nothing may be concluded. That a budget is used up stays known whatever other
// threads make of the code.
inline bool krv_ran_out(krv_handle_t *hp)
{
    if (hp->sh_is_spent)
        hp->sh_errno = KRV_ERR_NOMEM;
    return hp->sh_errno == KRV_ERR_NOMEM;
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
    return krv_ran_out(hp) || hp->sh_errno == KRV_ERR_IO;
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
    hp->sh_errno = code;
    return -1;
}

#endif
