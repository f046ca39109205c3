/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: the names of DWARF constants. */
#ifndef LIBKORVA_NAMES_H
#define LIBKORVA_NAMES_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Names
 * ------------------------------------------------------------------------------------------------------------ */

/** Class of constant for korva_print_define. */
typedef int krv_def_t;
enum {
    KRV_DEF_AT = 0,       /**< attributes, DW_AT_* */
    KRV_DEF_ATE = 1,      /**< base-type encodings, DW_ATE_* */
    KRV_DEF_CC = 2,       /**< calling conventions, DW_CC_* */
    KRV_DEF_CFA = 3,      /**< call-frame instructions, DW_CFA_*; primary opcodes with their operand bits cleared */
    KRV_DEF_CHILDREN = 4, /**< DW_CHILDREN_* */
    KRV_DEF_EH = 5,       /**< pointer encodings, DW_EH_PE_*; no combined encodings */
    KRV_DEF_FORM = 6,     /**< forms, DW_FORM_* */
    KRV_DEF_INL = 7,      /**< inline codes, DW_INL_* */
    KRV_DEF_LANG = 8,     /**< languages, DW_LANG_* */
    KRV_DEF_LNE = 9,      /**< extended line opcodes, DW_LNE_* */
    KRV_DEF_LNS = 10,     /**< standard line opcodes, DW_LNS_* */
    KRV_DEF_OP = 11,      /**< expression opcodes, DW_OP_* */
    KRV_DEF_ORD = 12,     /**< array orderings, DW_ORD_* */
    KRV_DEF_TAG = 13,     /**< tags, DW_TAG_* */
    KRV_DEF_VIS = 14,     /**< visibilities, DW_VIS_* */
    KRV_DEF_MAX = 15
};

/**
 * The name of a DWARF constant, e.g. class KRV_DEF_AT and key 3 give "DW_AT_name". The text is static: never free
 * or change it. A handle with extensions knows the names of DWARF 5, of GNU tools and of Go, too.
 *
 * Errors: KRV_ERR_INVALID for an unknown class or key.
 */
KORVA_API char *korva_print_define(krv_handle_t *hp, krv_def_t index, unsigned int key);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_NAMES_H */
