// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace krv_test
{

namespace
{

constexpr int SOME_SECONDS = 20'000; // milliseconds: the machine may be busy

// Reads up to and including "ready\n".
bool read_ready(int fd)
{
    std::string text;
    char c = 0;
    pollfd waiting = {fd, POLLIN, 0};
    while (poll(&waiting, 1, SOME_SECONDS) == 1 && read(fd, &c, 1) == 1)
        if ((text += c) == "ready\n")
            return true;
    return false;
}

void run_target(const std::string &program, const std::string &mode, const std::string &number, int out)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    dup2(out, STDOUT_FILENO);
    execl(program.c_str(), program.c_str(), mode.c_str(), number.c_str(), nullptr);
    _exit(127);
}

// But for a main thread that has ended.
bool threads_reach_state(int pid, char state)
{
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
        if (const int tid = std::stoi(task.path().filename()); state_of(tid) != 'Z' && !wait_for_state(tid, state))
            return false;
    return true;
}

int keep_pc(krv_proc_t *, const krv_proc_frame_t *frame, void *arg)
{
    auto *w = static_cast<walked *>(arg);
    w->frames.push_back(*frame);
    w->frames.back().activation = nullptr;
    w->frames.back().handle = nullptr;
    return 0;
}

} // namespace

std::string target_path(const std::string &name)
{
    return std::string(KORVA_TARGETS) + "/" + name;
}

running_target::running_target(const std::string &program, const std::string &mode, int number)
{
    const std::string path = program.find('/') == std::string::npos ? target_path(program) : program;
    const std::string count = std::to_string(number);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    process = fork();
    if (process == 0)
        run_target(path, mode, count, ends[1]);
    close(ends[1]);
    from = ends[0];
    EXPECT_TRUE(read_ready(from) && (mode == "create" || threads_reach_state(process, mode == "vfork" ? 'D' : 'S')));
}

running_target::~running_target()
{
    close(from);
    if (process > 0) {
        kill(-process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
}

bool wait_for_state(int tid, char state)
{
    for (int waited = 0; waited < SOME_SECONDS; ++waited) {
        if (state_of(tid) == state)
            return true;
        usleep(1'000);
    }
    return false;
}

std::string status_of(int id, const std::string &field)
{
    std::ifstream in("/proc/" + std::to_string(id) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(field + ":"))
            return line.substr(line.find_first_not_of(" \t", field.size() + 1));
    return "";
}

char state_of(int id)
{
    const std::string state = status_of(id, "State");
    return state.empty() ? '\0' : state[0];
}

bool may_trace(std::string *why)
{
    const int child = fork();
    if (child == 0)
        for (;;)
            pause();
    const bool seized = ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0;
    *why = std::string("this system does not let us trace a child: ") + std::strerror(errno);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return seized;
}

walked walk_thread(krv_proc_t *proc, int tid, unsigned int max_frames)
{
    walked w;
    w.result = korva_proc_walk(proc, tid, max_frames, keep_pc, &w, &w.end);
    return w;
}

std::vector<uint64_t> walked::pcs() const
{
    std::vector<uint64_t> all;
    for (const krv_proc_frame_t &frame : frames)
        all.push_back(frame.pc);
    return all;
}

stacks our_stacks(krv_proc_t *proc)
{
    stacks all;
    each(korva_proc_iter_threads, proc,
         [&](const krv_proc_thread_t *thread) { all[thread->tid] = walk_thread(proc, thread->tid).pcs(); });
    return all;
}

} // namespace krv_test
