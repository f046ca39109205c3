// SPDX-License-Identifier: Apache-2.0
#ifndef KRV_NAMED_H
#define KRV_NAMED_H

#include "krv_types.h"

void krv_named_destroy(krv_handle_t *hp);

#endif
