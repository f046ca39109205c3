// SPDX-License-Identifier: Apache-2.0
//
// The register tables of both targets: which DWARF register numbers exist, how wide the registers are, where each is
// stored, and which rule it follows when no call-frame instruction speaks of it. All constant data.
#ifndef KRV_ACTIVATION_ISA_H
#define KRV_ACTIVATION_ISA_H

#include "krv_machine.h"

extern const krv_mach_def_t amd64_mach;
extern const krv_mach_def_t i386_mach;

// The table of the handle's target. Static: never freed.
const krv_mach_def_t *krv_activation_isa_alloc(const krv_handle_t *hp);

#endif
