// SPDX-License-Identifier: Apache-2.0
//
// What a finished matrix is asked for: what clients hold of its rows, their files, and their canonical addresses. Both
// tables are made when they are first wanted, which for most matrices is never.
#include "krv_line_rows.h"

#include "krv_error.h"
#include "krv_mem.h"

#include <algorithm>
#include <numeric>

uint64_t krv_lnp_bytes(const krv_lnp_t *lnpp)
{
    const uint64_t a_row =
        lnpp->slnp_rows.in_form([](const auto &rows) { return rows.ADDRESS_BYTES + rows.REST_BYTES; });
    return sizeof(krv_lnp_t) + lnpp->slnp_lnbp_entries * sizeof(krv_lnb_t) + sizeof(krv_lns_table) +
           lnpp->slnp_lnsp_entries * (a_row + sizeof(krv_lns_t) + sizeof(uint32_t));
}

void krv_line_free_program(krv_lnp_t *lnpp)
{
    KRV_ASSERT(lnpp != NULL);
    krv_free(lnpp->slnp_handed_out);
    krv_free(lnpp->slnp_by_line);
    krv_free(lnpp->slnp_by_line_room);
    krv_free(lnpp);
}

krv_lns_t *krv_lnp_hand_out(krv_handle_t *hp, krv_lnp_t *lnpp, uint32_t number)
{
    krv_lns_table *table = krv_load(&lnpp->slnp_handed_out);
    if (table == nullptr) {
        const size_t count = lnpp->slnp_lnsp_entries;
        auto *fresh = static_cast<krv_lns_table *>(krv_alloc(hp, sizeof(krv_lns_table) + count * sizeof(krv_lns_t)));
        if (fresh == nullptr)
            return nullptr;
        fresh->matrix = lnpp;
        for (uint32_t i = 0; i < count; ++i)
            fresh->rows[i].slns_number = i;
        table = krv_publish(&lnpp->slnp_handed_out, fresh, krv_free);
    }
    return &table->rows[number];
}

// ---------------------------------------------------------------------------------------------------------------
// Canonical addresses
// ---------------------------------------------------------------------------------------------------------------

static int compare_lines(const krv_line_state_t &a, const krv_line_state_t &b)
{
    if (a.slns_file != b.slns_file)
        return a.slns_file < b.slns_file ? -1 : 1;
    return a.slns_line < b.slns_line ? -1 : a.slns_line > b.slns_line ? 1 : 0;
}

static uint32_t *make_room(krv_handle_t *hp, const krv_lnp_t *lnpp)
{
    auto *room = static_cast<uint32_t *>(krv_alloc(hp, lnpp->slnp_lnsp_entries * sizeof(uint32_t)));
    if (room == nullptr) {
        krv_note(hp, "couldn't create temporary table for canonical address calculation");
        krv_note(hp, "error calculating canonical addresses");
    }
    return room;
}

int krv_lnp_reserve_canonical(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    lnpp->slnp_by_line_room = make_room(hp, lnpp);
    return lnpp->slnp_by_line_room != nullptr ? 0 : -1;
}

// NULL: messages pushed.
static const uint32_t *get_by_line(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    if (const uint32_t *known = krv_load(&lnpp->slnp_by_line))
        return known;
    uint32_t *fresh = krv_take(&lnpp->slnp_by_line_room);
    if (fresh == nullptr)
        fresh = make_room(hp, lnpp);
    if (fresh == nullptr)
        return nullptr;
    std::iota(fresh, fresh + lnpp->slnp_lnsp_entries, 0U);
    lnpp->slnp_rows.in_form([&](const auto &rows) {
        const uint64_t base = lnpp->slnp_rows.base;
        std::sort(fresh, fresh + lnpp->slnp_lnsp_entries, [&rows, base](uint32_t a, uint32_t b) {
            const krv_line_state_t ra = rows.get(a, base), rb = rows.get(b, base);
            const int order = compare_lines(ra, rb);
            return order != 0 ? order < 0 : ra.slns_address < rb.slns_address;
        });
    });
    return krv_publish(&lnpp->slnp_by_line, fresh, krv_free);
}

// Slow, but it needs nothing.
static uint64_t scan_for_lowest(const krv_lnp_t *lnpp, const krv_line_state_t &row)
{
    uint64_t lowest = row.slns_address;
    for (uint32_t i = 0; i < lnpp->slnp_lnsp_entries; ++i)
        if (compare_lines(lnpp->slnp_rows.get(i), row) == 0)
            lowest = std::min(lowest, lnpp->slnp_rows.address(i));
    return lowest;
}

uint64_t krv_lnp_canonical_address(krv_handle_t *hp, krv_lnp_t *lnpp, uint32_t number)
{
    const krv_rows_t &rows = lnpp->slnp_rows;
    const krv_line_state_t row = rows.get(number);
    const uint32_t *by_line = get_by_line(hp, lnpp);
    if (by_line == nullptr) {
        krv_clear_error(hp);
        return scan_for_lowest(lnpp, row);
    }
    return rows.address(*std::partition_point(by_line, by_line + lnpp->slnp_lnsp_entries,
                                              [&](uint32_t i) { return compare_lines(rows.get(i), row) < 0; }));
}

int krv_lnp_canonical_addresses(krv_handle_t *hp, krv_lnp_t *lnpp, uint64_t *addresses)
{
    const krv_rows_t &rows = lnpp->slnp_rows;
    const uint32_t *by_line = get_by_line(hp, lnpp);
    if (by_line == nullptr)
        return -1;
    const uint32_t *const end = by_line + lnpp->slnp_lnsp_entries;
    const uint32_t *lowest = by_line; // of the current file and line
    for (const uint32_t *number = by_line; number != end; ++number) {
        if (compare_lines(rows.get(*number), rows.get(*lowest)) != 0)
            lowest = number;
        addresses[*number] = rows.address(*lowest);
    }
    return 0;
}
