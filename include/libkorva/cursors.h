/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: cursors over the bytes of a buffer or of a read call-back. */
#ifndef LIBKORVA_CURSORS_H
#define LIBKORVA_CURSORS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Cursors
 *
 * A NULL cursor gives -1. Every failure leaves position, remaining count and contents as they were (a call-back may
 * have written into the destination before it failed). A cursor has no lock; copies are independent.
 * ------------------------------------------------------------------------------------------------------------ */

/** What a cursor reads. */
typedef int krv_fd_type_t;
enum {
    KRV_FD_TYPE_MEMORY = 0, /**< a buffer; further argument: uint8_t *buffer */
    KRV_FD_TYPE_CB = 1,     /**< a read call-back; further arguments: krv_fd_cb_f *func, void *arg */
    KRV_FD_TYPE_MAX = 2
};

/** How korva_fd_seek counts. */
enum {
    KRV_FD_SEEK_SET = 0, /**< from the start of the extent */
    KRV_FD_SEEK_CUR = 1  /**< from the current position, forwards */
};

/**
 * A read call-back: delivers @p count bytes at @p offset into @p buf.
 *
 * @p offset is a section offset for a section's cursor and a target address for the address space. Returns the
 * number of bytes delivered, -1 for failure. It is called in the querying thread, with any offset and count that
 * lie within the size given when it was attached, or within the address space.
 *
 * Input without an end: a section ends at the size given. What is searched for call-frame information ends after
 * 16,777,216 records; functions behind them are found through .eh_frame_hdr only.
 */
typedef int64_t krv_fd_cb_f(void *arg, void *buf, size_t count, uint64_t offset);

/**
 * A cursor: a bounded extent of a buffer or of a read call-back, with a position.
 *
 * A plain value: a copy is an independent position over the same bytes. It owns nothing. Always
 * sfd_offset + sfd_remaining <= sfd_size. Use the functions below; the fields are public so that cursors can be
 * copied and placed.
 */
typedef struct krv_fd {
    krv_handle_t *sfd_hp;   /**< where errors are reported */
    uint64_t sfd_size;      /**< bytes of the extent; 0 when never attached */
    uint64_t sfd_offset;    /**< position, from the start of the extent */
    uint64_t sfd_remaining; /**< bytes that may still be read or written */
    uint32_t sfd_flags;     /**< KRV_FD_TYPE_MEMORY or KRV_FD_TYPE_CB */
    union {
        uint8_t *buf; /**< memory cursor: start of the extent */
        struct {
            krv_fd_cb_f *func;
            void *arg;
        } cb; /**< call-back cursor */
    } sfd_u;
} krv_fd_t;

/** A new, unattached cursor of size 0 that reports into @p hp. NULL: KRV_ERR_NOMEM. Free with korva_fd_free. */
KORVA_API krv_fd_t *korva_fd_alloc(krv_handle_t *hp);

/** Frees a cursor, not its bytes. NULL is ignored. */
KORVA_API void korva_fd_free(krv_fd_t *fdp);

/**
 * Attaches any cursor to a buffer or a read call-back, as korva_attach_section does.
 *
 * Errors, KRV_ERR_INVALID each: size 0 (no message), an unknown @p type, a NULL call-back.
 */
KORVA_API int korva_fd_attach(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_type_t type, ...);

/** Stores the bytes of the extent. */
KORVA_API int korva_fd_get_size(krv_fd_t *fdp, uint64_t *sizep);
/** Stores the bytes that may still be read or written. */
KORVA_API int korva_fd_get_remaining(krv_fd_t *fdp, uint64_t *remainingp);
/** Stores the position, from the start of the extent. */
KORVA_API int korva_fd_get_offset(krv_fd_t *fdp, uint64_t *offsetp);

/**
 * Moves the position. KRV_FD_SEEK_SET takes any position up to and including the size and undoes a truncation;
 * KRV_FD_SEEK_CUR moves forward by at most the remaining bytes and keeps a truncation.
 *
 * Errors: KRV_ERR_INVALID for an unattached cursor ("section is empty", which joins the messages already in the
 * handle), a position out of bounds, an unknown @p directive.
 */
KORVA_API int korva_fd_seek(krv_fd_t *fdp, uint64_t offset, uint32_t directive);

/**
 * Limits the bytes that may be read from the position to @p length. The limit is the end of the extent, so an
 * earlier truncation can be widened.
 *
 * Errors: KRV_ERR_INVALID when fewer than @p length bytes lie between the position and the end.
 */
KORVA_API int korva_fd_truncate(krv_fd_t *fdp, uint64_t length);

/**
 * Copies @p count bytes from @p src to the memory cursor @p dst and advances both. Errors go to the handle of
 * @p dst. A call-back source counts as failed only when it returns -1: a shorter delivery is
 * taken as @p count bytes.
 *
 * Errors: KRV_ERR_INVALID (@p dst is no memory cursor; too few bytes in @p src), KRV_ERR_NOSPACE (too little room
 * in @p dst), KRV_ERR_IO.
 */
KORVA_API int korva_fd_cpy(krv_fd_t *dst, krv_fd_t *src, size_t count);

/**
 * Reads @p count bytes into @p dst and advances.
 *
 * Errors: KRV_ERR_INVALID (too few bytes remain), KRV_ERR_IO (the call-back delivered another count).
 */
KORVA_API int korva_fd_to_mem(krv_fd_t *fdp, void *dst, size_t count);

/**
 * Writes @p count bytes from @p src into a memory cursor and advances.
 *
 * Errors: KRV_ERR_INVALID (no memory cursor), KRV_ERR_NOSPACE (too little room).
 */
KORVA_API int korva_fd_from_mem(krv_fd_t *fdp, const void *src, size_t count);

/** Fills @p count bytes of a memory cursor with the low 8 bits of @p byte and advances. Errors as korva_fd_from_mem. */
KORVA_API int korva_fd_set(krv_fd_t *fdp, int byte, size_t count);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_CURSORS_H */
