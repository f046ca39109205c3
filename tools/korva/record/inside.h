// SPDX-License-Identifier: Apache-2.0
//
// Samples a program from inside: the reading end of what libkorva-record.so in it writes.
#pragma once

#include "record/ring.h"
#include "record/sampler.h"

#include <functional>
#include <string>

namespace korva::program
{

/** Where the library is; "" when it is not installed, or at a path that cannot be told to the dynamic linker. */
std::string find_record_library();

/** Whether the program that a process executes is one that the dynamic linker loads libraries into, and that one too. */
bool can_be_sampled_inside(const process &proc);

/** The memory that is shared with the library, from before the program is started. */
class shared_ring
{
public:
    /** Throws failure when there is no such memory to be had. */
    explicit shared_ring(double hz);
    ~shared_ring();
    shared_ring(const shared_ring &) = delete;
    shared_ring &operator=(const shared_ring &) = delete;

    /** A path under which the program finds it. */
    std::string path() const;
    /** Its process, which waits for being known. */
    void set_process(int pid);
    /** Nobody reads from now on; a program that waits goes on without. */
    void end();

    /** Whether a program came up and waits. */
    bool is_greeted() const { return m_header->hello != m_header->welcome; }
    /** Lets it begin. */
    void welcome();
    /** Passes over what is there, some of which may never become whole: its writer has been replaced. */
    void skip() { m_header->tail = m_header->head.load(); }

    struct taken {
        int tid = 0;
        thread_registers registers{};
        std::string name{};
        std::chrono::nanoseconds handler{};
    };
    /** The next sample, if one is whole. Throws failure when what is there is none. */
    bool next(taken *sample, stack_memory *stack);

    uint64_t lost() const { return m_header->lost; }
    uint64_t refused_threads() const { return m_header->refused; }

private:
    int m_fd = -1;
    ring_header *m_header = nullptr;
};

class inside_sampler
{
public:
    inside_sampler(process *proc, const recording_signals *signals, sampling_request request, shared_ring *ring,
                   const std::string &library);

    /** False when the library does not come up. @p has_ended tells whether the child has. */
    bool run(const std::function<bool()> &has_ended);

    profile samples{};
    recording_cost cost{};

private:
    void greet();
    void drain();

    int m_pid;
    const recording_signals *m_signals;
    sampling_request m_request;
    shared_ring *m_ring;
    stack_walker m_walker;
    stack_memory m_memory;
    std::string m_image{};
    moment m_begin{};
};

} // namespace korva::program
