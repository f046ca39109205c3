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
    uint64_t addresses[257]; // and the place behind the last, where none is in the module
    const uint64_t started = now();
    for (int i = walks(); i > 0; --i) {
        const int found = unw_backtrace(reinterpret_cast<void **>(addresses), 256);
        const size_t count = found < 0 ? 0 : static_cast<size_t>(found);
        size_t first = 0;
        while (first < count && addresses[first] - m.low >= m.high - m.low)
            ++first;
        addresses[first] = registers[16]; // not the place of the call
        count_frames(r, m, addresses + first, count - first);
    }
    r->ns = now() - started;
}

bool contest::play(run *r)
{
    return r->job == 'W' && run_chain(r->file, at_leaf, r);
}
