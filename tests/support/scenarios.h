// SPDX-License-Identifier: Apache-2.0
//
// Whole sessions of a handle: what it reads, what it is asked, and the right answer. Tests ask while memory runs out,
// while reads fail, and from several threads at a time.
#ifndef KRV_TEST_SCENARIOS_H
#define KRV_TEST_SCENARIOS_H

#include "support/activation.h"

#include <map>
#include <span>

namespace krv_test
{

struct session {
    std::map<krv_secidx_t, bytes> sections = {};
    bytes memory = {};              // at stack_address
    uint64_t eh_frame = 0, hdr = 0; // where they are in it; 0: neither
    bool extended = false;          // both extensions are on
    bool constant = false;          // call-frame information is
    bool threads = false;           // have error states of their own
    bool in_memory = false;         // sections are not to be had through call-backs
    void set_options(krv_handle_t *hp) const;
};

struct scenario {
    const char *name;
    session (*make)();
    std::string (*ask)(krv_handle_t *hp); // the answer; or "!", and the step that failed
    const char *expected;
    unsigned least; // faults that the session is known to have room for
};

std::span<const scenario> scenarios();

} // namespace krv_test

#endif
