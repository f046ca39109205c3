// SPDX-License-Identifier: Apache-2.0
//
// Address ranges and unit lookup.
#include "input.h"

#include <algorithm>

static int ask(krv_handle_t *hp, krv_ctu_t *cu, void *arg)
{
    const uint64_t *addresses = static_cast<const uint64_t *>(arg);
    for (int i = 0; i < 4; ++i) {
        korva_cu_contains_addr(hp, cu, addresses[i], KRV_LOOKUP_F_FAST);
        korva_cu_contains_addr(hp, cu, addresses[i], KRV_LOOKUP_F_NONE);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    uint64_t addresses[4] = {0, 0x1000, UINT64_MAX, in.number(8)};
    h.attach(KRV_SEC_ARANGES, in.part());
    h.attach(KRV_SEC_ABBREV, in.part());
    if (in.is_extended())
        for (const krv_secidx_t sec : {KRV_SEC_EXT_RANGES, KRV_SEC_EXT_RNGLISTS, KRV_SEC_EXT_ADDR})
            h.attach(sec, in.part());
    h.attach(KRV_SEC_INFO, in.rest());
    korva_lookup_ctu_by_addr(h, addresses[3], KRV_LOOKUP_F_FAST);
    korva_lookup_ctu_by_addr(h, addresses[3], KRV_LOOKUP_F_NONE);
    korva_iter_cu(h, KRV_SEC_INFO, ask, addresses);
    krv_ctu_t *units[4];
    krv_row_t rows[4];
    const bool known = korva_lookup_rows(h, addresses, 4, KRV_LOOKUP_F_NONE, units, rows) == 0;
    for (const uint64_t address : addresses) {
        const krv_ctu_t *first = korva_lookup_ctu_by_addr(h, address, KRV_LOOKUP_F_NONE);
        if (known && std::find(std::begin(units), std::end(units), first) == std::end(units))
            __builtin_trap(); // two ways to one unit
        krv_unit_why_t why;
        if (korva_explain_unit(h, address, &why) == 0 &&
            (why.unit != first || (first != nullptr && (address < why.range.start || address >= why.range.end))))
            __builtin_trap(); // told otherwise than answered
        for (krv_ctu_t *cu = nullptr;
             (cu = korva_lookup_next_ctu_by_addr(h, cu, address, KRV_LOOKUP_F_NONE)) != nullptr;)
            if (korva_cu_contains_addr(h, cu, address, KRV_LOOKUP_F_NONE) != B_TRUE)
                __builtin_trap(); // each of them covers it
    }
    korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, addresses[3]);
    return 0;
}
