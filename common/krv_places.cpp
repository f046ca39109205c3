// SPDX-License-Identifier: Apache-2.0
#include "krv_places.h"

#include "krv_ascending.h"
#include "krv_error.h"

// Finds the matrix of the unit. False: the walk ends.
bool krv_place_walk::find_matrix()
{
    krv_lnp_t *found = stretch.hint == nullptr ? nullptr : krv_load(&stretch.hint->sah_matrix);
    if (found == nullptr) {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp, unit);
        found = header == nullptr ? nullptr : krv_line_get_matrix(hp, header);
        if (found == nullptr) {
            if (krv_is_passing(hp))
                return false;
            krv_clear_error(hp);
        } else if (stretch.hint != nullptr) {
            krv_store(&stretch.hint->sah_matrix, found);
        }
    }
    take(unit, found);
    return true;
}

// Finds the unit. False: the walk ends.
bool krv_place_walk::find(uint64_t address)
{
    krv_ctu_t *const before = unit;
    unit = krv_addr_index_find(hp, address, flags, &stretch);
    if (unit != nullptr)
        return unit == before || find_matrix();
    take(nullptr, nullptr);
    if (!stretch.is_answered && krv_errno(hp) != KRV_ERR_NOTFOUND)
        return false;
    krv_clear_error(hp);
    return true;
}

bool krv_place_walk::find_sequence(uint64_t address, uint32_t *hint)
{
    const int64_t below = krv_lnp_sequence_below(matrix, address);
    if (below < 0 || !krv_lnb_covers(&matrix->slnp_lnbp[below], address))
        return false;
    sequence = &matrix->slnp_lnbp[below];
    if (hint != nullptr)
        __atomic_store_n(hint, static_cast<uint32_t>(below), __ATOMIC_RELAXED);
    return true;
}

// False: the walk ends.
[[gnu::always_inline]] static inline bool answer(krv_place_walk *w, uint64_t addr, uint64_t bias, krv_ctu_t **unitp,
                                                 krv_row_t *rowp)
{
    if (!w->enter(addr - bias))
        return false;
    if (unitp != nullptr)
        *unitp = w->unit;
    *rowp = krv_place_show(w->matrix, w->find_row(addr - bias), bias);
    return true;
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
    const uint64_t bias = krv_line_bias(hp);
    krv_place_walk w{.hp = hp, .flags = flags};
    const auto visit = [=, &w](uint64_t addr, size_t i) {
        return answer(&w, addr, bias, units == nullptr ? nullptr : &units[i], &rows[i]);
    };
    if (count > FEW && !std::is_sorted(addrs, addrs + count))
        return krv_visit_ascending(hp, addrs, count, visit) ? 0 : -1;
    for (size_t i = 0; i < count; ++i)
        if (!visit(addrs[i], i))
            return -1;
    return 0;
}
