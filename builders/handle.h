// SPDX-License-Identifier: Apache-2.0
//
// A handle with built sections, freed at the end of its scope, and read call-backs that can be told to misbehave.
#ifndef KRV_BUILDERS_HANDLE_H
#define KRV_BUILDERS_HANDLE_H

#include "builders/bytes.h"
#include "krv_types.h"

#include <memory>

namespace krv_test
{

constexpr krv_activation_type_t both_targets[] = {KRV_ACTIVATION_I386, KRV_ACTIVATION_AMD64};

// Text as printf makes it.
[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...);

// The whole error state in one line, cause first: "CORRUPT: unterminated string | failed to read version".
std::string error_line(krv_handle_t *hp);

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

} // namespace krv_test

#endif
