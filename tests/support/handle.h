// SPDX-License-Identifier: Apache-2.0
//
// A handle with built sections, freed at the end of its scope; read call-backs that can be told to misbehave; and the
// drivers that multiply a case.
#ifndef KRV_TEST_HANDLE_H
#define KRV_TEST_HANDLE_H

#include "builders/bytes.h"
#include "krv_types.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>

namespace krv_test
{

constexpr krv_activation_type_t both_targets[] = {KRV_ACTIVATION_I386, KRV_ACTIVATION_AMD64};

// Text as printf makes it.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);

// The whole error state in one line, cause first: "CORRUPT: unterminated string | failed to read version".
std::string error_line(krv_handle_t *hp);

// What the error of a record says of the read that failed, without the lines on the record.
std::string failed_read(const std::string &error);

// A copy on the heap of exactly that size, so that the address sanitizer sees a step over either end.
std::unique_ptr<uint8_t[]> exact_copy(const bytes &contents);

enum class fault {
    none,
    fails, // the read delivers nothing and returns -1
    short_ // the read delivers, and returns, one byte less than asked
};

// A read call-back over bytes that begin at `base`, with a fault at the n-th read (counted from 1).
struct reader {
    bytes contents;
    uint64_t base = 0;
    fault kind = fault::none;
    unsigned fault_at = 0;
    unsigned reads = 0;
    bool strayed = false; // was asked for bytes that it does not have

    static krv_fd_cb_f read; // its argument is the reader
};

class handle
{
public:
    explicit handle(krv_activation_type_t target = KRV_ACTIVATION_AMD64);
    explicit handle(krv_handle_t *owned) : hp(owned) {}
    ~handle();
    handle(const handle &) = delete;
    handle &operator=(const handle &) = delete;

    operator krv_handle_t *() const { return hp; }
    krv_handle_t *operator->() const { return hp; }

    handle &attach(krv_secidx_t sec, const bytes &contents);       // as memory; of no bytes: not at all
    handle &attach(krv_secidx_t sec, reader *source);              // as a call-back; the reader stays the caller's
    handle &attach(krv_secidx_t sec, krv_fd_t cursor);             // what another handle's cursor reads
    krv_ctu_t *first_unit(const bytes &abbrev, const bytes &info); // of these sections, or NULL
    krv_fd_t cursor(const bytes &contents);                        // a cursor over memory of exactly that size
    krv_fd_t cursor(reader *source);

    std::string error() const { return error_line(hp); }

    // Switches extensions on; their notes are kept, one a line: "section offset text", "!" in front of one that is refused.
    handle &extend(uint32_t extensions = KRV_EXT_DWARF5 | KRV_EXT_AS_WRITTEN);
    std::string notes;

    // Keeps every message that is pushed from now on, also those that a later step clears: position, blank, text.
    void watch();
    std::vector<std::string> log;

private:
    krv_handle_t *hp;
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
};

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
