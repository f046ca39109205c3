// SPDX-License-Identifier: Apache-2.0
//
// libunwind through its local interface: W. Its own cache of frames, and no call-back. It begins here, not at the registers of the chain:
// the few frames in between are walked, and not counted.
#define UNW_LOCAL_ONLY
#include "contest.h"

#include <libunwind.h>

using namespace contest;

static void at_leaf(const uint64_t registers[17], void *arg)
{
    auto *r = static_cast<run *>(arg);
    const module m = module_of(registers[16]);
    void *addresses[256];
    const uint64_t started = now();
    for (int i = walks(); i > 0; --i) {
        const int count = unw_backtrace(addresses, 256);
        bool is_first = true; // the place of the call, and not the one that the registers are of
        for (int k = 0; k < count; ++k) {
            const auto address = reinterpret_cast<uintptr_t>(addresses[k]);
            if (address - m.low >= m.high - m.low)
                continue;
            ++r->items;
            r->check += (is_first ? registers[16] : address) - m.low;
            is_first = false;
        }
    }
    r->ns = now() - started;
}

bool contest::play(run *r)
{
    return r->job == 'W' && run_chain(r->file, at_leaf, r);
}
