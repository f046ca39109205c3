/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: an extension, the variables at an address, their types and their values. */
#ifndef LIBKORVA_VARIABLES_H
#define LIBKORVA_VARIABLES_H

#include "activations.h"
#include "entries.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Variables
 * ------------------------------------------------------------------------------------------------------------ */

/** Extension: a parameter or variable, as korva_iter_variables visits it. */
typedef struct krv_variable {
    krv_entry_t entry;    /**< DW_TAG_formal_parameter or DW_TAG_variable */
    const char *name;     /**< DW_AT_name, of its origin where it has none itself; NULL when it has none */
    uint32_t decl_line;   /**< 0 when it is not known */
    uint8_t is_parameter; /**< 1: of the function */
    uint8_t reserved[3];  /**< 0 */
} krv_variable_t;

/** Visitor of korva_iter_variables; non-zero stops it and is returned. */
typedef int krv_iter_variable_f(krv_handle_t *hp, const krv_variable_t *variable, void *arg);

/**
 * Visits the parameters and variables of a function or inlined call (@p entryp: krv_call_t.entry) that are in scope at @p
 * address, in section order: those of blocks that do not cover it are left out, and those of calls that were inlined into it.
 * Returns 0, @p fn's result, or -1 as korva_entry_next.
 */
KORVA_API int korva_iter_variables(krv_handle_t *hp, const krv_entry_t *entryp, uint64_t address,
                                   krv_iter_variable_f *fn, void *arg);

/** What type something has, without qualifiers and the names of typedefs. */
typedef struct krv_type {
    krv_entry_t entry; /**< of the type; entry.unit is NULL for void */
    uint32_t tag;      /**< DW_TAG_base_type, _pointer_type, _structure_type, ...; 0 for void */
    uint32_t encoding; /**< DW_ATE_*, of base types; else 0 */
    uint64_t size;     /**< bytes that an object has; 0 when it is not known */
} krv_type_t;

/**
 * The type of an entry (DW_AT_type, of its origin where it has none itself). Errors: KRV_ERR_CORRUPT for types that lead to
 * more than 64 entries, or in a circle; those of korva_entry_follow.
 */
KORVA_API int korva_entry_get_type(krv_handle_t *hp, const krv_entry_t *entryp, krv_type_t *typep);

/**
 * The type of an entry as C writes it, "const char *[4]", cut to @p size - 1 characters and always terminated; "void" where it has
 * none. Parameters of functions are not spelled out: "int (*)(...)". Names of other languages than C have the namespaces
 * and types in front that they stand in: "std::vector<int, std::allocator<int> >::iterator", "(anonymous namespace)::t".
 */
KORVA_API int korva_entry_get_type_text(krv_handle_t *hp, const krv_entry_t *entryp, char *buf, size_t size);

/** The frame that variables are read in. */
typedef struct krv_variable_frame {
    krv_handle_t
        *handle; /**< of the activation, with the target's memory; it may be another than that of the entries */
    krv_activation_t *activation; /**< whose current frame it is */
    const krv_entry_t *function;  /**< that has the code, the last of the chain of calls: it tells the frame's base */
    uint64_t
        address;   /**< the program counter, of a frame that called another one less, in the unit's own address space */
    uint64_t bias; /**< what is added to addresses of the unit to get those of memory */
} krv_variable_frame_t;

/**
 * Copies the value that a variable has in a frame. @p value has room for @p size bytes, and *@p countp becomes the number of
 * those that are there; @p valid and @p inreg, as long each, get one byte for every byte of the value: 0xff or 0x00,
 * whether the byte is known, and whether it came from a register. Ask for as many bytes as the type has.
 *
 * Errors, in the handle of the entries: KRV_ERR_NOTFOUND without a message when the variable is nowhere at that address: it was
 * optimised out; KRV_ERR_UNSUPPORTED where the entry tells of a location in another way; those of korva_find_location.
 * Variables of threads, and parameters that only the caller knows (DW_OP_GNU_parameter_ref), are not read: KRV_ERR_EVAL.
 * In that of the frame, with KRV_ERR_EVAL here: those of korva_expr_execute_expression, which needs an address space.
 */
KORVA_API int korva_variable_read(krv_handle_t *hp, const krv_variable_t *variable, const krv_variable_frame_t *frame,
                                  uint8_t *value, uint8_t *valid, uint8_t *inreg, uint64_t size, uint64_t *countp);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_VARIABLES_H */
