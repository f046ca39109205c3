// SPDX-License-Identifier: Apache-2.0
//
// What tests ask of a handle and its answers, and the drivers that multiply a case.
#ifndef KRV_TEST_HANDLE_H
#define KRV_TEST_HANDLE_H

#include "builders/handle.h"

#include <functional>
#include <gtest/gtest.h>

namespace krv_test
{

// What the error of a record says of the read that failed, without the lines on the record.
std::string failed_read(const std::string &error);

// Whether a call fails, and leaves this error state: EXPECT_TRUE(refuses(h, korva_fd_truncate(&fd, 5), "INVALID: ..."));
template <typename Result>
testing::AssertionResult refuses(krv_handle_t *hp, Result result, const std::string &error)
{
    bool failed;
    if constexpr (std::is_pointer_v<Result>)
        failed = result == nullptr;
    else
        failed = result == -1;
    const std::string found = error_line(hp);
    return failed && found == error ? testing::AssertionSuccess()
                                    : testing::AssertionFailure() << (failed ? "fails: " : "does not fail: ") << found;
}

// A register of a frame as hexadecimal digits, or the error.
std::string greg_of(krv_handle_t *hp, krv_activation_t *ap, krv_frame_type_t frame, krv_reg_type_t type, unsigned reg);

// Calls func for every record that a function of the loader iterates over.
template <typename Object, typename Record, typename Func>
void each(int (*iterate)(Object *, int (*)(Object *, const Record *, void *), void *), Object *object, Func func)
{
    iterate(
        object, [](Object *, const Record *record, void *arg) { return (*static_cast<Func *>(arg))(record), 0; },
        &func);
}

// Drivers. Each calls fn once a variant, and names the variant in the trace of a failing expectation.

// The same bytes from memory, from a call-back, and from a call-back that fails, then comes up short, at each of the
// reads that fn makes.
void for_each_cursor(handle &h, const bytes &contents, const std::function<void(krv_fd_t *fdp, fault kind)> &fn);

// Every proper prefix, the empty one included.
void for_each_prefix(const bytes &contents, const std::function<void(const bytes &prefix)> &fn);

// Room for plenty, exactly enough, and one byte too little, with a canary behind it that fn must not disturb.
void for_each_room(size_t need, const std::function<void(uint8_t *room, size_t size, bool fits)> &fn);

} // namespace krv_test

#endif
