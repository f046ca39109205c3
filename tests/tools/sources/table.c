/* SPDX-License-Identifier: Apache-2.0 */
#include "table.h"

static int is_free(const struct table *t, int slot) { return t->slots[slot] == 0; }

int table_insert(struct table *t, int key)
{
    if (t->used == 32)
        fail("full");
    int slot = table_hash(key);
    for (; !is_free(t, slot); slot = (slot + 1) & 31)
        ;
    t->slots[slot] = key;
    return t->used++;
}

int table_sum(const struct table *t, int (*weigh)(int))
{
    int sum = 0;
    for (int i = 0; i < 32; ++i) {
        switch (t->slots[i] & 3) {
        case 0: sum += weigh(t->slots[i]); break;
        case 1: sum -= i; break;
        case 2: sum ^= t->slots[i] * i; break;
        default: sum += i > 4 ? t->slots[i] : 1; break;
        }
    }
    return sum;
}
