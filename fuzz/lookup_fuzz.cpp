// SPDX-License-Identifier: Apache-2.0
//
// Address ranges and unit lookup.
#include "input.h"

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
    for (const uint64_t address : addresses) {
        korva_lookup_ctu_by_addr(h, address, KRV_LOOKUP_F_NONE);
        for (krv_ctu_t *cu = nullptr;
             (cu = korva_lookup_next_ctu_by_addr(h, cu, address, KRV_LOOKUP_F_NONE)) != nullptr;)
            if (korva_cu_contains_addr(h, cu, address, KRV_LOOKUP_F_NONE) != B_TRUE)
                __builtin_trap(); // each of them covers it
    }
    korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, addresses[3]);
    return 0;
}
