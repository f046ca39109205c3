// SPDX-License-Identifier: Apache-2.0
//
// The call-frame information that a program would have in memory, read from its file: the file's segments are the memory, at
// the addresses that they have in the file; of a relocatable file its sections are.
#ifndef KRV_ELF_FRAMES_H
#define KRV_ELF_FRAMES_H

#include "elf/view.h"
#include "process/memory.h"

namespace krv_elf_loader
{

class file_frames : private memory
{
public:
    // `shown` is what relocated sections are taken of; both outlive this. Throws failure.
    file_frames(elf_file &of, view &shown);
    ~file_frames() override;
    file_frames(const file_frames &) = delete;
    file_frames &operator=(const file_frames &) = delete;

    // Reads .eh_frame, where there is one.
    krv_handle_t *handle() const { return hp; }
    bool read(uint64_t address, void *buf, size_t count) override;

private:
    static int64_t read_for_handle(void *arg, void *buf, size_t count, uint64_t address);
    void add(uint64_t address, byte_span bytes);
    void take_segments(const elf_file &of);
    void take_sections(elf_file &of, view &shown);
    void find_records(const elf_file &of);

    struct extent {
        uint64_t address;
        byte_span bytes;
    };
    std::vector<extent> extents;
    krv_handle_t *hp;
};

} // namespace krv_elf_loader

#endif
