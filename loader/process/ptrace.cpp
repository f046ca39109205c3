// SPDX-License-Identifier: Apache-2.0
#include "process/ptrace.h"

#include "failure.h"
#include "process/status.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <elf.h>
#include <fmt/format.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace krv_elf_loader
{

namespace
{

constexpr long LOOK_INTERVAL = 5'000'000; // nanoseconds
constexpr int LOOKS_AT_SLEEPERS = 100;    // in all: half a second
constexpr int LOOKS_AT_THE_DYING = 400;   // two seconds; they need a few milliseconds
constexpr int MOST_PASSES = 1000;         // over the list of threads, until two of them bring nothing new

struct directory_closer {
    void operator()(DIR *d) const { closedir(d); }
};

void rest()
{
    const timespec pause = {0, LOOK_INTERVAL};
    nanosleep(&pause, nullptr);
}

[[noreturn]] void cannot_attach(int pid, int tid, int error)
{
    if (error == ESRCH)
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("process {}: {}", pid, std::strerror(error)));
    std::string why = fmt::format("process {}: cannot attach to thread {}: {}", pid, tid, std::strerror(error));
    const int tracer = read_status_number(tid, "TracerPid");
    if (tracer > 0)
        why += fmt::format(" (process {} traces it)", tracer);
    else if (error == EPERM)
        why += " (not its owner, or forbidden by the system: see /proc/sys/kernel/yama/ptrace_scope)";
    throw failure(KRV_ELF_ERR_SYSTEM, why);
}

// ptrace takes numbers where its prototype has pointers.
void *number(uintptr_t value)
{
    return reinterpret_cast<void *>(value); // NOLINT(performance-no-int-to-ptr)
}

bool read_regset(int tid, unsigned type, uint8_t *buf, size_t size, size_t *gotp)
{
    iovec vector = {buf, size};
    if (ptrace(PTRACE_GETREGSET, tid, number(type), &vector) != 0)
        return false;
    *gotp = vector.iov_len;
    return true;
}

} // namespace

std::vector<int> list_threads(int pid)
{
    std::vector<int> tids;
    const std::unique_ptr<DIR, directory_closer> dir(opendir(fmt::format("/proc/{}/task", pid).c_str()));
    if (dir == nullptr)
        return tids;
    while (const dirent *entry = readdir(dir.get()))
        if (const long tid = std::strtol(entry->d_name, nullptr, 10); tid > 0)
            tids.push_back(static_cast<int>(tid));
    return tids;
}

stopped_process::stopped_process(int process) : pid(process), patience(LOOKS_AT_SLEEPERS)
{
    try {
        stop_all();
    } catch (...) {
        let_go();
        throw;
    }
}

stopped_process::~stopped_process()
{
    let_go();
}

// Threads that still run may create others while the list is read, and a thread that ends may hide one from it. Once
// two passes bring nothing new, there is no thread left that could.
void stopped_process::stop_all()
{
    int quiet = 0;
    for (int pass = 0; quiet < 2; ++pass) {
        if (pass == MOST_PASSES)
            throw failure(KRV_ELF_ERR_SYSTEM,
                          fmt::format("process {}: creates threads faster than they can be stopped", pid));
        bool fresh = false;
        for (const int tid : list_threads(pid))
            if (!known.contains(tid) && take(tid))
                fresh = known.emplace(tid, tracees.size() - 1).second;
        quiet = fresh ? 0 : quiet + 1;
    }
    if (tracees.empty())
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("process {}: no such process, or it has ended", pid));
}

// False when a thread stays in uninterruptible sleep: it would not stop, nor could it be let go again.
bool stopped_process::wait_while_uninterruptible(int tid, char *statep)
{
    while ((*statep = read_state(tid)) == 'D') {
        if (patience-- <= 0)
            return false;
        rest();
    }
    return true;
}

// Stops one thread. False when it has ended.
bool stopped_process::take(int tid)
{
    char state = 0;
    if (!wait_while_uninterruptible(tid, &state)) {
        tracees.push_back({tid, false, state, 0});
        return true;
    }
    tracees.push_back(
        {tid, false, state, 0}); // first: memory that runs out must not leave a thread seized that let_go forgets
    if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
        const int error = errno;
        tracees.pop_back();
        state = read_state(tid);
        if (state == 0 || state == 'Z' || state == 'X')
            return false;
        cannot_attach(pid, tid, error);
    }
    if (ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) == 0 && wait_for_stop(&tracees.back()))
        return true;
    bury(tid);
    tracees.pop_back();
    return false;
}

// False when the thread has ended.
bool stopped_process::wait_for_stop(tracee *t)
{
    // Peeks first: the end of a process that is our child is for its owner in this program to collect.
    siginfo_t info = {};
    while (waitid(P_PID, static_cast<id_t>(t->tid), &info, WSTOPPED | WEXITED | WNOWAIT | __WALL) != 0)
        if (errno != EINTR)
            return false;
    int status = 0;
    if ((info.si_code != CLD_TRAPPED && info.si_code != CLD_STOPPED) ||
        waitpid(t->tid, &status, __WALL | WNOHANG) != t->tid || !WIFSTOPPED(status))
        return false;
    // Not the stop that PTRACE_INTERRUPT asked for but a signal on its way: it is delivered when we let go.
    t->signal = status >> 16 == 0 ? WSTOPSIG(status) : 0;
    t->stopped = true;
    return true;
}

// Collects a thread that has ended, or is about to, while it is traced: without that its process could not end.
void stopped_process::bury(int tid) const
{
    if (tid == pid && read_status_number(pid, "PPid") == getpid())
        return;
    for (int look = 0; look < LOOKS_AT_THE_DYING && waitpid(tid, nullptr, __WALL | WNOHANG) == 0; ++look)
        rest();
}

void stopped_process::let_go()
{
    // The main thread last: its end is told when all others have been collected.
    for (auto t = tracees.rbegin(); t != tracees.rend(); ++t)
        if (t->stopped && ptrace(PTRACE_DETACH, t->tid, nullptr, number(static_cast<uintptr_t>(t->signal))) != 0)
            bury(t->tid); // it was killed meanwhile
    tracees.clear();
}

register_set stopped_process::registers(int tid, krv_activation_type_t *targetp) const
{
    const auto found = known.find(tid);
    if (found == known.end())
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("process {}: no thread {}", pid, tid));
    if (!tracees[found->second].stopped)
        throw failure(KRV_ELF_ERR_SYSTEM,
                      fmt::format("thread {}: in uninterruptible sleep, so its registers cannot be read", tid));
    register_set set;
    std::array<uint8_t, 1024> buf;
    size_t got = 0;
    if (!read_regset(tid, NT_PRSTATUS, buf.data(), buf.size(), &got))
        throw failure(KRV_ELF_ERR_SYSTEM, fmt::format("thread {}: registers: {}", tid, std::strerror(errno)));
    *targetp = target_of_registers(got);
    if (*targetp == 0)
        throw failure(KRV_ELF_ERR_UNSUPPORTED, fmt::format("thread {}: {} bytes of registers", tid, got));
    load_registers(&set, *targetp, buf.data());
    const unsigned fp = *targetp == KRV_ACTIVATION_AMD64 ? NT_FPREGSET : NT_PRXFPREG;
    if (read_regset(tid, fp, buf.data(), buf.size(), &got) && got == FXSAVE_SIZE)
        load_fxsave(&set, buf.data());
    return set;
}

} // namespace krv_elf_loader
