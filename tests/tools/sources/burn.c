/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A program to record: its functions do known shares of its work.
 *   burn MODE SECONDS     of processor time, for each thread that works
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static volatile unsigned long sink;
static double seconds;

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

__attribute__((noinline)) static void work(unsigned long steps)
{
    for (unsigned long i = 0; i < steps; ++i)
        sink += i;
}

__attribute__((noinline)) static void seventy(unsigned long share)
{
    work(70 * share);
    sink++; /* no tail call */
}

__attribute__((noinline)) static void thirty(unsigned long share)
{
    work(30 * share);
    sink++;
}

__attribute__((noinline)) static void both(void)
{
    unsigned long long random = (unsigned long long)(now() * 1e9);
    for (const double end = now() + seconds; now() < end;) { /* never in step with a clock */
        random = random * 6364136223846793005ULL + 1442695040888963407ULL;
        seventy(2000 + (random >> 33) % 16000);
        thirty(2000 + (random >> 33) % 16000);
    }
}

static void *burn_in_thread(void *name)
{
    pthread_setname_np(pthread_self(), name);
    both();
    return NULL;
}

static void *do_nothing(void *unused)
{
    work(10000);
    return unused;
}

/* Threads that come and go, and processes. */
static int churn(void)
{
    const double end = now() + seconds;
    for (unsigned n = 0; now() < end; ++n) {
        pthread_t threads[4];
        for (int i = 0; i < 4; ++i)
            if (pthread_create(&threads[i], NULL, do_nothing, NULL) != 0)
                return 1;
        for (int i = 0; i < 4; ++i)
            pthread_join(threads[i], NULL);
        if (n % 8 != 0)
            continue;
        const pid_t child = fork();
        if (child == 0) {
            work(100000);
            _exit(7);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 7)
            return 2;
    }
    return 0;
}

static void *burn_and_tell(void *unused)
{
    both();
    kill(getpid(), SIGUSR1);
    return unused;
}

/* All signals are blocked, and waited for in one place, which has to see none but ours. */
static int wait_for_signals(void)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, NULL);
    for (int number = 1; number < 32; ++number)
        signal(number, SIG_DFL);
    pthread_t thread;
    int number = 0;
    if (pthread_create(&thread, NULL, burn_and_tell, NULL) != 0 || sigwait(&all, &number) != 0)
        return 1;
    pthread_join(thread, NULL);
    return number == SIGUSR1 ? 0 : 2;
}

/* Code that comes while it is recorded, and goes. */
static int call_library(const char *path)
{
    void *library = dlopen(path, RTLD_NOW);
    void (*burn)(double) = library == NULL ? NULL : (void (*)(double))dlsym(library, "burn_in_library");
    if (burn == NULL)
        return 1;
    burn(seconds);
    return dlclose(library);
}

int main(int argc, char **argv)
{
    const char *mode = argc < 3 ? "" : argv[1];
    seconds = argc < 3 ? 0 : atof(argv[2]);
    if (strcmp(mode, "churn") == 0)
        return churn();
    if (strcmp(mode, "signals") == 0)
        return wait_for_signals();
    if (strcmp(mode, "library") == 0 && argc > 3)
        return call_library(argv[3]);
    if (strcmp(mode, "exec") == 0) {
        both();
        return execl(argv[0], argv[0], "signals", argv[2], (char *)NULL);
    }
    if (strcmp(mode, "threads") != 0)
        return 64;
    pthread_t thread;
    pthread_create(&thread, NULL, burn_in_thread, "second");
    both();
    pthread_join(thread, NULL);
    return 0;
}
