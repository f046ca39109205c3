// SPDX-License-Identifier: Apache-2.0
//
// What is read of a process while it stands still: threads, frames, registers, arguments. Nothing is looked up yet, so
// that it may run on.
#pragma once

#include "object.h"
#include "record.h"
#include "status.h"
#include "variables.h"

#include <korva.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korva::program
{

/** One argument's bytes; nothing for a byte that is not known. */
using argument = std::vector<std::optional<uint8_t>>;

struct stack_frame {
    uint64_t pc;
    uint64_t lookup_pc;
    const krv_proc_module_t *module; /**< NULL when it is in none */
    bool is_signal_frame;
    std::vector<argument> arguments;
    std::vector<call_variables> variables; /**< of each call there, inlined ones first */
};

/** Memory of a process. */
struct memory_piece {
    uint64_t address;
    std::string bytes;
};

/** A thread with its frames, the innermost first. */
struct thread_stack {
    int tid;
    std::string name;
    const char *state;                                          /**< "running"; NULL when not known */
    std::vector<std::pair<const char *, uint64_t>> registers{}; /**< as the thread has them, by name */
    std::vector<stack_frame> frames{};
    int end = 0;  /**< KRV_PROC_END_* */
    int code = 0; /**< the library's, of a walk that failed: KRV_ERR_* */
    std::string message{};
    std::vector<memory_piece> raw{}; /**< what its frames are on, for another machine to walk them */
};

struct stack_request {
    unsigned int max_frames = 0; /**< 0: as many as the library walks */
    bool arguments = false;
    bool registers = false;
    uint64_t raw_stack = 0; /**< bytes of the stack, and of each further one that the frames are on; 0: none */
    bool variables = false; /**< opens the modules' files while the process stands still */
};

/** The threads of a process: all, or the one of @p tid unless that is 0, or the first. Throws failure when there is none. */
std::vector<krv_proc_thread_t> threads_of(const process &proc, int tid, bool first_only);

/** What a walk may cost from now on: what a record may. */
void bound_walks(process *proc, const cost_bounds &bounds);

/** Walks a thread. A failure is the end of its frames. */
thread_stack read_stack(const process &proc, const krv_proc_thread_t &thread, const stack_request &wanted);

/** Why a walk ended, as records have it: "outermost", ... */
const char *end_name(int reason);

/** Of a walk's record: ok when it came to the outermost frame, or as far as was asked for. */
record_status status_of(const thread_stack &stack, const stack_request &wanted);

/** Counts a walk: one that ended early has its frames all the same. */
void count(const thread_stack &stack, const stack_request &wanted, tally *done);

} // namespace korva::program
