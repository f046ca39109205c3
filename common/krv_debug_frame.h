// SPDX-License-Identifier: Apache-2.0
//
// The reader of .debug_frame.
#ifndef KRV_DEBUG_FRAME_H
#define KRV_DEBUG_FRAME_H

#include "krv_frame_record.h"

// NULL: the section is not attached (with a message), or KRV_ERR_NOMEM.
krv_reader_t *krv_debug_frame_create_reader(krv_handle_t *hp);

#endif
