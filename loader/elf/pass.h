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

// Units of a DWARF version that the core does not read: it would take their header for one of version 4, trip, and
// end the unit table. Presented as empty units that keep place, size and version.
void correct_unit_versions(view &v, const char *name);

// What a linker would have filled in.
void apply_relocations(view &v, const char *name);

// Strings that stand in an alternate file.
void take_alternate_strings(view &v, const char *name);

// Attributes of forms that the core does not read.
void correct_forms(view &v, const char *name);

// Numbers that the core takes for larger than 64 bits.
void correct_long_numbers(view &v, const char *name);

// Lines of functions that the linker dropped.
void drop_dead_sequences(view &v, const char *name);

// Address ranges of units that .debug_aranges does not tell.
void complete_ranges(view &v, const char *name);

} // namespace krv_elf_loader

#endif
