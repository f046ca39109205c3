// SPDX-License-Identifier: Apache-2.0
//
// Execution of call-frame instructions into register rules.
#ifndef KRV_CFA_H
#define KRV_CFA_H

#include "krv_activation.h"
#include "krv_frame.h"

// Executes the instructions in fdp, which is limited to them, on the rules in currentp: one rule a slot, the last one
// the CFA's. The caller fills currentp beforehand; *changedp, unless NULL, receives the slots whose rules were set.
//
//  - CIE mode: argsp given, initialp NULL, pc, slocation and arange 0. Executes everything; no row may be created.
//  - FDE mode: initialp (the rules after the CIE) given, argsp NULL. Executes up to the row that contains pc, which
//    must lie within arange bytes from slocation.
//
// -1 with messages, of which the last tells the offset; the rules are then partly changed. KRV_ERR_CORRUPT,
// KRV_ERR_UNSUPPORTED, KRV_ERR_NOMEM, those of the decoders; KRV_ERR_NONE for a register out of range, a restore in a
// CIE, and a change to part of a CFA that is not register plus offset.
int krv_generate_ruleset(krv_handle_t *hp, krv_fd_t *fdp, uint64_t code_align, uint64_t data_align, uint64_t pc,
                         uint64_t slocation, uint64_t arange, uint64_t nslots, const krv_cfarule_t *initialp,
                         krv_cfarule_t *currentp, krv_activation_args_t *argsp, const krv_augmentation_t *augp,
                         void *aug_arg, krv_slots_t *changedp);

#endif
