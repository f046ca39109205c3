// SPDX-License-Identifier: Apache-2.0
//
// Execution of call-frame instructions into register rules.
#ifndef KRV_CFA_H
#define KRV_CFA_H

#include "krv_cfa_decode.h"
#include "krv_rule.h"

// A row that is not empty: its rules are those in hand, of all addresses from `start` up to `end`, of which `changed` were
// set.
typedef void krv_row_f(void *arg, const krv_slots_t &changed, uint64_t start, uint64_t end);

// What instructions are executed on: rules, one a slot, the last one the CFA's.
//
//  - Of a CIE: argsp is given, initialp NULL, pc, slocation and arange 0. Everything is executed; no row may be created.
//  - Of an FDE: initialp is given, argsp NULL. Executed up to the row that contains pc, which must lie within arange
//    bytes from slocation.
struct krv_ruleset_t {
    uint64_t code_align;
    uint64_t data_align;            // signed, but products wrap alike
    const krv_augmentation_t *augp; // decodes,
    void *aug_arg;                  // given this
    uint64_t nslots;
    krv_cfarule_t *currentp; // to be changed
    krv_activation_args_t *argsp;
    const krv_cfarule_t *initialp; // rules after the CIE
    uint64_t pc;
    uint64_t slocation;  // first address
    uint64_t arange;     // bytes
    krv_slots_t changed; // out: slots whose rules were set
    krv_row_f *row;      // called for every row that ends before the one that contains pc, or NULL
    void *row_arg;
};

// Executes the instructions in fdp, which is limited to them. -1 with messages, of which the last tells the offset; the
// rules are then partly changed. KRV_ERR_CORRUPT, KRV_ERR_UNSUPPORTED, KRV_ERR_NOMEM, those of the decoders;
// KRV_ERR_NONE for a register out of range, a restore in a CIE, and a change to part of a CFA that is not register plus
// offset.
int krv_generate_ruleset(krv_handle_t *hp, krv_fd_t *fdp, krv_ruleset_t *rules);

#endif
