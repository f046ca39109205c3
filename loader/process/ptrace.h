// SPDX-License-Identifier: Apache-2.0
//
// Holds every thread of another process still for as long as the object lives. PTRACE_SEIZE sends no signal, and the
// system lets go of the threads by itself when the tracing thread dies, however it dies.
#ifndef KRV_PROC_PTRACE_H
#define KRV_PROC_PTRACE_H

#include "process/registers.h"

#include <unordered_map>
#include <vector>

namespace krv_elf_loader
{

// The tids of a process in the order of /proc; empty when it is gone.
std::vector<int> list_threads(int pid);

class stopped_process
{
public:
    explicit stopped_process(int process); // throws failure, nothing is held then
    ~stopped_process();
    stopped_process(const stopped_process &) = delete;
    stopped_process &operator=(const stopped_process &) = delete;

    struct tracee {
        int tid;
        bool stopped; // false: in uninterruptible sleep, not ours
        char state;   // its letter before
        int signal;   // that was about to be delivered when it stopped; 0 for none
    };
    const std::vector<tracee> &threads() const { return tracees; }

    // The registers of a stopped thread and its instruction set. Throws failure.
    register_set registers(int tid, krv_activation_type_t *targetp) const;

private:
    void stop_all();
    bool take(int tid);
    bool wait_for_stop(tracee *t);
    bool wait_while_uninterruptible(int tid, char *statep);
    void let_go();
    void bury(int tid) const;

    int pid;
    int patience; // how often to look again at threads in uninterruptible sleep
    std::vector<tracee> tracees;
    std::unordered_map<int, size_t> known; // their places, by tid
};

} // namespace krv_elf_loader

#endif
