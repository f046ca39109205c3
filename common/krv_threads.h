// SPDX-License-Identifier: Apache-2.0
//
// What each thread that queries a handle has of its own there, where the client asked for it (KRV_OPT_EXT_THREADS): an error
// state, and a position in each section. Queries go by both, so that without it no answer is promised to threads that do
// not take turns.
#ifndef KRV_THREADS_H
#define KRV_THREADS_H

#include "krv_types.h"

// Switches it. Other threads must not be there yet, or no more. 0 or -1.
int krv_threads_set(krv_handle_t *hp, bool is_on);
void krv_threads_destroy(krv_handle_t *hp);

// While it is on: that of the calling thread.
krv_fd_t *krv_own_position(krv_handle_t *hp, krv_secidx_t sec);

// The cursor of a section, which entries and headers are read through.
inline krv_fd_t *krv_position(krv_handle_t *hp, krv_secidx_t sec)
{
    return hp->sh_threads == nullptr ? krv_section(hp, sec) : krv_own_position(hp, sec);
}

#endif
