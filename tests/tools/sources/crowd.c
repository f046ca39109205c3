// SPDX-License-Identifier: Apache-2.0
//
// Threads that wait in a few places, some of them deep inside, some in calls that are inlined: crowd THREADS. Their stacks are
// small, so that core files are.
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static sem_t never;

static inline __attribute__((always_inline)) void take_turn(volatile int *turns)
{
    pthread_mutex_lock(&lock);
    ++*turns;
}

__attribute__((noinline)) static int dig(int depth)
{
    if (depth == 0)
        return sem_wait(&never);
    return dig(depth - 1) + 1;
}

__attribute__((noinline)) static void *serve(void *argument)
{
    volatile int turns = 0;
    const long number = (long)argument;
    if (number % 3 == 0)
        take_turn(&turns);
    else if (number % 3 == 1)
        turns = dig(5);
    else
        turns = dig((int)(number % 4)) + pause();
    return NULL;
}

int main(int argc, char **argv)
{
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 1 << 15);
    pthread_mutex_lock(&lock);
    for (long i = 1; i < (argc > 1 ? atol(argv[1]) : 1); ++i) {
        pthread_t thread;
        pthread_create(&thread, &small, serve, (void *)i);
    }
    puts("ready");
    fflush(stdout);
    pause();
}
