// SPDX-License-Identifier: Apache-2.0
//
// An ELF object in the memory of a process, and what it takes to leave its frames.
#ifndef KRV_PROC_MODULE_H
#define KRV_PROC_MODULE_H

#include "failure.h"
#include "process/image.h"
#include "process/source.h"

#include <memory>
#include <optional>

namespace krv_elf_loader
{

struct elf_closer {
    void operator()(krv_elf_t *elf) const { korva_elf_close(elf); }
};
using elf_ptr = std::unique_ptr<krv_elf_t, elf_closer>;

class loaded_module
{
public:
    loaded_module(source &from, const mapping &at, elf_image headers, uint64_t load_bias);
    ~loaded_module();
    loaded_module(const loaded_module &) = delete;
    loaded_module &operator=(const loaded_module &) = delete;

    const krv_proc_module_t &shown() const { return record; }
    bool same_as(const loaded_module &other) const;
    bool has(const mapping &m) const; // whether a mapping that has a name is of this object
    void end_at(uint64_t address) { record.end = address; }
    void make_main() { record.flags |= KRV_PROC_MODULE_F_MAIN; }

    // The module's file. Throws failure, every time the same.
    krv_elf_t *elf();

    // Why .eh_frame is not read, or else why elf() failed when it was called and did; "" for neither.
    std::string problem() const
    {
        return frames_failure.empty() && file_failure ? file_failure->what() : frames_failure;
    }

    // The handle that reads .eh_frame in memory. Throws failure.
    krv_handle_t *handle();

    // The handle that reads the file's .debug_frame, which knows addresses without bias. NULL when there is none.
    krv_handle_t *debug_frame_handle();

    // Opens the file of a module that a walk has been in, if only the process leads to it.
    void open_before_release();

    // Where the byte at an address is in the file; nothing where it is not.
    std::optional<uint64_t> file_offset(uint64_t address) const;

private:
    static int64_t read(void *arg, void *buf, size_t count, uint64_t address);
    krv_elf_t *open();
    krv_elf_t *open_other(const failure &why); // by build-id
    void open_again();
    krv_elf_t *open_vdso();
    uint64_t find_eh_frame();
    uint64_t end_of_eh_frame(uint64_t start) const;
    void prepare();

    source &process;
    mapping where; // the first of its mappings
    elf_image image;
    std::string path;
    std::vector<uint8_t> build_id;
    krv_proc_module_t record = {};

    std::string frames_failure;
    krv_handle_t *unwind_handle = nullptr;
    krv_elf_t *file = nullptr;
    bool was_held = false; // when it was opened, and servers would have been asked
    elf_ptr before;        // the file that was opened then, when it is another one
    std::optional<failure> file_failure;
    bool debug_frame_known = false;
    krv_handle_t *debug_handle = nullptr; // that of `file`
};

// Whether a mapping is the kernel's own object, which is in no file.
bool is_vdso(const source &from, const mapping &m);

} // namespace krv_elf_loader

#endif
