/* SPDX-License-Identifier: Apache-2.0 */
#include <stdlib.h>
#include <unistd.h>

/* Waits in a call-back of the C library. */
static int compare(const void *a, const void *b)
{
    for (;;)
        pause();
    return *(const int *)a - *(const int *)b;
}

int main(void)
{
    int numbers[] = {2, 1};
    qsort(numbers, 2, sizeof(numbers[0]), compare);
    return numbers[0];
}
