// SPDX-License-Identifier: Apache-2.0
//
// In a relocatable file (an object file, a kernel module) addresses and offsets in debug sections are still the
// linker's to fill in.
#ifndef KRV_ELF_RELOCATIONS_H
#define KRV_ELF_RELOCATIONS_H

#include "elf/view.h"

namespace krv_elf_loader
{

// Applies the relocations to copies of the sections, whose addresses are one behind the other, and notes how many.
void apply_relocations(view &v);

} // namespace krv_elf_loader

#endif
