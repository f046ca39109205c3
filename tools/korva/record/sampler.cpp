// SPDX-License-Identifier: Apache-2.0
#include "record/sampler.h"

#include "output.h"

#include <cerrno>
#include <csignal>
#include <fmt/format.h>
#include <fstream>
#include <sstream>
#include <time.h>

namespace korva::program
{

using namespace std::chrono;

// ---------------------------------------------------------------------------------------------------------------
// Time and signals
// ---------------------------------------------------------------------------------------------------------------

recording_signals::recording_signals()
{
    sigemptyset(&m_taken);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&m_taken, number);
    pthread_sigmask(SIG_BLOCK, &m_taken, &m_before);
}

recording_signals::~recording_signals()
{
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

int recording_signals::wait_until(moment when) const
{
    for (;;) {
        const nanoseconds left = std::max(nanoseconds(0), duration_cast<nanoseconds>(when - steady_clock::now()));
        const timespec most = {.tv_sec = left.count() / 1'000'000'000, .tv_nsec = left.count() % 1'000'000'000};
        if (const int number = sigtimedwait(&m_taken, nullptr, &most); number > 0)
            return number;
        if (errno != EINTR)
            return 0;
    }
}

uint64_t pace::advance()
{
    const moment now = steady_clock::now();
    uint64_t passed = 0;
    for (++m_count; next() <= now; ++m_count)
        ++passed;
    return passed;
}

moment sampling_request::end(moment begin) const
{
    return seconds == 0 ? moment::max() : begin + nanoseconds(static_cast<int64_t>(seconds * 1e9));
}

nanoseconds processor_time()
{
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
}

// ---------------------------------------------------------------------------------------------------------------
// Samples
// ---------------------------------------------------------------------------------------------------------------

ptrace_sampler::ptrace_sampler(process *proc, const recording_signals *signals, sampling_request request)
    : m_pid(proc->info().pid), m_signals(signals), m_request(request), m_walker(proc), m_threads(m_pid),
      m_memory(m_pid), m_image(program_image(m_pid))
{
}

// Where code and stack begin.
std::string program_image(int pid)
{
    constexpr int THIRD = 3, CODE = 26, STACK = 28; // of the fields of proc(5); the third is the one behind the name
    std::ifstream stat(fmt::format("/proc/{}/task/{}/stat", pid, pid));
    std::string text, found;
    std::getline(stat, text);
    std::istringstream fields(text.substr(std::min(text.size(), text.rfind(')') + 1)));
    std::string field;
    for (int number = THIRD; number <= STACK && fields >> field; ++number)
        found += number < CODE ? "" : field + " ";
    return found;
}

// While the thread stands still, its registers are read, and as much of its stack as the walk asks for.
void ptrace_sampler::take(int tid)
{
    thread_registers registers;
    m_samples.push_back({tid, {}});
    raw_stack &stack = m_samples.back().stack;
    const bool known = m_threads.registers(tid, &registers);
    if (known) {
        m_memory.begin();
        m_walker.walk(registers, &m_memory, &stack);
        if (!samples.knows(tid)) // it may end as soon as it goes on
            samples.name_thread(tid, thread_name(m_pid, tid));
    }
    m_threads.go(tid);
    m_memory.end();
    cost.stopped += steady_clock::now() - m_threads.since();
    if (!known)
        m_samples.pop_back();
    else if (m_walker.needs_modules(stack) && m_walker.refresh()) // a library that was loaded meanwhile
        m_walker.walk(registers, &m_memory, &stack);
}

void ptrace_sampler::take_late()
{
    while (const auto tid = m_threads.next_late())
        take(*tid);
}

bool ptrace_sampler::sample_threads()
{
    bool has_any = m_threads.has_late();
    m_due = 0;
    for (const int tid : list_threads(m_pid)) {
        if (m_threads.is_late(tid)) {
            ++cost.missed;
            continue;
        }
        if (m_request.running_only) {
            const char state = thread_state(m_pid, tid);
            has_any = has_any || (state != '\0' && state != 'Z' && state != 'X');
            if (state != 'R')
                continue;
        }
        ++m_due;
        switch (m_threads.stop(tid)) {
        case thread_stopper::outcome::stopped:
            take(tid);
            has_any = true;
            break;
        case thread_stopper::outcome::late:
            has_any = true;
            break;
        case thread_stopper::outcome::refused:
            if (cost.samples + m_samples.size() == 0)
                throw failure(explain_refusal(m_pid, tid, errno), {.code = "KRV_ELF_ERR_SYSTEM"});
            ++cost.missed;
            ++cost.refused;
            has_any = true;
            break;
        case thread_stopper::outcome::gone:
            --m_due;
            break;
        }
        take_late();
    }
    return has_any;
}

// Samples of a moment in which another program came to be executed may be of either: they are given up.
void ptrace_sampler::keep_samples()
{
    if (std::string now = program_image(m_pid); now != m_image && !now.empty()) {
        m_image = std::move(now);
        cost.missed += m_samples.size();
        m_samples.clear();
        m_walker.refresh();
    }
    for (const sample &s : m_samples) {
        samples.add(s.tid, s.stack, &m_walker);
        ++cost.samples;
        m_recent.insert(s.tid);
    }
    m_samples.clear();
}

// Names change: the last one is told.
void ptrace_sampler::read_names()
{
    for (const int tid : m_recent)
        if (std::string name = thread_name(m_pid, tid); !name.empty())
            samples.name_thread(tid, std::move(name));
    m_recent.clear();
}

// False when the recording is to end.
bool ptrace_sampler::wait(moment until)
{
    while (const int number = m_signals->wait_until(until)) {
        if (number != SIGCHLD)
            return false;
        take_late();
    }
    return true;
}

void ptrace_sampler::run()
{
    const nanoseconds used = processor_time();
    pace ticks(m_request.hz);
    const moment end = m_request.end(ticks.begin());
    moment next_second = ticks.begin() + seconds(1);
    while (ticks.next() < end && wait(ticks.next()) && sample_threads()) {
        keep_samples();
        if (steady_clock::now() >= next_second) { // a library may have taken the place of another one
            next_second += seconds(1);
            read_names();
            m_walker.refresh();
        }
        cost.missed += ticks.advance() * m_due;
    }
    take_late();
    keep_samples();
    read_names();
    cost.elapsed = steady_clock::now() - ticks.begin();
    cost.processor = processor_time() - used;
}

} // namespace korva::program
