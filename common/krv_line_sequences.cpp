// SPDX-License-Identifier: Apache-2.0
//
// Which sequences of a line-number program are kept, in input as it is written. A linker that drops a function (a COMDAT
// group's other copies, --gc-sections) leaves its lines behind, at address 0, 1, -1 or -2 or wherever its relocation came to
// lie: they overlap each other and live code.
#include "krv_ext.h"
#include "krv_line_draft.h"
#include "krv_mem.h"

#include <algorithm>
#include <numeric>

// Rows as they came, to be put in another order.
static bool begin_order(krv_handle_t *hp, krv_line_draft *draft)
{
    draft->order = static_cast<uint32_t *>(krv_alloc(hp, draft->entries * sizeof(uint32_t)));
    if (draft->order != nullptr)
        std::iota(draft->order, draft->order + draft->entries, 0U);
    return draft->order != nullptr;
}

// Rows that descend within a sequence are put in order; those of one address stay as they came.
static void sort_rows(krv_line_draft *draft)
{
    const krv_rows_t &rows = draft->rows;
    const auto is_before = [&rows](uint32_t a, uint32_t b) {
        const uint64_t at_a = rows.address(a), at_b = rows.address(b);
        return at_a != at_b ? at_a < at_b : a < b;
    };
    for (uint32_t i = 0; i < draft->lnbp_entries; ++i) {
        krv_lnb_t *seq = &draft->lnbp[i];
        std::sort(draft->order + seq->slnb_start_index, draft->order + seq->slnb_end_index, is_before);
        seq->slnb_start_addr = rows.address(draft->order[seq->slnb_start_index]);
    }
    draft->flags &= ~uint32_t{KRV_LNP_FLAG_DESCENDING};
}

// Of two that overlap one goes: that which begins where linkers put what they dropped, else the later one.
static bool is_better(const krv_handle_t *hp, const krv_lnb_t &a, const krv_lnb_t &b)
{
    const uint64_t highest = hp->sh_target_size == 4 ? UINT32_MAX : UINT64_MAX;
    const auto is_doubtful = [highest](const krv_lnb_t &seq) {
        return seq.slnb_start_addr <= 1 || seq.slnb_start_addr >= highest - 1;
    };
    return is_doubtful(a) != is_doubtful(b) ? is_doubtful(b) : a.slnb_start_index < b.slnb_start_index;
}

// The number of sequences that are left, ascending by address.
static unsigned int choose_sequences(const krv_handle_t *hp, krv_lnb_t *seqs, unsigned int count)
{
    krv_lnb_t *const end = std::remove_if(seqs, seqs + count, [hp](const krv_lnb_t &seq) {
        return !krv_is_code(hp, seq.slnb_start_addr, seq.slnb_end_addr);
    });
    std::sort(seqs, end, [](const krv_lnb_t &a, const krv_lnb_t &b) {
        return a.slnb_start_addr != b.slnb_start_addr ? a.slnb_start_addr < b.slnb_start_addr
                                                      : a.slnb_start_index < b.slnb_start_index;
    });
    krv_lnb_t *kept = seqs; // behind those that are
    for (const krv_lnb_t *seq = seqs; seq != end; ++seq) {
        const krv_lnb_t candidate = *seq;
        const auto overlaps = [&] { return kept != seqs && candidate.slnb_start_addr < kept[-1].slnb_end_addr; };
        while (overlaps() && is_better(hp, candidate, kept[-1]))
            --kept;
        if (!overlaps())
            *kept++ = candidate;
    }
    return static_cast<unsigned int>(kept - seqs);
}

static uint32_t rows_of_sequences(const krv_line_draft *draft)
{
    return std::accumulate(draft->lnbp, draft->lnbp + draft->lnbp_entries, 0U, [](uint32_t sum, const krv_lnb_t &seq) {
        return sum + seq.slnb_end_index - seq.slnb_start_index + 1;
    });
}

// Rows of no sequence go; the others move up.
static void keep_rows(krv_line_draft *draft)
{
    krv_lnb_t *const seqs = draft->lnbp, *const end = seqs + draft->lnbp_entries;
    std::sort(seqs, end,
              [](const krv_lnb_t &a, const krv_lnb_t &b) { return a.slnb_start_index < b.slnb_start_index; });
    uint32_t *const order = draft->order, *to = order;
    for (krv_lnb_t *seq = seqs; seq != end; ++seq) {
        const auto start = static_cast<uint32_t>(to - order);
        to = std::move(order + seq->slnb_start_index, order + seq->slnb_end_index + 1, to);
        seq->slnb_end_index -= seq->slnb_start_index - start;
        seq->slnb_start_index = start;
    }
    draft->kept = static_cast<uint32_t>(to - order);
    std::sort(seqs, end, [](const krv_lnb_t &a, const krv_lnb_t &b) { return a.slnb_start_addr < b.slnb_start_addr; });
}

int krv_line_draft_keep_sound(krv_handle_t *hp, krv_lnph_t *lnphp, krv_line_draft *draft,
                              const krv_line_state_t &registers, bool tells)
{
    if ((draft->flags & KRV_LNP_FLAG_IN_SEQUENCE) != 0) { // it ends at its last address
        krv_line_state_t end = registers;
        end.slns_flags |= KRV_LNS_FLAG_ES;
        if (!krv_line_draft_push(hp, lnphp, draft, end))
            return -1;
    }
    const bool descends = (draft->flags & KRV_LNP_FLAG_DESCENDING) != 0;
    if (descends && !begin_order(hp, draft))
        return -1;
    if (descends)
        sort_rows(draft);
    const uint32_t count = draft->lnbp_entries;
    draft->lnbp_entries = choose_sequences(hp, draft->lnbp, count);
    draft->flags &= ~uint32_t{KRV_LNP_FLAG_UNSORTED};
    draft->kept = draft->entries;
    if (rows_of_sequences(draft) != draft->entries) {
        if (draft->order == nullptr && !begin_order(hp, draft))
            return -1;
        keep_rows(draft);
    }
    if (tells && draft->lnbp_entries != count)
        krv_tell(hp, KRV_SEC_LINE, lnphp->sln_offset, false,
                 "%u of %u sequences of the line-number program at offset 0x%lx describe code that is not in the file: "
                 "left out",
                 count - draft->lnbp_entries, count, static_cast<unsigned long>(lnphp->sln_offset));
    return 0;
}
