// SPDX-License-Identifier: Apache-2.0
//
// Progress of long work on a terminal: a line on standard error that appears when the work takes longer than half a
// second and disappears with its object. Silent where standard error is no terminal.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace korva::program
{

class progress
{
public:
    /** What work does while it is watched. */
    enum class mode {
        silent,   /**< it writes no answers */
        answering /**< it writes answers: they are the progress where they go to a terminal */
    };

    /** @p total is the number of steps, 0 when it is not known. While there are several, the last made is shown. */
    progress(std::string what, uint64_t total, mode how);
    ~progress();
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void step() { m_done.fetch_add(1, std::memory_order_relaxed); }
    /** So many are done, of so many if that is known now. */
    void set(uint64_t done, uint64_t total)
    {
        m_done = done;
        m_total = total;
    }

    /** Takes a line that stands on the terminal away, for a diagnostic to take its place. */
    static void erase();

private:
    void watch();

    std::string m_what;
    std::atomic<uint64_t> m_total;
    std::atomic<uint64_t> m_done = 0;
    std::mutex m_mutex;
    std::condition_variable m_ended_changed;
    bool m_ended = false;
    std::thread m_watcher;
    progress *m_below; // made before, and not ended
};

} // namespace korva::program
