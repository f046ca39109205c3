// SPDX-License-Identifier: Apache-2.0
//
// Programs to look at, and walks of their threads.
#ifndef KRV_TEST_PROCESS_H
#define KRV_TEST_PROCESS_H

#include "libkorva-proc.h"

#include "support/handle.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace krv_test
{

struct proc_closer {
    void operator()(krv_proc_t *proc) const { korva_proc_close(proc); }
};
using proc_ptr = std::unique_ptr<krv_proc_t, proc_closer>;

// The program counters of every thread, topmost first.
using stacks = std::map<int, std::vector<uint64_t>>;

// Waits until a thread is in a state; false after some seconds.
bool wait_for_state(int tid, char state);

// A program, waited for until it is in its position (see targets/stack_target.cpp), killed at the end of the scope.
class running_target
{
public:
    explicit running_target(const std::string &program, const std::string &mode, int count = 0);
    ~running_target();
    running_target(const running_target &) = delete;
    running_target &operator=(const running_target &) = delete;

    int pid() const { return process; }
    int output() const { return from; } // behind "ready"
    bool wait_for_state(char state) const { return krv_test::wait_for_state(process, state); }

private:
    int process = -1;
    int from = -1;
};

std::string target_path(const std::string &name);

// The field of /proc/ID/status.
std::string status_of(int id, const std::string &field);
char state_of(int id);

// Whether this system lets us trace a child. Says why when it does not.
bool may_trace(std::string *why);

stacks our_stacks(krv_proc_t *proc);

// A walk of one thread.
struct walked {
    std::vector<krv_proc_frame_t> frames; // without activation and handle
    krv_proc_end_t end = {};
    int result = 0;
    std::vector<uint64_t> pcs() const;
};
walked walk_thread(krv_proc_t *proc, int tid, unsigned int max_frames = 0);

class Process : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string why;
        if (!may_trace(&why))
            GTEST_SKIP() << why;
    }

    proc_ptr attach(int pid)
    {
        proc_ptr proc(korva_proc_attach(pid, &error));
        EXPECT_NE(proc, nullptr) << error.message;
        return proc;
    }

    krv_elf_error_t error = {};
};

} // namespace krv_test

#endif
