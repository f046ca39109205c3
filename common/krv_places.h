// SPDX-License-Identifier: Apache-2.0
//
// From addresses to units and rows in one step: a walk that keeps what addresses in a row have in common, so that where they
// ascend it merges them with the rows.
#ifndef KRV_PLACES_H
#define KRV_PLACES_H

#include "krv_addr_index.h"
#include "krv_line_search.h"

struct krv_place_walk {
    krv_handle_t *const hp;
    const krv_lookup_flag_t flags;
    krv_addr_stretch stretch = {1, 0, nullptr, false}; // empty
    krv_ctu_t *unit = nullptr;                         // of the stretch; NULL where no unit is known to cover it
    const krv_lnp_t *matrix = nullptr;                 // of the unit; NULL where it has none that can be read
    const krv_lnb_t *sequence = nullptr;               // the last one that covered an address, of this matrix
    uint32_t row = KRV_NO_ROW;                         // the last one that was found in it

    // Finds the unit of an address, which is without bias, and its matrix. False: the walk ends, with the error set.
    [[gnu::always_inline]] bool enter(uint64_t address)
    {
        if (address >= stretch.first && address <= stretch.last)
            return true;
        krv_ctu_t *const known = krv_addr_index_recall(hp, address, &stretch);
        krv_lnp_t *const its = known == nullptr ? nullptr : krv_load(&stretch.hint->sah_matrix);
        if (its == nullptr)
            return find(address);
        take(known, its);
        return true;
    }

    // Where to look for the row of an address that was entered, which is fetched meanwhile; KRV_NO_ROW where there is none.
    [[gnu::always_inline]] uint32_t guess_row(uint64_t address)
    {
        if (matrix == nullptr || !enter_sequence(address))
            return KRV_NO_ROW;
        const uint32_t guess = row != KRV_NO_ROW ? row : krv_lnb_guess(sequence, address);
        matrix->slnp_rows.prefetch(guess);
        return guess;
    }

    // Its number, in the matrix; KRV_NO_ROW likewise.
    [[gnu::always_inline]] uint32_t find_row(uint64_t address, uint32_t guess)
    {
        if (guess == KRV_NO_ROW)
            return KRV_NO_ROW;
        row = krv_lnp_find_row(matrix, sequence, address, guess);
        return row;
    }
    [[gnu::always_inline]] uint32_t find_row(uint64_t address) { return find_row(address, guess_row(address)); }

private:
    bool find(uint64_t address);
    bool find_matrix();
    bool find_sequence(uint64_t address, uint32_t *hint);

    void take(krv_ctu_t *its_unit, const krv_lnp_t *its_matrix)
    {
        if (its_matrix != matrix)
            sequence = nullptr;
        unit = its_unit;
        matrix = its_matrix;
    }

    // Whether a sequence of the matrix covers the address.
    [[gnu::always_inline]] bool enter_sequence(uint64_t address)
    {
        if (sequence != nullptr && krv_lnb_covers(sequence, address))
            return true;
        row = KRV_NO_ROW;
        uint32_t *const hint = stretch.hint == nullptr ? nullptr : &stretch.hint->sah_sequence;
        const uint32_t hinted = hint == nullptr ? 0 : __atomic_load_n(hint, __ATOMIC_RELAXED);
        if (hinted >= matrix->slnp_lnbp_entries || !krv_lnb_covers(&matrix->slnp_lnbp[hinted], address))
            return find_sequence(address, hint);
        sequence = &matrix->slnp_lnbp[hinted];
        return true;
    }
};

// What such a row says, with addresses moved by the bias. Its number is KRV_ROW_NONE where there is none.
inline krv_row_t krv_place_show(const krv_lnp_t *matrix, uint32_t number, uint64_t bias)
{
    if (number != KRV_NO_ROW)
        return krv_lnp_show_row(matrix, number, bias);
    krv_row_t none = {};
    none.number = KRV_ROW_NONE;
    return none;
}

#endif
