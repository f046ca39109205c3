// SPDX-License-Identifier: Apache-2.0
//
// The floor of W: what a walk along the frame pointers costs, in a program whose every function keeps one.
#include "contest.h"

using namespace contest;

static void at_leaf(const uint64_t registers[17], void *arg)
{
    auto *r = static_cast<run *>(arg);
    const module m = module_of(registers[16]);
    const uint64_t high = stack_end();
    uint64_t addresses[256];
    const uint64_t started = now();
    for (int i = walks(); i > 0; --i) {
        size_t count = 0;
        uint64_t frame = registers[6], low = registers[7];
        addresses[count++] = registers[16];
        while (count < 256 && frame >= low && frame % 8 == 0 && high - frame >= 16) {
            uint64_t words[2]; // the caller's frame pointer, and the return address
            std::memcpy(words, reinterpret_cast<const void *>(frame), sizeof(words));
            addresses[count++] = words[1];
            low = frame + sizeof(words);
            frame = words[0];
        }
        count_frames(r, m, addresses, count);
    }
    r->ns = now() - started;
}

bool contest::play(run *r)
{
    return r->job == 'W' && std::strstr(r->file, "libchain-fp") != nullptr && run_chain(r->file, at_leaf, r);
}
