// SPDX-License-Identifier: Apache-2.0
//
// Walks of live processes (stack_test.py holds them against other tools); and of the test itself, as the compiler's
// runtime has it: program counter, stack pointer, preserved registers.
#include "process.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <sys/ptrace.h>
#include <unistd.h>
#include <unwind.h>

using namespace krv_test;

// The signal of these tests is raised where nothing is interrupted that a handler could disturb.
extern "C" const char *__tsan_default_options()
{
    return "report_signal_unsafe=0";
}

namespace
{

using LiveWalk = Process;

// What holds of every frame of every walk.
int check_frame(krv_proc_t *proc, const krv_proc_frame_t *frame, void *arg)
{
    auto *last = static_cast<krv_proc_frame_t *>(arg);
    EXPECT_EQ(frame->lookup_pc,
              frame->index == 0 || frame->is_signal_frame || last->is_signal_frame ? frame->pc : frame->pc - 1);
    EXPECT_EQ(frame->module, korva_proc_find_module(proc, frame->lookup_pc));
    EXPECT_NE(frame->handle, nullptr);
    const auto get = [&](krv_frame_type_t of, krv_reg_type_t type, unsigned int reg) {
        return greg_of(frame->handle, frame->activation, of, type, reg);
    };
    const std::string cfa = get(KRV_ACTIVATION_FRAME_CURRENT, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_CFA);
    const std::string caller_sp = get(KRV_ACTIVATION_FRAME_CALLER, KRV_ACTIVATION_REG_DWARF, 7);
    EXPECT_EQ(cfa, text("%lx", frame->cfa));
    EXPECT_TRUE(frame->is_signal_frame || caller_sp == cfa) << caller_sp;
    const std::string xmm = get(KRV_ACTIVATION_FRAME_CURRENT, KRV_ACTIVATION_REG_DWARF, 17);
    EXPECT_EQ(xmm.starts_with("NOTFOUND"), frame->index != 0) << "floating-point registers are the topmost frame's";
    *last = *frame;
    return 0;
}

TEST_F(LiveWalk, FramesAreSound)
{
    const struct {
        const char *program, *mode;
        size_t frames; // at least
    } rows[] = {
        {"target_o0", "callback", 9},     {"target_o2", "signal", 9},          {"target_o2", "altstack", 9},
        {"target_o2", "callback", 9},     {"target_static", "signal", 9},      {"target_static", "stray", 3},
        {"target_no_hdr", "callback", 9}, {"target_debug_frame", "signal", 9},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(text("%s %s", row.program, row.mode));
        const running_target target(row.program, row.mode);
        const proc_ptr proc = attach(target.pid());
        ASSERT_NE(proc, nullptr);
        krv_proc_frame_t last = {};
        krv_proc_end_t end = {};
        EXPECT_EQ(korva_proc_walk(proc.get(), target.pid(), 0, check_frame, &last, &end), 0);
        EXPECT_EQ(end.reason, KRV_PROC_END_OUTERMOST) << end.message;
        EXPECT_EQ(end.pc, last.pc);
        const walked w = walk_thread(proc.get(), target.pid());
        EXPECT_TRUE(end.frames >= row.frames && end.frames == w.frames.size()) << end.frames;
        const auto trampolines =
            std::count_if(w.frames.begin(), w.frames.end(), [](auto &f) { return f.is_signal_frame; });
        EXPECT_EQ(trampolines, std::strcmp(row.mode, "signal") == 0 || std::strcmp(row.mode, "altstack") == 0 ? 1 : 0);
    }
}

TEST_F(LiveWalk, EndForTheReasonTheyGive)
{
    const running_target target("target_o0", "recurse", 50);
    const proc_ptr proc = attach(target.pid());
    ASSERT_NE(proc, nullptr);
    const walked whole = walk_thread(proc.get(), target.pid());
    const size_t all = whole.frames.size();

    const walked limited = walk_thread(proc.get(), target.pid(), 10);
    EXPECT_EQ(limited.end.reason, KRV_PROC_END_LIMIT);
    EXPECT_EQ(limited.frames.size(), 10U);
    EXPECT_EQ(limited.end.pc, whole.frames[9].pc);
    EXPECT_EQ(walk_thread(proc.get(), target.pid(), static_cast<unsigned>(all)).end.reason, KRV_PROC_END_OUTERMOST);

    krv_proc_end_t end = {};
    EXPECT_EQ(korva_proc_walk(
                  proc.get(), target.pid(), 0,
                  [](krv_proc_t *, const krv_proc_frame_t *f, void *) { return f->index == 3 ? 77 : 0; }, nullptr,
                  &end),
              77);
    EXPECT_EQ(end.reason, KRV_PROC_END_STOPPED);
    EXPECT_EQ(end.frames, 4U);

    const walked nobody = walk_thread(proc.get(), 1);
    EXPECT_EQ(nobody.result, -1);
    EXPECT_EQ(nobody.end.reason, KRV_PROC_END_ERROR);
    EXPECT_NE(std::string(nobody.end.message).find("no thread 1"), std::string::npos) << nobody.end.message;
}

TEST_F(LiveWalk, OutliveTheMainThread)
{
    const running_target target("target_o2", "ended");
    ASSERT_TRUE(target.wait_for_state('Z'));
    const proc_ptr proc = attach(target.pid());
    ASSERT_NE(proc, nullptr);
    const stacks ours = our_stacks(proc.get());
    ASSERT_EQ(ours.size(), 1U);
    EXPECT_NE(ours.begin()->first, target.pid());
    EXPECT_EQ(walk_thread(proc.get(), ours.begin()->first).end.reason, KRV_PROC_END_OUTERMOST);
}

TEST_F(LiveWalk, MayBeNested)
{
    const running_target target("target_o0", "pause");
    const proc_ptr proc = attach(target.pid());
    ASSERT_NE(proc, nullptr);
    struct context {
        int tid;
        std::vector<uint64_t> outer, inner;
    } c = {target.pid(), {}, {}};
    korva_proc_walk(
        proc.get(), c.tid, 0,
        [](krv_proc_t *p, const krv_proc_frame_t *frame, void *arg) {
            auto *both = static_cast<context *>(arg);
            both->outer.push_back(frame->pc);
            both->inner = walk_thread(p, both->tid).pcs();
            return 0;
        },
        &c, nullptr);
    EXPECT_EQ(c.outer, c.inner);
}

// The test itself.

// A frame in a line: program counter, stack pointer, preserved registers.
constexpr unsigned int preserved[] = {3, 6, 12, 13, 14, 15}; // DWARF numbers

_Unwind_Reason_Code keep_their_frame(_Unwind_Context *context, void *arg)
{
    std::string line = text("pc %lx sp %lx", _Unwind_GetIP(context), _Unwind_GetCFA(context));
    for (const unsigned int reg : preserved)
        line += text(" %lx", _Unwind_GetGR(context, static_cast<int>(reg)));
    if (_Unwind_GetIP(context) != 0)
        static_cast<std::vector<std::string> *>(arg)->push_back(line);
    return _URC_NO_REASON;
}

int keep_our_frame(krv_proc_t *, const krv_proc_frame_t *frame, void *arg)
{
    const auto get = [&](unsigned int reg) {
        return greg_of(frame->handle, frame->activation, KRV_ACTIVATION_FRAME_CURRENT, KRV_ACTIVATION_REG_DWARF, reg);
    };
    std::string line = text("pc %lx sp ", frame->pc) + get(7);
    for (const unsigned int reg : preserved)
        line += " " + get(reg);
    static_cast<std::vector<std::string> *>(arg)->push_back(line);
    return 0;
}

struct own_stacks {
    krv_proc_t *proc;
    std::vector<std::string> ours = {}, theirs = {};
    krv_proc_end_t end = {};
    krv_proc_frame_t first = {};
};

[[gnu::noinline]] void capture(own_stacks *s)
{
    s->first = walk_thread(s->proc, 0).frames.at(0);
    korva_proc_walk(s->proc, 0, 0, keep_our_frame, &s->ours, &s->end);
    _Unwind_Backtrace(keep_their_frame, &s->theirs);
}

// Frames of variable size, addressed through the frame pointer.
[[gnu::noinline]] int capture_below(int levels, own_stacks *s)
{
    auto *room = static_cast<volatile char *>(__builtin_alloca(static_cast<size_t>(levels) * 40 + 1));
    room[0] = 1;
    if (levels == 0)
        capture(s);
    else
        capture_below(levels - 1, s);
    return room[0];
}

// From where both are the same: those of the functions that captured them stand at different calls.
std::vector<std::string> tail(const std::vector<std::string> &frames, size_t count)
{
    return {frames.end() - static_cast<ptrdiff_t>(std::min(count, frames.size())), frames.end()};
}

TEST(OwnWalk, IsThatOfTheUnwinder)
{
    const proc_ptr proc(korva_proc_self(nullptr));
    ASSERT_NE(proc, nullptr);
    own_stacks s = {proc.get()};
    capture_below(20, &s);
    EXPECT_EQ(s.end.reason, KRV_PROC_END_OUTERMOST) << s.end.message;
    ASSERT_GT(s.theirs.size(), 25U);
    EXPECT_EQ(s.ours.size(), s.theirs.size());
    EXPECT_EQ(tail(s.ours, s.theirs.size() - 1), tail(s.theirs, s.theirs.size() - 1));

    Dl_info first = {}, expected = {};
    ASSERT_NE(dladdr(reinterpret_cast<void *>(s.first.pc), &first), 0);
    ASSERT_NE(dladdr(reinterpret_cast<void *>(walk_thread), &expected), 0);
    EXPECT_EQ(first.dli_fbase, expected.dli_fbase) << "the first frame is the caller's, not the library's";
}

own_stacks *in_handler;

void handle_signal(int, siginfo_t *, void *context)
{
    korva_proc_walk_context(in_handler->proc, context, 0, keep_our_frame, &in_handler->ours, &in_handler->end);
    _Unwind_Backtrace(keep_their_frame, &in_handler->theirs);
}

TEST(OwnWalk, BeginsWhereASignalInterrupted)
{
    const proc_ptr proc(korva_proc_self(nullptr));
    ASSERT_NE(proc, nullptr);
    own_stacks s = {proc.get()};
    in_handler = &s;
    struct sigaction action = {}, before = {};
    action.sa_sigaction = handle_signal;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &action, &before);
    raise(SIGUSR1);
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(s.end.reason, KRV_PROC_END_OUTERMOST) << s.end.message;
    ASSERT_GT(s.ours.size(), 3U);
    EXPECT_EQ(s.ours, tail(s.theirs, s.ours.size()));
}

TEST(OwnWalk, SeesLibrariesLoadedSince)
{
    const proc_ptr proc(korva_proc_self(nullptr));
    ASSERT_NE(proc, nullptr);
    void *library = dlopen("libBrokenLocale.so.1", RTLD_NOW);
    if (library == nullptr)
        GTEST_SKIP() << "a small library to load is missing: " << dlerror();
    Dl_info info = {};
    ASSERT_NE(dladdr(dlsym(library, "__ctype_get_mb_cur_max"), &info), 0);
    const auto base = reinterpret_cast<uint64_t>(info.dli_fbase);
    EXPECT_EQ(korva_proc_find_module(proc.get(), base), nullptr);
    const krv_proc_module_t *own = korva_proc_find_module(proc.get(), reinterpret_cast<uint64_t>(&handle_signal));
    ASSERT_EQ(korva_proc_refresh(proc.get(), nullptr), 0);
    const krv_proc_module_t *fresh = korva_proc_find_module(proc.get(), base);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->path, std::filesystem::canonical(info.dli_fname));
    EXPECT_EQ(korva_proc_find_module(proc.get(), reinterpret_cast<uint64_t>(&handle_signal)), own) << "records stay";
    dlclose(library);
    ASSERT_EQ(korva_proc_refresh(proc.get(), nullptr), 0);
    EXPECT_EQ(korva_proc_find_module(proc.get(), base), nullptr);
    EXPECT_NE(std::string(fresh->path).find("libBrokenLocale"), std::string::npos) << "also those of modules unloaded";
}

TEST(OwnWalk, HasNoRegistersOfOtherThreads)
{
    const proc_ptr proc(korva_proc_self(nullptr));
    ASSERT_NE(proc, nullptr);
    const walked w = walk_thread(proc.get(), 1);
    EXPECT_EQ(w.result, -1);
    EXPECT_NE(std::string(w.end.message).find("is running"), std::string::npos) << w.end.message;
}

} // namespace
