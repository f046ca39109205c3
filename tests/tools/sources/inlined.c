/* SPDX-License-Identifier: Apache-2.0 */
/* Waits in calls that are inlined into each other. */
#include <unistd.h>

static inline __attribute__((always_inline)) int wait_there(int n)
{
    pause();
    return n + 1;
}

static inline __attribute__((always_inline)) int pass_on(int n)
{
    int got = wait_there(n * 2);
    return got * 3;
}

__attribute__((noinline)) static int hold(volatile int *n)
{
    *n = *n + 1;
    return pass_on(*n) + *n;
}

int main(void)
{
    volatile int n = 1;
    return hold(&n) + n;
}
