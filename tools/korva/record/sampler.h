// SPDX-License-Identifier: Apache-2.0
//
// Samples the threads of a process by ptrace, at a rate, until something ends it.
#pragma once

#include "record/profile.h"
#include "record/stopper.h"

#include <optional>
#include <set>

namespace korva::program
{

struct sampling_request {
    double hz = 99;
    double seconds = 0;        /**< 0: until the process ends */
    bool running_only = false; /**< leave threads alone that sleep */

    moment end(moment begin) const;
};

/** Processor time that this program has used. */
std::chrono::nanoseconds processor_time();
/** What is another one when a process executes another program; "" when it is gone. */
std::string program_image(int pid);

/** Signals that end a recording, and that of children. Blocked while it lives, in threads begun meanwhile too. */
class recording_signals
{
public:
    recording_signals();
    ~recording_signals();
    recording_signals(const recording_signals &) = delete;
    recording_signals &operator=(const recording_signals &) = delete;

    /** Waits for a moment, or for one of the signals, whose number is returned; 0: the moment came. */
    int wait_until(moment when) const;
    /** What was blocked before, for a child. */
    const sigset_t &before() const { return m_before; }

private:
    sigset_t m_taken;
    sigset_t m_before;
};

/** Moments at equal distances from a beginning. */
class pace
{
public:
    explicit pace(double hz) : m_begin(std::chrono::steady_clock::now()), m_seconds(1 / hz) {}

    moment next() const { return m_begin + at(m_count); }
    moment begin() const { return m_begin; }
    /** Goes on to the next moment that is still to come, and returns how many were passed over. */
    uint64_t advance();

private:
    std::chrono::nanoseconds at(uint64_t count) const
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(static_cast<double>(count) * m_seconds));
    }

    moment m_begin;
    double m_seconds;
    uint64_t m_count = 0;
};

class ptrace_sampler
{
public:
    ptrace_sampler(process *proc, const recording_signals *signals, sampling_request request);

    /** Throws failure when the process cannot be traced. In a thread that ends afterwards. */
    void run();

    profile samples{};
    recording_cost cost{};
    /** How the process ended, if it is a child and was collected here. */
    std::optional<int> child_status() const { return m_threads.child_status(); }

private:
    struct sample {
        int tid;
        raw_stack stack;
    };

    bool sample_threads(); // false: there are none left
    void take(int tid);
    void take_late();
    void keep_samples();
    void read_names();
    bool wait(moment until);

    int m_pid;
    const recording_signals *m_signals;
    sampling_request m_request;
    stack_walker m_walker;
    thread_stopper m_threads;
    stack_memory m_memory;
    std::vector<sample> m_samples; // since the last look at which program it is
    std::string m_image;
    uint64_t m_due = 0;       // samples of the last moment
    std::set<int> m_recent{}; // threads that were sampled since their names were read
};

} // namespace korva::program
