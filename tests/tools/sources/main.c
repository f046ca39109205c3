/* SPDX-License-Identifier: Apache-2.0 */
#include "table.h"
#include <stdio.h>
#include <stdlib.h>

/* Lines that another file claims: the file register changes within one function. */
#define INSERT(t, key) ((void)table_insert((t), (key)))

int weigh_twice(int value)
{
    return 2 * value;
}

void fail(const char *why)
{
    fprintf(stderr, "%s\n", why);
    exit(3);
}

static int recurse(int depth)
{
    if (depth <= 0)
        return table_hash(depth + 7);
    return recurse(depth - 1) + recurse(depth - 2);
}

int main(int argc, char **argv)
{
    struct table t = {{0}, 0};
    for (int i = 1; i < 20; ++i) INSERT(&t, i * argc + recurse(i % 5));
# 4000 "generated/rules.y"
    if (table_sum(&t, weigh_twice) == 12345)
        fail(argv[0]);
# 40 "main.c"
    printf("%d\n", t.used);
    return 0;
}
