// SPDX-License-Identifier: Apache-2.0
//
// From addresses to rows in one step: a walk that keeps what addresses in a row have in common, so that where they ascend it
// merges them with the rows.
#include "krv_addr_index.h"
#include "krv_error.h"
#include "krv_line_search.h"
#include "krv_mem.h"
#include "krv_radix.h"

#include <algorithm>

namespace
{

struct walk {
    krv_handle_t *const hp;
    const krv_lookup_flag_t flags;
    const uint64_t bias;
    krv_addr_stretch stretch = {1, 0, nullptr}; // empty
    krv_ctu_t *unit = nullptr;                  // of the stretch
    const krv_lnp_t *matrix = nullptr;          // of the unit; NULL where it has none that can be read
    const krv_lnb_t *sequence = nullptr;        // the last one that covered an address, of this matrix
    uint32_t row = KRV_NO_ROW;                  // the last one that was found in it

    bool enter_stretch(uint64_t address);
    bool enter_unit();
    bool enter_sequence(uint64_t address);
    bool answer(uint64_t address, krv_ctu_t **unitp, krv_row_t *rowp);
};

} // namespace

// What failed says nothing about what was asked for.
static bool is_passing(const krv_handle_t *hp)
{
    return hp->sh_errno == KRV_ERR_NOMEM || hp->sh_errno == KRV_ERR_IO;
}

// Finds the matrix of the unit. False: the walk ends.
bool walk::enter_unit()
{
    krv_lnp_t *found = stretch.hint == nullptr ? nullptr : krv_load(&stretch.hint->sah_matrix);
    if (found == nullptr) {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp, unit);
        found = header == nullptr ? nullptr : krv_line_get_matrix(hp, header);
        if (found == nullptr) {
            if (is_passing(hp))
                return false;
            krv_clear_error(hp);
        } else if (stretch.hint != nullptr) {
            krv_store(&stretch.hint->sah_matrix, found);
        }
    }
    if (found != matrix)
        sequence = nullptr;
    matrix = found;
    return true;
}

// Finds the unit. False: the walk ends.
bool walk::enter_stretch(uint64_t address)
{
    krv_ctu_t *const before = unit;
    unit = krv_addr_index_find(hp, address, flags, &stretch);
    if (unit != nullptr)
        return unit == before || enter_unit();
    matrix = nullptr;
    sequence = nullptr;
    if (hp->sh_errno != KRV_ERR_NOTFOUND && hp->sh_errno != KRV_ERR_NONE)
        return false;
    krv_clear_error(hp);
    return true;
}

// Whether a sequence of the matrix covers the address.
bool walk::enter_sequence(uint64_t address)
{
    if (sequence != nullptr && krv_lnb_covers(sequence, address))
        return true;
    row = KRV_NO_ROW;
    uint32_t *const hint = stretch.hint == nullptr ? nullptr : &stretch.hint->sah_sequence;
    const uint32_t hinted = hint == nullptr ? 0 : __atomic_load_n(hint, __ATOMIC_RELAXED);
    if (hinted < matrix->slnp_lnbp_entries && krv_lnb_covers(&matrix->slnp_lnbp[hinted], address)) {
        sequence = &matrix->slnp_lnbp[hinted];
        return true;
    }
    const int64_t below = krv_lnp_sequence_below(matrix, address);
    if (below < 0 || !krv_lnb_covers(&matrix->slnp_lnbp[below], address))
        return false;
    sequence = &matrix->slnp_lnbp[below];
    if (hint != nullptr)
        __atomic_store_n(hint, static_cast<uint32_t>(below), __ATOMIC_RELAXED);
    return true;
}

// False: the walk ends.
bool walk::answer(uint64_t addr, krv_ctu_t **unitp, krv_row_t *rowp)
{
    const uint64_t address = addr - bias;
    if ((address < stretch.first || address > stretch.last) && !enter_stretch(address))
        return false;
    if (unitp != nullptr)
        *unitp = unit;
    if (matrix != nullptr && enter_sequence(address)) {
        row = krv_lnp_find_row(matrix, sequence, address, row != KRV_NO_ROW ? row : krv_lnb_guess(sequence, address));
        if (row != KRV_NO_ROW) {
            *rowp = krv_lnp_show_row(matrix, row, bias);
            return true;
        }
    }
    *rowp = {};
    rowp->number = KRV_ROW_NONE;
    return true;
}

// False: the walk ended, or KRV_ERR_NOMEM. T: what has room for distances from the lowest address, and for numbers.
template <typename T>
static bool walk_sorted(walk *w, const uint64_t *addrs, size_t count, uint64_t lowest, krv_ctu_t **units,
                        krv_row_t *rows)
{
    const krv_owner<krv_numbered<T>> room(
        static_cast<krv_numbered<T> *>(krv_alloc(w->hp, 2 * count * sizeof(krv_numbered<T>))));
    if (room == nullptr)
        return false;
    for (size_t i = 0; i < count; ++i)
        room.get()[i] = {static_cast<T>(addrs[i] - lowest), static_cast<T>(i)};
    const krv_numbered<T> *sorted = krv_radix_sort(room.get(), room.get() + count, count);
    return std::all_of(sorted, sorted + count, [=](const krv_numbered<T> &a) {
        return w->answer(lowest + a.distance, units == nullptr ? nullptr : &units[a.number], &rows[a.number]);
    });
}

static bool walk_any(walk *w, const uint64_t *addrs, size_t count, krv_ctu_t **units, krv_row_t *rows)
{
    if (count > SIZE_MAX / (2 * sizeof(krv_numbered<uint64_t>))) {
        w->hp->sh_errno = KRV_ERR_NOMEM;
        return false;
    }
    const auto [lowest, highest] = std::minmax_element(addrs, addrs + count);
    const bool is_small = count <= UINT32_MAX && *highest - *lowest <= UINT32_MAX;
    return (is_small ? walk_sorted<uint32_t> : walk_sorted<uint64_t>)(w, addrs, count, *lowest, units, rows);
}

int korva_lookup_rows(krv_handle_t *hp, const uint64_t *addrs, size_t count, krv_lookup_flag_t flags, krv_ctu_t **units,
                      krv_row_t *rows)
{
    if (hp == nullptr)
        return -1;
    if (count != 0 && (addrs == nullptr || rows == nullptr))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    constexpr size_t FEW = 16; // that are not worth being sorted
    walk w{.hp = hp, .flags = flags, .bias = krv_line_bias(hp)};
    if (count > FEW && !std::is_sorted(addrs, addrs + count))
        return walk_any(&w, addrs, count, units, rows) ? 0 : -1;
    for (size_t i = 0; i < count; ++i)
        if (!w.answer(addrs[i], units == nullptr ? nullptr : &units[i], &rows[i]))
            return -1;
    return 0;
}
