// SPDX-License-Identifier: Apache-2.0
//
// Stops threads of another process, one at a time, each for the time of one look at it. Between looks nothing of the process
// is held: its signals, its new threads and its end cost it nothing, and a debugger may take it.
#pragma once

#include "record/memory.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace korva::program
{

/** Of the clock that nobody sets. */
using moment = std::chrono::steady_clock::time_point;

/** The tids of a process in the order of /proc; empty when it is gone. */
std::vector<int> list_threads(int pid);
/** The letter of what a thread does, 'R', 'S', 'D', 'Z' ...; 0 when it is gone. */
char thread_state(int pid, int tid);
/** Its name; "" when it is gone. */
std::string thread_name(int pid, int tid);

/**
 * All of it in one thread, in which SIGCHLD is blocked, and which ends soon afterwards: with it the system lets go of
 * whoever did not stop until then.
 */
class thread_stopper
{
public:
    explicit thread_stopper(int pid) : m_pid(pid) {}

    enum class outcome {
        stopped, /**< stands still until go() */
        late,    /**< does not run, or sleeps uninterruptibly: next_late() tells when it has stopped */
        gone,    /**< has ended */
        refused  /**< errno says why; another program traces it, or there is no permission */
    };
    outcome stop(int tid);
    /** Whether a thread was late, and is still to stop. */
    bool is_late(int tid) const { return m_late.contains(tid); }
    bool has_late() const { return !m_late.empty(); }
    /** One that was late and stands still now. */
    std::optional<int> next_late();

    /** Of a thread that stands still. False when it was killed meanwhile. */
    bool registers(int tid, thread_registers *all) const;
    void go(int tid);

    /** When the thread that stands still began to, or may have: the interruption, or the news that it was late. */
    moment since() const { return m_since; }
    /** How the process ended, as waitpid tells it, if this collected a child's end. */
    std::optional<int> child_status() const { return m_child_status; }

private:
    std::optional<outcome> look(int tid);

    int m_pid;
    int m_signal = 0; // of the thread that stands still: what it was about to be sent
    moment m_since = {};
    std::unordered_set<int> m_late = {};
    std::optional<int> m_child_status = {};
};

/** Why a process cannot be traced, as a sentence that names it. */
std::string explain_refusal(int pid, int tid, int error);

} // namespace korva::program
