// SPDX-License-Identifier: Apache-2.0
//
// The reader of a handle without call-frame information: it finds nothing.
#ifndef KRV_NO_FRAME_H
#define KRV_NO_FRAME_H

#include "krv_frame_record.h"

krv_reader_t *krv_no_frame_create_reader(krv_handle_t *hp); // NULL with KRV_ERR_NOMEM

#endif
