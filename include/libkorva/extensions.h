/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: extensions, which stand beside the base interface. */
#ifndef LIBKORVA_EXTENSIONS_H
#define LIBKORVA_EXTENSIONS_H

#include "activations.h"
#include "units.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Extensions
 * ------------------------------------------------------------------------------------------------------------ */

/** The header of a unit, as korva_cu_get_header stores it. */
typedef struct krv_cu_header {
    uint64_t offset;        /**< of the unit's first byte in .debug_info */
    uint64_t size;          /**< bytes of the whole unit, its length field included */
    uint64_t abbrev_offset; /**< of its abbreviation table in .debug_abbrev */
    uint16_t version;       /**< as written; the library reads 2 to 4 and does not check it */
    uint8_t address_size;   /**< as written; addresses are read with the handle's size */
    uint8_t dwarf64;        /**< 1 when the unit uses the 64-bit DWARF format, else 0 */
} krv_cu_header_t;

/**
 * Stores the header of a unit. The unit table ended early when the last unit's offset and size do not add up to the
 * size of .debug_info.
 */
KORVA_API int korva_cu_get_header(krv_handle_t *hp, krv_ctu_t *cup, krv_cu_header_t *headerp);

/**
 * The unit that covers @p address: the first in section order for which korva_cu_contains_addr with the same @p flags
 * is B_TRUE. The first call makes an index of the units' ranges (without KRV_LOOKUP_F_FAST it looks into the entries
 * of every unit that needs it); later calls take time logarithmic in the number of ranges.
 *
 * Errors: KRV_ERR_NOTFOUND (no unit covers it, or no .debug_info); KRV_ERR_NONE when no unit is known to cover it but
 * KRV_LOOKUP_F_FAST left some unit's ranges unknown; otherwise as korva_cu_contains_addr.
 */
KORVA_API krv_ctu_t *korva_lookup_ctu_by_addr(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags);

/**
 * Bounds the time of a walk over a stack whose call-frame information nobody vouches for. @p instructions tells how many
 * instructions the expressions of @p ap may still execute, in all frames and arguments that are computed from now on, and
 * is counted down by them; at 0 an expression fails with KRV_ERR_EVAL. Activations, also of several handles, may share
 * one count, which a walk may add to as it goes on. It stays the client's, and must outlive the activation or its own
 * replacement. One expression executes at most a million instructions, whatever the count.
 *
 * NULL, as in a new activation: the expressions of each frame share a million, and each argument has a million.
 */
KORVA_API int korva_activation_set_budget(krv_handle_t *hp, krv_activation_t *ap, uint64_t *instructions);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_EXTENSIONS_H */
