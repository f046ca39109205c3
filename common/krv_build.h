// SPDX-License-Identifier: Apache-2.0
//
// Building what a handle keeps, under its lock, while client call-backs run: those that read, and the debug call-back.
#ifndef KRV_BUILD_H
#define KRV_BUILD_H

#include "krv_error.h"
#include "krv_types.h"

// Holds the handle's lock for a scope. A call-back may ask for what its own thread is building: then the lock is held
// already, and waiting for it would be for ever.
class krv_build_guard
{
public:
    explicit krv_build_guard(krv_handle_t *handle) : hp(handle), nested(handle->sh_builder == pthread_self())
    {
        if (nested)
            return;
        krv_rwlock_wrlock(&hp->sh_rwlock);
        hp->sh_builder = pthread_self();
    }
    ~krv_build_guard()
    {
        if (nested)
            return;
        hp->sh_builder = pthread_t{};
        krv_rwlock_unlock(&hp->sh_rwlock);
    }
    krv_build_guard(const krv_build_guard &) = delete;
    krv_build_guard &operator=(const krv_build_guard &) = delete;

    // Whether that is so: what the lock protects is then half built.
    bool is_nested() const { return nested; }

    int refuse() const
    {
        return krv_fail(hp, KRV_ERR_INVALID, "asked by a call-back of the query that is building it");
    }

private:
    krv_handle_t *hp;
    bool nested;
};

#endif
