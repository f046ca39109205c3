// SPDX-License-Identifier: Apache-2.0
//
// Generic access to the fields of line-number records: one reader a record, each scanning all pairs of field number
// and destination before it writes anything. 0 or -1.
#ifndef KRV_GET_H
#define KRV_GET_H

#include "krv_line.h"
#include "krv_types.h"

#include <cstdarg>

int krv_get_fields_lnfe(krv_handle_t *hp, krv_lnfe_t *structp, unsigned int nfields, va_list ap);
int krv_get_fields_lnph(krv_handle_t *hp, krv_lnph_t *structp, unsigned int nfields, va_list ap);
int krv_get_fields_lns(krv_handle_t *hp, krv_lns_t *structp, unsigned int nfields, va_list ap);
int krv_get_fields_lnp(krv_handle_t *hp, krv_lnp_t *structp, unsigned int nfields, va_list ap);

#endif
