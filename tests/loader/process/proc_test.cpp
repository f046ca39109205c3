// SPDX-License-Identifier: Apache-2.0
//
// Live processes: that they are left as they were found, and what is told of their memory, modules and threads.
#include "process.h"

#include "process/memory.h"
#include "process/ptrace.h"
#include "process/registers.h"
#include "process/status.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace krv_test;
using namespace krv_elf_loader;

namespace
{

namespace fs = std::filesystem;

TEST_F(Process, StoppedOneStaysStopped)
{
    const running_target target("target_o2", "threads", 3);
    kill(target.pid(), SIGSTOP);
    ASSERT_TRUE(target.wait_for_state('T'));
    proc_ptr proc = attach(target.pid());
    for (const krv_opt_idx_t bound :
         {KRV_OPT_EXT_MAX_STEPS, KRV_OPT_EXT_MAX_BYTES}) { // nor is one that must not cost much
        ASSERT_EQ(korva_proc_set_bound(proc.get(), bound, 1, nullptr), 0);
        const krv_proc_end_t end = walk_thread(proc.get(), target.pid()).end;
        EXPECT_EQ(end.reason, KRV_PROC_END_ERROR);
        EXPECT_EQ(end.code, KRV_ERR_EXT_LIMIT) << end.message;
        ASSERT_EQ(korva_proc_set_bound(proc.get(), bound, 0, nullptr), 0);
    }
    EXPECT_EQ(walk_thread(proc.get(), target.pid()).end.reason, KRV_PROC_END_OUTERMOST);
    EXPECT_EQ(korva_proc_set_bound(proc.get(), KRV_OPT_BASE_ADDR, 1, &error), -1);
    proc.reset();
    for (const auto &task : fs::directory_iterator("/proc/" + std::to_string(target.pid()) + "/task")) {
        const int tid = std::stoi(task.path().filename());
        EXPECT_TRUE(wait_for_state(tid, 'T')) << "and not traced";
        EXPECT_EQ(status_of(tid, "TracerPid"), "0");
    }
    kill(target.pid(), SIGCONT);
    EXPECT_TRUE(target.wait_for_state('S'));
}

TEST_F(Process, ThreadsCreatedMeanwhileAreStopped)
{
    const running_target target("target_o2", "create");
    for (int i = 0; i < 20; ++i) {
        const proc_ptr proc = attach(target.pid());
        std::set<int> told;
        each(korva_proc_iter_threads, proc.get(), [&](const krv_proc_thread_t *t) { told.insert(t->tid); });
        for (const int tid : list_threads(target.pid())) {
            EXPECT_EQ(told.count(tid), 1U);
            EXPECT_EQ(state_of(tid), 't');
        }
    }
    EXPECT_EQ(status_of(target.pid(), "TracerPid"), "0");
}

TEST_F(Process, LosesNoSignal)
{
    const running_target target("target_o2", "count");
    constexpr int MANY = 500;
    for (int i = 0; i < MANY; ++i) {
        ASSERT_EQ(sigqueue(target.pid(), SIGRTMIN, {}), 0);
        if (i % 5 == 0)
            attach(target.pid());
        else if (i % 7 == 0)
            usleep(100);
    }
    std::string seen;
    char piece[MANY];
    while (seen.size() < MANY) {
        const ssize_t got = read(target.output(), piece, sizeof(piece));
        ASSERT_GT(got, 0);
        seen.append(piece, static_cast<size_t>(got));
    }
    EXPECT_EQ(seen, std::string(MANY, 'x'));
}

TEST_F(Process, KilledMeanwhileIsStillItsParentsToCollect)
{
    const running_target target("target_o2", "threads", 3);
    proc_ptr proc = attach(target.pid());
    kill(target.pid(), SIGKILL);
    ASSERT_TRUE(target.wait_for_state('Z'));
    EXPECT_EQ(walk_thread(proc.get(), target.pid()).end.reason, KRV_PROC_END_ERROR);
    proc.reset();
    int status = 0;
    ASSERT_EQ(waitpid(target.pid(), &status, 0), target.pid());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

// Whatever ends us in the middle of a walk, the process runs on.
TEST_F(Process, RunsOnWhenWeDie)
{
    for (const int signal : {SIGINT, SIGTERM, SIGKILL}) {
        const running_target target("target_o2", "threads", 5);
        const int tracer = fork();
        if (tracer == 0) {
            std::signal(signal, SIG_DFL); // a shell has what it runs in the background ignore SIGINT
            krv_proc_t *proc = korva_proc_attach(target.pid(), nullptr);
            if (proc != nullptr)
                korva_proc_walk(
                    proc, target.pid(), 0,
                    [](krv_proc_t *, const krv_proc_frame_t *, void *) -> int {
                        for (;;)
                            pause();
                    },
                    nullptr, nullptr);
            _exit(1);
        }
        EXPECT_TRUE(target.wait_for_state('t'));
        kill(tracer, signal);
        int status = 0;
        waitpid(tracer, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal);
        EXPECT_TRUE(target.wait_for_state('S'));
        for (const int tid : list_threads(target.pid()))
            EXPECT_EQ(status_of(tid, "TracerPid"), "0");
    }
}

TEST_F(Process, InUninterruptibleSleepIsListedAndLeftAlone)
{
    const running_target target("target_o2", "vfork");
    const proc_ptr proc = attach(target.pid());
    std::vector<krv_proc_thread_t> threads;
    each(korva_proc_iter_threads, proc.get(), [&](const krv_proc_thread_t *t) { threads.push_back(*t); });
    ASSERT_EQ(threads.size(), 1U);
    EXPECT_EQ(threads[0].target, 0);
    EXPECT_EQ(status_of(target.pid(), "TracerPid"), "0");
    const walked w = walk_thread(proc.get(), target.pid());
    EXPECT_EQ(w.end.reason, KRV_PROC_END_ERROR);
    EXPECT_NE(std::string(w.end.message).find("uninterruptible"), std::string::npos) << w.end.message;
}

TEST_F(Process, RefusalsSayWhy)
{
    const running_target target("target_o2", "pause");
    const proc_ptr first = attach(target.pid());
    const int dead = fork();
    if (dead == 0)
        _exit(0);
    for (int i = 0; i < 1000 && state_of(dead) != 'Z'; ++i)
        usleep(10'000);
    const struct {
        int pid, code;
        const char *text;
    } cases[] = {
        {0, KRV_ELF_ERR_NOTFOUND, "no such process"},          {-1, KRV_ELF_ERR_NOTFOUND, "no such process"},
        {0x7ffffff0, KRV_ELF_ERR_NOTFOUND, "no such process"}, {dead, KRV_ELF_ERR_NOTFOUND, "it has ended"},
        {getpid(), KRV_ELF_ERR_SYSTEM, "the calling process"}, {target.pid(), KRV_ELF_ERR_SYSTEM, "traces it"},
    };
    for (const auto &c : cases) {
        krv_elf_error_t told = {};
        EXPECT_EQ(korva_proc_attach(c.pid, &told), nullptr);
        EXPECT_EQ(told.code, c.code) << told.message;
        EXPECT_NE(std::string(told.message).find(c.text), std::string::npos) << told.message;
        EXPECT_EQ(korva_proc_attach(c.pid, nullptr), nullptr);
    }
    waitpid(dead, nullptr, 0);
}

TEST_F(Process, MemoryIsWhatDirectReadsGive)
{
    const running_target target("target_o2", "recurse", 100);
    const proc_ptr proc = attach(target.pid());
    const input_file mem("/proc/" + std::to_string(target.pid()) + "/mem");
    ASSERT_TRUE(mem.is_open());
    const std::vector<mapping> maps = read_maps(target.pid());
    std::mt19937_64 random(1);
    int good = 0;
    for (int i = 0; i < 3000; ++i) {
        const mapping &m = maps[random() % maps.size()];
        const uint64_t address = m.start - 64 + random() % (m.end - m.start + 128); // over both ends, too
        const size_t count = 1 + random() % (i % 10 == 0 ? 20000 : 40);
        std::vector<uint8_t> ours(count, 0xaa), direct(count, 0xbb);
        const bool readable = mem.read(address, direct.data(), count);
        const int64_t got = korva_proc_read(proc.get(), ours.data(), count, address);
        ASSERT_EQ(got, readable ? static_cast<int64_t>(count) : -1) << std::hex << address << "+" << count;
        if (readable) {
            ASSERT_EQ(ours, direct) << std::hex << address << "+" << count;
        }
        good += readable ? 1 : 0;
    }
    EXPECT_GT(good, 1000);
    EXPECT_EQ(korva_proc_read(proc.get(), &good, sizeof(good), UINT64_MAX - 1), -1);
    EXPECT_EQ(korva_proc_read(proc.get(), &good, 0, 0), 0);
}

TEST(PageCache, RemembersUntilToldOtherwise)
{
    struct : memory {
        uint8_t byte = 1;
        bool read(uint64_t, void *buf, size_t count) override { return std::memset(buf, byte, count) != nullptr; }
    } below;
    page_cache cache(below);
    uint8_t seen[3] = {};
    EXPECT_TRUE(cache.read(0x10010, &seen[0], 1));
    below.byte = 2;
    EXPECT_TRUE(cache.read(0x10010, &seen[1], 1));
    cache.forget();
    EXPECT_TRUE(cache.read(0x10010, &seen[2], 1));
    EXPECT_EQ(text("%d %d %d", seen[0], seen[1], seen[2]), "1 1 2");
}

TEST_F(Process, ModulesAreThoseMapped)
{
    const running_target target("target_o2", "pause");
    const proc_ptr proc = attach(target.pid());
    std::set<std::string> mapped, told;
    for (const mapping &m : read_maps(target.pid()))
        if (m.executable && m.path != "[vsyscall]")
            mapped.insert(m.path);
    uint64_t last = 0;
    each(korva_proc_iter_modules, proc.get(), [&](const krv_proc_module_t *m) {
        told.insert(m->path);
        EXPECT_GE(m->start, last);
        last = m->end;
        EXPECT_EQ(korva_proc_find_module(proc.get(), m->start), m);
        EXPECT_EQ(korva_proc_find_module(proc.get(), m->end - 1), m);
        EXPECT_NE(korva_proc_find_module(proc.get(), m->end), m);
        EXPECT_EQ((m->flags & KRV_PROC_MODULE_F_MAIN) != 0, m->path == target_path("target_o2"));
        EXPECT_EQ((m->flags & KRV_PROC_MODULE_F_VDSO) != 0, m->path == std::string("[vdso]"));

        krv_elf_t *elf = korva_proc_module_elf(proc.get(), m, &error);
        ASSERT_NE(elf, nullptr) << error.message;
        krv_elf_info_t info;
        korva_elf_get_info(elf, &info);
        ASSERT_EQ(info.build_id_size, m->build_id_size);
        EXPECT_EQ(std::memcmp(info.build_id, m->build_id, m->build_id_size), 0);
        uint64_t bias = 0;
        EXPECT_EQ(korva_elf_load_bias(elf, m->start, 0, &bias, nullptr), 0);
        EXPECT_EQ(bias, m->bias);
        each(korva_elf_iter_sections, elf, [&](const krv_elf_section_t *section) {
            const std::string name = section->name;
            if (name == ".eh_frame" || name == ".eh_frame_hdr") {
                EXPECT_EQ(name == ".eh_frame" ? m->eh_frame : m->eh_frame_hdr, m->bias + section->address) << m->path;
            }
        });
    });
    EXPECT_EQ(told, mapped);
    krv_proc_info_t info;
    korva_proc_get_info(proc.get(), &info);
    EXPECT_EQ(info.kind, KRV_PROC_LIVE);
    EXPECT_EQ(info.pid, target.pid());
    EXPECT_EQ(info.target, KRV_ACTIVATION_AMD64);
    EXPECT_EQ(info.exe, target_path("target_o2"));
}

TEST_F(Process, LetGoKeepsWhatWasLearnt)
{
    const fs::path copy = fs::temp_directory_path() / ("korva-deleted-" + std::to_string(getpid()));
    fs::copy_file(target_path("target_o2"), copy);
    const running_target target(copy, "pause");
    fs::remove(copy);
    std::ofstream(copy) << "another file";
    const proc_ptr proc = attach(target.pid());
    const krv_proc_module_t *main = nullptr;
    each(korva_proc_iter_modules, proc.get(),
         [&](const krv_proc_module_t *m) { main = (m->flags & KRV_PROC_MODULE_F_MAIN) != 0 ? m : main; });
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(main->path, copy);
    EXPECT_NE(main->flags & KRV_PROC_MODULE_F_DELETED, 0U);
    EXPECT_EQ(walk_thread(proc.get(), target.pid()).end.reason, KRV_PROC_END_OUTERMOST);
    EXPECT_EQ(korva_proc_thread_state(proc.get(), target.pid()), 'S');
    korva_proc_release(proc.get());
    EXPECT_TRUE(target.wait_for_state('S'));
    EXPECT_EQ(status_of(target.pid(), "TracerPid"), "0");
    EXPECT_EQ(walk_thread(proc.get(), target.pid()).end.reason, KRV_PROC_END_ERROR);
    kill(target.pid(), SIGKILL); // the file is open, which only the process led to
    ASSERT_TRUE(target.wait_for_state('Z'));
    krv_elf_t *elf = korva_proc_module_elf(proc.get(), main, &error);
    if (elf != nullptr)
        EXPECT_NE(korva_elf_lookup_symbol_by_name(elf, "main"), nullptr);
    else // without the privilege for the system's own link to it
        EXPECT_NE(std::string(error.message).find("no longer there"), std::string::npos) << error.message;
    fs::remove(copy);
}

TEST_F(Process, WatchedRunsOnAndMayExecuteAnother)
{
    const running_target target("target_o2", "exec");
    const proc_ptr proc(korva_proc_watch(target.pid(), &error));
    ASSERT_NE(proc, nullptr) << error.message;
    EXPECT_EQ(status_of(target.pid(), "TracerPid"), "0");
    const auto main_of = [&] {
        std::string path;
        each(korva_proc_iter_modules, proc.get(),
             [&](const krv_proc_module_t *m) { path = (m->flags & KRV_PROC_MODULE_F_MAIN) != 0 ? m->path : path; });
        return path;
    };
    EXPECT_EQ(main_of(), fs::canonical(target_path("target_o2")));
    EXPECT_EQ(walk_thread(proc.get(), target.pid()).end.reason, KRV_PROC_END_ERROR);
    kill(target.pid(), SIGUSR1);
    for (int look = 0; look < 2000 && main_of().ends_with("target_o2"); ++look) {
        usleep(1000);
        korva_proc_refresh(proc.get(), &error);
    }
    EXPECT_NE(main_of(), fs::canonical(target_path("target_o2")));
    kill(target.pid(), SIGKILL);
    ASSERT_TRUE(target.wait_for_state('Z'));
    EXPECT_EQ(korva_proc_refresh(proc.get(), &error), -1);
    EXPECT_FALSE(main_of().empty());
    EXPECT_EQ(korva_proc_watch(target.pid(), &error), nullptr);
}

TEST_F(Process, ThreadsAndRegisters)
{
    const running_target target("target_o2", "threads", 4);
    const proc_ptr proc = attach(target.pid());
    std::set<std::string> names;
    each(korva_proc_iter_threads, proc.get(), [&](const krv_proc_thread_t *thread) {
        names.insert(thread->name);
        EXPECT_EQ(thread->target, KRV_ACTIVATION_AMD64);
        krv_gregset_t gregs;
        krv_fpregset_t fpregs;
        uint64_t mask = 0;
        ASSERT_EQ(korva_proc_get_regs(proc.get(), thread->tid, &gregs, &mask, &fpregs, &error), 1) << error.message;
        EXPECT_EQ(static_cast<uint64_t>(gregs[KRV_HOST_RIP]), walk_thread(proc.get(), thread->tid).frames.at(0).pc);
        EXPECT_EQ(fpregs.mxcsr, 0x1f80U) << "as the system sets it at the start";
        EXPECT_EQ(korva_proc_get_regs(proc.get(), thread->tid, &gregs, &mask, nullptr, nullptr), 0);
    });
    EXPECT_EQ(names, (std::set<std::string>{"target_o2", "waiter0", "waiter1", "waiter2", "waiter3"}));
    krv_gregset_t gregs;
    uint64_t mask = 0;
    EXPECT_EQ(korva_proc_get_regs(proc.get(), 1, &gregs, &mask, nullptr, &error), -1);
    EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
}

TEST(Registers, TakeTheirPlaces)
{
    user_regs_struct from = {};
    auto *words = reinterpret_cast<unsigned long long *>(&from);
    for (size_t i = 0; i < sizeof(from) / sizeof(*words); ++i)
        words[i] = 0x1000 + i;
    register_set set;
    load_registers(&set, KRV_ACTIVATION_AMD64, reinterpret_cast<const uint8_t *>(&from));
    // By their places in user_regs_struct; orig_rax is not among the host's.
    constexpr unsigned NONE = KRV_HOST_MAX;
    static const unsigned hosts[] = {KRV_HOST_R15, KRV_HOST_R14,    KRV_HOST_R13,    KRV_HOST_R12,    KRV_HOST_RBP,
                                     KRV_HOST_RBX, KRV_HOST_R11,    KRV_HOST_R10,    KRV_HOST_R9,     KRV_HOST_R8,
                                     KRV_HOST_RAX, KRV_HOST_RCX,    KRV_HOST_RDX,    KRV_HOST_RSI,    KRV_HOST_RDI,
                                     NONE,         KRV_HOST_RIP,    KRV_HOST_CS,     KRV_HOST_RFLAGS, KRV_HOST_RSP,
                                     KRV_HOST_SS,  KRV_HOST_FSBASE, KRV_HOST_GSBASE, KRV_HOST_DS,     KRV_HOST_ES,
                                     KRV_HOST_FS,  KRV_HOST_GS};
    for (size_t i = 0; i < std::size(hosts); ++i)
        EXPECT_TRUE(hosts[i] == NONE || set.gregs[hosts[i]] == static_cast<krv_greg_t>(words[i])) << hosts[i];
    EXPECT_EQ(static_cast<size_t>(__builtin_popcountll(set.mask)), std::size(hosts) - 1);
}

} // namespace
