// SPDX-License-Identifier: Apache-2.0
//
// A sampling profiler of this process: its signal handler walks the stack wherever the thread happens to be, while nothing
// may be allocated. A handler that waits for a lock never comes back, and neither does this test then.
#include "krv_dwarf.h"
#include "support/allocations.h"
#include "support/handle.h"

#include <atomic>
#include <cstring>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <ucontext.h>

using namespace krv_test;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define KRV_TEST_SANITIZED
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define KRV_TEST_SANITIZED
#endif
#endif
#ifdef KRV_TEST_SANITIZED
constexpr unsigned SAMPLES = 3000, INTERVAL = 300000; // nanoseconds: time for some work in between
#else
constexpr unsigned SAMPLES = 100000, INTERVAL = 25000;
#endif

static thread_local bool in_handler;
static std::atomic<unsigned> forbidden; // allocations in the handler

static bool granted(size_t)
{
    if (in_handler)
        ++forbidden;
    return true;
}

namespace
{

struct profile {
    std::vector<krv_stack_module_t> modules;
    uint64_t low = 0, high = 0; // of the stack
    std::atomic<unsigned> samples = 0, whole = 0, deep = 0;
    std::atomic<uint64_t> odd_pc = 0; // of the last stack that did not end at its end
    std::atomic<int> odd_reason = 0;
    timer_t timer = {};

    ~profile()
    {
        for (const krv_stack_module_t &module : modules)
            korva_handle_free(module.handle);
    }
};

profile *running;

int64_t read_memory(void *, void *buf, size_t count, uint64_t address)
{
    std::memcpy(buf, reinterpret_cast<const void *>(address), count);
    return static_cast<int64_t>(count);
}

// A handle for every module that has call-frame information.
int add_module(dl_phdr_info *info, size_t, void *arg)
{
    auto *p = static_cast<profile *>(arg);
    for (const ElfW(Phdr) *segment = info->dlpi_phdr; segment < info->dlpi_phdr + info->dlpi_phnum; ++segment) {
        if (segment->p_type != PT_GNU_EH_FRAME)
            continue;
        const uint64_t header = info->dlpi_addr + segment->p_vaddr;
        const auto *bytes_there = reinterpret_cast<const uint8_t *>(header);
        EXPECT_EQ(bytes_there[1], DW_EH_PE_pcrel | DW_EH_PE_sdata4);
        int32_t distance;
        std::memcpy(&distance, bytes_there + 4, sizeof(distance));
        krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
        korva_attach_as(hp, read_memory, nullptr);
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, header + 4 + static_cast<uint64_t>(int64_t{distance}));
        korva_handle_set_opt(hp, KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
        korva_handle_set_opt(hp, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
        EXPECT_EQ(korva_frames_prefill(hp), 0) << info->dlpi_name << ": " << error_line(hp);
        p->modules.push_back({hp, 0});
    }
    return 0;
}

void sample(int, siginfo_t *, void *context)
{
    in_handler = true;
    static constexpr struct {
        int context, host;
    } numbers[] = {{REG_RBX, KRV_HOST_RBX}, {REG_RBP, KRV_HOST_RBP}, {REG_RSP, KRV_HOST_RSP}, {REG_R10, KRV_HOST_R10},
                   {REG_R12, KRV_HOST_R12}, {REG_R13, KRV_HOST_R13}, {REG_R14, KRV_HOST_R14}, {REG_R15, KRV_HOST_R15},
                   {REG_RDI, KRV_HOST_RDI}, {REG_RCX, KRV_HOST_RCX}, {REG_RDX, KRV_HOST_RDX}, {REG_RAX, KRV_HOST_RAX},
                   {REG_RIP, KRV_HOST_RIP}};
    const greg_t *gregs = static_cast<const ucontext_t *>(context)->uc_mcontext.gregs;
    profile *p = running;
    krv_stack_t stack = {};
    stack.modules = p->modules.data();
    stack.nmodules = p->modules.size();
    for (const auto &number : numbers) {
        stack.gregs[number.host] = gregs[number.context];
        stack.mask |= uint64_t{1} << number.host;
    }
    stack.low = p->low;
    stack.high = p->high;
    uint64_t addresses[128];
    krv_stack_end_t end;
    const size_t count = korva_stack_addresses(&stack, addresses, std::size(addresses), &end);
    if (++p->samples == SAMPLES) {
        const itimerspec never = {};
        timer_settime(p->timer, 0, &never, nullptr);
    }
    if (end.reason == KRV_STACK_END)
        ++p->whole;
    else
        p->odd_pc = end.pc, p->odd_reason = end.reason;
    if (count > 20)
        ++p->deep;
    in_handler = false;
}

std::atomic<uint64_t> sink;

// Recursion, through the C library and its own allocations.
[[gnu::noinline]] uint64_t work(unsigned depth)
{
    if (depth == 0)
        return sink;
    uint64_t numbers[8] = {depth, 3, 1, 7, 2, 9, 5, sink};
    std::qsort(numbers, 8, sizeof(numbers[0]), [](const void *a, const void *b) {
        return static_cast<int>(*static_cast<const uint64_t *>(a) & 15) -
               static_cast<int>(*static_cast<const uint64_t *>(b) & 15);
    });
    auto *volatile room = static_cast<char *>(std::malloc(16 + depth));
    std::memset(room, 1, 16);
    std::free(room);
    return work(depth - 1) + numbers[depth % 8];
}

} // namespace

// Signals come as fast as the system's clock gives them, wherever the work is; the last handler stops the clock.
TEST(Profiler, WalksInASignalHandler)
{
    profile p;
    running = &p;
    dl_iterate_phdr(add_module, &p);
    pthread_attr_t attributes;
    void *start = nullptr;
    size_t size = 0;
    ASSERT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
    pthread_attr_getstack(&attributes, &start, &size);
    pthread_attr_destroy(&attributes);
    p.low = reinterpret_cast<uintptr_t>(start);
    p.high = p.low + size;
    struct sigaction action = {}, before;
    action.sa_sigaction = sample;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    ASSERT_EQ(sigaction(SIGPROF, &action, &before), 0);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGPROF;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &p.timer), 0);
    const itimerspec every = {{0, INTERVAL}, {0, INTERVAL}};
    ASSERT_EQ(timer_settime(p.timer, 0, &every, nullptr), 0);
    while (p.samples < SAMPLES)
        sink += work(30) & 1;
    timer_delete(p.timer);
    sigaction(SIGPROF, &before, nullptr);
    EXPECT_EQ(forbidden, 0U);
    EXPECT_GT(p.deep, p.samples / 4);
    // Its own code and the C library's has rules throughout; a linker's jumps in between, and a sanitizer's, may not.
    EXPECT_GE(p.whole, p.samples - p.samples / 100) << "last: " << p.odd_reason << " at " << std::hex << p.odd_pc;
}
