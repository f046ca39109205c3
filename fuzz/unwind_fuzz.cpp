// SPDX-License-Identifier: Apache-2.0
//
// A whole walk: .debug_frame as a section, or .eh_frame with its header in memory, and a stack, all from the input.
#include "walk.h"

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
    const uint64_t pcs[] = {pc, krv_fuzz::BASE + pc, uint64_t{0}, UINT64_MAX};
    for (const uint64_t at : pcs) {
        krv_fuzz::start_at(h, ap, gregs, at);
        krv_fuzz::walk(h, ap);
    }
    krv_fuzz::compare_kept(in, attach, hdr != 0, gregs, pcs, &memory);
    korva_activation_free(ap);
    return 0;
}
