// SPDX-License-Identifier: Apache-2.0
//
// The byte cursor through which every section and the target's memory are read. It owns nothing; a copy is an
// independent position. Readers work on a copy and assign it back when they succeed, so that a failure leaves the
// caller's cursor where it was.
#ifndef KRV_FD_H
#define KRV_FD_H

#include "krv_types.h"

#include <cstdarg>

krv_fd_t *krv_fd_alloc(krv_handle_t *hp); // as korva_fd_alloc, without clearing errors
void krv_fd_free(krv_fd_t *fdp);

// Fill a cursor, reporting nothing; the size is not tested.
void krv_fd_attach_mem(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, uint8_t *buf);
void krv_fd_attach_cb(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_cb_f *func, void *arg);

// The checking attach behind korva_attach_section and korva_fd_attach: takes the buffer, or function and argument.
int krv_fd_attach(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_type_t type, va_list ap);

inline bool krv_fd_is_cb(const krv_fd_t *fdp)
{
    return (fdp->sfd_flags & KRV_FD_TYPE_CB) != 0;
}

// Steps over bytes that the caller has checked to remain.
inline void krv_fd_advance(krv_fd_t *fdp, uint64_t count)
{
    fdp->sfd_offset += count;
    fdp->sfd_remaining -= count;
}

// An offset that a sum from the data would put past the end of any section, instead of wrapping around.
inline uint64_t krv_add_offset(uint64_t a, uint64_t b)
{
    return b > UINT64_MAX - a ? UINT64_MAX : a + b;
}

// Whether [offset, offset + header + length) lies within size bytes; the sum may exceed 64 bits.
inline bool krv_extent_fits(uint64_t size, uint64_t offset, uint64_t header, uint64_t length)
{
    return offset <= size && header <= size - offset && length <= size - offset - header;
}

#endif
