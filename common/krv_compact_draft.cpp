// SPDX-License-Identifier: Apache-2.0
#include "krv_compact_draft.h"

#include <algorithm>
#include <bit>
#include <utility>

constexpr uint64_t MOST_CODE = UINT32_MAX;
constexpr uint32_t MOST_BEGIN = UINT16_MAX; // of a row, from its piece
constexpr uint32_t PROBES = 16;             // hashes may be made to collide

krv_compact_draft::~krv_compact_draft()
{
    krv_free(rows);
    krv_free(lists);
    krv_free(bytes);
    krv_free(index);
}

bool krv_compact_draft::add_row(uint64_t begin, krv_compact_number_t rule)
{
    if (begin > MOST_CODE)
        return true;
    if (nrows != 0 && rows[nrows - 1].begin >= begin) // it took no room, or instructions lead back
        --nrows;
    if (nrows != 0 && rows[nrows - 1].rule == rule)
        return true;
    if (!krv_table_grow(hp, &rows, &rows_capacity, nrows, 16U))
        return false;
    rows[nrows++] = {static_cast<uint32_t>(begin), rule};
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Lists of rows by the instructions that make them
// ---------------------------------------------------------------------------------------------------------------

// The slot of the index where a list with these instructions is, or would be. NULL: there is no room for it.
uint32_t *krv_compact_draft::find(const krv_rows_key &key) const
{
    for (uint32_t probe = 0; probe < PROBES && index_size != 0; ++probe) {
        uint32_t *slot = &index[(key.hash + probe) & (index_size - 1)];
        const krv_draft_list *list = *slot == 0 ? nullptr : &lists[*slot - 1];
        if (list == nullptr || (list->hash == key.hash && list->size == key.size && list->decoding == key.decoding &&
                                std::equal(key.bytes, key.bytes + key.size, bytes + list->bytes)))
            return slot;
    }
    return nullptr;
}

bool krv_compact_draft::knows(const krv_rows_key &key, uint32_t *listp) const
{
    const uint32_t *slot = find(key);
    if (slot == nullptr || *slot == 0)
        return false;
    *listp = lists[*slot - 1].list;
    return true;
}

bool krv_compact_draft::grow_index()
{
    if (nlists < index_size / 2)
        return true;
    const uint32_t size = index_size == 0 ? 64 : 2 * index_size;
    auto *fresh = static_cast<uint32_t *>(krv_zalloc(hp, size * sizeof(*index)));
    if (fresh == nullptr)
        return false;
    krv_free(index);
    index = fresh;
    index_size = size;
    for (uint32_t i = 0; i < nlists; ++i)
        for (uint32_t probe = 0; probe < PROBES; ++probe)
            if (uint32_t *slot = &index[(lists[i].hash + probe) & (size - 1)]; *slot == 0) {
                *slot = i + 1;
                break;
            }
    return true;
}

bool krv_compact_draft::keep(const krv_rows_key &key, uint32_t list)
{
    constexpr uint32_t MOST_LISTS = 1 << 24, MOST_BYTES = 1 << 30; // more are not shared
    if (nlists == MOST_LISTS || key.size > MOST_BYTES - nbytes)
        return true;
    if (!grow_index() || !krv_table_grow(hp, &lists, &lists_capacity, nlists, 16U))
        return false;
    uint32_t *slot = find(key);
    if (slot == nullptr)
        return true;
    while (bytes_capacity - nbytes < key.size)
        if (!krv_table_grow(hp, &bytes, &bytes_capacity, bytes_capacity, 256U))
            return false;
    std::copy_n(key.bytes, key.size, bytes + nbytes);
    lists[nlists] = {key.decoding, key.hash, key.size, nbytes, list};
    nbytes += key.size;
    *slot = ++nlists;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Pieces
// ---------------------------------------------------------------------------------------------------------------

// Adds the list of some of the rows in hand, that begin with the first.
bool krv_compact_draft::add_list(uint32_t first, uint32_t behind, uint32_t *listp)
{
    *listp = table->nrows;
    for (uint32_t i = first; i <= behind; ++i) {
        if (!krv_table_grow(hp, &table->rows, &table->rows_capacity, table->nrows, 64U))
            return false;
        table->rows[table->nrows++] =
            i == first ? behind - first : krv_compact_row(rows[i - 1].begin - rows[first].begin, rows[i - 1].rule);
    }
    return true;
}

bool krv_compact_draft::add_with(uint32_t list, uint64_t start, uint64_t size)
{
    nrows = 0;
    if (start >= MOST_CODE)
        return true;
    if (!krv_table_grow(hp, &table->pieces, &table->pieces_capacity, table->npieces, 64U))
        return false;
    table->pieces[table->npieces++] = {static_cast<uint32_t>(start),
                                       static_cast<uint32_t>(std::min(size, MOST_CODE - start)), list};
    return true;
}

bool krv_compact_draft::add(const krv_rows_key *key, uint64_t start, uint64_t size)
{
    const uint32_t count = std::exchange(nrows, 0);
    if (start >= MOST_CODE)
        return true;
    // Where rows begin too far from a piece's first byte, another piece does.
    for (uint32_t first = 0, behind; first != count && rows[first].begin < size; first = behind) {
        const auto is_near = [=, this](const krv_draft_row &row) {
            return row.begin - rows[first].begin <= MOST_BEGIN;
        };
        behind = static_cast<uint32_t>(std::find_if_not(rows + first + 1, rows + count, is_near) - rows);
        const uint64_t end = behind == count ? size : std::min(size, uint64_t{rows[behind].begin});
        uint32_t list;
        if (!add_list(first, behind, &list) || !add_with(list, start + rows[first].begin, end - rows[first].begin) ||
            (key != nullptr && behind - first == count && !keep(*key, list)))
            return false;
    }
    return true;
}

// About one block a piece.
bool krv_compact_draft::finish()
{
    if (table->npieces == 0)
        return true;
    const uint32_t last = table->npieces - 1;
    table->size = uint64_t{table->pieces[last].start} + table->pieces[last].size;
    table->shift = std::min(static_cast<unsigned>(std::bit_width(table->size / table->npieces)), 31U); // of 32 bits
    const uint64_t blocks = ((table->size - 1) >> table->shift) + 1;
    if (!krv_table_trim(hp, &table->pieces, &table->pieces_capacity, table->npieces) ||
        !krv_table_trim(hp, &table->rows, &table->rows_capacity, table->nrows))
        return false;
    table->blocks = static_cast<uint32_t *>(krv_alloc(hp, (blocks + 1) * sizeof(uint32_t)));
    if (table->blocks == nullptr)
        return false;
    uint32_t piece = 0;
    for (uint64_t block = 0; block < blocks; ++block) {
        while (piece < last && table->pieces[piece + 1].start <= block << table->shift)
            ++piece;
        table->blocks[block] = piece;
    }
    table->blocks[blocks] = last;
    return true;
}
