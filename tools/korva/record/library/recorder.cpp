// SPDX-License-Identifier: Apache-2.0
//
// libkorva-record.so, which korva record has the dynamic linker load into the program that it runs. Each thread has a timer
// of its processor time, whose signal handler copies registers and stack into shared memory: it neither unwinds nor waits,
// and keeps nothing of modules, so that it does not matter what the program loads and unloads meanwhile. Blocking calls are
// not interrupted, but for those that are just about to block: a thread that does not run has no signals.
//
// A child of fork has no timers and begins none. A program that is executed comes up here anew. Nothing here is of the C++
// library: the program may be of any language.
#include "record/ring.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>

using namespace korva::program;

#define KORVA_INTERPOSED extern "C" __attribute__((visibility("default")))

namespace
{

constexpr int SIGNAL = SIGPROF;
constexpr time_t LONGEST_WAIT = 5;              // seconds, for the program that reads
constexpr uint32_t SAMPLES_WITHOUT_ROOM = 2000; // of one thread in sequence: nobody reads, and it records no longer

struct thread_record {
    bool is_recorded;
    timer_t timer;
    uint64_t low, high; // of its stack
    uint32_t without_room;
};

// In the program's own block of thread-local storage: a handler may not be the one that allocates another.
__attribute__((tls_model("initial-exec"))) thread_local thread_record self;

ring_header *ring; // NULL: this process is not recorded
pthread_key_t at_end;
pthread_once_t once = PTHREAD_ONCE_INIT;

uint64_t now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(t.tv_nsec);
}

// ---------------------------------------------------------------------------------------------------------------
// In the signal handler
// ---------------------------------------------------------------------------------------------------------------

// A place for a sample of `size` bytes; NULL: there is no room.
ring_sample *reserve(uint64_t size, uint64_t *position)
{
    uint64_t head = ring->head.load(std::memory_order_relaxed);
    do {
        if (head + size - ring->tail.load(std::memory_order_acquire) > RING_SIZE)
            return nullptr;
    } while (!ring->head.compare_exchange_weak(head, head + size, std::memory_order_relaxed));
    *position = head;
    return reinterpret_cast<ring_sample *>(reinterpret_cast<uint8_t *>(ring) + RING_PAGE + head % RING_SIZE);
}

// The thread's own stack lies there up to its end. Of another one, as of a coroutine, the end is not known: the system
// copies what there is.
size_t copy_stack(uint64_t sp, uint8_t *to, size_t size)
{
    const void *from = reinterpret_cast<const void *>(sp); // NOLINT(performance-no-int-to-ptr)
    if (sp >= self.low && sp < self.high) {
        std::memcpy(to, from, size);
        return size;
    }
    iovec remote[RING_STACK / RING_PAGE + 1];
    size_t count = 0;
    for (size_t done = 0; done < size; ++count) {
        const size_t part = RING_PAGE - (sp + done) % RING_PAGE;
        remote[count].iov_base = reinterpret_cast<void *>(sp + done); // NOLINT(performance-no-int-to-ptr)
        remote[count].iov_len = part < size - done ? part : size - done;
        done += remote[count].iov_len;
    }
    const iovec local = {to, size};
    const ssize_t got = process_vm_readv(getpid(), &local, 1, remote, count, 0);
    return got < 0 ? 0 : static_cast<size_t>(got);
}

void copy_registers(const ucontext_t *context, ring_sample *sample)
{
    static constexpr struct {
        int context, host;
    } numbers[] = {{REG_RAX, KRV_HOST_RAX}, {REG_RBX, KRV_HOST_RBX}, {REG_RCX, KRV_HOST_RCX}, {REG_RDX, KRV_HOST_RDX},
                   {REG_RSI, KRV_HOST_RSI}, {REG_RDI, KRV_HOST_RDI}, {REG_RBP, KRV_HOST_RBP}, {REG_RSP, KRV_HOST_RSP},
                   {REG_R8, KRV_HOST_R8},   {REG_R9, KRV_HOST_R9},   {REG_R10, KRV_HOST_R10}, {REG_R11, KRV_HOST_R11},
                   {REG_R12, KRV_HOST_R12}, {REG_R13, KRV_HOST_R13}, {REG_R14, KRV_HOST_R14}, {REG_R15, KRV_HOST_R15},
                   {REG_RIP, KRV_HOST_RIP}};
    std::memset(sample->gregs, 0, sizeof(sample->gregs));
    sample->mask = 0;
    for (const auto &number : numbers) {
        sample->gregs[number.host] = context->uc_mcontext.gregs[number.context];
        sample->mask |= uint64_t{1} << number.host;
    }
}

void disarm()
{
    const itimerspec never = {};
    timer_settime(self.timer, 0, &never, nullptr);
}

void on_tick(int, siginfo_t *info, void *context)
{
    if (!self.is_recorded || info->si_code != SI_TIMER)
        return;
    const int error = errno;
    const uint64_t begin = now();
    const auto *where = static_cast<const ucontext_t *>(context);
    const auto sp = static_cast<uint64_t>(where->uc_mcontext.gregs[REG_RSP]);
    const uint64_t stack =
        sp >= self.low && sp < self.high && self.high - sp < RING_STACK ? self.high - sp : RING_STACK;
    const uint64_t size = (sizeof(ring_sample) + stack + RING_GRAIN - 1) / RING_GRAIN * RING_GRAIN;
    uint64_t position = 0;
    ring_sample *sample = nullptr;
    if (info->si_overrun > 0)
        ring->lost.fetch_add(static_cast<uint64_t>(info->si_overrun), std::memory_order_relaxed);
    if (ring->ended.load(std::memory_order_relaxed) == 0)
        sample = reserve(size, &position);
    if (sample != nullptr) {
        self.without_room = 0;
        sample->size = size;
        sample->tid = static_cast<int32_t>(syscall(SYS_gettid));
        prctl(PR_GET_NAME, sample->name);
        copy_registers(where, sample);
        sample->stack_start = sp;
        sample->stack_size = static_cast<uint32_t>(copy_stack(sp, reinterpret_cast<uint8_t *>(sample + 1), stack));
        sample->nanoseconds = now() - begin;
        sample->mark.store(position + 1, std::memory_order_release);
    } else {
        ring->lost.fetch_add(1, std::memory_order_relaxed);
        if (ring->ended.load(std::memory_order_relaxed) != 0 || ++self.without_room == SAMPLES_WITHOUT_ROOM)
            disarm();
    }
    errno = error;
}

// ---------------------------------------------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------------------------------------------

// The functions in whose place those below are. Found before handlers of the program may call them.
struct {
    decltype(::pthread_create) *create;
    decltype(::pthread_sigmask) *thread_mask;
    decltype(::sigprocmask) *process_mask;
    decltype(::sigaction) *action;
    decltype(::signal) *signal;
} real;

template <typename F>
void find(F **function, const char *name)
{
    *function = reinterpret_cast<F *>(dlsym(RTLD_NEXT, name));
}

void find_functions()
{
    if (real.signal != nullptr)
        return;
    find(&real.create, "pthread_create");
    find(&real.thread_mask, "pthread_sigmask");
    find(&real.process_mask, "sigprocmask");
    find(&real.action, "sigaction");
    find(&real.signal, "signal");
}

void allow_signal()
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, SIGNAL);
    syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &one, nullptr, static_cast<size_t>(_NSIG / 8));
}

// Of a child of fork: its thread has the record, but no timer.
bool is_recorded_process()
{
    return ring != nullptr && ring->pid.load(std::memory_order_relaxed) == static_cast<uint32_t>(getpid());
}

timespec to_timespec(uint64_t nanoseconds)
{
    return {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
}

void begin_thread()
{
    pthread_attr_t attributes;
    void *start = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstack(&attributes, &start, &size);
        pthread_attr_destroy(&attributes);
    }
    self.low = reinterpret_cast<uintptr_t>(start);
    self.high = self.low + size;
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGNAL;
    event._sigev_un._tid = static_cast<int>(syscall(SYS_gettid));
    if (timer_create(CLOCK_THREAD_CPUTIME_ID, &event, &self.timer) != 0) {
        ring->refused.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    self.is_recorded = true;
    pthread_setspecific(at_end, &self);
    allow_signal();
    // The first one anywhere within an interval: else no thread that takes less than that would ever be seen.
    const uint64_t first = 1 + static_cast<uint64_t>(event._sigev_un._tid) * 0x9E3779B97F4A7C15 % ring->interval;
    const itimerspec every = {to_timespec(ring->interval), to_timespec(first)};
    timer_settime(self.timer, 0, &every, nullptr);
}

void end_thread(void *)
{
    self.is_recorded = false;
    if (is_recorded_process())
        timer_delete(self.timer);
}

// Waits until a word is what it should be; false when that takes too long.
template <typename F>
bool wait_for(std::atomic<uint32_t> *word, const F &is_there)
{
    const uint64_t end = now() + uint64_t{LONGEST_WAIT} * 1'000'000'000;
    for (uint32_t seen = word->load(); !is_there(seen); seen = word->load()) {
        if (now() >= end)
            return false;
        const timespec most = {0, 50'000'000};
        syscall(SYS_futex, word, FUTEX_WAIT, seen, &most, nullptr, 0);
    }
    return true;
}

// Says that this program is there, and waits until the other one knows its modules. False: it is not this process that is
// recorded, or nobody answers.
bool greet(ring_header *header)
{
    if (header->version != RING_VERSION || !wait_for(&header->pid, [](uint32_t pid) { return pid != 0; }) ||
        header->pid != static_cast<uint32_t>(getpid()) || header->ended != 0)
        return false;
    const uint32_t number = header->hello.fetch_add(1) + 1;
    return wait_for(&header->welcome, [number](uint32_t said) { return said >= number; }) && header->ended == 0;
}

void begin_process()
{
    const char *path = std::getenv(RING_VARIABLE);
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return;
    uint8_t *mapped = map_ring(fd);
    close(fd);
    if (mapped == nullptr)
        return;
    auto *header = reinterpret_cast<ring_header *>(mapped);
    if (!greet(header) || pthread_key_create(&at_end, end_thread) != 0) {
        munmap(mapped, RING_PAGE + 2 * RING_SIZE);
        return;
    }
    struct sigaction action = {};
    action.sa_sigaction = on_tick;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    sigfillset(&action.sa_mask);
    real.action(SIGNAL, &action, nullptr);
    ring = header;
    begin_thread();
}

__attribute__((constructor)) void load()
{
    const int error = errno;
    find_functions();
    pthread_once(&once, begin_process);
    errno = error;
}

struct beginning {
    void *(*function)(void *);
    void *argument;
};

void *run_thread(void *arg)
{
    const beginning b = *static_cast<beginning *>(arg);
    std::free(arg);
    if (is_recorded_process())
        begin_thread();
    return b.function(b.argument);
}

// A set without the signal of the recording.
const sigset_t *without_signal(int how, const sigset_t *set, sigset_t *room)
{
    if (set == nullptr || how == SIG_UNBLOCK || !is_recorded_process())
        return set;
    *room = *set;
    sigdelset(room, SIGNAL);
    return room;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// In the place of the C library's functions
// ---------------------------------------------------------------------------------------------------------------

KORVA_INTERPOSED int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*function)(void *),
                                    void *argument)
{
    find_functions();
    pthread_once(&once, begin_process);
    auto *b = is_recorded_process() ? static_cast<beginning *>(std::malloc(sizeof(beginning))) : nullptr;
    if (b == nullptr)
        return real.create(thread, attributes, function, argument);
    *b = {function, argument};
    const int result = real.create(thread, attributes, run_thread, b);
    if (result != 0)
        std::free(b);
    return result;
}

// A program that blocks all signals in its threads, and waits for them in one of them, means its own.
KORVA_INTERPOSED int pthread_sigmask(int how, const sigset_t *set, sigset_t *before)
{
    find_functions();
    sigset_t room;
    return real.thread_mask(how, without_signal(how, set, &room), before);
}

KORVA_INTERPOSED int sigprocmask(int how, const sigset_t *set, sigset_t *before) noexcept
{
    find_functions();
    sigset_t room;
    return real.process_mask(how, without_signal(how, set, &room), before);
}

// One that resets all signals would be ended by the next sample.
KORVA_INTERPOSED int sigaction(int number, const struct sigaction *action, struct sigaction *before) noexcept
{
    find_functions();
    if (number != SIGNAL || !is_recorded_process())
        return real.action(number, action, before);
    if (before != nullptr)
        *before = {};
    return 0;
}

KORVA_INTERPOSED sighandler_t signal(int number, sighandler_t handler) noexcept
{
    find_functions();
    return number != SIGNAL || !is_recorded_process() ? real.signal(number, handler) : SIG_DFL;
}
