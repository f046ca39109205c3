// SPDX-License-Identifier: Apache-2.0
//
// One sub-decoder for each family of forms. A decode moves the cursor only when it succeeds.
#include "krv_code.h"

#include "krv_dwarf.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_names.h"

#include <cstring>

constexpr unsigned LEB128_MAX_BYTES = 10; // ceil(64 / 7)
constexpr size_t STRING_CHUNK = 16;
constexpr unsigned int LEB128_FAST_BYTES = 9; // 63 bits: nothing can be lost

unsigned int krv_scan_uleb128(krv_view_t view, uint64_t *valuep)
{
    const uint64_t end = view.size < LEB128_FAST_BYTES ? view.size : LEB128_FAST_BYTES;
    uint64_t value = 0;
    for (unsigned int i = 0; i < end; ++i) {
        value |= uint64_t{view.bytes[i] & 0x7fU} << (7 * i);
        if ((view.bytes[i] & 0x80) == 0) {
            *valuep = value;
            return i + 1;
        }
    }
    return 0;
}

unsigned int krv_scan_sleb128(krv_view_t view, int64_t *valuep)
{
    uint64_t value = 0;
    const unsigned int count = krv_scan_uleb128(view, &value);
    if (count != 0) {
        const unsigned int unused = 64 - 7 * count;
        *valuep = static_cast<int64_t>(value << unused) >> unused;
    }
    return count;
}

// The row of a form that has one, or was found in no table.
static krv_form_row_t row_of(krv_form_t form)
{
    return krv_form_row(form, KRV_ALL_FORMS);
}

// Likewise.
static const char *form_name(krv_form_t form)
{
    return krv_form_name(form, true);
}

static int decode_number(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, bool is_signed, void *dst,
                         size_t size, size_t *sizep)
{
    krv_handle_t *hp = fdp->sfd_hp;
    if (sizep != nullptr || dst == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    const size_t width = krv_form_width(row_of(form), encoding);
    if (width > fdp->sfd_remaining)
        return krv_fail(hp, KRV_ERR_CORRUPT, "form %s requires %zu byte%s;  %lu remaining", form_name(form), width,
                        width == 1 ? "" : "s", static_cast<unsigned long>(fdp->sfd_remaining));
    if (size < width)
        return krv_fail(hp, KRV_ERR_NOSPACE, "form %s requires %zu;  storage offers %zu", form_name(form), width, size);

    auto *bytes = static_cast<uint8_t *>(dst);
    if (!krv_fd_is_cb(fdp))
        std::memcpy(bytes, fdp->sfd_u.buf + fdp->sfd_offset, width);
    else if (fdp->sfd_u.cb.func(fdp->sfd_u.cb.arg, bytes, width, fdp->sfd_offset) != static_cast<int64_t>(width))
        return krv_fail(hp, KRV_ERR_IO, "read callback failed");
    const bool negative = is_signed && (bytes[width - 1] & 0x80) != 0;
    std::memset(bytes + width, negative ? 0xff : 0x00, size - width);
    krv_fd_advance(fdp, width);
    return 0;
}

// Bytes needed to hold the value: 1, 2, 4 or 8.
static unsigned int leb128_width(uint64_t value, bool is_signed)
{
    for (unsigned int width = 1; width < 8; width *= 2) {
        const unsigned int bits = 8 * width;
        const uint64_t high =
            is_signed ? static_cast<uint64_t>(static_cast<int64_t>(value) >> (bits - 1)) : value >> bits;
        if (high == 0 || (is_signed && high == UINT64_MAX))
            return width;
    }
    return 8;
}

static int decode_leb128(krv_fd_t *fdp, krv_form_t form, void *dst, size_t size, size_t *sizep)
{
    krv_handle_t *hp = fdp->sfd_hp;
    if (sizep != nullptr || dst == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    const bool is_signed = row_of(form).family == krv_family_t::sleb128;

    size_t available = fdp->sfd_remaining < LEB128_MAX_BYTES ? fdp->sfd_remaining : LEB128_MAX_BYTES;
    uint8_t local[LEB128_MAX_BYTES];
    const uint8_t *bytes = local;
    if (!krv_fd_is_cb(fdp)) {
        bytes = fdp->sfd_u.buf + fdp->sfd_offset;
    } else if (available != 0) {
        const int64_t delivered = fdp->sfd_u.cb.func(fdp->sfd_u.cb.arg, local, available, fdp->sfd_offset);
        if (delivered < 0)
            return krv_fail(hp, KRV_ERR_IO, "read callback failed");
        if (static_cast<uint64_t>(delivered) < available)
            available = static_cast<size_t>(delivered);
    }

    uint64_t value = 0;
    unsigned int count = 0;
    for (;;) {
        if (count == available)
            return krv_fail(hp, KRV_ERR_CORRUPT, "%s datum unterminated by end of section", form_name(form));
        const uint8_t byte = bytes[count];
        if (count + 1 == LEB128_MAX_BYTES && byte != (is_signed ? 0x7f : 0x01) &&
            (byte != 0x00 || !krv_reads_as_written(hp))) // a positive number that is padded to ten bytes
            return krv_fail(hp, KRV_ERR_NOSPACE, "%s datum exceeds 64-bit storage", form_name(form));
        value |= uint64_t{byte & 0x7fU} << (7 * count);
        ++count;
        if ((byte & 0x80) != 0)
            continue;
        if (is_signed && (byte & 0x40) != 0 && 7 * count < 64)
            value |= UINT64_MAX << (7 * count);
        break;
    }

    const unsigned int width = leb128_width(value, is_signed);
    if (size < width)
        return krv_fail(hp, KRV_ERR_NOSPACE, "%s datum requires %u bytes;  storage offers %zu", form_name(form), width,
                        size);
    if (size > sizeof(value)) {
        const bool negative = is_signed && static_cast<int64_t>(value) < 0;
        std::memset(dst, negative ? 0xff : 0x00, size);
        size = sizeof(value);
    }
    std::memcpy(dst, &value, size);
    krv_fd_advance(fdp, count);
    return 0;
}

static int decode_string(krv_fd_t *fdp, void *dst, size_t size, size_t *sizep)
{
    krv_handle_t *hp = fdp->sfd_hp;
    krv_fd_t scan = *fdp;
    size_t need = 0; // with the NUL
    for (bool found = false; !found;) {
        char chunk[STRING_CHUNK];
        const size_t count = scan.sfd_remaining < sizeof(chunk) ? scan.sfd_remaining : sizeof(chunk);
        if (count == 0)
            return krv_fail(hp, KRV_ERR_CORRUPT, "unterminated string");
        if (korva_fd_to_mem(&scan, chunk, count) != 0)
            return krv_note(hp, "unable to read from descriptor");
        const size_t length = strnlen(chunk, count);
        found = length < count;
        need += found ? length + 1 : count;
    }
    if (sizep != nullptr) {
        *sizep = need;
        return 0;
    }
    if (size < need)
        return krv_fail(hp, KRV_ERR_NOSPACE, "string decoder requires %zu bytes;  storage offers %zu", need, size);
    if (dst == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    if (korva_fd_to_mem(fdp, dst, need) != 0)
        return -1;
    static_cast<char *>(dst)[need - 1] = '\0'; // a call-back may deliver other bytes the second time
    return 0;
}

krv_form_t krv_data_form(unsigned int size)
{
    switch (size) {
    case 1:
        return DW_FORM_data1;
    case 2:
        return DW_FORM_data2;
    case 4:
        return DW_FORM_data4;
    case 8:
        return DW_FORM_data8;
    default:
        return 0;
    }
}

// How the length of a block is encoded.
static krv_form_t block_length_form(krv_form_t form)
{
    const unsigned int width = row_of(form).width;
    return width == 0 ? krv_form_t{DW_FORM_udata} : krv_data_form(width);
}

static int decode_block(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, bool is_signed, void *dst,
                        size_t size, size_t *sizep)
{
    krv_handle_t *hp = fdp->sfd_hp;

    krv_fd_t fd = *fdp;
    const bool is_fixed = row_of(form).family == krv_family_t::bytes;
    uint64_t length = is_fixed ? row_of(form).width : 0;
    const krv_form_t length_form = block_length_form(form);
    const int result = is_fixed ? 0
                       : length_form == DW_FORM_udata
                           ? decode_leb128(&fd, length_form, &length, sizeof(length), nullptr)
                           : decode_number(&fd, length_form, encoding, is_signed, &length, sizeof(length), nullptr);
    if (result != 0)
        return krv_note(hp, "Failed to read block size for %s", form_name(form));
    if (length > fd.sfd_remaining)
        return krv_fail(hp, KRV_ERR_CORRUPT, "form %s requires %lu bytes for block;  %d remain", form_name(form),
                        static_cast<unsigned long>(length), static_cast<int>(fd.sfd_remaining));
    if (sizep != nullptr) {
        *sizep = length;
        return 0;
    }
    if (size < length)
        return krv_fail(hp, KRV_ERR_NOSPACE, "block form %s requires %zu;  storage offers %zu", form_name(form),
                        static_cast<size_t>(length), size);
    if (dst == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    auto *block = static_cast<krv_fd_t *>(dst);
    if (krv_fd_is_cb(block))
        return krv_fail_code(hp, KRV_ERR_UNSUPPORTED);
    block->sfd_size = length;
    block->sfd_offset = 0;
    block->sfd_remaining = length;
    // An empty block needs no buffer, and korva_fd_to_mem would refuse a NULL one.
    if (length != 0 && korva_fd_to_mem(&fd, block->sfd_u.buf, length) != 0)
        return -1;
    *fdp = fd;
    return 0;
}

// The value of a string in an alternate file that the client did not attach.
constexpr char ELSEWHERE[] = "(in the alternate debug file)";

// The section that the offset of a string leads into.
static krv_secidx_t string_section(krv_family_t family)
{
    return family == krv_family_t::line_strp  ? krv_secidx_t{KRV_SEC_EXT_LINE_STR}
           : family == krv_family_t::alt_strp ? krv_secidx_t{KRV_SEC_EXT_ALT_STR}
                                              : krv_secidx_t{KRV_SEC_STR};
}

static int decode_strp(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, bool is_signed, void *dst,
                       size_t size, size_t *sizep)
{
    krv_handle_t *hp = fdp->sfd_hp;
    krv_fd_t fd = *fdp;
    uint64_t offset = 0;
    if (decode_number(&fd, DW_FORM_sec_offset, encoding, is_signed, &offset, sizeof(offset), nullptr) != 0)
        return krv_note(hp, "unable to decode %s", form_name(form));
    const krv_secidx_t sec = string_section(row_of(form).family);
    krv_fd_t str = *krv_section(hp, sec);
    if (sec == KRV_SEC_EXT_ALT_STR && str.sfd_size == 0) { // an alternate file is missed more often than it is there
        krv_fd_attach_mem(hp, &str, sizeof(ELSEWHERE), reinterpret_cast<uint8_t *>(const_cast<char *>(ELSEWHERE)));
        offset = 0;
    }
    if (korva_fd_seek(&str, offset, KRV_FD_SEEK_SET) != 0)
        return krv_note(hp, "cannot seek to offset %lu in %s", static_cast<unsigned long>(offset),
                        krv_section_name(sec));
    if (decode_string(&str, dst, size, sizep) != 0)
        return -1;
    if (dst != nullptr)
        *fdp = fd;
    return 0;
}

// Up to its NUL, which must be in view.
krv_datum_t krv_string_in_view(krv_view_t view)
{
    const void *nul = view.size == 0 ? nullptr : std::memchr(view.bytes, 0, view.size);
    if (nul == nullptr)
        return {};
    const auto size = static_cast<uint64_t>(static_cast<const uint8_t *>(nul) - view.bytes) + 1;
    return {view.bytes, size, size};
}

bool krv_find_string(krv_handle_t *hp, krv_view_t view, krv_form_t form, const krv_encoding_t &encoding,
                     krv_string_place_t *place)
{
    place->section = KRV_SEC_STR;
    if (form != DW_FORM_strp) {
        const krv_family_t family = krv_form_row(form, encoding.forms).family;
        if (family != krv_family_t::line_strp && family != krv_family_t::alt_strp)
            return false;
        place->section = string_section(family);
    }
    const krv_fd_t &str = *krv_section(hp, place->section);
    place->encoded = encoding.is_dwarf64 ? 8 : 4;
    if (krv_fd_is_cb(&str) || view.size < place->encoded)
        return false;
    place->offset = 0;
    std::memcpy(&place->offset, view.bytes, place->encoded);
    return place->offset <= str.sfd_size;
}

krv_datum_t krv_string_in_memory(krv_handle_t *hp, krv_view_t view, krv_form_t form, const krv_encoding_t &encoding)
{
    if (form == DW_FORM_string)
        return krv_string_in_view(view);
    krv_string_place_t place;
    if (!krv_find_string(hp, view, form, encoding, &place))
        return {};
    const krv_fd_t &str = *krv_section(hp, place.section);
    krv_datum_t datum = krv_string_in_view({str.sfd_u.buf + place.offset, str.sfd_size - place.offset});
    datum.encoded = place.encoded;
    return datum;
}

krv_datum_t krv_block_in_memory(const krv_fd_t *fdp, krv_form_t form)
{
    krv_fd_t fd = *fdp;
    uint64_t length = row_of(form).width;
    const krv_family_t family = row_of(form).family;
    if (family != krv_family_t::bytes &&
        (family != krv_family_t::block || !krv_decode_in_memory(&fd, block_length_form(form), {}, &length)))
        return {};
    const krv_view_t view = krv_fd_view(&fd);
    if (length > view.size)
        return {};
    return {view.bytes, length, fd.sfd_offset - fdp->sfd_offset + length};
}

int krv_decode_indirect(krv_fd_t *fdp, krv_form_t *formp)
{
    krv_clear_error(fdp->sfd_hp);
    krv_fd_t fd = *fdp;
    const bool is_extended = fdp->sfd_hp->sh_ext != 0;
    krv_form_t form = DW_FORM_indirect;
    while (form == DW_FORM_indirect) { // each turn consumes a byte at least
        uint64_t written = 0;
        if ((is_extended ? decode_leb128(&fd, DW_FORM_udata, &written, sizeof(written), nullptr)
                         : decode_leb128(&fd, DW_FORM_udata, &form, sizeof(form), nullptr)) != 0)
            return krv_note(fdp->sfd_hp, "unable to decode DW_FORM_indirect");
        if (is_extended)
            form = krv_extended_form(written);
    }
    *fdp = fd;
    *formp = form;
    return 0;
}

static int decode_indirect(krv_fd_t *fdp, const krv_encoding_t &encoding, bool is_signed, void *dst, size_t size,
                           size_t *sizep)
{
    krv_fd_t fd = *fdp;
    krv_form_t form = 0;
    if (krv_decode_indirect(&fd, &form) != 0 || krv_decode_form(&fd, form, encoding, is_signed, dst, size, sizep) != 0)
        return -1;
    if (dst != nullptr)
        *fdp = fd;
    return 0;
}

int krv_decode_form(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, bool is_signed, void *dst,
                    size_t size, size_t *sizep)
{
    krv_handle_t *hp = fdp->sfd_hp;
    krv_clear_error(hp);
    if (dst != nullptr && sizep != nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    switch (krv_form_row(form, encoding.forms).family) {
    case krv_family_t::number:
        return decode_number(fdp, form, encoding, is_signed, dst, size, sizep);
    case krv_family_t::uleb128:
    case krv_family_t::sleb128:
        return decode_leb128(fdp, form, dst, size, sizep);
    case krv_family_t::string:
        return decode_string(fdp, dst, size, sizep);
    case krv_family_t::strp:
    case krv_family_t::line_strp:
    case krv_family_t::alt_strp:
        return decode_strp(fdp, form, encoding, is_signed, dst, size, sizep);
    case krv_family_t::block:
    case krv_family_t::bytes:
        return decode_block(fdp, form, encoding, is_signed, dst, size, sizep);
    case krv_family_t::indirect:
        return decode_indirect(fdp, encoding, is_signed, dst, size, sizep);
    case krv_family_t::present:
    case krv_family_t::implicit: // whoever has the abbreviation knows the value
        return 0;                // nothing read, nothing stored
    case krv_family_t::opaque:
    case krv_family_t::unknown:
        break;
    }
    return krv_fail(hp, KRV_ERR_INVALID, "decoder passed invalid form %hhd (%s)", static_cast<signed char>(form),
                    krv_form_name(form, encoding.is_extended()));
}

int korva_decode_form(krv_fd_t *fdp, krv_form_t form, uint32_t flags, void *dst, size_t size, size_t *sizep)
{
    if (fdp == nullptr || fdp->sfd_hp == nullptr)
        return -1;
    const krv_encoding_t encoding = krv_encoding(fdp->sfd_hp, flags);
    return krv_decode_form(fdp, encoding.is_extended() ? krv_extended_form(form) : form, encoding,
                           (flags & KRV_FORM_F_SIGNED) != 0, dst, size, sizep);
}

bool krv_read_unit_length(krv_fd_t *fdp, const krv_length_texts_t &texts, krv_unit_length_t *ul)
{
    const auto read = [fdp](size_t width, uint64_t *lengthp) {
        const krv_encoding_t encoding = {.is_dwarf64 = width == 8};
        return krv_decode(fdp, DW_FORM_sec_offset, encoding, lengthp) == 0;
    };
    switch (krv_scan_unit_length(fdp->sfd_offset, read, ul)) {
    case krv_length_outcome_t::sound:
        return true;
    case krv_length_outcome_t::cut:
        krv_note(fdp->sfd_hp, "%s", texts.unread);
        return false;
    case krv_length_outcome_t::cut_dwarf64:
        krv_note(fdp->sfd_hp, "%s", texts.unread_dwarf64);
        return false;
    case krv_length_outcome_t::reserved:
        break;
    }
    krv_fail(fdp->sfd_hp, KRV_ERR_CORRUPT, "reserved value (0x%x) in %s", static_cast<unsigned int>(ul->length),
             texts.name);
    return false;
}

static size_t encode_leb128(uint8_t *bytes, uint64_t value, bool is_signed)
{
    size_t count = 0;
    for (bool more = true; more;) {
        const uint8_t low = value & 0x7f;
        value = is_signed ? static_cast<uint64_t>(static_cast<int64_t>(value) >> 7) : value >> 7;
        more =
            is_signed ? !((value == 0 && (low & 0x40) == 0) || (value == UINT64_MAX && (low & 0x40) != 0)) : value != 0;
        bytes[count++] = more ? low | 0x80 : low;
    }
    return count;
}

int korva_encode_form(krv_fd_t *fdp, krv_form_t form, uint32_t flags, uint64_t value)
{
    if (fdp == nullptr || fdp->sfd_hp == nullptr)
        return -1;
    krv_handle_t *hp = fdp->sfd_hp;
    krv_clear_error(hp);
    const krv_form_row_t row = krv_form_row(form);
    uint8_t bytes[LEB128_MAX_BYTES];
    size_t count;
    if (row.family == krv_family_t::number) {
        count = krv_form_width(row, krv_encoding(hp, flags));
        std::memcpy(bytes, &value, sizeof(value));
    } else if (row.family == krv_family_t::uleb128 || row.family == krv_family_t::sleb128) {
        count = encode_leb128(bytes, value, row.family == krv_family_t::sleb128);
    } else {
        return krv_fail(hp, KRV_ERR_INVALID, "encoder passed invalid form %hhd (%s)", static_cast<signed char>(form),
                        form_name(form));
    }
    if (korva_fd_from_mem(fdp, bytes, count) != 0)
        return krv_note(hp, "Could not encode %s datum", form_name(form));
    return 0;
}

uint64_t korva_value_unsigned(krv_value_t *value)
{
    KRV_ASSERT(value != NULL);
    return value->sa_u.su_unsigned;
}

int64_t korva_value_signed(krv_value_t *value)
{
    KRV_ASSERT(value != NULL);
    return value->sa_u.su_signed;
}

void *korva_value_addr(krv_value_t *value)
{
    KRV_ASSERT(value != NULL);
    return value->sa_u.su_addr;
}
