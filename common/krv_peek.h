// SPDX-License-Identifier: Apache-2.0
//
// Units of a large file stand far apart, and so do their names: while all of them are met, nearly each one touches pages
// that nothing else does. In a mapped file that costs more than a system call, and the pages stay. Where the client has
// given a call that reads (korva_attach_section_reader), headers, first entries and strings of large units come through
// it. What it does not give is read from memory, as if there were none.
#ifndef KRV_PEEK_H
#define KRV_PEEK_H

#include "krv_code.h"
#include "krv_fd.h"
#include "krv_types.h"

// A string of a section in memory, as it was read.
struct krv_peeked_text_t {
    const char *pt_at = nullptr; // where it stands there
    size_t pt_length = 0;        // without the NUL
    uint64_t pt_used = 0;        // when it was last asked for, by the count of questions
    char pt_bytes[256];
};

struct krv_peek_t : krv_window_t { // of .debug_info
    krv_peeked_text_t texts[4];    // a unit has few, and most of them are those of the unit before
    uint64_t questions = 0;
};

// Whether the unit behind one of so many bytes is met so: units that are large share no pages. It is not where other calls of the
// client would read for it, too.
bool krv_peek_is_due(krv_handle_t *hp, krv_secidx_t sec, uint64_t size_before);

// A cursor of .debug_info that reads so, with the first bytes at `offset` at hand; the krv_peek_t must outlive it.
krv_fd_t krv_peek_at(krv_handle_t *hp, uint64_t offset, krv_peek_t *peek);

krv_fd_cb_f krv_peek_read; // the call behind the window; its argument is the handle

// What such a cursor reads by; NULL: it is another.
inline krv_peek_t *krv_peek_of(const krv_fd_t *fdp)
{
    if (!krv_fd_is_cb(fdp) || fdp->sfd_u.cb.func != krv_window_read)
        return nullptr;
    auto *const window = static_cast<krv_window_t *>(fdp->sfd_u.cb.arg);
    return window->sw_func == krv_peek_read ? static_cast<krv_peek_t *>(window) : nullptr;
}

// As krv_string_in_memory; the bytes that it tells of have not been touched where the call gave them.
krv_datum_t krv_peek_string(krv_peek_t *peek, const krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding);

// A string that was read so, by where it stands. NULL: it was not, or is forgotten. It is at most 255 characters long.
const krv_peeked_text_t *krv_peek_known(const krv_peek_t *peek, const char *at);

// Whether a text is one of these, which lasts until another is read.
inline bool krv_peek_has(const krv_peek_t *peek, const char *text)
{
    const auto *at = reinterpret_cast<const char *>(peek->texts);
    return text >= at && text < at + sizeof(peek->texts);
}

// What korva_attach_section takes away.
void krv_peek_forget(krv_handle_t *hp, krv_secidx_t sec);

#endif
