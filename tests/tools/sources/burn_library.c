/* SPDX-License-Identifier: Apache-2.0 */
/* What burn.c loads while it is recorded. */
#include <time.h>

void burn_in_library(double seconds);

void burn_in_library(double seconds)
{
    struct timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    const double end = t.tv_sec + t.tv_nsec / 1e9 + seconds;
    do
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    while (t.tv_sec + t.tv_nsec / 1e9 < end);
}
