// SPDX-License-Identifier: Apache-2.0
//
// A matrix while its program is executed: rows in the form that they will be kept in, in tables with room for more than
// came. A handle keeps the tables for its next program; the matrix is made of them when all rows are there, as large as it
// has to be.
#ifndef KRV_LINE_DRAFT_H
#define KRV_LINE_DRAFT_H

#include "krv_line.h"

#include <memory>

struct krv_line_draft {
    krv_rows_t rows; // owned tables of `size` rows, of which `entries` are there
    uint32_t size;
    uint32_t entries;
    uint64_t last;   // address of the last row
    krv_lnb_t *lnbp; // owned: sequences; `lnbp_entries` are closed, one more may be open
    uint32_t lnbp_size;
    uint32_t lnbp_entries;
    uint32_t flags;  // KRV_LNP_FLAG_*
    uint32_t kept;   // rows of the matrix to be
    uint32_t *order; // owned: their numbers in the tables; NULL: all, as they came
};

// An empty draft, and its end: the handle keeps it, or what it has is freed. NULL with KRV_ERR_NOMEM.
krv_line_draft *krv_line_draft_begin(krv_handle_t *hp);
void krv_line_draft_end(krv_handle_t *hp, krv_line_draft *draft);
void krv_line_draft_free(krv_line_draft *draft);

// Appends a row. False: KRV_ERR_NOMEM.
bool krv_line_draft_push(krv_handle_t *hp, krv_lnph_t *lnphp, krv_line_draft *draft, const krv_line_state_t &row);

// When all rows are there: checks and sorts the sequences. 0 or -1.
int krv_line_draft_check(krv_handle_t *hp, krv_line_draft *draft);

// The same for input as it is written: leaves out the sequences that describe no code or overlap others, with their rows,
// and tells so if it is to. What is kept is sound, and in order. 0, or -1 with KRV_ERR_NOMEM.
int krv_line_draft_keep_sound(krv_handle_t *hp, krv_lnph_t *lnphp, krv_line_draft *draft,
                              const krv_line_state_t &registers, bool tells);

// Then makes the matrix. NULL with KRV_ERR_NOMEM.
krv_lnp_t *krv_line_draft_seal(krv_handle_t *hp, krv_lnph_t *lnphp, const krv_line_draft *draft);

#endif
