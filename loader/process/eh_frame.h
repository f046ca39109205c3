// SPDX-License-Identifier: Apache-2.0
//
// .eh_frame in memory, as the core can read it. The core refuses a CIE whose personality pointer is indirect, as in
// every position-independent C++ program and in libc, a CIE of a signal trampoline, and the instruction that tells a
// landing pad how much to pop. None of them matters for leaving a frame, so they are hidden from it: single bytes are
// shown in place of those in memory. Every record stays where it is and as long as it is, so that no pointer to one
// changes.
#ifndef KRV_PROC_EH_FRAME_H
#define KRV_PROC_EH_FRAME_H

#include "address_ranges.h"
#include "process/memory.h"

#include "libkorva.h"

#include <vector>

namespace krv_elf_loader
{

struct shown_byte {
    uint64_t address;
    uint8_t value;
};

class eh_frame_view
{
public:
    // Looks through the records from `start` on, to the terminator, or to `end`, or to what cannot be read.
    void scan(memory &mem, krv_activation_type_t target, uint64_t start, uint64_t end);

    // Puts the bytes to be shown over `count` bytes that were read at `address`.
    void correct(uint64_t address, void *buf, size_t count) const;

    // Whether `pc` is in the trampoline of a signal handler.
    bool signal_frame(uint64_t pc) const;

    bool empty() const { return fdes == 0; } // no FDE was found

private:
    void show(memory &mem, uint64_t address, const std::vector<uint8_t> &corrected); // what differs from memory

    std::vector<shown_byte> bytes; // ascending
    address_ranges signal_frames;
    uint64_t fdes = 0;
};

// The address of .eh_frame that .eh_frame_hdr at `header` gives; 0 when it gives none.
uint64_t read_eh_frame_address(memory &mem, krv_activation_type_t target, uint64_t header);

} // namespace krv_elf_loader

#endif
