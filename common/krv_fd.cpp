// SPDX-License-Identifier: Apache-2.0
//
// Two functions touch data: peek reads at the position without moving, krv_fd_advance moves. A failure changes
// neither position nor remaining count.
#include "krv_fd.h"

#include "krv_error.h"
#include "krv_mem.h"

#include <cstring>
#include <utility>

krv_fd_t *krv_fd_alloc(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    auto *fdp = krv_new<krv_fd_t>(hp);
    if (fdp != nullptr)
        fdp->sfd_hp = hp;
    return fdp;
}

void krv_fd_free(krv_fd_t *fdp)
{
    krv_free(fdp);
}

void krv_fd_attach_cb(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_cb_f *func, void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(func != NULL);
    *fdp = {};
    fdp->sfd_hp = hp;
    fdp->sfd_size = size;
    fdp->sfd_remaining = size;
    fdp->sfd_flags = KRV_FD_TYPE_CB;
    fdp->sfd_u.cb.func = func;
    fdp->sfd_u.cb.arg = arg;
}

int krv_fd_attach(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_type_t type, va_list ap)
{
    switch (type) {
    case KRV_FD_TYPE_MEMORY:
        krv_fd_attach_mem(hp, fdp, size, va_arg(ap, uint8_t *));
        return 0;
    case KRV_FD_TYPE_CB: {
        krv_fd_cb_f *func = va_arg(ap, krv_fd_cb_f *);
        void *arg = va_arg(ap, void *);
        if (func == nullptr)
            return krv_fail(hp, KRV_ERR_INVALID, "NULL callback specified");
        krv_fd_attach_cb(hp, fdp, size, func, arg);
        return 0;
    }
    default:
        return krv_fail(hp, KRV_ERR_INVALID, "invalid file descriptor type specified");
    }
}

// A cursor that was zeroed but never attached has no handle to report into.
static bool usable(const krv_fd_t *fdp)
{
    return fdp != nullptr && fdp->sfd_hp != nullptr;
}

static int read_too_long(krv_handle_t *hp, size_t count, const krv_fd_t *fdp)
{
    return krv_fail(hp, KRV_ERR_INVALID, "cannot read %zu bytes; only %lu bytes remaining", count,
                    static_cast<unsigned long>(fdp->sfd_remaining));
}

static int write_too_long(krv_handle_t *hp, const char *verb, size_t count, const krv_fd_t *fdp)
{
    return krv_fail(hp, KRV_ERR_NOSPACE, "cannot %s %zu bytes; only %lu bytes remaining", verb, count,
                    static_cast<unsigned long>(fdp->sfd_remaining));
}

// Bytes delivered into dst from the position, which does not move. Only a call-back delivers another count.
static int64_t peek(const krv_fd_t *fdp, void *dst, size_t count)
{
    if (krv_fd_is_cb(fdp))
        return fdp->sfd_u.cb.func(fdp->sfd_u.cb.arg, dst, count, fdp->sfd_offset);
    if (count != 0)
        std::memcpy(dst, fdp->sfd_u.buf + fdp->sfd_offset, count);
    return static_cast<int64_t>(count);
}

int64_t krv_window_read(void *arg, void *buf, size_t count, uint64_t offset)
{
    auto *window = static_cast<krv_window_t *>(arg);
    const uint64_t skip = offset - window->sw_offset;
    if (std::exchange(window->sw_lost, false))
        return -1;
    if (skip > window->sw_size || count > window->sw_size - skip)
        return window->sw_func(window->sw_arg, buf, count, offset);
    std::memcpy(buf, window->sw_bytes + skip, count);
    return static_cast<int64_t>(count);
}

void krv_fd_read_ahead(krv_fd_t *fdp, uint64_t size)
{
    if (!krv_fd_is_cb(fdp) || fdp->sfd_u.cb.func != krv_window_read)
        return;
    auto *window = static_cast<krv_window_t *>(fdp->sfd_u.cb.arg);
    const uint64_t room = sizeof(window->sw_bytes);
    const uint64_t wanted = size < fdp->sfd_remaining ? size : fdp->sfd_remaining;
    const size_t count = static_cast<size_t>(wanted < room ? wanted : room);
    const uint64_t skip = fdp->sfd_offset - window->sw_offset;
    if (count == 0 || (skip <= window->sw_size && count <= window->sw_size - skip))
        return;
    krv_fd_t behind = *fdp;
    behind.sfd_u.cb.func = window->sw_func;
    behind.sfd_u.cb.arg = window->sw_arg;
    const krv_bulk outcome = krv_read_bulk(&behind, window->sw_bytes, count, fdp->sfd_offset);
    window->sw_lost = outcome == krv_bulk::failed;
    window->sw_offset = fdp->sfd_offset;
    window->sw_size = outcome == krv_bulk::read ? count : 0;
}

krv_bulk krv_read_bulk_again(const krv_fd_t *fdp, void *buf, size_t size, uint64_t offset)
{
    const int64_t count = fdp->sfd_u.cb.func(fdp->sfd_u.cb.arg, buf, size, offset);
    return count == static_cast<int64_t>(size) ? krv_bulk::failed : krv_bulk::refused;
}

krv_fd_t *korva_fd_alloc(krv_handle_t *hp)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    return krv_fd_alloc(hp);
}

void korva_fd_free(krv_fd_t *fdp)
{
    if (fdp == nullptr)
        return;
    if (fdp->sfd_hp != nullptr)
        krv_clear_error(fdp->sfd_hp);
    krv_fd_free(fdp);
}

int korva_fd_attach(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_type_t type, ...)
{
    if (hp == nullptr)
        return -1;
    if (fdp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (size == 0)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    va_list ap;
    va_start(ap, type);
    const int result = krv_fd_attach(hp, fdp, size, type, ap);
    va_end(ap);
    return result;
}

static int get_field(krv_fd_t *fdp, uint64_t value, uint64_t *resultp)
{
    if (resultp == nullptr)
        return krv_fail_code(fdp->sfd_hp, KRV_ERR_INVALID);
    krv_clear_error(fdp->sfd_hp);
    *resultp = value;
    return 0;
}

int korva_fd_get_size(krv_fd_t *fdp, uint64_t *sizep)
{
    return !usable(fdp) ? -1 : get_field(fdp, fdp->sfd_size, sizep);
}

int korva_fd_get_remaining(krv_fd_t *fdp, uint64_t *remainingp)
{
    return !usable(fdp) ? -1 : get_field(fdp, fdp->sfd_remaining, remainingp);
}

int korva_fd_get_offset(krv_fd_t *fdp, uint64_t *offsetp)
{
    return !usable(fdp) ? -1 : get_field(fdp, fdp->sfd_offset, offsetp);
}

int korva_fd_seek(krv_fd_t *fdp, uint64_t offset, uint32_t directive)
{
    if (!usable(fdp))
        return -1;
    krv_handle_t *hp = fdp->sfd_hp;
    if (fdp->sfd_size == 0) // before the clear: the message joins those already present
        return krv_fail(hp, KRV_ERR_INVALID, "section is empty");
    krv_clear_error(hp);
    switch (directive) {
    case KRV_FD_SEEK_SET:
        if (offset > fdp->sfd_size)
            return krv_fail(hp, KRV_ERR_INVALID, "can't seek beyond end");
        fdp->sfd_offset = offset;
        fdp->sfd_remaining = fdp->sfd_size - offset;
        return 0;
    case KRV_FD_SEEK_CUR:
        if (offset > fdp->sfd_remaining)
            return krv_fail(hp, KRV_ERR_INVALID, "can't seek beyond remainder");
        krv_fd_advance(fdp, offset);
        return 0;
    default:
        return krv_fail(hp, KRV_ERR_INVALID, "unknown seek directive (%u)", directive);
    }
}

int korva_fd_truncate(krv_fd_t *fdp, uint64_t length)
{
    if (!usable(fdp))
        return -1;
    krv_clear_error(fdp->sfd_hp);
    const uint64_t left = fdp->sfd_size - fdp->sfd_offset;
    if (length > left)
        return krv_fail(fdp->sfd_hp, KRV_ERR_INVALID, "cannot truncate section to %lu bytes;  only %lu remain",
                        static_cast<unsigned long>(length), static_cast<unsigned long>(left));
    fdp->sfd_remaining = length;
    return 0;
}

int korva_fd_to_mem(krv_fd_t *fdp, void *dst, size_t count)
{
    if (!usable(fdp))
        return -1;
    krv_handle_t *hp = fdp->sfd_hp;
    if (dst == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (count > fdp->sfd_remaining)
        return read_too_long(hp, count, fdp);
    if (peek(fdp, dst, count) != static_cast<int64_t>(count))
        return krv_fail(hp, KRV_ERR_IO, "read callback failed");
    krv_fd_advance(fdp, count);
    return 0;
}

int korva_fd_cpy(krv_fd_t *dst, krv_fd_t *src, size_t count)
{
    if (!usable(dst))
        return -1;
    krv_handle_t *hp = dst->sfd_hp;
    if (src == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (krv_fd_is_cb(dst))
        return krv_fail(hp, KRV_ERR_INVALID, "cannot copy to non-memory file descriptor");
    if (count > src->sfd_remaining)
        return read_too_long(hp, count, src);
    if (count > dst->sfd_remaining)
        return write_too_long(hp, "write", count, dst);
    if (krv_fd_is_cb(src)) {
        uint8_t *to = dst->sfd_u.buf == nullptr ? nullptr : dst->sfd_u.buf + dst->sfd_offset;
        if (src->sfd_u.cb.func(src->sfd_u.cb.arg, to, count, src->sfd_offset) == -1)
            return krv_fail(hp, KRV_ERR_IO, "read callback failed");
    } else if (count != 0) { // the two extents may overlap, when both cursors look at one buffer
        std::memmove(dst->sfd_u.buf + dst->sfd_offset, src->sfd_u.buf + src->sfd_offset, count);
    }
    krv_fd_advance(dst, count);
    if (src != dst)
        krv_fd_advance(src, count);
    return 0;
}

int korva_fd_from_mem(krv_fd_t *fdp, const void *src, size_t count)
{
    if (!usable(fdp))
        return -1;
    krv_handle_t *hp = fdp->sfd_hp;
    if (src == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    if (krv_fd_is_cb(fdp))
        return krv_fail(hp, KRV_ERR_INVALID, "cannot write to non-memory files");
    if (count > fdp->sfd_remaining)
        return write_too_long(hp, "write", count, fdp);
    if (count != 0)
        std::memcpy(fdp->sfd_u.buf + fdp->sfd_offset, src, count);
    krv_fd_advance(fdp, count);
    return 0;
}

int korva_fd_set(krv_fd_t *fdp, int byte, size_t count)
{
    if (!usable(fdp))
        return -1;
    krv_handle_t *hp = fdp->sfd_hp;
    krv_clear_error(hp);
    if (krv_fd_is_cb(fdp))
        return krv_fail(hp, KRV_ERR_INVALID, "cannot set non-memory files");
    if (count > fdp->sfd_remaining)
        return write_too_long(hp, "set", count, fdp);
    if (count != 0)
        std::memset(fdp->sfd_u.buf + fdp->sfd_offset, byte, count);
    krv_fd_advance(fdp, count);
    return 0;
}
