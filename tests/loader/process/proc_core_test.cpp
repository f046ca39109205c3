// SPDX-License-Identifier: Apache-2.0
//
// Core files: of the system, of gdb, and a 32-bit one made here, whole, cut short, and with absurd sizes.
#include "core_files.h"
#include "loader/loader_fixture.h"

#include <ctime>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace krv_test;

namespace
{

class CoreFile : public Loader
{
protected:
    proc_ptr open(const fs::path &core, const std::string &exe = "")
    {
        error = {};
        return proc_ptr(korva_proc_open_core(core.c_str(), exe.empty() ? nullptr : exe.c_str(), &error));
    }

    // Has the system write a core file of a crash. False, with the reason, where it does not.
    bool crash(const char *filter, std::string *why)
    {
        std::ifstream pattern("/proc/sys/kernel/core_pattern");
        std::getline(pattern, *why);
        if (why->empty() || why->find_first_of("|/%") != std::string::npos) {
            *why = "core_pattern is \"" + *why + "\": core files go elsewhere";
            return false;
        }
        const int child = fork();
        if (child == 0) {
            const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
            if (chdir(dir.c_str()) == 0 && setrlimit(RLIMIT_CORE, &all) == 0) {
                std::ofstream("/proc/self/coredump_filter") << filter;
                execl(target_path("target_o2").c_str(), "target_o2", "crash", "40", nullptr);
            }
            _exit(1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        for (const auto &file : fs::directory_iterator(dir))
            if (file.path().filename().string().starts_with("core"))
                fs::rename(file.path(), dir / "crash");
        *why = "no core file was written";
        return WIFSIGNALED(status) && WCOREDUMP(status) && fs::exists(dir / "crash");
    }

    bool gcore(int pid, const char *name)
    {
        const std::string made = name + std::string(".") + std::to_string(pid);
        (void)!std::system(text("cd %s && gcore -o %s %d >/dev/null 2>&1", dir.c_str(), name, pid).c_str());
        if (!fs::exists(dir / made))
            return false;
        fs::rename(dir / made, dir / name);
        return true;
    }

    // Everything that there is to ask. Whatever it says, it must say it.
    void ask(krv_proc_t *proc)
    {
        our_stacks(proc);
        each(korva_proc_iter_modules, proc, [&](const krv_proc_module_t *module) {
            krv_elf_error_t told = {};
            EXPECT_NE(korva_proc_module_elf(proc, module, &told) == nullptr, told.message[0] == '\0');
        });
    }
};

TEST_F(CoreFile, OfACrash)
{
    // Without the pages of files, code comes from the files; with all of them, from the core file.
    for (const char *filter : {"0x33", "0x21", "0x7f"}) {
        std::string why;
        if (!crash(filter, &why))
            GTEST_SKIP() << why;
        const proc_ptr proc = open(dir / "crash");
        ASSERT_NE(proc, nullptr) << error.message;
        krv_proc_info_t info;
        korva_proc_get_info(proc.get(), &info);
        EXPECT_EQ(info.kind, KRV_PROC_CORE);
        EXPECT_EQ(info.signal, SIGABRT);
        EXPECT_EQ(info.exe, target_path("target_o2"));
        const stacks ours = our_stacks(proc.get());
        ASSERT_EQ(ours.size(), 1U);
        EXPECT_GT(ours.begin()->second.size(), 45U);
        EXPECT_EQ(ours.begin()->first, info.pid);
    }
}

TEST_F(CoreFile, TakesNothingFromAnotherFile)
{
    const running_target target("target_o2", "pause");
    if (!gcore(target.pid(), "g"))
        GTEST_SKIP() << "gcore is missing, or could not read the process";
    const proc_ptr proc = open(dir / "g", target_path("target_o0"));
    ASSERT_NE(proc, nullptr) << error.message;
    const walked w = walk_thread(proc.get(), target.pid());
    EXPECT_EQ(w.end.reason, KRV_PROC_END_NO_FDE);
    EXPECT_NE(std::string(w.end.message).find("build-id"), std::string::npos) << w.end.message;
    ASSERT_FALSE(w.frames.empty());
    const krv_proc_module_t *module = w.frames.back().module;
    ASSERT_NE(module, nullptr);
    EXPECT_NE(module->flags & KRV_PROC_MODULE_F_MISMATCH, 0U);
    EXPECT_EQ(korva_proc_module_elf(proc.get(), module, &error), nullptr);
    EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
    EXPECT_NE(std::string(error.message).find("build-id"), std::string::npos) << error.message;
}

TEST_F(CoreFile, CutShort)
{
    std::string why;
    if (!crash("0x33", &why))
        GTEST_SKIP() << why;
    const std::string whole = read("crash");
    int opened = 0;
    for (size_t size = 0; size < whole.size(); size += size < 16384 ? 487 : whole.size() / 23) {
        const proc_ptr proc = open(write("short", whole.substr(0, size)));
        if (proc == nullptr) {
            EXPECT_EQ(error.code, KRV_ELF_ERR_FORMAT) << error.message;
            EXPECT_NE(std::string(error.message).find("short: "), std::string::npos) << error.message;
            continue;
        }
        ++opened;
        ask(proc.get());
    }
    EXPECT_GT(opened, 10);
}

TEST_F(CoreFile, ThatIsNone)
{
    const struct {
        std::string path;
        int code;
        const char *text;
    } cases[] = {
        {dir / "absent", KRV_ELF_ERR_SYSTEM, "No such file"},
        {dir, KRV_ELF_ERR_FORMAT, "not a regular file"},
        {write("empty", ""), KRV_ELF_ERR_FORMAT, "not an ELF file"},
        {write("text", "once upon a time"), KRV_ELF_ERR_FORMAT, "not an ELF file"},
        {target_path("target_o2"), KRV_ELF_ERR_FORMAT, "not a core file"},
        {dir / "fifo", KRV_ELF_ERR_FORMAT, "not a regular file"}, // without waiting for its writer
    };
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const auto &c : cases) {
        EXPECT_EQ(open(c.path), nullptr);
        EXPECT_EQ(error.code, c.code) << error.message;
        EXPECT_NE(std::string(error.message).find(c.text), std::string::npos) << error.message;
    }
    EXPECT_EQ(korva_proc_open_core(nullptr, nullptr, nullptr), nullptr);
}

class CoreFile32 : public CoreFile
{
protected:
    walked walk(const core32 &core, const std::string &exe = "")
    {
        const proc_ptr proc = open(write("core32", core.build().str()), exe);
        EXPECT_NE(proc, nullptr) << error.message;
        return proc == nullptr ? walked{} : walk_thread(proc.get(), 4711);
    }

    static std::string notes(krv_proc_t *proc)
    {
        std::string all;
        each(korva_proc_iter_notes, proc, [&](const char *text) { all += text; });
        return all;
    }
};

TEST_F(CoreFile32, IsWalkedOnA64BitSystem)
{
    core32 core;
    const walked w = walk(core);
    EXPECT_EQ(w.end.reason, KRV_PROC_END_OUTERMOST) << w.end.message;
    const std::vector<uint64_t> expected = {core.symbol("in_deepest"), core.symbol("in_leaf"), core.symbol("in_middle"),
                                            core.symbol("in_start")};
    EXPECT_EQ(w.pcs(), expected);
    ASSERT_EQ(w.frames.size(), 4U);
    EXPECT_EQ(w.frames[2].cfa, core32::sp + 52);
    core.program = "/nowhere/frames32"; // the executable is found where it is told
    EXPECT_EQ(walk(core).frames.size(), 1U);
    EXPECT_EQ(walk(core, target_path("frames32")).frames.size(), 4U);
}

TEST_F(CoreFile32, WalksEndForTheReasonTheyGive)
{
    core32 called, lost, zero, cycle, partly;
    called.pc = 0;
    lost.pc = 0x1234;
    lost.stack_bytes.set(0x100, core32::stack, 4);
    zero.stack_bytes.set(0x100, 0, 4);
    // middle is called by itself, with its own frame
    cycle.stack_bytes.set(0x100 + 44, cycle.ebp, 4).set(0x100 + 48, cycle.symbol("in_middle"), 4);
    partly.stack_bytes = partly.stack_bytes.first(0x100 + 10);
    const std::string missing =
        text("0x%x: memory at 0x%x cannot be read, since the core file ", core32::symbol("in_leaf"), core32::sp + 16);
    const struct {
        const core32 &core;
        int reason;
        size_t frames;
        std::string message; // a part of it
    } rows[] = {{called, KRV_PROC_END_OUTERMOST, 4, "; assumed: 0x0, which"},
                {lost, KRV_PROC_END_NO_FDE, 1, "no module"},
                {zero, KRV_PROC_END_OUTERMOST, 1, ""},
                {cycle, KRV_PROC_END_NO_PROGRESS, 3, ""},
                {partly, KRV_PROC_END_ERROR, 2, missing + "does not have it"}};
    for (const auto &row : rows) {
        const walked w = walk(row.core);
        EXPECT_EQ(w.end.reason, row.reason) << w.end.message;
        EXPECT_NE(std::string(w.end.message).find(row.message), std::string::npos) << w.end.message;
        EXPECT_EQ(w.frames.size(), row.frames);
    }
    EXPECT_EQ(walk(called).pcs(), (std::vector<uint64_t>{0, core32::symbol("in_leaf"), core32::symbol("in_middle"),
                                                         core32::symbol("in_start")}));
    EXPECT_EQ(walk(partly).end.code, KRV_ERR_IO);

    const bytes whole = core32().build();
    const proc_ptr cut = open(write("cut", whole.first(whole.size() - 106).str()));
    ASSERT_NE(cut, nullptr) << error.message;
    EXPECT_EQ(walk_thread(cut.get(), 4711).end.message, missing + "was cut short");
    EXPECT_EQ(notes(cut.get()),
              text("%s: cut short: it has %zu of %zu bytes", (dir / "cut").c_str(), whole.size() - 106, whole.size()));
}

// What a core file names takes no descriptors; when there are none left to open one, that is the reason given.
TEST_F(CoreFile32, OfMoreFilesThanDescriptors)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit old = limit;
    // Of the descriptors left the core file itself keeps one.
    for (const auto &[left, names] : {std::pair{2U, 3U}, {1U, 3U}, {2U, 5000U}}) {
        core32 core;
        core.names = names;
        const int lowest = dup(0);
        close(lowest);
        limit.rlim_cur = rlim_t{static_cast<unsigned>(lowest)} + left;
        const std::string path = write("files", core.build().str());
        setrlimit(RLIMIT_NOFILE, &limit);
        const proc_ptr proc = open(path);
        unsigned seen = 0;
        for (uint32_t page = 0; proc != nullptr && page < names; ++page) {
            uint8_t byte = 0;
            seen += korva_proc_read(proc.get(), &byte, 1, core32::bias + page * 4096) == 1 ? 1 : 0;
        }
        setrlimit(RLIMIT_NOFILE, &old);
        ASSERT_NE(proc, nullptr) << error.message;
        EXPECT_EQ(seen, left == 2 ? names : 0U);
        std::string told;
        for (uint32_t name = 0; left == 1 && name < names; ++name)
            told += core.name(name) + ": not readable: Too many open files";
        EXPECT_EQ(notes(proc.get()), told);
    }
}

TEST_F(CoreFile32, WithAbsurdSizes)
{
    for (const uint32_t claimed : {0xffffffffU, 0x7fffffffU, 1U, 8U, 21U}) {
        core32 core;
        core.note_size = claimed;
        const proc_ptr proc = open(write("absurd", core.build().str()));
        ASSERT_NE(proc, nullptr) << error.message;
        ask(proc.get());
        EXPECT_EQ(walk_thread(proc.get(), 4711).frames.size(), 1U) << claimed;
    }
}

// Each would take minutes, or gigabytes, were the same bytes read for every module, or the threads searched for each.
TEST_F(CoreFile, ThatClaimsMoreThanItHolds)
{
    const struct {
        crowd_core core;
        const char *first; // ends of walks
        const char *last;
    } cases[] = {
        {{.modules = 100, .threads = 100, .cfi_bytes = 1'000'000}, "unable to get FDE", "claim more than"},
        {{.modules = 10'000, .threads = 2, .notes = 1168}, "unable to get FDE", "unable to get FDE"},
        {{.modules = 2'000, .threads = 2'000, .notes = 1168}, "unable to get FDE", "no module covers it (/"},
        {{.threads = 20'000}, "unable to get FDE", "unable to get FDE"},
    };
    for (const auto &c : cases) {
        const std::string path = write("crowd", c.core.build().str());
        const std::clock_t start = std::clock();
        const proc_ptr proc = open(path);
        ASSERT_NE(proc, nullptr) << error.message;
        EXPECT_EQ(our_stacks(proc.get()).size(), c.core.threads);
        EXPECT_LT(std::clock() - start, 15 * CLOCKS_PER_SEC) << "of the processor, without optimisation";
        for (const auto &[tid, text] : {std::pair(1, c.first), std::pair(int{c.core.threads}, c.last)}) {
            const walked w = walk_thread(proc.get(), tid);
            EXPECT_EQ(w.frames.size(), 1U);
            EXPECT_NE(std::string(w.end.message).find(text), std::string::npos) << w.end.message;
        }
    }
}

} // namespace
