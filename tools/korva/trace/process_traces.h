// SPDX-License-Identifier: Apache-2.0
//
// The traces of many processes and core files, one after the other.
#pragma once

#include "frame_place.h"
#include "stacks.h"
#include "status.h"
#include "trace/trace.h"

#include <korva.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korva::program
{

/** Adds the frames at a place: each call that was inlined there, innermost first, then the function. */
void append_frames(std::vector<trace_frame> *frames, const stack_frame &f, const frame_place &at,
                   const place_request &wanted);

/**
 * Files of modules for many processes: one that several have, by path and build-id, is opened once, through the first of
 * them, which stays open as long as it. At most MOST_OPEN are open; then the one that was longest not asked for is closed.
 */
class shared_modules
{
public:
    /** Valid until the next call. */
    const module_file &open(const std::shared_ptr<process> &proc, const krv_proc_module_t &module,
                            const cost_bounds &bounds, const std::string &hint);

private:
    static constexpr size_t MOST_OPEN = 64;

    struct entry {
        std::shared_ptr<process> through{}; // outlives the file
        module_file file{};
        uint64_t used = 0;
    };

    std::map<std::string, entry> m_entries;
    uint64_t m_time = 0;
};

/** What is read of each process. */
struct trace_request {
    stack_request walk{}; /**< without arguments, registers and variables */
    place_request places{};
    int tid = 0; /**< 0: all threads */
    bool first_only = false;
    std::string exe{}; /**< of core files; empty: where they say */
    unsigned int flags = 0;
    korva::search search{};
    cost_bounds bounds{};
};

/**
 * Reads processes. One that cannot be read is diagnosed and counted, as a trace without frames. A live process runs on
 * before its frames are looked up; a core file is closed when it is read.
 */
class trace_collector
{
public:
    explicit trace_collector(trace_request wanted) : m_wanted(std::move(wanted)) {}

    void add_process(int pid);
    void add_core(const std::string &path);

    const trace_set &traces() const { return m_traces; }
    trace_set take_traces() { return std::exchange(m_traces, {}); }
    /** What was not as it should be, but for what was diagnosed: a line each, and not too many. */
    std::vector<std::string> notes() const;
    exit_status status() const { return m_done.status(); }

private:
    void add(const std::string &name, korva::result<process> opened);
    void read(const std::string &name, const std::shared_ptr<process> &proc);
    void add_stack(const std::string &name, const std::shared_ptr<process> &proc, const thread_stack &stack);
    void note(const std::string &text);

    const trace_request m_wanted;
    shared_modules m_modules;
    trace_set m_traces;
    tally m_done; // answered: walks that ended where they were to
    std::vector<std::string> m_notes;
    size_t m_more_notes = 0;
};

} // namespace korva::program
