// SPDX-License-Identifier: Apache-2.0
//
// A walk out of a stack that lies in the input's memory, with the arguments of every frame.
#ifndef KRV_FUZZ_WALK_H
#define KRV_FUZZ_WALK_H

#include "input.h"

namespace krv_fuzz
{

// The input's memory, at a fixed address.
constexpr uint64_t BASE = 0x10000;

inline int64_t read_memory(void *arg, void *buf, size_t count, uint64_t address)
{
    return address < BASE ? -1 : source::read(arg, buf, count, address - BASE);
}

inline void walk(krv_handle_t *hp, krv_activation_t *ap)
{
    for (int frame = 0; frame < 20; ++frame) {
        krv_gregset_t gregs;
        krv_frame_info_t info;
        uint64_t mask, count;
        unsigned int argc = 0;
        uint8_t value[16], valid[16], in_register[16];
        if (korva_activation_get_gregs(hp, ap, KRV_ACTIVATION_FRAME_CALLER, &gregs, &mask) != 0)
            break;
        korva_activation_get_frame_info(hp, ap, &info);
        korva_activation_get_argc(hp, ap, &argc);
        for (unsigned int n = 1; n <= argc && n <= 3; ++n)
            korva_activation_get_argv(hp, ap, n, value, valid, in_register, sizeof(value), &count);
        if (korva_activation_unwind(hp, ap) != 0)
            break;
    }
}

} // namespace krv_fuzz

#endif
