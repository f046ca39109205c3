// SPDX-License-Identifier: Apache-2.0
//
// The correcting passes. Each looks at the view, changes what it must, and leaves a note of everything it changed and
// everything it could not.
#ifndef KRV_ELF_PASS_H
#define KRV_ELF_PASS_H

#include "elf/view.h"

namespace krv_elf_loader
{

struct pass {
    const char *name;
    void (*run)(view &v, const char *name);
};

// What a linker would have filled in.
void apply_relocations(view &v, const char *name);

// Lines of functions that the linker dropped.
void drop_dead_sequences(view &v, const char *name);

// Address ranges of units that .debug_aranges does not tell.
void complete_ranges(view &v, const char *name);

} // namespace krv_elf_loader

#endif
