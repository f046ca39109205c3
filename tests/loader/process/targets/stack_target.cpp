// SPDX-License-Identifier: Apache-2.0
//
// A program whose stacks the tests walk. Its first argument says how it gets into the position to be seen; it says
// "ready" on standard output just before, and stays there until it is killed.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#define NOINLINE __attribute__((noinline))

static volatile int sink;       // written after calls, so that they are no tail calls
static volatile bool on = true; // always; the compiler does not know, and sees no recursion without an end
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t never = PTHREAD_COND_INITIALIZER;
static int waiting; // threads in wait_in_condition, counted under the mutex
static char signal_stack[65536];

static void say(const char *text)
{
    if (write(1, text, std::strlen(text)) < 0)
        _exit(1);
}

NOINLINE static void stay()
{
    say("ready\n");
    while (on)
        pause();
}

NOINLINE static void recurse(int levels)
{
    volatile char padding[40];
    padding[0] = static_cast<char>(levels);
    if (levels == 0)
        stay();
    else
        recurse(levels - 1);
    sink = padding[0];
}

NOINLINE static void wait_in_condition()
{
    pthread_mutex_lock(&mutex);
    ++waiting;
    for (;;)
        pthread_cond_wait(&never, &mutex);
}

static void *enter_thread(void *arg)
{
    char name[16];
    std::snprintf(name, sizeof(name), "waiter%d", static_cast<int>(reinterpret_cast<long>(arg)));
    pthread_setname_np(pthread_self(), name);
    wait_in_condition();
    return nullptr;
}

NOINLINE static void start_threads(int count)
{
    for (long i = 0; i < count; ++i) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, enter_thread, reinterpret_cast<void *>(i)) != 0)
            std::abort();
    }
    for (int there = 0; there < count; usleep(1000)) {
        pthread_mutex_lock(&mutex);
        there = waiting;
        pthread_mutex_unlock(&mutex);
    }
    stay();
}

NOINLINE static void be_interrupted(int flags)
{
    struct sigaction action = {};
    action.sa_sigaction = [](int, siginfo_t *, void *) {
        stay();
        sink = 1;
    };
    action.sa_flags = SA_SIGINFO | flags;
    stack_t stack = {};
    stack.ss_sp = signal_stack;
    stack.ss_size = sizeof(signal_stack);
    sigaltstack(&stack, nullptr);
    sigaction(SIGSEGV, &action, nullptr);
    *static_cast<volatile int *>(nullptr) = 1; // the interrupted instruction may be the first of its line
}

// Landing pads give the function a personality routine, which position-independent code names indirectly.
struct cleaner {
    ~cleaner() { sink = 2; }
};

NOINLINE static int compare(const void *, const void *)
{
    const cleaner at_end;
    stay();
    return 0;
}

NOINLINE static void sort_something()
{
    const cleaner at_end;
    int numbers[] = {3, 1, 2};
    std::qsort(numbers, 3, sizeof(numbers[0]), compare);
}

NOINLINE static void wait_for_child()
{
    if (vfork() == 0)
        stay();
}

NOINLINE static void count_signals()
{
    std::signal(SIGRTMIN, [](int) { say("x"); });
    stay();
}

NOINLINE static void keep_creating_threads()
{
    say("ready\n");
    for (;; usleep(50)) {
        pthread_t thread;
        if (pthread_create(
                &thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr) == 0)
            pthread_detach(thread);
    }
}

NOINLINE static void crash(int levels)
{
    if (levels > 0)
        crash(levels - 1);
    else if (on)
        std::abort();
    sink = levels;
}

// Maps the program once more, as profilers do, but right below where it runs: by its headers it would reach into that.
extern "C" const char __ehdr_start[] __attribute__((visibility("hidden")));

NOINLINE static void map_again()
{
    const size_t size = 0x10000;
    const int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    void *below = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(__ehdr_start) - size);
    if (mmap(below, size, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_FIXED_NOREPLACE, fd, 0) == below)
        stay();
}

// The commonest crash there is.
NOINLINE static void call_nothing(void (*function)())
{
    function();
    sink = 3;
}

NOINLINE static void end_main_thread()
{
    static pthread_t self = pthread_self();
    pthread_t thread;
    const auto outlive = [](void *) -> void * {
        pthread_join(self, nullptr);
        stay();
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, outlive, nullptr) == 0)
        pthread_exit(nullptr);
}

// On SIGUSR1.
NOINLINE static void become_another()
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, SIGUSR1);
    sigprocmask(SIG_BLOCK, &one, nullptr);
    say("ready\n");
    int number = 0;
    if (sigwait(&one, &number) == 0)
        execlp("sleep", "sleep", "1000", nullptr);
}

static const struct {
    const char *name;
    void (*enter)(int number);
} modes[] = {
    {"pause", [](int) { stay(); }},
    {"recurse", recurse},
    {"threads", start_threads},
    {"signal", [](int) { be_interrupted(0); }},
    {"altstack", [](int) { be_interrupted(SA_ONSTACK); }},
    {"callback", [](int) { sort_something(); }},
    {"vfork", [](int) { wait_for_child(); }},
    {"count", [](int) { count_signals(); }},
    {"create", [](int) { keep_creating_threads(); }},
    {"crash", crash},
    {"stray", [](int) { map_again(); }},
    {"ended", [](int) { end_main_thread(); }},
    {"exec", [](int) { become_another(); }},
    {"null", [](int number) { call_nothing(reinterpret_cast<void (*)()>(number)); }},
};

int main(int argc, char **argv)
{
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY); // the tests' oracles are not its parents
    for (const auto &mode : modes)
        if (argc > 1 && std::strcmp(argv[1], mode.name) == 0)
            mode.enter(argc > 2 ? std::atoi(argv[2]) : 0);
    return 1;
}
