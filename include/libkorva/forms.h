/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: the forms of DWARF, decoded and encoded. */
#ifndef LIBKORVA_FORMS_H
#define LIBKORVA_FORMS_H

#include "cursors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Forms and values
 * ------------------------------------------------------------------------------------------------------------ */

/** Flags of korva_decode_form and korva_encode_form. */
enum {
    KRV_FORM_F_DWARF64 = 0x1, /**< 64-bit DWARF format: DW_FORM_strp and DW_FORM_sec_offset take 8 bytes, not 4 */
    KRV_FORM_F_SIGNED = 0x2   /**< extend a fixed-size datum into wider storage by its sign, not by zeros */
};

/** A decoded value. Which member holds it follows from where the value comes from. */
typedef struct krv_value {
    union {
        void *su_addr;
        uint64_t su_unsigned;
        int64_t su_signed;
    } sa_u;
    krv_form_t sa_form;   /**< the form it was decoded from; 0 when it did not come from an attribute */
    krv_form_t sa_actual; /**< for DW_FORM_indirect the form found in the data, else the same as sa_form */
} krv_value_t;

/**
 * Decodes one datum of @p form at the cursor's position.
 *
 *  - Decode: @p dst given, @p sizep NULL. @p dst has room for @p size bytes.
 *      - fixed-size forms and LEB128 numbers: the value in the host's byte order, extended to @p size bytes by zeros,
 *        or by its sign (DW_FORM_sdata always, fixed-size forms with KRV_FORM_F_SIGNED);
 *      - DW_FORM_string and DW_FORM_strp: the bytes of the string with its NUL;
 *      - blocks and DW_FORM_exprloc: @p dst is a krv_fd_t *, a memory cursor whose buffer has room for @p size bytes;
 *        it is re-pointed at exactly the block, position 0, and the block is copied into its buffer;
 *      - DW_FORM_flag_present: nothing is read or stored;
 *      - DW_FORM_indirect: as the form found in the data, so @p dst must suit whatever that may be. A client that
 *        cannot know decodes the form's code first, as DW_FORM_udata, and then the datum behind it by that form.
 *  - Size query: @p dst NULL, @p sizep given; for strings, DW_FORM_strp and blocks. Stores the bytes that decoding
 *    would need; the cursor does not move.
 *
 * On success a decode leaves the cursor just behind the datum (DW_FORM_strp: behind the offset); any failure leaves
 * it where it was. Addresses have the handle's address size; DW_FORM_strp reads the handle's .debug_str.
 *
 * Errors: KRV_ERR_CORRUPT (data end too early), KRV_ERR_NOSPACE (storage too small, a number beyond 64 bits),
 * KRV_ERR_IO, KRV_ERR_INVALID (DW_FORM_ref_addr or an unknown form; both or neither of @p dst and @p sizep where
 * one is needed; an offset outside .debug_str), KRV_ERR_UNSUPPORTED (a block into a call-back cursor).
 */
KORVA_API int korva_decode_form(krv_fd_t *fdp, krv_form_t form, uint32_t flags, void *dst, size_t size, size_t *sizep);

/**
 * Writes @p value in @p form at a memory cursor's position: fixed-size forms (the low bytes of @p value, unchecked)
 * and LEB128 numbers. Nothing is written on failure.
 *
 * Errors: KRV_ERR_INVALID (another form, or a call-back cursor), KRV_ERR_NOSPACE (too little room).
 */
KORVA_API int korva_encode_form(krv_fd_t *fdp, krv_form_t form, uint32_t flags, uint64_t value);

/** The value as an unsigned number, unconverted. @p value must not be NULL. */
KORVA_API uint64_t korva_value_unsigned(krv_value_t *value);
/** The value as a signed number, unconverted. @p value must not be NULL. */
KORVA_API int64_t korva_value_signed(krv_value_t *value);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_FORMS_H */
