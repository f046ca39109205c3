// SPDX-License-Identifier: Apache-2.0
//
// The row of a matrix for an address of the unit's own address space.
#ifndef KRV_LINE_SEARCH_H
#define KRV_LINE_SEARCH_H

#include "krv_line.h"
#include "krv_line_rows.h"
#include "krv_search.h"

constexpr uint32_t KRV_NO_ROW = UINT32_MAX; // no matrix has that many rows

// The index of the last sequence that starts at or below the address, or -1.
inline int64_t krv_lnp_sequence_below(const krv_lnp_t *lnpp, uint64_t address)
{
    const auto start = [](const krv_lnb_t &seq) { return seq.slnb_start_addr; };
    return static_cast<int64_t>(krv_count_not_above(lnpp->slnp_lnbp, lnpp->slnp_lnbp_entries, address, start)) - 1;
}

inline bool krv_lnb_covers(const krv_lnb_t *seq, uint64_t address)
{
    return address - seq->slnb_start_addr < seq->slnb_end_addr - seq->slnb_start_addr; // it is not inverted
}

// Where rows of a sequence lie as evenly as they do, more or less, the one for an address that it covers.
inline uint32_t krv_lnb_guess(const krv_lnb_t *seq, uint64_t address)
{
    const uint64_t count = seq->slnb_end_index - seq->slnb_start_index;
    const uint64_t span = seq->slnb_end_addr - seq->slnb_start_addr, skip = address - seq->slnb_start_addr;
    return seq->slnb_start_index + static_cast<uint32_t>(span <= UINT32_MAX ? skip * count / span : count / 2);
}

// Of rows that are not in order: one that is not above the address while the next one is. KRV_NO_ROW: there may be none.
uint32_t krv_lnp_search_descending(const krv_lnp_t *lnpp, const krv_lnb_t *seq, uint64_t address);

// The row at or below an address that the sequence covers whose successor lies above it; the last of several at one
// address. KRV_NO_ROW when the sequence's rows are out of order. Searched from `guess` on, one of its rows.
inline uint32_t krv_lnp_find_row(const krv_lnp_t *lnpp, const krv_lnb_t *seq, uint64_t address, uint32_t guess)
{
    const uint32_t first = seq->slnb_start_index; // which is not above the address
    if ((lnpp->slnp_flags & KRV_LNP_FLAG_DESCENDING) != 0 || first >= seq->slnb_end_index)
        return krv_lnp_search_descending(lnpp, seq, address);
    const size_t count = seq->slnb_end_index - first;
    return first + static_cast<uint32_t>(lnpp->slnp_rows.count_not_above(first, count, guess - first, address)) - 1;
}

// What the row says, with addresses moved by `bias`.
inline krv_row_t krv_lnp_show_row(const krv_lnp_t *lnpp, uint32_t number, uint64_t bias)
{
    const krv_line_state_t row = lnpp->slnp_rows.get(number);
    return {.address = row.slns_address + bias,
            .file = krv_lnp_file(lnpp, row),
            .number = number,
            .line = row.slns_line,
            .column = row.slns_column,
            .discriminator = row.slns_discriminator,
            .is_stmt = (row.slns_flags & KRV_LNS_FLAG_IS) != 0 ? uint8_t{1} : uint8_t{0}};
}

// A row and its matrix.
struct krv_line_place_t {
    krv_lnp_t *matrix;
    uint32_t number;
};

// As korva_lookup_row: the row for an address with the client's bias. False: messages pushed, or KRV_ERR_NOTFOUND alone.
bool krv_line_find(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size, uint64_t addr,
                   krv_line_place_t *found);

#endif
