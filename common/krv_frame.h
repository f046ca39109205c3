// SPDX-License-Identifier: Apache-2.0
//
// The search for the FDE of an address: in the reader's own index, else in a linear table of all FDEs, built once.
#ifndef KRV_FRAME_H
#define KRV_FRAME_H

#include "krv_frame_reader.h"

// Finds the last FDE that begins at or below an address: its first address, its section offset, and the first address
// of the FDE after it (or its own, when none was looked at). Whether the FDE reaches up to the address is not known
// yet. force passes over the reader's own index. -1 with KRV_ERR_NOTFOUND (no such FDE) or the code of a failed read.
int krv_get_fde_offset_by_address(krv_handle_t *hp, uint64_t address, boolean_t force, uint64_t *taddrp,
                                  uint64_t *toffp, uint64_t *naddrp);

// The FDE that covers an address; *searchp tells how it was found, or as far as it was looked for. NULL with
// KRV_ERR_NOTFOUND, KRV_ERR_CORRUPT when index and FDEs contradict each other, or the code of a failed read.
krv_fde_t *krv_search_fde(krv_handle_t *hp, uint64_t address, krv_fde_search *searchp, krv_fde_room *room = nullptr);
krv_fde_t *krv_get_fde_by_address(krv_handle_t *hp, uint64_t address, krv_fde_room *room = nullptr);

// Every FDE of the section: kept, or, where the reader has an index of its own to find them by, the caller's. NULL with the code of a
// failed read, KRV_ERR_NOTFOUND when there is none.
const krv_linear_t *krv_list_fdes(krv_handle_t *hp, krv_linear_owner *ownp);

// Whether an FDE ends before the one that the table has behind its entry; if not, neither is found.
bool krv_fde_is_consistent(const krv_fde_t *fdep, uint64_t start, uint64_t next);

// Three-way comparison of two krv_lie_t by first address.
int krv_fde_compar(const void *a, const void *b);

#endif
