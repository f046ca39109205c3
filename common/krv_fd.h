// SPDX-License-Identifier: Apache-2.0
//
// The byte cursor through which every section and the target's memory are read. It owns nothing; a copy is an
// independent position. Readers work on a copy and assign it back when they succeed, so that a failure leaves the
// caller's cursor where it was.
#ifndef KRV_FD_H
#define KRV_FD_H

#include "krv_error.h"
#include "krv_types.h"

#include <cstdarg>
#include <cstring>

krv_fd_t *krv_fd_alloc(krv_handle_t *hp); // as korva_fd_alloc, without clearing errors
void krv_fd_free(krv_fd_t *fdp);

// Fill a cursor, reporting nothing; the size is not tested.
inline void krv_fd_attach_mem(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, uint8_t *buf)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    *fdp = {};
    fdp->sfd_hp = hp;
    fdp->sfd_size = size;
    fdp->sfd_remaining = size;
    fdp->sfd_flags = KRV_FD_TYPE_MEMORY;
    fdp->sfd_u.buf = buf;
}
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

// As korva_fd_seek with KRV_FD_SEEK_SET.
inline int krv_fd_seek(krv_fd_t *fdp, uint64_t offset)
{
    if (fdp->sfd_size == 0 || offset > fdp->sfd_size)
        return korva_fd_seek(fdp, offset, KRV_FD_SEEK_SET);
    krv_clear_error(fdp->sfd_hp);
    fdp->sfd_offset = offset;
    fdp->sfd_remaining = fdp->sfd_size - offset;
    return 0;
}

// As korva_fd_truncate.
inline int krv_fd_truncate(krv_fd_t *fdp, uint64_t length)
{
    if (length > fdp->sfd_size - fdp->sfd_offset)
        return korva_fd_truncate(fdp, length);
    krv_clear_error(fdp->sfd_hp);
    fdp->sfd_remaining = length;
    return 0;
}

// One call for all the bytes from which the fields of a record would be read one by one.
enum class krv_bulk {
    read,
    refused, // asked twice, the call-back does not give that many at once: the fields tell how far it goes
    failed   // asked twice, it has failed once: that is what the first field's read would have met
};

krv_bulk krv_read_bulk_again(const krv_fd_t *fdp, void *buf, size_t size, uint64_t offset);
inline krv_bulk krv_read_bulk(const krv_fd_t *fdp, void *buf, size_t size, uint64_t offset)
{
    if (fdp->sfd_u.cb.func(fdp->sfd_u.cb.arg, buf, size, offset) == static_cast<int64_t>(size))
        return krv_bulk::read;
    return krv_read_bulk_again(fdp, buf, size, offset);
}

// Reads ahead over a call-back cursor, so that a record is one call and not one a field. What the window does not hold
// is read through the call-back behind it, as if there were no window.
struct krv_window_t {
    krv_fd_cb_f *sw_func; // the call-back behind it
    void *sw_arg;
    uint64_t sw_offset = 0; // of the first byte that is held
    uint64_t sw_size = 0;   // bytes held
    bool sw_lost = false;   // the next read fails, as reading ahead has
    uint8_t sw_bytes[256];
};
krv_fd_cb_f krv_window_read; // its argument is the window

// A copy of a call-back cursor that reads through a window, which must outlive it. What the window holds already must
// have come through the same call-back. A memory cursor is only copied.
inline krv_fd_t krv_fd_windowed(const krv_fd_t *fdp, krv_window_t *window)
{
    krv_fd_t fd = *fdp;
    if (krv_fd_is_cb(fdp)) {
        window->sw_func = fdp->sfd_u.cb.func;
        window->sw_arg = fdp->sfd_u.cb.arg;
        fd.sfd_u.cb.func = krv_window_read;
        fd.sfd_u.cb.arg = window;
    }
    return fd;
}

// Sees to it that the window holds the bytes at the position of such a cursor: `size` of them, or as many as remain and
// fit.
void krv_fd_read_ahead(krv_fd_t *fdp, uint64_t size);

// The bytes at the position that are in memory already: of a memory cursor all that remain, of a windowed one those
// that its window holds, of any other none.
struct krv_view_t {
    const uint8_t *bytes;
    uint64_t size;
};

inline krv_view_t krv_fd_view(const krv_fd_t *fdp)
{
    if (!krv_fd_is_cb(fdp))
        return {fdp->sfd_u.buf + fdp->sfd_offset, fdp->sfd_remaining};
    if (fdp->sfd_u.cb.func != krv_window_read)
        return {nullptr, 0};
    const auto *window = static_cast<const krv_window_t *>(fdp->sfd_u.cb.arg);
    const uint64_t skip = fdp->sfd_offset - window->sw_offset;
    if (skip >= window->sw_size)
        return {nullptr, 0};
    const uint64_t held = window->sw_size - skip;
    return {window->sw_bytes + skip, held < fdp->sfd_remaining ? held : fdp->sfd_remaining};
}

// The number of `width` bytes at an offset of such bytes. False: they end before.
inline bool krv_view_read(const krv_view_t &view, uint64_t offset, size_t width, uint64_t *valuep)
{
    *valuep = 0;
    if (offset > view.size || width > view.size - offset)
        return false;
    std::memcpy(valuep, view.bytes + offset, width);
    return true;
}

// Reads numbers of a view one behind another, from *at on, which is moved past each, be it there or not.
inline auto krv_view_numbers(const krv_view_t &view, uint64_t *at)
{
    return [&view, at ](size_t width, uint64_t * valuep) __attribute__((always_inline))
    {
        const bool is_there = krv_view_read(view, *at, width, valuep);
        *at += width;
        return is_there;
    };
}

// A whole section that is in memory; of one behind a call-back nothing.
inline krv_view_t krv_section_view(krv_handle_t *hp, krv_secidx_t sec)
{
    const krv_fd_t *section = krv_section(hp, sec);
    return krv_fd_is_cb(section) ? krv_view_t{nullptr, 0} : krv_view_t{section->sfd_u.buf, section->sfd_size};
}

// Whether two cursors read the same bytes, wherever each of them stands.
inline bool krv_fd_same_source(const krv_fd_t *a, const krv_fd_t *b)
{
    if (a->sfd_size != b->sfd_size || krv_fd_is_cb(a) != krv_fd_is_cb(b))
        return false;
    return krv_fd_is_cb(a) ? a->sfd_u.cb.func == b->sfd_u.cb.func && a->sfd_u.cb.arg == b->sfd_u.cb.arg
                           : a->sfd_u.buf == b->sfd_u.buf;
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
