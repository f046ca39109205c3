/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: compilation units and their first entries. */
#ifndef LIBKORVA_UNITS_H
#define LIBKORVA_UNITS_H

#include "handle.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Units and entries
 * ------------------------------------------------------------------------------------------------------------ */

/** Flags of korva_cu_contains_addr and korva_lookup_ctu_by_addr. */
typedef unsigned int krv_lookup_flag_t;
enum {
    KRV_LOOKUP_F_NONE = 0,
    KRV_LOOKUP_F_FAST = 1 /**< answer from .debug_aranges and the unit's own bounds alone; never scan its entries */
};

/** Visitor of korva_iter_cu: one unit. */
typedef int krv_iter_cu_f(krv_handle_t *hp, krv_ctu_t *cup, void *arg);

/**
 * Calls @p fn for every unit of .debug_info in section order. The first call reads every unit header and first
 * entry; a header that cannot be read ends the table there, with the reader's messages left in the handle (see
 * korva_cu_get_header for telling a table that ended early).
 *
 * Returns 0, the call-back's non-zero result, or -1.
 * Errors: KRV_ERR_UNSUPPORTED for KRV_SEC_TYPES, KRV_ERR_INVALID for any other @p sec than KRV_SEC_INFO; with no
 * readable unit at all, the reader's.
 */
KORVA_API int korva_iter_cu(krv_handle_t *hp, krv_secidx_t sec, krv_iter_cu_f *fn, void *arg);

/**
 * The unit whose header starts exactly at @p offset of .debug_info, or NULL.
 *
 * Errors: KRV_ERR_NOTFOUND when none starts there; @p sec as for korva_iter_cu.
 */
KORVA_API krv_ctu_t *korva_lookup_ctu_by_start_offset(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset);

/**
 * Whether one of the unit's address ranges covers @p address (an address as the debugging information has it, no
 * load bias). The ranges come from .debug_aranges, else from the unit entry's own DW_AT_low_pc and DW_AT_high_pc
 * (which win over .debug_aranges where an entry has both), else, unless @p flags has KRV_LOOKUP_F_FAST, from a scan
 * of the subprograms and variables directly below the unit entry.
 *
 * B_FALSE answers "no" with KRV_ERR_NOTFOUND, "not known yet" (KRV_LOOKUP_F_FAST) with KRV_ERR_NONE, and a failure
 * with any other code.
 */
KORVA_API boolean_t korva_cu_contains_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t address, krv_lookup_flag_t flags);

/** Stores the unit's first entry, which belongs to the unit. */
KORVA_API int korva_get_cu_cudie(krv_handle_t *hp, krv_ctu_t *cup, krv_die_t **diep);

/**
 * Copies a string attribute of an entry into @p buf, cut to @p size - 1 characters and always terminated.
 *
 * Errors: KRV_ERR_NOTFOUND (the entry has no such attribute), KRV_ERR_INVALID (it is not a string; @p size is 0).
 */
KORVA_API int korva_get_die_at_producer(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);
/** DW_AT_comp_dir, as korva_get_die_at_producer. */
KORVA_API int korva_get_die_at_comp_dir(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);
/** DW_AT_name, as korva_get_die_at_producer. */
KORVA_API int korva_get_die_at_name(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);
/** DW_AT_ZEPH_original_name (0x2222), as korva_get_die_at_producer. */
KORVA_API int korva_get_die_at_ZEPH_original_name(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_UNITS_H */
