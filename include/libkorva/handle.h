/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: the handle, its options, the sections attached to it, and its errors. */
#ifndef LIBKORVA_HANDLE_H
#define LIBKORVA_HANDLE_H

#include "cursors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Handle, options, sections
 * ------------------------------------------------------------------------------------------------------------ */

/** Target instruction set. Only the two named values are accepted. */
typedef int krv_activation_type_t;
enum {
    KRV_ACTIVATION_I386 = 2,  /**< 32-bit x86: addresses of 4 bytes */
    KRV_ACTIVATION_AMD64 = 3, /**< AMD64: addresses of 8 bytes */
    KRV_ACTIVATION_MAX = 4
};

/** Section index: under which slot of the handle a section is attached. */
typedef int krv_secidx_t;
enum {
    KRV_SEC_ABBREV = 0,
    KRV_SEC_ARANGES = 1,
    KRV_SEC_FRAME = 2,
    KRV_SEC_INFO = 3,
    KRV_SEC_LINE = 4,
    KRV_SEC_LOC = 5,
    KRV_SEC_PUBNAMES = 6,
    KRV_SEC_PUBTYPES = 7,
    KRV_SEC_STR = 8,
    KRV_SEC_TYPES = 9,
    KRV_SEC_EH_FRAME_HDR = 10,
    KRV_SEC_EH_FRAME = 11,
    KRV_SEC_AS = 12, /**< an ordinary slot; the address space itself is attached with korva_attach_as */
    KRV_SEC_NONE = 13,
    KRV_MAX_SEC = 14
};

/** Options of a handle, and the type of the argument that korva_handle_set_opt takes for each. */
typedef int krv_opt_idx_t;
enum {
    KRV_OPT_DEBUG_FUNC = 0,        /**< krv_debug_f *: called for every message as it is stored */
    KRV_OPT_DEBUG_FUNC_ARG = 1,    /**< void *: third argument of the debug function; NULL while unset */
    KRV_OPT_BASE_ADDR = 2,         /**< unsigned long: load bias of line-table addresses; 0 while unset */
    KRV_OPT_EH_FRAME_HDR_ADDR = 3, /**< uint64_t: target address of .eh_frame_hdr; while unset it is not used */
    KRV_OPT_EH_FRAME_HDR_SIZE = 4, /**< uint64_t: stored, read by nothing */
    KRV_OPT_EH_FRAME_ADDR = 5,     /**< uint64_t: target address of .eh_frame; while unset it is not read */
    KRV_OPT_EH_FRAME_SIZE = 6,     /**< uint64_t: stored, read by nothing */
    KRV_OPT_EXPR_STACK_SIZE = 7,   /**< unsigned long: entries of stacks allocated afterwards; 256 while unset */
    KRV_MAX_OPT = 8
};

/** A debug call-back: @p position of the message in its failure, counted from 1; the text; KRV_OPT_DEBUG_FUNC_ARG. */
typedef void krv_debug_f(unsigned int position, const char *message, void *arg);

/**
 * Creates a handle for @p type with one reference.
 *
 * Reads the environment variable LIBKORVA_OPTIONS, a comma-separated list: "debug" makes every message go to
 * standard error as well, "disable" makes this function fail, and "help" (also any unknown word, a word with a value,
 * and an empty variable) prints the words to standard error, once per process.
 *
 * Returns NULL when the library is disabled, memory ran out, or @p type is neither KRV_ACTIVATION_I386 nor
 * KRV_ACTIVATION_AMD64; there is no code to read then. Free it with korva_handle_release or korva_handle_free.
 * Any thread.
 */
KORVA_API krv_handle_t *korva_handle_alloc(krv_activation_type_t type);

/** Destroys a handle at once, whatever its reference count, with every record it owns. NULL is ignored. */
KORVA_API void korva_handle_free(krv_handle_t *hp);

/** Adds a reference. NULL is ignored. Any thread; touches no error state. */
KORVA_API void korva_handle_hold(krv_handle_t *hp);

/** Drops a reference; the last one frees the handle. NULL is ignored. Any thread; touches no error state. */
KORVA_API void korva_handle_release(krv_handle_t *hp);

/**
 * Sets an option; the one further argument has the type given beside the option's name. A later call replaces the
 * value; an option cannot be unset. What was already built from an earlier value stays as it was.
 *
 * Errors: KRV_ERR_INVALID (no message) for an unknown option.
 */
KORVA_API int korva_handle_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, ...);

/**
 * Attaches the bytes of a section, @p size of them, as a buffer or a read call-back (see krv_fd_type_t for the
 * further arguments). Attaching again replaces the cursor; caches already built from the earlier bytes stay, so
 * attach before the first query. The earlier buffer is needed until the call returns, and then no more. A NULL buffer is
 * the caller's error and is not detected. Of a mapped file, korva_attach_section_reader spares pages that are needed for little.
 *
 * Errors: KRV_ERR_INVALID (a section index out of range, size 0, an unknown @p type, a NULL call-back), KRV_ERR_NOMEM
 * (what units have of the earlier bytes could not be kept). Either leaves the section as it was.
 */
KORVA_API int korva_attach_section(krv_handle_t *hp, krv_secidx_t sec, uint64_t size, krv_fd_type_t type, ...);

/**
 * Attaches the target's memory: @p func is called with target addresses as offsets. Replaces an earlier one and
 * discards what was cached of call-frame information.
 *
 * Errors: KRV_ERR_INVALID for a NULL @p func.
 */
KORVA_API int korva_attach_as(krv_handle_t *hp, krv_fd_cb_f *func, void *arg);

/**
 * Maps an object file's section name to a section index: ".debug_NAME", ".zdebug_NAME", ".eh_frame" or
 * ".eh_frame_hdr". @p compressed tells a ".zdebug_" name, whose contents the client inflates before it attaches
 * them.
 *
 * Returns -1 for any other name or a NULL argument, and then stores nothing. Takes no handle; any thread.
 */
KORVA_API int korva_lookup_section_index(const char *name, krv_secidx_t *secp, boolean_t *compressed);

/* ------------------------------------------------------------------------------------------------------------
 * Errors
 * ------------------------------------------------------------------------------------------------------------ */

/** Error codes, as korva_handle_get_errno gives them. The value 9 is never used. */
enum {
    KRV_ERR_NONE = 0,         /**< no error */
    KRV_ERR_IO = 1,           /**< a read call-back failed or delivered fewer bytes than asked */
    KRV_ERR_CORRUPT = 2,      /**< the debugging data are malformed */
    KRV_ERR_EXISTS = 3,       /**< a key that must be unique appears twice */
    KRV_ERR_INVALID = 4,      /**< an argument, or a request beyond a cursor's bounds */
    KRV_ERR_EVAL = 5,         /**< an expression cannot be evaluated */
    KRV_ERR_NOTFOUND = 6,     /**< what was asked for is not there */
    KRV_ERR_NOMEM = 7,        /**< memory ran out; never with a message of its own */
    KRV_ERR_NOSPACE = 8,      /**< the caller's storage, a cursor's room or a stack is too small */
    KRV_ERR_UNSUPPORTED = 10, /**< valid DWARF that the library does not handle */
};

/** The code of the last call's failure, KRV_ERR_*. @p hp must not be NULL. */
KORVA_API int korva_handle_get_errno(krv_handle_t *hp);

/**
 * The messages of the last call: stores their number, at most 16, and returns the handle's array of them, cause
 * first. Each has at most 255 characters. Array and texts belong to the handle and are valid until the next call on
 * it; elements at and beyond the count are stale. Neither argument may be NULL.
 */
KORVA_API char **korva_handle_get_errmsgs(krv_handle_t *hp, unsigned int *count);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_HANDLE_H */
