/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: an extension, sections and their records as they stand, for those who look at all of them. */
#ifndef LIBKORVA_RECORDS_H
#define LIBKORVA_RECORDS_H

#include "activations.h"
#include "entries.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Records
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Extension: stores a cursor over a section (KRV_SEC_*, KRV_SEC_EXT_*) as it was attached, at its first byte. It owns nothing;
 * what it reads is what the library reads.
 *
 * Errors: KRV_ERR_NOTFOUND without a message when no such section is attached; KRV_ERR_INVALID for an index out of range.
 */
KORVA_API int korva_get_section(krv_handle_t *hp, krv_secidx_t sec, krv_fd_t *fdp);

/**
 * Extension: visits the ranges of the list at an offset of .debug_ranges, for units of DWARF 5 of .debug_rnglists: the value
 * of DW_AT_ranges in an entry of the unit. What is left out, and what it returns, is as korva_entry_iter_ranges has it. *@p sizep
 * becomes the bytes of the list that were read, by which a client can bound what lists that many entries share may cost.
 */
KORVA_API int korva_iter_ranges(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, krv_iter_range_f *fn, void *arg,
                                uint64_t *sizep);

/** Extension: an item of a location list. */
typedef struct krv_location {
    uint64_t start;      /**< first address where it holds, of the unit's own address space */
    uint64_t end;        /**< first address behind it */
    krv_fd_t expression; /**< in its section, limited to it */
    uint8_t is_default;  /**< 1: it holds wherever no other does; start and end are 0 */
    uint8_t reserved[7]; /**< 0 */
} krv_location_t;

/** Visitor of korva_iter_locations; non-zero stops it and is returned. */
typedef int krv_iter_location_f(krv_handle_t *hp, const krv_location_t *location, void *arg);

/**
 * Extension: visits the items of a location list up to its end, empty ones too. @p list and @p flags are as
 * korva_find_location has them, @p sizep as korva_iter_ranges has it. Returns 0, @p fn's result, or -1: KRV_ERR_CORRUPT and
 * the decoder's, behind what could be read of the list.
 */
KORVA_API int korva_iter_locations(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, uint32_t flags,
                                   krv_iter_location_f *fn, void *arg, uint64_t *sizep);

/** Kinds of records of call-frame information. */
enum {
    KRV_FRAME_RECORD_CIE = 1,
    KRV_FRAME_RECORD_FDE = 2,
    KRV_FRAME_RECORD_END = 3 /**< the terminator of .eh_frame, a length of 0 */
};

/** Extension: a record of call-frame information. */
typedef struct krv_frame_record {
    uint64_t size;       /**< bytes up to the next record, as its length says; 0 when that cannot be read */
    uint64_t cie;        /**< of an FDE: offset of its CIE */
    uint64_t start;      /**< of an FDE: first address that it covers */
    uint64_t length;     /**< of an FDE: bytes from there; 0 covers nothing */
    uint32_t rows;       /**< of an FDE: rows of its table */
    uint8_t kind;        /**< KRV_FRAME_RECORD_*; 0 when that cannot be told */
    uint8_t is_signal;   /**< 1: the trampoline to which a signal handler returns */
    uint8_t reserved[2]; /**< 0 */
} krv_frame_record_t;

/**
 * Extension: reads the record at an offset of the handle's call-frame information, .debug_frame where that is attached,
 * else .eh_frame, whole: all of its fields, of an FDE those of its CIE, every instruction, each row of its table, and the
 * operations of its expressions. Nothing is kept. @p ap is an activation of the handle, whose rules are overwritten: reset it
 * before other use.
 *
 * Returns 0, or -1, also then with *@p recordp as far as it is known: KRV_ERR_NOTFOUND when the handle has no call-frame
 * information; else the errors of reading it, and KRV_ERR_CORRUPT for an FDE that leads past the address space.
 */
KORVA_API int korva_frame_record_at(krv_handle_t *hp, krv_activation_t *ap, uint64_t offset,
                                    krv_frame_record_t *recordp);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_RECORDS_H */
