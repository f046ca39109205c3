// SPDX-License-Identifier: Apache-2.0
//
// This process walks the stack of one of its own threads, through its own memory and the .eh_frame_hdr of whatever is
// loaded, and agrees with the compiler's runtime frame by frame: program counter, stack pointer, preserved registers.
#include "support/activation.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

using namespace krv_test;

namespace
{

constexpr unsigned int preserved[] = {3, 6, 12, 13, 14, 15}; // DWARF numbers, and the same in a context
constexpr int preserved_context[] = {REG_RBX, REG_RBP, REG_R12, REG_R13, REG_R14, REG_R15};

struct frame {
    uint64_t pc, sp, regs[std::size(preserved)];

    std::string line() const
    {
        std::string s = text("pc %lx sp %lx:", pc, sp);
        for (const uint64_t reg : regs)
            s += text(" %lx", reg);
        return s;
    }
};

struct walks {
    ucontext_t context; // of the innermost frame
    std::vector<std::string> ours, theirs;
    std::string end; // what ended ours
};

} // namespace

static int64_t read_self(void *, void *buf, size_t count, uint64_t address)
{
    const iovec local = {buf, count};
    iovec remote = {nullptr, count};
    std::memcpy(&remote.iov_base, &address, sizeof(address));
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
}

static uint64_t find_eh_frame_hdr(uint64_t pc)
{
    const auto find = [](dl_phdr_info *info, size_t, void *arg) {
        auto *pcp = static_cast<uint64_t *>(arg);
        bool holds = false;
        uint64_t hdr = 0;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
            const ElfW(Phdr) &ph = info->dlpi_phdr[i];
            const uint64_t start = info->dlpi_addr + ph.p_vaddr;
            holds = holds || (ph.p_type == PT_LOAD && *pcp >= start && *pcp - start < ph.p_memsz);
            if (ph.p_type == PT_GNU_EH_FRAME)
                hdr = start;
        }
        if (holds)
            *pcp = hdr;
        return holds ? 1 : 0;
    };
    return dl_iterate_phdr(find, &pc) == 1 ? pc : 0;
}

// One frame outwards. Returns what prevented it, else nothing.
static std::string step(frame *f, bool innermost)
{
    const uint64_t hdr = find_eh_frame_hdr(f->pc);
    handle h;
    int32_t to_eh_frame = 0; // eh_frame_ptr; every linker writes DW_EH_PE_pcrel | DW_EH_PE_sdata4
    if (hdr == 0 || read_self(nullptr, &to_eh_frame, 4, hdr + 4) != 4)
        return "no .eh_frame_hdr";
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_HDR_ADDR, hdr);
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, hdr + 4 + static_cast<uint64_t>(int64_t{to_eh_frame}));
    korva_attach_as(h, read_self, nullptr);
    const krv_activation_owner ap(korva_activation_alloc(h));
    const auto set = [&](krv_reg_type_t type, unsigned int reg, uint64_t value) {
        korva_activation_set_greg(h, ap.get(), type, reg, static_cast<krv_greg_t>(value));
    };
    const auto get = [&](krv_reg_type_t type, unsigned int reg, uint64_t *valuep) {
        return korva_activation_get_reg(h, ap.get(), type, KRV_ACTIVATION_FRAME_CURRENT, reg, valuep, 8) == 0;
    };
    // A return address may be the first byte behind its function: what counts is the call.
    set(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, innermost ? f->pc : f->pc - 1);
    set(KRV_ACTIVATION_REG_DWARF, 7, f->sp);
    for (size_t i = 0; i < std::size(preserved); ++i)
        set(KRV_ACTIVATION_REG_DWARF, preserved[i], f->regs[i]);
    bool good = korva_activation_unwind(h, ap.get()) == 0 && get(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, &f->pc) &&
                get(KRV_ACTIVATION_REG_DWARF, 7, &f->sp);
    for (size_t i = 0; i < std::size(preserved); ++i)
        good = good && get(KRV_ACTIVATION_REG_DWARF, preserved[i], &f->regs[i]);
    return good ? "" : h.error();
}

static _Unwind_Reason_Code record(_Unwind_Context *context, void *arg)
{
    frame f = {_Unwind_GetIP(context), _Unwind_GetCFA(context), {}};
    for (size_t i = 0; i < std::size(preserved); ++i)
        f.regs[i] = _Unwind_GetGR(context, static_cast<int>(preserved[i]));
    if (f.pc != 0)
        static_cast<walks *>(arg)->theirs.push_back(f.line());
    return _URC_NO_REASON;
}

[[gnu::noinline]] static void walk(walks *w)
{
    const greg_t *g = w->context.uc_mcontext.gregs;
    frame f = {static_cast<uint64_t>(g[REG_RIP]), static_cast<uint64_t>(g[REG_RSP]), {}};
    for (size_t i = 0; i < std::size(preserved); ++i)
        f.regs[i] = static_cast<uint64_t>(g[preserved_context[i]]);
    while ((w->end = step(&f, w->ours.empty())).empty())
        w->ours.push_back(f.line());
}

// The functions walked have nothing to clean up, so that their call-frame information names no personality routine: in
// position-independent code it is named indirectly, which the core refuses. The thread sanitizer would add something.
#ifdef __clang__
#define WALKED [[gnu::noinline, clang::disable_sanitizer_instrumentation]]
#else
#define WALKED [[gnu::noinline, gnu::no_sanitize("thread")]]
#endif

WALKED static int look(walks *w)
{
    getcontext(&w->context);
    _Unwind_Backtrace(record, w);
    walk(w);
    return 0;
}

static int descend(walks *w, int depth);

// A frame of another shape: of variable size, addressed through the frame pointer.
WALKED static int descend_by(walks *w, int depth)
{
    auto *room = static_cast<volatile char *>(__builtin_alloca(static_cast<size_t>(depth) * 40 + 1));
    room[0] = 1;
    return descend(w, depth - 1) + room[0];
}

WALKED static int descend(walks *w, int depth)
{
    volatile int more = 1;
    return (depth == 0 ? look(w) : descend_by(w, depth)) + more;
}

WALKED static void *thread_main(void *arg)
{
    descend(static_cast<walks *>(arg), 8);
    return nullptr;
}

TEST(SelfUnwind, AgreesWithTheRuntime)
{
    char byte = 0, copy = 0;
    if (read_self(nullptr, &copy, 1, reinterpret_cast<uint64_t>(&byte)) != 1)
        GTEST_SKIP() << "this system does not let a process read its own memory";
    walks w = {};
    pthread_t thread; // below its frames there is only the C library
    ASSERT_EQ(pthread_create(&thread, nullptr, thread_main, &w), 0);
    pthread_join(thread, nullptr);
    ASSERT_FALSE(w.theirs.empty());
    w.theirs.erase(w.theirs.begin());       // the innermost frame stands at another call
    EXPECT_GE(w.ours.size(), 18U) << w.end; // out to thread_main
    EXPECT_LE(w.ours.size(), w.theirs.size());
    for (size_t i = 0; i < w.ours.size() && i < w.theirs.size(); ++i)
        EXPECT_EQ(w.ours[i], w.theirs[i]) << "frame " << i + 1;
    std::printf("%zu of %zu frames; ended by: %s\n", w.ours.size(), w.theirs.size(), w.end.c_str());
}
