// SPDX-License-Identifier: Apache-2.0
//
// What becomes a matrix: rows as they come, sequences, which are checked when the program has ended, and the matrix made of
// both. What fills it is krv_line_program.cpp.
#include "krv_line_draft.h"

#include "krv_error.h"
#include "krv_mem.h"

#include <algorithm>
#include <cstdlib>

// Rows of a draft: no more than there are bytes of program, but what is claimed to be there is no reason to have room for
// all of it. One that has become larger than that is not kept.
constexpr uint32_t MOST_FIRST_ROWS = 65536, FIRST_SEQUENCES = 4;

// ---------------------------------------------------------------------------------------------------------------
// Tables
// ---------------------------------------------------------------------------------------------------------------

static void free_rows(krv_rows_t *rows)
{
    krv_free(rows->as_short.distances);
    krv_free(rows->as_short.rests);
    krv_free(rows->as_long.addresses);
    krv_free(rows->as_long.rests);
    *rows = {};
}

void krv_line_draft_free(krv_line_draft *draft)
{
    free_rows(&draft->rows);
    krv_free(draft->lnbp);
    krv_free(draft->order);
    krv_free(draft);
}

krv_line_draft *krv_line_draft_begin(krv_handle_t *hp)
{
    krv_line_draft *draft = krv_take(&hp->sh_line_draft);
    return draft != nullptr ? draft : krv_new<krv_line_draft>(hp);
}

void krv_line_draft_end(krv_handle_t *hp, krv_line_draft *draft)
{
    if (draft->rows.is_long || draft->size > MOST_FIRST_ROWS) {
        free_rows(&draft->rows);
        draft->size = 0;
    }
    krv_free(draft->order);
    draft->order = nullptr;
    draft->entries = draft->lnbp_entries = draft->flags = 0;
    krv_publish(&hp->sh_line_draft, draft, krv_line_draft_free);
}

template <typename T>
static bool resize(krv_handle_t *hp, T **table, uint64_t size)
{
    auto *resized = static_cast<T *>(krv_realloc(hp, *table, size * sizeof(T)));
    if (resized != nullptr)
        *table = resized;
    return resized != nullptr;
}

static bool grow_rows(krv_handle_t *hp, const krv_lnph_t *lnphp, krv_line_draft *draft)
{
    const uint64_t expected = std::min<uint64_t>(lnphp->sln_program_size, MOST_FIRST_ROWS - 1) + 1;
    const uint64_t size = std::max(expected, uint64_t{draft->size} * 2);
    if (size >= KRV_LNS_REGISTERS) {
        krv_errno(hp) = KRV_ERR_NOMEM;
        return false;
    }
    krv_rows_t &rows = draft->rows;
    const bool grown = rows.is_long
                           ? resize(hp, &rows.as_long.addresses, size) && resize(hp, &rows.as_long.rests, size)
                           : resize(hp, &rows.as_short.distances, size) && resize(hp, &rows.as_short.rests, size);
    if (grown)
        draft->size = static_cast<uint32_t>(size);
    return grown;
}

// From now on rows have room for anything.
static bool make_rows_long(krv_handle_t *hp, krv_line_draft *draft)
{
    krv_rows_t &rows = draft->rows;
    if (!resize(hp, &rows.as_long.addresses, draft->size) || !resize(hp, &rows.as_long.rests, draft->size))
        return false;
    for (uint32_t i = 0; i < draft->entries; ++i)
        rows.as_long.set(i, 0, rows.as_short.get(i, rows.base));
    krv_free(rows.as_short.distances);
    krv_free(rows.as_short.rests);
    rows.as_short = {};
    rows.is_long = true;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Rows and sequences
// ---------------------------------------------------------------------------------------------------------------

static bool open_sequence(krv_handle_t *hp, krv_line_draft *draft, uint64_t address)
{
    if (!krv_table_grow(hp, &draft->lnbp, &draft->lnbp_size, draft->lnbp_entries, FIRST_SEQUENCES))
        return false;
    krv_lnb_t *next = &draft->lnbp[draft->lnbp_entries];
    next->slnb_start_index = draft->entries;
    next->slnb_start_addr = address;
    if (draft->lnbp_entries > 0 && address < next[-1].slnb_start_addr)
        draft->flags |= KRV_LNP_FLAG_UNSORTED;
    draft->flags |= KRV_LNP_FLAG_IN_SEQUENCE;
    return true;
}

static void close_sequence(krv_line_draft *draft, uint64_t address)
{
    krv_lnb_t *open = &draft->lnbp[draft->lnbp_entries];
    open->slnb_end_index = draft->entries;
    open->slnb_end_addr = address;
    ++draft->lnbp_entries;
    draft->flags &= ~uint32_t{KRV_LNP_FLAG_IN_SEQUENCE};
}

bool krv_line_draft_push(krv_handle_t *hp, krv_lnph_t *lnphp, krv_line_draft *draft, const krv_line_state_t &registers)
{
    if (draft->entries == draft->size && !grow_rows(hp, lnphp, draft))
        return false;
    krv_line_state_t row = registers;
    if (krv_lnph_file(lnphp, row.slns_file) == nullptr)
        row.slns_flags |= KRV_LNS_FLAG_NO_FILE;
    krv_rows_t &rows = draft->rows;
    if (draft->entries == 0)
        rows.base = row.slns_address;
    if (!rows.is_long && !krv_short_rows_t::fits(row, rows.base) && !make_rows_long(hp, draft))
        return false;
    const uint32_t number = draft->entries;
    if (rows.is_long)
        rows.as_long.set(number, 0, row);
    else
        rows.as_short.set(number, rows.base, row);
    const bool in_sequence = (draft->flags & KRV_LNP_FLAG_IN_SEQUENCE) != 0;
    if (in_sequence && row.slns_address < draft->last)
        draft->flags |= KRV_LNP_FLAG_DESCENDING;
    draft->last = row.slns_address;
    if ((row.slns_flags & KRV_LNS_FLAG_ES) != 0) {
        if (in_sequence)
            close_sequence(draft, row.slns_address);
    } else if (!in_sequence && !open_sequence(hp, draft, row.slns_address)) {
        return false;
    }
    ++draft->entries;
    return true;
}

int krv_subrange_compare(const void *a, const void *b)
{
    const auto *lap = static_cast<const krv_lnb_t *>(a);
    const auto *lbp = static_cast<const krv_lnb_t *>(b);
    KRV_ASSERT(lap != NULL);
    KRV_ASSERT(lbp != NULL);
    return lap->slnb_start_addr < lbp->slnb_start_addr ? -1 : lap->slnb_start_addr > lbp->slnb_start_addr ? 1 : 0;
}

int krv_line_draft_check(krv_handle_t *hp, krv_line_draft *draft)
{
    draft->kept = draft->entries;
    if ((draft->flags & KRV_LNP_FLAG_UNSORTED) != 0)
        std::qsort(draft->lnbp, draft->lnbp_entries, sizeof(krv_lnb_t), krv_subrange_compare);
    for (unsigned int i = 0; i < draft->lnbp_entries; ++i) {
        const krv_lnb_t *seq = &draft->lnbp[i];
        if (seq->slnb_end_addr <= seq->slnb_start_addr) {
            krv_fail(hp, KRV_ERR_CORRUPT,
                     "matrix contains inverted sequence between rows %u and %u (addresses 0x%lx and 0x%lx)",
                     seq->slnb_start_index, seq->slnb_end_index, static_cast<unsigned long>(seq->slnb_start_addr),
                     static_cast<unsigned long>(seq->slnb_end_addr));
            return krv_note(hp, "error sorting matrix sequences");
        }
        if (i > 0 && seq->slnb_start_addr < seq[-1].slnb_end_addr) {
            krv_fail(hp, KRV_ERR_CORRUPT, "matrix contains overlapping sequences (0x%lx--0x%lx and 0x%lx--0x%lx)",
                     static_cast<unsigned long>(seq[-1].slnb_start_addr),
                     static_cast<unsigned long>(seq[-1].slnb_end_addr),
                     static_cast<unsigned long>(seq->slnb_start_addr), static_cast<unsigned long>(seq->slnb_end_addr));
            return krv_note(hp, "error sorting matrix sequences");
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// The matrix
// ---------------------------------------------------------------------------------------------------------------

// Copies what is kept of one column.
template <typename T>
static void copy_column(T *to, const T *from, const krv_line_draft *draft)
{
    if (draft->order == nullptr)
        std::copy_n(from, draft->kept, to);
    else
        std::transform(draft->order, draft->order + draft->kept, to, [from](uint32_t number) { return from[number]; });
}

krv_lnp_t *krv_line_draft_seal(krv_handle_t *hp, krv_lnph_t *lnphp, const krv_line_draft *draft)
{
    const krv_rows_t &rows = draft->rows;
    const size_t count = draft->kept, sequences = draft->lnbp_entries * sizeof(krv_lnb_t);
    const size_t address_bytes = rows.in_form([](const auto &form) { return form.ADDRESS_BYTES; });
    const size_t rest_bytes = rows.in_form([](const auto &form) { return form.REST_BYTES; });
    auto *lnpp =
        static_cast<krv_lnp_t *>(krv_alloc(hp, sizeof(krv_lnp_t) + sequences + count * (address_bytes + rest_bytes)));
    if (lnpp == nullptr)
        return nullptr;
    uint64_t nfiles;
    *lnpp = {.slnp_lnsp_entries = draft->kept,
             .slnp_lnbp_entries = draft->lnbp_entries,
             .slnp_flags = draft->flags,
             .slnp_first_file = lnphp->sln_first,
             .slnp_files = krv_lnph_files(lnphp, &nfiles),
             .slnp_lnbp = reinterpret_cast<krv_lnb_t *>(lnpp + 1),
             .slnp_rows = {.base = rows.base, .is_long = rows.is_long, .as_short = {}, .as_long = {}},
             .slnp_handed_out = nullptr,
             .slnp_by_line = nullptr,
             .slnp_by_line_room = nullptr};
    std::copy_n(draft->lnbp, draft->lnbp_entries, lnpp->slnp_lnbp);
    uint8_t *addresses = reinterpret_cast<uint8_t *>(lnpp->slnp_lnbp) + sequences;
    uint8_t *rests = addresses + count * address_bytes;
    if (rows.is_long) {
        krv_long_rows_t &to = lnpp->slnp_rows.as_long;
        to = {reinterpret_cast<uint64_t *>(addresses), reinterpret_cast<krv_long_rows_t::rest_t *>(rests)};
        copy_column(to.addresses, rows.as_long.addresses, draft);
        copy_column(to.rests, rows.as_long.rests, draft);
    } else {
        krv_short_rows_t &to = lnpp->slnp_rows.as_short;
        to = {reinterpret_cast<int32_t *>(addresses), reinterpret_cast<krv_short_rows_t::rest_t *>(rests)};
        copy_column(to.distances, rows.as_short.distances, draft);
        copy_column(to.rests, rows.as_short.rests, draft);
    }
    return lnpp;
}
