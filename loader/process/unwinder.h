// SPDX-License-Identifier: Apache-2.0
//
// From a frame to its caller. Every module has a handle of its own, and an activation belongs to one handle, so the
// registers of a frame are loaded into an activation of the handle that knows the frame's function, whichever it is;
// what that computes for the caller are the registers of the next frame.
#ifndef KRV_PROC_UNWINDER_H
#define KRV_PROC_UNWINDER_H

#include "process/proc.h"
#include "process/registers.h"

#include <chrono>
#include <map>
#include <memory>
#include <string>

namespace krv_elf_loader
{

// Where a frame is.
struct place {
    uint64_t lookup_pc;
    bool exact;            // it was stopped there; else it is before the address where it will go on after a call
    loaded_module *module; // NULL: none covers lookup_pc
};

// How a frame is left.
struct departure {
    enum { to_caller, outermost, no_fde, failed } kind = failed;
    int code = KRV_ERR_NONE;
    std::string message;
    register_set caller;            // of to_caller
    bool assumed = false;           // to_caller: nothing says so
    uint64_t bias = 0;              // what its addresses lack
    krv_frame_info_t function = {}; // what covers the place that was looked up; its size is 0: nothing
};

class unwinder
{
public:
    unwinder(krv_proc_t *process, krv_activation_type_t instruction_set) : proc(process), target(instruction_set) {}
    ~unwinder(); // lifts the bounds
    unwinder(const unwinder &) = delete;
    unwinder &operator=(const unwinder &) = delete;

    place locate(uint64_t pc, bool exact);

    // Fills all of the frame but its index and module. Throws failure and std::bad_alloc.
    departure leave(const place &at, const register_set &registers, krv_proc_frame_t *frame);

private:
    struct activation_deleter {
        void operator()(krv_activation_t *ap) const { korva_activation_free(ap); }
    };

    loaded_module *find_module(uint64_t pc);
    departure leave_within(const place &at, uint64_t pc, const register_set &registers, krv_proc_frame_t *frame);
    departure leave_by(krv_handle_t *hp, uint64_t pc, const register_set &registers, krv_proc_frame_t *frame);
    bool assume_call(const register_set &registers, departure *out);
    void set_bounds(krv_handle_t *hp) const;
    krv_activation_t *load(krv_handle_t *hp, uint64_t pc, const register_set &registers);

    krv_proc_t *proc;
    krv_activation_type_t target;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    bool looked_again = false;
    uint64_t budget = 1'000'000; // of the expressions of all frames, to which each frame adds a little
    std::map<krv_handle_t *, std::unique_ptr<krv_activation_t, activation_deleter>> activations;
};

} // namespace krv_elf_loader

#endif
