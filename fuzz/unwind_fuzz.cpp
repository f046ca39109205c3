// SPDX-License-Identifier: Apache-2.0
//
// A whole walk: .debug_frame as a section, or .eh_frame with its header in memory, and a stack, all from the input.
#include "walk.h"

#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    const uint64_t hdr = in.number(2), eh_frame = in.number(2), pc = in.number(2), sp = in.number(2);
    const std::vector<uint8_t> section = in.part();
    krv_fuzz::source memory{in.rest(), in.mode, 0};
    const auto attach = [&](krv_fuzz::handle &of) {
        of.attach(KRV_SEC_FRAME, section);
        korva_handle_set_opt(of, KRV_OPT_EH_FRAME_ADDR, krv_fuzz::BASE + eh_frame);
        if (hdr != 0)
            korva_handle_set_opt(of, KRV_OPT_EH_FRAME_HDR_ADDR, krv_fuzz::BASE + hdr);
        korva_attach_as(of, krv_fuzz::read_memory, &memory);
    };
    attach(h);
    krv_activation_t *ap = korva_activation_alloc(h);
    krv_gregset_t gregs = {};
    for (krv_greg_t &reg : gregs)
        reg = static_cast<krv_greg_t>(krv_fuzz::BASE + sp);
    korva_activation_set_regs(h, ap, gregs, UINT64_MAX, nullptr);
    const uint64_t pcs[] = {pc, krv_fuzz::BASE + pc, uint64_t{0}, UINT64_MAX};
    for (const uint64_t at : pcs) {
        korva_activation_set_greg(h, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(at));
        krv_fuzz::walk(h, ap);
    }
    for (const bool filled : {false, true}) { // as in frames_fuzz.cpp
        if (in.has_faults() || (filled && hdr != 0))
            continue;
        krv_fuzz::handle plain(in), kept(in);
        attach(plain);
        attach(kept);
        korva_handle_set_opt(kept, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
        if (filled)
            korva_frames_prefill(kept);
        krv_activation_t *ap_plain = korva_activation_alloc(plain), *ap_kept = korva_activation_alloc(kept);
        for (const uint64_t at : pcs)
            for (int times = 0; times < 2; ++times) {
                for (const auto &[hp, of] :
                     {std::pair<krv_handle_t *, krv_activation_t *>{plain, ap_plain}, {kept, ap_kept}}) {
                    korva_activation_set_regs(hp, of, gregs, UINT64_MAX, nullptr);
                    korva_activation_set_greg(hp, of, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC,
                                              static_cast<krv_greg_t>(at));
                }
                krv_fuzz::walk_alike(plain, ap_plain, kept, ap_kept);
            }
        korva_activation_free(ap_plain);
        korva_activation_free(ap_kept);
    }
    korva_activation_free(ap);
    return 0;
}
