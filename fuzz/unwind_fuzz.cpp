// SPDX-License-Identifier: Apache-2.0
//
// A whole walk: .debug_frame as a section, or .eh_frame with its header in memory, and a stack, all from the input.
#include "input.h"

// The input's memory, at a fixed address.
static constexpr uint64_t BASE = 0x10000;

static int64_t read_memory(void *arg, void *buf, size_t count, uint64_t address)
{
    return address < BASE ? -1 : krv_fuzz::source::read(arg, buf, count, address - BASE);
}

static void walk(krv_handle_t *hp, krv_activation_t *ap)
{
    for (int frame = 0; frame < 20; ++frame) {
        krv_gregset_t gregs;
        uint64_t mask, count;
        unsigned int argc = 0;
        uint8_t value[16], valid[16], in_register[16];
        if (korva_activation_get_gregs(hp, ap, KRV_ACTIVATION_FRAME_CALLER, &gregs, &mask) != 0)
            break;
        korva_activation_get_argc(hp, ap, &argc);
        for (unsigned int n = 1; n <= argc && n <= 3; ++n)
            korva_activation_get_argv(hp, ap, n, value, valid, in_register, sizeof(value), &count);
        if (korva_activation_unwind(hp, ap) != 0)
            break;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    const uint64_t hdr = in.number(2), eh_frame = in.number(2), pc = in.number(2), sp = in.number(2);
    h.attach(KRV_SEC_FRAME, in.part());
    krv_fuzz::source memory{in.rest(), in.short_read(), 0};
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, BASE + eh_frame);
    if (hdr != 0)
        korva_handle_set_opt(h, KRV_OPT_EH_FRAME_HDR_ADDR, BASE + hdr);
    korva_attach_as(h, read_memory, &memory);
    krv_activation_t *ap = korva_activation_alloc(h);
    krv_gregset_t gregs = {};
    for (krv_greg_t &reg : gregs)
        reg = static_cast<krv_greg_t>(BASE + sp);
    korva_activation_set_regs(h, ap, gregs, UINT64_MAX, nullptr);
    for (const uint64_t at : {pc, BASE + pc, uint64_t{0}, UINT64_MAX}) {
        korva_activation_set_greg(h, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(at));
        walk(h, ap);
    }
    korva_activation_free(ap);
    return 0;
}
