// SPDX-License-Identifier: Apache-2.0
//
// Where .eh_frame is in memory. What stands there the core reads as it is.
#ifndef KRV_PROC_EH_FRAME_H
#define KRV_PROC_EH_FRAME_H

#include "process/memory.h"

#include "libkorva.h"

namespace krv_elf_loader
{

// The address of .eh_frame that .eh_frame_hdr at `header` gives; 0 when it gives none.
uint64_t read_eh_frame_address(memory &mem, krv_activation_type_t target, uint64_t header);

// Whether a record begins at an address.
bool has_frame_record(memory &mem, uint64_t address);

} // namespace krv_elf_loader

#endif
