// SPDX-License-Identifier: Apache-2.0
//
// The samples of a recording: each different stack once, with who was there how often. Nothing is looked up before the
// recording has ended.
#pragma once

#include "record/walker.h"
#include "trace/trace.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace korva::program
{

/** What a recording took, and what it cost the process. */
struct recording_cost {
    uint64_t samples = 0;
    uint64_t missed = 0;                  /**< samples that were due and were not taken */
    uint64_t refused = 0;                 /**< of those: another program traced the thread */
    std::chrono::nanoseconds stopped{};   /**< time that threads stood still for it, in all */
    std::chrono::nanoseconds elapsed{};   /**< from the first sample on */
    std::chrono::nanoseconds processor{}; /**< time that this program used meanwhile */
};

class profile
{
public:
    /** Adds a sample; the stack is resolved by @p walker, in which it was walked, unless it was there before. */
    void add(int tid, const raw_stack &stack, stack_walker *walker);
    /** What a thread is called; the last name is the one that is told. */
    void name_thread(int tid, std::string name) { m_names[tid] = std::move(name); }
    bool knows(int tid) const { return m_names.contains(tid); }
    size_t threads() const { return m_names.size(); }
    /** Whether every stack was walked to its outermost frame. */
    bool is_whole() const;

    /** The frames at a place, inlined calls first. */
    using look_up = std::function<std::vector<trace_frame>(const sampled_frame &)>;
    /** All of it as traces of the process @p pid. Each different place is looked up once. */
    trace_set traces(int pid, const look_up &find) const;

private:
    struct sampled_stack {
        std::vector<sampled_frame> frames{};
        int end = 0;
        std::map<int, uint64_t> counts{}; // by tid
    };

    std::map<std::vector<uint64_t>, sampled_stack> m_stacks; // by generation, end and addresses
    std::map<int, std::string> m_names;
};

} // namespace korva::program
