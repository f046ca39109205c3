// SPDX-License-Identifier: Apache-2.0
//
// Reference counts, the reader-writer lock, and publication of lazily built objects. A failing lock primitive aborts
// the process: there is no sound way on.
#ifndef KRV_SYNCH_H
#define KRV_SYNCH_H

#include <cstdint>
#include <pthread.h>

typedef volatile uint64_t krv_refcnt_t;
typedef pthread_rwlock_t krv_rwlock_t;

void krv_refcnt_inc(krv_refcnt_t *refp);
uint64_t krv_refcnt_dec(krv_refcnt_t *refp); // the new value

void krv_rwlock_init(krv_rwlock_t *lockp);
void krv_rwlock_destroy(krv_rwlock_t *lockp);
void krv_rwlock_rdlock(krv_rwlock_t *lockp);
void krv_rwlock_wrlock(krv_rwlock_t *lockp);
void krv_rwlock_unlock(krv_rwlock_t *lockp);

// Holds a lock for a scope.
class krv_read_guard
{
public:
    explicit krv_read_guard(krv_rwlock_t *lock) : lockp(lock) { krv_rwlock_rdlock(lock); }
    ~krv_read_guard() { krv_rwlock_unlock(lockp); }
    krv_read_guard(const krv_read_guard &) = delete;
    krv_read_guard &operator=(const krv_read_guard &) = delete;

private:
    krv_rwlock_t *lockp;
};

class krv_write_guard
{
public:
    explicit krv_write_guard(krv_rwlock_t *lock) : lockp(lock) { krv_rwlock_wrlock(lock); }
    ~krv_write_guard() { krv_rwlock_unlock(lockp); }
    krv_write_guard(const krv_write_guard &) = delete;
    krv_write_guard &operator=(const krv_write_guard &) = delete;

private:
    krv_rwlock_t *lockp;
};

#if defined(__SANITIZE_THREAD__) // gcc's name for it
#define KRV_SANITIZE_THREAD
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KRV_SANITIZE_THREAD
#endif
#endif

// A number that threads may load and store at any time without tearing it. A plain move; nothing is ordered by it. That
// is what a volatile access is on AMD64, while g++ 12 also forgets what it knows of other memory at an atomic one: 7 % of
// an unwind. The thread sanitizer has to see atomic ones.
template <typename T>
class krv_relaxed
{
public:
    krv_relaxed &operator=(T fresh)
    {
#ifdef KRV_SANITIZE_THREAD
        __atomic_store_n(&value, fresh, __ATOMIC_RELAXED);
#else
        value = fresh;
#endif
        return *this;
    }
    operator T() const
    {
#ifdef KRV_SANITIZE_THREAD
        return __atomic_load_n(&value, __ATOMIC_RELAXED);
#else
        return value;
#endif
    }

private:
    volatile T value;
};

template <typename T>
T krv_load(T *slot)
{
    return __atomic_load_n(slot, __ATOMIC_ACQUIRE);
}

template <typename T>
void krv_store(T *slot, T value)
{
    __atomic_store_n(slot, value, __ATOMIC_RELEASE);
}

// Takes what a slot holds, which is then empty.
template <typename T>
T *krv_take(T **slot)
{
    return __atomic_exchange_n(slot, nullptr, __ATOMIC_ACQUIRE);
}

// Publishes an object that is built once and kept: the first thread's object stays, a later thread's is discarded.
// Returns the object that is published.
template <typename T, typename Discard>
T *krv_publish(T **slot, T *fresh, Discard discard)
{
    T *seen = nullptr;
    if (__atomic_compare_exchange_n(slot, &seen, fresh, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return fresh;
    discard(fresh);
    return seen;
}

#endif
