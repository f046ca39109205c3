// SPDX-License-Identifier: Apache-2.0
#include "record/stopper.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace korva::program
{

// A thread on another processor stops in some microseconds, one that sleeps in some tens. One that waits for a processor
// stops when it gets one.
static constexpr std::chrono::microseconds PATIENCE(200);

struct directory_closer {
    void operator()(DIR *d) const { closedir(d); }
};

// ptrace takes numbers where its prototype has pointers.
static void *as_pointer(uintptr_t value)
{
    return reinterpret_cast<void *>(value); // NOLINT(performance-no-int-to-ptr)
}

static std::string read_start(const std::string &path)
{
    std::string text(1024, '\0');
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t got = fd < 0 ? -1 : read(fd, text.data(), text.size());
    if (fd >= 0)
        close(fd);
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return text;
}

std::vector<int> list_threads(int pid)
{
    std::vector<int> tids;
    const std::unique_ptr<DIR, directory_closer> dir(opendir(fmt::format("/proc/{}/task", pid).c_str()));
    while (const dirent *entry = dir == nullptr ? nullptr : readdir(dir.get()))
        if (const long tid = std::strtol(entry->d_name, nullptr, 10); tid > 0)
            tids.push_back(static_cast<int>(tid));
    return tids;
}

// "TID (NAME) STATE ...": a name may hold anything.
char thread_state(int pid, int tid)
{
    const std::string text = read_start(fmt::format("/proc/{}/task/{}/stat", pid, tid));
    const size_t name = text.rfind(") ");
    return name == std::string::npos || name + 2 >= text.size() ? '\0' : text[name + 2];
}

std::string thread_name(int pid, int tid)
{
    std::string name = read_start(fmt::format("/proc/{}/task/{}/comm", pid, tid));
    if (!name.empty() && name.back() == '\n')
        name.pop_back();
    return name;
}

static bool has_ended(char state)
{
    return state == '\0' || state == 'Z' || state == 'X';
}

// Whether it stands still, or has ended; nothing while it does neither.
std::optional<thread_stopper::outcome> thread_stopper::look(int tid)
{
    int status = 0;
    const pid_t told = waitpid(tid, &status, __WALL | WNOHANG);
    if (told == 0)
        return std::nullopt;
    if (told != tid || !WIFSTOPPED(status)) {
        if (told == tid && tid == m_pid)
            m_child_status = status;
        return outcome::gone;
    }
    // Not the stop that was asked for but a signal on its way: it is delivered when the thread goes on.
    m_signal = status >> 16 == 0 ? WSTOPSIG(status) : 0;
    return outcome::stopped;
}

thread_stopper::outcome thread_stopper::stop(int tid)
{
    if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
        const int error = errno;
        const bool ended = error == ESRCH || has_ended(thread_state(m_pid, tid));
        errno = error;
        return ended ? outcome::gone : outcome::refused;
    }
    m_since = std::chrono::steady_clock::now();
    ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr);
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGCHLD);
    for (;;) {
        if (const auto known = look(tid))
            return *known;
        const auto left = PATIENCE - (std::chrono::steady_clock::now() - m_since);
        if (left <= left.zero())
            break;
        const timespec most = {0, static_cast<long>(std::chrono::nanoseconds(left).count())};
        sigtimedwait(&ends, nullptr, &most);
    }
    m_late.insert(tid);
    return outcome::late;
}

std::optional<int> thread_stopper::next_late()
{
    for (auto at = m_late.begin(); at != m_late.end();) {
        const int tid = *at;
        const auto known = look(tid);
        if (!known) {
            ++at;
            continue;
        }
        at = m_late.erase(at);
        if (*known != outcome::stopped)
            continue;
        m_since = std::chrono::steady_clock::now();
        return tid;
    }
    return std::nullopt;
}

struct register_place {
    unsigned int host;
    size_t amd64; // offset in user_regs_struct
    size_t i386;  // number of the word in what a 32-bit thread has
};

bool thread_stopper::registers(int tid, thread_registers *all) const
{
    static constexpr size_t NONE = SIZE_MAX, I386_WORDS = 17;
    static constexpr register_place places[] = {
        {KRV_HOST_RAX, offsetof(user_regs_struct, rax), 6},    {KRV_HOST_RBX, offsetof(user_regs_struct, rbx), 0},
        {KRV_HOST_RCX, offsetof(user_regs_struct, rcx), 1},    {KRV_HOST_RDX, offsetof(user_regs_struct, rdx), 2},
        {KRV_HOST_RSI, offsetof(user_regs_struct, rsi), 3},    {KRV_HOST_RDI, offsetof(user_regs_struct, rdi), 4},
        {KRV_HOST_RBP, offsetof(user_regs_struct, rbp), 5},    {KRV_HOST_RSP, offsetof(user_regs_struct, rsp), 15},
        {KRV_HOST_R8, offsetof(user_regs_struct, r8), NONE},   {KRV_HOST_R9, offsetof(user_regs_struct, r9), NONE},
        {KRV_HOST_R10, offsetof(user_regs_struct, r10), NONE}, {KRV_HOST_R11, offsetof(user_regs_struct, r11), NONE},
        {KRV_HOST_R12, offsetof(user_regs_struct, r12), NONE}, {KRV_HOST_R13, offsetof(user_regs_struct, r13), NONE},
        {KRV_HOST_R14, offsetof(user_regs_struct, r14), NONE}, {KRV_HOST_R15, offsetof(user_regs_struct, r15), NONE},
        {KRV_HOST_RIP, offsetof(user_regs_struct, rip), 12},
    };
    std::array<uint8_t, sizeof(user_regs_struct)> bytes;
    iovec vector = {bytes.data(), bytes.size()};
    if (ptrace(PTRACE_GETREGSET, tid, as_pointer(NT_PRSTATUS), &vector) != 0)
        return false;
    const bool wide = vector.iov_len == bytes.size();
    if (!wide && vector.iov_len != I386_WORDS * sizeof(uint32_t))
        return false;
    *all = {};
    all->target = wide ? KRV_ACTIVATION_AMD64 : KRV_ACTIVATION_I386;
    for (const register_place &place : places) {
        uint64_t value = 0;
        if (wide)
            std::memcpy(&value, bytes.data() + place.amd64, sizeof(uint64_t));
        else if (place.i386 != NONE)
            std::memcpy(&value, bytes.data() + place.i386 * sizeof(uint32_t), sizeof(uint32_t));
        else
            continue;
        all->gregs[place.host] = static_cast<krv_greg_t>(value);
        all->mask |= uint64_t{1} << place.host;
    }
    return true;
}

void thread_stopper::go(int tid)
{
    // One that was killed while it stood still has to be collected, or its process could not end.
    if (ptrace(PTRACE_DETACH, tid, nullptr, as_pointer(static_cast<uintptr_t>(m_signal))) != 0 && !look(tid))
        m_late.insert(tid);
}

std::string explain_refusal(int pid, int tid, int error)
{
    std::string why = fmt::format("process {}: cannot attach to thread {}: {}", pid, tid, std::strerror(error));
    const std::string status = read_start(fmt::format("/proc/{}/status", tid));
    constexpr std::string_view TRACER = "\nTracerPid:\t";
    const size_t at = status.find(TRACER);
    if (const long tracer = at == std::string::npos ? 0 : std::strtol(status.c_str() + at + TRACER.size(), nullptr, 10);
        tracer > 0)
        why += fmt::format(" (process {} traces it)", tracer);
    else if (error == EPERM)
        why += " (not its owner, or forbidden by the system: see /proc/sys/kernel/yama/ptrace_scope)";
    return why;
}

} // namespace korva::program
