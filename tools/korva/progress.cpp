// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include "output.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace korva::program
{

// Whether a line stands on the terminal. Guarded by s_terminal, as is every write of progress to it.
static std::mutex s_terminal;
static bool s_shown = false;
static progress *s_last = nullptr; // made

void progress::erase()
{
    const std::lock_guard guard(s_terminal);
    if (std::exchange(s_shown, false))
        write_error("\r\033[K");
}

progress::progress(std::string what, uint64_t total, mode how) : m_what(std::move(what)), m_total(total)
{
    {
        const std::lock_guard guard(s_terminal);
        m_below = std::exchange(s_last, this);
    }
    if (isatty(STDERR_FILENO) != 0 && (how == mode::silent || isatty(STDOUT_FILENO) == 0))
        m_watcher = std::thread([this] { watch(); });
}

progress::~progress()
{
    {
        const std::lock_guard guard(s_terminal);
        s_last = m_below;
    }
    if (!m_watcher.joinable())
        return;
    {
        const std::lock_guard guard(m_mutex);
        m_ended = true;
    }
    m_ended_changed.notify_one();
    m_watcher.join();
    erase();
}

void progress::watch()
{
    using namespace std::chrono_literals;
    std::unique_lock lock(m_mutex);
    for (auto pause = 500ms; !m_ended_changed.wait_for(lock, pause, [this] { return m_ended; }); pause = 200ms) {
        const uint64_t done = m_done.load(std::memory_order_relaxed), total = m_total;
        const std::lock_guard guard(s_terminal);
        if (s_last != this)
            continue;
        write_error(total != 0 ? fmt::format("\r\033[K{}: {} of {}", m_what, done, total)
                               : fmt::format("\r\033[K{} ...", m_what));
        s_shown = true;
    }
}

} // namespace korva::program
