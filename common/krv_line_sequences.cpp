// SPDX-License-Identifier: Apache-2.0
//
// Which sequences of a line-number program are kept, in input as it is written. A linker that drops a function (a COMDAT
// group's other copies, --gc-sections) leaves its lines behind, at address 0, 1, -1 or -2 or wherever its relocation came to
// lie: they overlap each other and live code.
#include "krv_ext.h"
#include "krv_line.h"

#include <algorithm>

// A sequence that the program leaves open ends at its last address.
static int close_last(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t *lnpp)
{
    if ((lnpp->slnp_flags & KRV_LNP_FLAG_IN_SEQUENCE) == 0)
        return 0;
    lnpp->slnp_current.slns_flags |= KRV_LNS_FLAG_ES;
    return krv_line_push_entry(hp, lnphp, lnpp, &lnpp->slnp_current);
}

// Rows that descend within a sequence are put in order; those of one address stay as they came.
static void sort_rows(krv_lnp_t *lnpp)
{
    const auto is_before = [](const krv_lns_t &a, const krv_lns_t &b) {
        return a.slns_address != b.slns_address ? a.slns_address < b.slns_address
                                                : a.slns_u.slnsu_index < b.slns_u.slnsu_index;
    };
    for (unsigned int i = 0; i < lnpp->slnp_lnsp_entries; ++i)
        lnpp->slnp_lnsp[i].slns_u.slnsu_index = i;
    for (unsigned int i = 0; i < lnpp->slnp_lnbp_entries; ++i) {
        krv_lnb_t *seq = &lnpp->slnp_lnbp[i];
        krv_lns_t *first = lnpp->slnp_lnsp + seq->slnb_start_index;
        std::sort(first, lnpp->slnp_lnsp + seq->slnb_end_index, is_before);
        seq->slnb_start_addr = first->slns_address;
    }
    lnpp->slnp_flags &= ~uint32_t{KRV_LNP_FLAG_DESCENDING};
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

// Rows of no sequence go; the others move up.
static void keep_rows(krv_lnp_t *lnpp)
{
    krv_lnb_t *const seqs = lnpp->slnp_lnbp, *const end = seqs + lnpp->slnp_lnbp_entries;
    uint64_t wanted = 0;
    for (const krv_lnb_t *seq = seqs; seq != end; ++seq)
        wanted += uint64_t{seq->slnb_end_index} - seq->slnb_start_index + 1;
    if (wanted == lnpp->slnp_lnsp_entries)
        return;
    std::sort(seqs, end,
              [](const krv_lnb_t &a, const krv_lnb_t &b) { return a.slnb_start_index < b.slnb_start_index; });
    krv_lns_t *to = lnpp->slnp_lnsp;
    for (krv_lnb_t *seq = seqs; seq != end; ++seq) {
        const auto start = static_cast<unsigned int>(to - lnpp->slnp_lnsp);
        to = std::move(lnpp->slnp_lnsp + seq->slnb_start_index, lnpp->slnp_lnsp + seq->slnb_end_index + 1, to);
        seq->slnb_end_index -= seq->slnb_start_index - start;
        seq->slnb_start_index = start;
    }
    lnpp->slnp_lnsp_entries = static_cast<unsigned int>(to - lnpp->slnp_lnsp);
    std::sort(seqs, end, [](const krv_lnb_t &a, const krv_lnb_t &b) { return a.slnb_start_addr < b.slnb_start_addr; });
}

int krv_line_keep_sound(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t *lnpp, bool tells)
{
    if (close_last(hp, lnphp, lnpp) != 0)
        return -1;
    if ((lnpp->slnp_flags & KRV_LNP_FLAG_DESCENDING) != 0)
        sort_rows(lnpp);
    const unsigned int count = lnpp->slnp_lnbp_entries;
    lnpp->slnp_lnbp_entries = choose_sequences(hp, lnpp->slnp_lnbp, count);
    lnpp->slnp_flags &= ~uint32_t{KRV_LNP_FLAG_UNSORTED};
    keep_rows(lnpp);
    if (tells && lnpp->slnp_lnbp_entries != count)
        krv_tell(hp, KRV_SEC_LINE, lnphp->sln_offset, false,
                 "%u of %u sequences of the line-number program at offset 0x%lx describe code that is not in the file: "
                 "left out",
                 count - lnpp->slnp_lnbp_entries, count, static_cast<unsigned long>(lnphp->sln_offset));
    return 0;
}
