// SPDX-License-Identifier: Apache-2.0
//
// The correcting passes. Each looks at the view, changes what it must, and leaves a note of everything it changed and
// everything it could not.
#ifndef KRV_ELF_PASS_H
#define KRV_ELF_PASS_H

#include "elf_view.h"

namespace krv_elf_loader
{

struct pass {
    const char *name;
    void (*run)(view &v, const char *name);
};

// Units of a DWARF version that the core does not read: it would take their header for one of version 4, trip, and
// end the unit table. Presented as empty units that keep place, size and version.
void correct_unit_versions(view &v, const char *name);

} // namespace krv_elf_loader

#endif
