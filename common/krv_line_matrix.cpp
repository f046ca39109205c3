// SPDX-License-Identifier: Apache-2.0
//
// The matrix of a line-number program: its rows in program order, its sequences, which are checked when the program has
// ended, and the canonical address of each row. What fills it is krv_line_program.cpp.
#include "krv_line.h"

#include "krv_error.h"
#include "krv_mem.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

// Capacity of a table's rows, which doubles: a row takes four bytes of program or more, as compilers write them.
constexpr unsigned int FIRST_ROWS = 4, MOST_FIRST_ROWS = 4096;
constexpr uint64_t BYTES_A_ROW = 4;

// ---------------------------------------------------------------------------------------------------------------
// Rows and sequences
// ---------------------------------------------------------------------------------------------------------------

krv_lnp_t *krv_line_alloc_program(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    return krv_new<krv_lnp_t>(hp);
}

void krv_line_free_program(krv_lnp_t *lnpp)
{
    KRV_ASSERT(lnpp != NULL);
    krv_free(lnpp->slnp_lnsp);
    if (lnpp->slnp_lnbp != &lnpp->slnp_first_lnb)
        krv_free(lnpp->slnp_lnbp);
    krv_free(lnpp);
}

static bool grow_sequences(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    if (lnpp->slnp_lnbp_size == 0) {
        lnpp->slnp_lnbp = &lnpp->slnp_first_lnb;
        lnpp->slnp_lnbp_size = 1;
        return true;
    }
    if (lnpp->slnp_lnbp != &lnpp->slnp_first_lnb)
        return krv_table_grow(hp, &lnpp->slnp_lnbp, &lnpp->slnp_lnbp_size, lnpp->slnp_lnbp_entries, 2U);
    krv_lnb_t *two = static_cast<krv_lnb_t *>(krv_alloc(hp, 2 * sizeof(krv_lnb_t)));
    if (two == nullptr)
        return false;
    two[0] = lnpp->slnp_first_lnb;
    lnpp->slnp_lnbp = two;
    lnpp->slnp_lnbp_size = 2;
    return true;
}

static bool open_sequence(krv_handle_t *hp, krv_lnp_t *lnpp, uint64_t address)
{
    if (!grow_sequences(hp, lnpp))
        return false;
    krv_lnb_t *next = &lnpp->slnp_lnbp[lnpp->slnp_lnbp_entries];
    next->slnb_start_index = lnpp->slnp_lnsp_entries;
    next->slnb_start_addr = address;
    if (lnpp->slnp_lnbp_entries > 0 && address < next[-1].slnb_start_addr)
        lnpp->slnp_flags |= KRV_LNP_FLAG_UNSORTED;
    lnpp->slnp_flags |= KRV_LNP_FLAG_IN_SEQUENCE;
    return true;
}

static void close_sequence(krv_lnp_t *lnpp, uint64_t address)
{
    krv_lnb_t *open = &lnpp->slnp_lnbp[lnpp->slnp_lnbp_entries];
    open->slnb_end_index = lnpp->slnp_lnsp_entries;
    open->slnb_end_addr = address;
    ++lnpp->slnp_lnbp_entries;
    lnpp->slnp_flags &= ~uint32_t{KRV_LNP_FLAG_IN_SEQUENCE};
}

// Of the row table: as many as its program is expected to make.
static unsigned int first_rows(const krv_lnph_t *lnphp)
{
    const uint64_t expected = lnphp->sln_program_size / BYTES_A_ROW + FIRST_ROWS;
    return expected < MOST_FIRST_ROWS ? static_cast<unsigned int>(expected) : MOST_FIRST_ROWS;
}

int krv_line_push_entry(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t *lnpp, krv_lns_t *rp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(lnpp != NULL);
    KRV_ASSERT(rp != NULL);
    if (!krv_table_grow(hp, &lnpp->slnp_lnsp, &lnpp->slnp_lnsp_size, lnpp->slnp_lnsp_entries, first_rows(lnphp)))
        return -1;
    krv_lns_t *row = &lnpp->slnp_lnsp[lnpp->slnp_lnsp_entries];
    *row = *rp;
    row->slns_filep = krv_lnph_file(lnphp, rp->slns_file);
    const bool in_sequence = (lnpp->slnp_flags & KRV_LNP_FLAG_IN_SEQUENCE) != 0;
    if (in_sequence && rp->slns_address < row[-1].slns_address)
        lnpp->slnp_flags |= KRV_LNP_FLAG_DESCENDING;
    if ((rp->slns_flags & KRV_LNS_FLAG_ES) != 0) {
        if (in_sequence)
            close_sequence(lnpp, rp->slns_address);
    } else if (!in_sequence && !open_sequence(hp, lnpp, rp->slns_address)) {
        return -1;
    }
    ++lnpp->slnp_lnsp_entries;
    return 0;
}

int krv_subrange_compare(const void *a, const void *b)
{
    const auto *lap = static_cast<const krv_lnb_t *>(a);
    const auto *lbp = static_cast<const krv_lnb_t *>(b);
    KRV_ASSERT(lap != NULL);
    KRV_ASSERT(lbp != NULL);
    return lap->slnb_start_addr < lbp->slnb_start_addr ? -1 : lap->slnb_start_addr > lbp->slnb_start_addr ? 1 : 0;
}

int krv_canonical_compare(const void *a, const void *b)
{
    const auto *ap = static_cast<const krv_lns_t *>(a);
    const auto *bp = static_cast<const krv_lns_t *>(b);
    KRV_ASSERT(ap != NULL);
    KRV_ASSERT(bp != NULL);
    if (ap->slns_file != bp->slns_file)
        return ap->slns_file < bp->slns_file ? -1 : 1;
    if (ap->slns_line != bp->slns_line)
        return ap->slns_line < bp->slns_line ? -1 : 1;
    return ap->slns_address < bp->slns_address ? -1 : ap->slns_address > bp->slns_address ? 1 : 0;
}

// Sorts the sequences and refuses those that are inverted or overlap. 0 or -1.
static int check_sequences(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    if ((lnpp->slnp_flags & KRV_LNP_FLAG_UNSORTED) != 0)
        std::qsort(lnpp->slnp_lnbp, lnpp->slnp_lnbp_entries, sizeof(krv_lnb_t), krv_subrange_compare);
    for (unsigned int i = 0; i < lnpp->slnp_lnbp_entries; ++i) {
        const krv_lnb_t *seq = &lnpp->slnp_lnbp[i];
        if (seq->slnb_end_addr <= seq->slnb_start_addr)
            return krv_fail(hp, KRV_ERR_CORRUPT,
                            "matrix contains inverted sequence between rows %u and %u (addresses 0x%lx and 0x%lx)",
                            seq->slnb_start_index, seq->slnb_end_index,
                            static_cast<unsigned long>(seq->slnb_start_addr),
                            static_cast<unsigned long>(seq->slnb_end_addr));
        if (i > 0 && seq->slnb_start_addr < seq[-1].slnb_end_addr)
            return krv_fail(
                hp, KRV_ERR_CORRUPT, "matrix contains overlapping sequences (0x%lx--0x%lx and 0x%lx--0x%lx)",
                static_cast<unsigned long>(seq[-1].slnb_start_addr), static_cast<unsigned long>(seq[-1].slnb_end_addr),
                static_cast<unsigned long>(seq->slnb_start_addr), static_cast<unsigned long>(seq->slnb_end_addr));
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Canonical addresses
// ---------------------------------------------------------------------------------------------------------------

// The rows by file and line, in open addressing: a slot holds the number of the row with the lowest address, plus one.
namespace
{

struct place_table {
    uint32_t *slots;
    uint64_t mask;   // their number, a power of two above that of the rows, less one
    uint64_t probes; // of taken slots, that may still be made
};

// On the average less than one; more are made for lines that were chosen to collide.
constexpr uint64_t PROBES_A_ROW = 16;
constexpr uint64_t FEW_SLOTS = 256; // need no allocation
constexpr uint64_t NO_PLACE = UINT64_MAX;

} // namespace

// The slot of a row's file and line, taken by the row itself when they are new. NO_PLACE when it takes too long.
static uint64_t find_place(place_table *t, const krv_lns_t *rows, unsigned int number)
{
    const krv_lns_t *row = &rows[number];
    const uint64_t key = uint64_t{row->slns_file} << 32 | row->slns_line;
    uint64_t slot = (key * 0x9e3779b97f4a7c15U >> 32) & t->mask; // Fibonacci hashing
    for (; t->slots[slot] != 0; slot = (slot + 1) & t->mask) {
        const krv_lns_t *other = &rows[t->slots[slot] - 1];
        if (other->slns_line == row->slns_line && other->slns_file == row->slns_file)
            return slot;
        if (t->probes-- == 0)
            return NO_PLACE;
    }
    t->slots[slot] = number + 1;
    return slot;
}

static bool hash_canonical_addresses(place_table t, krv_lns_t *rows, unsigned int nrows)
{
    for (unsigned int i = 0; i < nrows; ++i) {
        const uint64_t slot = find_place(&t, rows, i);
        if (slot == NO_PLACE)
            return false;
        if (rows[i].slns_address < rows[t.slots[slot] - 1].slns_address)
            t.slots[slot] = i + 1;
        rows[i].slns_u.slnsu_index = slot;
    }
    for (unsigned int i = 0; i < nrows; ++i)
        rows[i].slns_u.slnsu_c_address = rows[t.slots[rows[i].slns_u.slnsu_index] - 1].slns_address;
    return true;
}

// The same for any lines. `numbers` has room for one a row.
static void sort_canonical_addresses(uint32_t *numbers, krv_lns_t *rows, unsigned int nrows)
{
    std::iota(numbers, numbers + nrows, 0U);
    std::sort(numbers, numbers + nrows,
              [rows](uint32_t a, uint32_t b) { return krv_canonical_compare(&rows[a], &rows[b]) < 0; });
    const krv_lns_t *first = nullptr; // of the current file and line
    for (const uint32_t *number = numbers; number != numbers + nrows; ++number) {
        krv_lns_t *row = &rows[*number];
        if (first == nullptr || row->slns_file != first->slns_file || row->slns_line != first->slns_line)
            first = row;
        row->slns_u.slnsu_c_address = first->slns_address;
    }
}

// Gives every row the lowest address of its file and line. 0 or -1.
static int find_canonical_addresses(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    const unsigned int nrows = lnpp->slnp_lnsp_entries;
    krv_lns_t *rows = lnpp->slnp_lnsp;
    if (nrows == 0)
        return 0;
    uint64_t size = 16;
    while (size < uint64_t{nrows} + nrows / 2)
        size *= 2;
    uint32_t few[FEW_SLOTS], *slots = few;
    krv_owner<uint32_t> many;
    if (size <= FEW_SLOTS) {
        std::memset(few, 0, size * sizeof(uint32_t));
    } else {
        many.reset(static_cast<uint32_t *>(krv_zalloc(hp, size * sizeof(uint32_t))));
        slots = many.get();
        if (slots == nullptr)
            return krv_note(hp, "couldn't create temporary table for canonical address calculation");
    }
    if (!hash_canonical_addresses({slots, size - 1, nrows * PROBES_A_ROW}, rows, nrows))
        sort_canonical_addresses(slots, rows, nrows);
    return 0;
}

uint64_t krv_line_program_bytes(const krv_lnp_t *lnpp)
{
    const uint64_t sequences = lnpp->slnp_lnbp == &lnpp->slnp_first_lnb ? 0 : lnpp->slnp_lnbp_size;
    return sizeof(krv_lnp_t) + lnpp->slnp_lnsp_size * sizeof(krv_lns_t) + sequences * sizeof(krv_lnb_t);
}

int krv_line_finish_program(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    if (check_sequences(hp, lnpp) != 0)
        return krv_note(hp, "error sorting matrix sequences");
    if (find_canonical_addresses(hp, lnpp) != 0)
        return krv_note(hp, "error calculating canonical addresses");
    return 0;
}
