// SPDX-License-Identifier: Apache-2.0
#include "krv_peek.h"

#include "krv_error.h"
#include "krv_ext.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

constexpr uint64_t LARGE_UNIT = 16 << 10; // four share what the system maps at once

// The call that reads a section; func is NULL where there is none.
static krv_section_reader *reader_of(krv_handle_t *hp, krv_secidx_t sec)
{
    const unsigned int number = static_cast<unsigned int>(sec) - KRV_SEC_EXT_LINE_STR;
    return &hp->sh_readers[number < KRV_EXT_SECTIONS ? KRV_MAX_SEC + number : static_cast<unsigned int>(sec)];
}

// The client's call may query the handle, of which messages are told as ever.
static bool call_reader(krv_handle_t *hp, krv_secidx_t sec, void *buf, size_t count, uint64_t offset)
{
    const krv_section_reader *const reader = reader_of(hp, sec);
    if (reader->func == nullptr)
        return false;
    const bool was_quiet = std::exchange(hp->sh_is_quiet, false);
    const int64_t got = reader->func(reader->arg, buf, count, offset);
    hp->sh_is_quiet = was_quiet;
    return got == static_cast<int64_t>(count);
}

int64_t krv_peek_read(void *arg, void *buf, size_t count, uint64_t offset)
{
    return call_reader(static_cast<krv_handle_t *>(arg), KRV_SEC_INFO, buf, count, offset) ? static_cast<int64_t>(count)
                                                                                           : -1;
}

bool krv_peek_is_due(krv_handle_t *hp, krv_secidx_t sec, uint64_t size_before)
{
    if (size_before < LARGE_UNIT || sec != KRV_SEC_INFO || reader_of(hp, sec)->func == nullptr)
        return false;
    constexpr int others[] = {KRV_SEC_STR, KRV_SEC_EXT_LINE_STR, KRV_SEC_EXT_ALT_STR, KRV_SEC_EXT_STR_OFFSETS,
                              KRV_SEC_EXT_ADDR};
    return std::none_of(std::begin(others), std::end(others),
                        [hp](krv_secidx_t other) { return krv_fd_is_cb(krv_section(hp, other)); });
}

krv_fd_t krv_peek_at(krv_handle_t *hp, uint64_t offset, krv_peek_t *peek)
{
    krv_fd_t behind;
    krv_fd_attach_cb(hp, &behind, krv_section(hp, KRV_SEC_INFO)->sfd_size, krv_peek_read, hp);
    krv_fd_t fd = krv_fd_windowed(&behind, peek);
    if (krv_fd_seek(&fd, offset) == 0)
        krv_fd_read_ahead(&fd, sizeof(peek->sw_bytes));
    return fd;
}

const krv_peeked_text_t *krv_peek_known(const krv_peek_t *peek, const char *at)
{
    for (const krv_peeked_text_t &text : peek->texts)
        if (text.pt_at == at)
            return &text;
    return nullptr;
}

// The place of a string among those at hand, emptied where it is none of them yet.
static krv_peeked_text_t *text_for(krv_peek_t *peek, const char *at)
{
    krv_peeked_text_t *oldest = peek->texts;
    ++peek->questions;
    for (krv_peeked_text_t &text : peek->texts) {
        if (text.pt_at == at) {
            text.pt_used = peek->questions;
            return &text;
        }
        if (text.pt_used < oldest->pt_used)
            oldest = &text;
    }
    oldest->pt_at = nullptr;
    oldest->pt_used = peek->questions;
    return oldest;
}

// Takes the string that begins with so many bytes, in pt_bytes. False: it does not end there.
static bool take_text(krv_peeked_text_t *text, const char *at, size_t count)
{
    const void *const nul = count == 0 ? nullptr : std::memchr(text->pt_bytes, 0, count);
    if (nul == nullptr)
        return false;
    text->pt_at = at;
    text->pt_length = static_cast<size_t>(static_cast<const char *>(nul) - text->pt_bytes);
    return true;
}

// Reads the string at an offset of a section in memory, the first bytes of which may be at hand. False: the call does not
// give it, or it is long.
static bool read_text(krv_handle_t *hp, krv_peeked_text_t *text, const char *at, const krv_string_place_t &place,
                      krv_view_t begun)
{
    const auto fitting = [](uint64_t count) { return std::min(count, uint64_t{sizeof(krv_peeked_text_t::pt_bytes)}); };
    if (begun.size != 0)
        std::memcpy(text->pt_bytes, begun.bytes, fitting(begun.size));
    if (take_text(text, at, fitting(begun.size)))
        return true;
    const auto count = static_cast<size_t>(fitting(krv_section(hp, place.section)->sfd_size - place.offset));
    return count != 0 && call_reader(hp, place.section, text->pt_bytes, count, place.offset) &&
           take_text(text, at, count);
}

krv_datum_t krv_peek_string(krv_peek_t *peek, const krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding)
{
    krv_handle_t *const hp = fdp->sfd_hp;
    const bool is_inline = form == DW_FORM_string;
    krv_string_place_t place = {KRV_SEC_INFO, fdp->sfd_offset, 0};
    if (!is_inline && !krv_find_string(hp, krv_fd_view(fdp), form, encoding, &place))
        return {};
    const krv_fd_t *const section = krv_section(hp, place.section);
    const uint8_t *const at = section->sfd_u.buf + place.offset;
    const char *const chars = reinterpret_cast<const char *>(at);
    krv_peeked_text_t *const text = text_for(peek, chars);
    krv_datum_t datum;
    if (text->pt_length >= section->sfd_size - place.offset) // sections of a file may overlap: it is known from another
        text->pt_at = nullptr;
    if (text->pt_at != nullptr || read_text(hp, text, chars, place, is_inline ? krv_fd_view(fdp) : krv_view_t{}))
        datum = {at, text->pt_length + 1, text->pt_length + 1};
    else
        datum = krv_string_in_view({at, section->sfd_size - place.offset});
    if (!is_inline)
        datum.encoded = place.encoded;
    return datum;
}

void krv_peek_forget(krv_handle_t *hp, krv_secidx_t sec)
{
    *reader_of(hp, sec) = {};
}

int korva_attach_section_reader(krv_handle_t *hp, krv_secidx_t sec, krv_fd_cb_f *func, void *arg)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (sec < 0 || (sec >= KRV_MAX_SEC && !krv_ext_is_section(hp, sec)))
        return krv_fail(hp, KRV_ERR_INVALID, "section index %d too large", sec);
    const krv_fd_t *const section = krv_section(hp, sec);
    if (section->sfd_size == 0 || krv_fd_is_cb(section))
        return krv_fail(hp, KRV_ERR_INVALID, "%s is not attached from memory", krv_section_name(sec));
    *reader_of(hp, sec) = {func, func == nullptr ? nullptr : arg};
    return 0;
}
