// SPDX-License-Identifier: Apache-2.0
#include "krv_synch.h"

#include <cstdlib>

static void must(int error)
{
    if (error != 0)
        std::abort();
}

void krv_refcnt_inc(krv_refcnt_t *refp)
{
    __atomic_add_fetch(refp, 1, __ATOMIC_RELAXED);
}

uint64_t krv_refcnt_dec(krv_refcnt_t *refp)
{
    // The last holder must see what every other holder did before it let go.
    return __atomic_sub_fetch(refp, 1, __ATOMIC_ACQ_REL);
}

void krv_rwlock_init(krv_rwlock_t *lockp)
{
    must(pthread_rwlock_init(lockp, nullptr));
}

void krv_rwlock_destroy(krv_rwlock_t *lockp)
{
    must(pthread_rwlock_destroy(lockp));
}

void krv_rwlock_rdlock(krv_rwlock_t *lockp)
{
    must(pthread_rwlock_rdlock(lockp));
}

void krv_rwlock_wrlock(krv_rwlock_t *lockp)
{
    must(pthread_rwlock_wrlock(lockp));
}

void krv_rwlock_unlock(krv_rwlock_t *lockp)
{
    must(pthread_rwlock_unlock(lockp));
}
