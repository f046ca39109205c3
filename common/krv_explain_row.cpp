// SPDX-License-Identifier: Apache-2.0
//
// The row for an address, as krv_line finds it, and what stands next to it in the matrix.
#include "krv_error.h"
#include "krv_line_search.h"

static void describe_header(const krv_lnph_t *lnphp, krv_row_why_t *why)
{
    why->offset = lnphp->sln_offset;
    why->version = lnphp->sln_version;
}

// The sequences on both sides of an address that lies in none.
static void describe_gap(const krv_lnp_t *lnpp, uint64_t address, uint64_t bias, krv_row_why_t *why)
{
    const int64_t below = krv_lnp_sequence_below(lnpp, address);
    const auto above = static_cast<uint64_t>(below + 1);
    if (below >= 0)
        why->before_end = lnpp->slnp_lnbp[below].slnb_end_addr + bias;
    if (above < lnpp->slnp_lnbp_entries)
        why->after_start = lnpp->slnp_lnbp[above].slnb_start_addr + bias;
}

static const krv_lnb_t *sequence_of(const krv_lnp_t *lnpp, uint32_t row)
{
    for (unsigned int i = 0; i < lnpp->slnp_lnbp_entries; ++i)
        if (lnpp->slnp_lnbp[i].slnb_start_index <= row && row <= lnpp->slnp_lnbp[i].slnb_end_index)
            return &lnpp->slnp_lnbp[i];
    return nullptr;
}

static void describe_row(const krv_line_place_t &at, uint64_t address, uint64_t bias, krv_row_why_t *why)
{
    why->row = krv_lnp_show_row(at.matrix, at.number, bias);
    const krv_lnb_t *seq = sequence_of(at.matrix, at.number);
    if (seq == nullptr)
        return;
    why->sequence = {seq->slnb_start_addr + bias, seq->slnb_end_addr + bias};
    why->is_gap = krv_lnb_covers(seq, address) ? 0 : 1;
    if (at.number > seq->slnb_start_index)
        why->before = krv_lnp_show_row(at.matrix, at.number - 1, bias);
    if (at.number < seq->slnb_end_index)
        why->after = krv_lnp_show_row(at.matrix, at.number + 1, bias);
    why->after_ends = at.number + 1 == seq->slnb_end_index ? 1 : 0;
}

int korva_explain_row(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size, uint64_t addr,
                      krv_row_why_t *whyp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (cup == nullptr || whyp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    *whyp = {};
    whyp->before.number = whyp->row.number = whyp->after.number = KRV_ROW_NONE;
    whyp->after_start = UINT64_MAX;
    krv_line_place_t found = {};
    const bool is_found = krv_line_find(hp, cup, start, size, addr, &found);
    krv_lnph_t *lnphp = krv_load(&cup->dcu_lnphp);
    if (lnphp != nullptr)
        describe_header(lnphp, whyp);
    const bool has_matrix =
        is_found || (lnphp != nullptr && krv_errno(hp) == KRV_ERR_NOTFOUND && krv_error_of(hp)->count == 0);
    const krv_lnp_t *matrix = is_found ? found.matrix : has_matrix ? krv_line_get_matrix(hp, lnphp) : nullptr;
    if (matrix != nullptr) {
        whyp->sequences = matrix->slnp_lnbp_entries;
        whyp->rows = matrix->slnp_lnsp_entries;
    }
    const uint64_t bias = krv_line_bias(hp);
    if (is_found && matrix != nullptr)
        describe_row(found, addr - bias, bias, whyp);
    else if (matrix != nullptr)
        describe_gap(matrix, addr - bias, bias, whyp);
    return is_found ? 0 : -1;
}
