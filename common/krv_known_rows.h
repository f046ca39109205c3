// SPDX-License-Identifier: Apache-2.0
//
// What the instructions of FDEs have said: the rows that they make, kept with their bytes, and used again for every FDE
// that has the same bytes and the same CIE. More than half of all functions share theirs with others. Nothing is kept by address, so nothing
// grows stale: an FDE is read before it is asked what its instructions say.
#ifndef KRV_KNOWN_ROWS_H
#define KRV_KNOWN_ROWS_H

#include "krv_activation.h"
#include "krv_cfa.h"
#include "krv_frame_record.h"

// The instructions of an FDE, where they were read.
struct krv_rows_key {
    uint64_t decoding; // of the CIE
    const uint8_t *bytes;
    uint32_t size, hash;
};

// False: of such an FDE nothing is kept.
bool krv_rows_key_of(const krv_fde_t *fde, krv_rows_key *key);

// Whether instructions can be decoded at a glance, which leaves out expressions and what depends on where it is; and lead
// no further than a row may begin, from the first address.
bool krv_rows_are_portable(const krv_rows_key &key, uint64_t code_align, uint64_t furthest);

// Fills the rules of a program counter `offset` bytes behind the FDE's first address, as executing the instructions does.
// False: they are not known.
bool krv_rows_apply(const krv_reader_t *reader, krv_activation_t *ap, const krv_fde_t *fde, uint64_t offset);

// The first addresses of rows that are kept, from that of the FDE.
constexpr uint64_t KRV_ROWS_SPAN = UINT32_MAX;

// Rows while instructions are executed, from address 0 on.
struct krv_rows_draft {
    static constexpr unsigned MOST = sizeof(krv_window_t::sw_bytes); // an instruction takes a byte at least
    krv_handle_t *hp;
    krv_known_rows *known;
    krv_activation_t *ap;
    uint64_t column; // of return addresses
    uint64_t behind; // where the row in hand begins
    bool is_short;   // of memory
    unsigned count;
    uint32_t offsets[MOST];
    uint16_t rules[MOST];
};
krv_row_f krv_rows_add; // its argument is the draft

// Begins to learn what instructions say, when it is time: they were seen before, nobody has learned it, and there is room.
// False: that is not so, or their rows depend on more than their bytes and the CIE. No error is left.
bool krv_rows_begin(krv_rows_draft *draft, krv_handle_t *hp, krv_reader_t *reader, krv_activation_t *ap,
                    const krv_cie_t *cie, const krv_rows_key &key);

// Keeps the rows, the last one of which is in hand; or, when they are not complete, that there are none to be kept. No
// error is left.
void krv_rows_keep(krv_rows_draft *draft, const krv_rows_key &key, bool is_complete);

void krv_known_rows_free(krv_known_rows *known);

#endif
