/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: the names that all other parts use. */
#ifndef LIBKORVA_TYPES_H
#define LIBKORVA_TYPES_H

#include <stddef.h>
#include <stdint.h>

#define KORVA_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Types
 * ------------------------------------------------------------------------------------------------------------ */

/* Selectors and flags are plain integers with named values, not enumerated types: a client may pass any int, and
 * each function says what it does with a value that has no name. */

/** The library handle: one target object, its sections, options, error state and caches. */
typedef struct krv_handle krv_handle_t;
/** A compilation unit of .debug_info. Owned by the handle. */
typedef struct krv_ctu krv_ctu_t;
/** A debugging information entry. */
typedef struct krv_die krv_die_t;
/** A line-number program header. Owned by its unit. */
typedef struct krv_lnph krv_lnph_t;
/** An entry of a line-number header's file table. Owned by its header. */
typedef struct krv_lnfe krv_lnfe_t;
/** A row of a line-number matrix, or the registers of the line-number state machine. */
typedef struct krv_lns krv_lns_t;
/** A line-number matrix: the rows of one unit. Owned by its header. */
typedef struct krv_lnp krv_lnp_t;
/** An activation: a stopped thread's frame and its caller's. Allocated and freed by the client. */
typedef struct krv_activation krv_activation_t;

/** A truth value: B_FALSE or B_TRUE. */
typedef int boolean_t;
enum { B_FALSE = 0, B_TRUE = 1 };

/** Code of a DWARF attribute form (DW_FORM_*); forms above 0xff do not exist for the library. */
typedef uint8_t krv_form_t;
/** Offset into a section, in bytes. */
typedef uint64_t krv_offset_t;
/** DW_TAG_* code of an entry. */
typedef uint16_t krv_tag_t;
/** DW_AT_* code of an attribute. */
typedef uint16_t krv_attribute_t;

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_TYPES_H */
