// SPDX-License-Identifier: Apache-2.0
//
// Decoding and encoding of attribute forms. Readers go through korva_decode_form as clients do (it clears the error
// state, which is what makes messages speak of the failing step); krv_read_field puts one field into one line.
#ifndef KRV_CODE_H
#define KRV_CODE_H

#include "krv_error.h"
#include "krv_types.h"

void *korva_value_addr(krv_value_t *value); // not exported

// The form that DW_FORM_indirect at the cursor leads to, with the cursor moved behind the form codes. -1 pushes
// "unable to decode DW_FORM_indirect" and leaves the cursor where it was. Clears the error state.
int krv_decode_indirect(krv_fd_t *fdp, krv_form_t *formp);

// Reads one field of `form` into *field, as wide as the field; else pushes `message` behind the decoder's own.
template <typename T>
bool krv_read_field(krv_fd_t *fdp, krv_form_t form, uint32_t flags, T *field, const char *message)
{
    if (korva_decode_form(fdp, form, flags, field, sizeof(T), nullptr) == 0)
        return true;
    krv_note(fdp->sfd_hp, "%s", message);
    return false;
}

// The form of a fixed-size unsigned datum of `size` bytes; 0 for a size without one.
krv_form_t krv_data_form(unsigned int size);

#endif
