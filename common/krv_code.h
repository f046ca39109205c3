// SPDX-License-Identifier: Apache-2.0
//
// Decoding and encoding of attribute forms, and of the length field that headers begin with. Readers go through
// krv_decode_form as clients go through korva_decode_form (both clear the error state, which is what makes messages
// speak of the failing step), but for numbers whose bytes are in memory: these are decoded here, with the same outcome.
// krv_read_field puts one field into one line.
#ifndef KRV_CODE_H
#define KRV_CODE_H

#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_form.h"
#include "krv_types.h"
#include "krv_unit_length.h"

#include <array>
#include <cstring>
#include <limits>
#include <type_traits>

void *korva_value_addr(krv_value_t *value); // not exported

// The form that DW_FORM_indirect at the cursor leads to, with the cursor moved behind the form codes. -1 pushes
// "unable to decode DW_FORM_indirect" and leaves the cursor where it was. Clears the error state.
int krv_decode_indirect(krv_fd_t *fdp, krv_form_t *formp);

// The bytes of a LEB128 number of at most 63 bits, and the number; 0 when it is longer or cut off.
unsigned int krv_scan_uleb128(krv_view_t view, uint64_t *valuep);
unsigned int krv_scan_sleb128(krv_view_t view, int64_t *valuep);

// Steps over a ULEB128 number of at most two bytes, as most are. What follows it; NULL: another.
inline const uint8_t *krv_scan_short_uleb128(const uint8_t *at, const uint8_t *end, uint64_t *valuep)
{
    if (at == end)
        return nullptr;
    *valuep = *at++;
    if (*valuep < 0x80)
        return at;
    if (at == end || *at > 0x7f)
        return nullptr;
    *valuep = (*valuep & 0x7f) | uint64_t{*at} << 7;
    return at + 1;
}

// The forms that a handle knows.
inline uint8_t krv_forms(const krv_handle_t *hp)
{
    return hp->sh_ext == 0 ? KRV_BASE_FORMS : KRV_ALL_FORMS;
}

// The encoding of what belongs to no unit. Flags are those of korva_decode_form.
inline krv_encoding_t krv_encoding(const krv_handle_t *hp, uint32_t flags = 0)
{
    return {(flags & KRV_FORM_F_DWARF64) != 0, static_cast<uint8_t>(hp->sh_target_size), 0, krv_forms(hp)};
}

// As korva_decode_form, in an encoding and not by flags. `is_signed`: extend a number of fixed width by its sign.
int krv_decode_form(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, bool is_signed, void *dst,
                    size_t size, size_t *sizep);

// Widths of the numbers of each form; 0 of the other forms, and where the unit's version counts, too.
consteval std::array<uint8_t, krv_form_table.size()> krv_make_number_widths()
{
    std::array<uint8_t, krv_form_table.size()> widths{};
    for (size_t form = 0; form < widths.size(); ++form)
        if (krv_form_table[form].family == krv_family_t::number && krv_form_table[form].width != KRV_WIDTH_UNIT)
            widths[form] = krv_form_table[form].width;
    return widths;
}
constexpr auto krv_number_widths = krv_make_number_widths();

inline size_t krv_number_width(krv_form_t form, const krv_encoding_t &encoding, uint8_t forms)
{
    const size_t width = form < forms ? krv_number_widths[form] : 0;
    if (width <= sizeof(uint64_t))
        return width;
    const bool is_long = width == KRV_WIDTH_ADDRESS ? encoding.address_size != 4 : encoding.is_dwarf64;
    return is_long ? 8 : 4;
}

// The common case of a decode: a number whose bytes are in memory and whose storage fits. False: not that case, and
// nothing has changed. Its twin is krv_decode_form.
template <typename T>
inline bool krv_decode_in_memory(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, T *field)
{
    const krv_view_t view = krv_fd_view(fdp);
    size_t width;
    if (form == DW_FORM_udata || form == DW_FORM_ref_udata) {
        uint64_t value = 0;
        if (view.size != 0 && view.bytes[0] < 0x80) {
            value = view.bytes[0];
            width = 1;
        } else {
            width = krv_scan_uleb128(view, &value);
        }
        if (width == 0 || value > std::numeric_limits<std::make_unsigned_t<T>>::max())
            return false;
        *field = static_cast<T>(value);
        krv_fd_advance(fdp, width);
        return true;
    }
    if (form == DW_FORM_sdata) {
        int64_t value = 0;
        width = sizeof(T) == sizeof(value) ? krv_scan_sleb128(view, &value) : 0;
        if (width == 0)
            return false;
        *field = static_cast<T>(value);
        krv_fd_advance(fdp, width);
        return true;
    }
    width = krv_number_width(form, encoding, encoding.forms);
    if (width == 0 || width > view.size || width > sizeof(T))
        return false;
    uint64_t value = 0;
    std::memcpy(&value, view.bytes, width);
    if constexpr (std::is_signed_v<T>) {
        const unsigned int unused = 64 - 8 * static_cast<unsigned int>(width);
        value = static_cast<uint64_t>(static_cast<int64_t>(value << unused) >> unused);
    }
    *field = static_cast<T>(value);
    krv_fd_advance(fdp, width);
    return true;
}

// As krv_decode_form, of a number into a field as wide as the field is, extended by its sign where the field has one.
template <typename T>
inline int krv_decode(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, T *field)
{
    if (!krv_decode_in_memory(fdp, form, encoding, field))
        return krv_decode_form(fdp, form, encoding, std::is_signed_v<T>, field, sizeof(T), nullptr);
    krv_clear_error(fdp->sfd_hp);
    return 0;
}

// A string or block whose bytes are in memory: where they are, how many (the NUL included), and the bytes of the whole
// datum. NULL bytes: not that case. A cursor stays.
struct krv_datum_t {
    const uint8_t *bytes;
    uint64_t size;
    uint64_t encoded;
};
krv_datum_t krv_string_in_memory(krv_handle_t *hp, krv_view_t view, krv_form_t form, const krv_encoding_t &encoding);
krv_datum_t krv_string_in_view(krv_view_t view); // one that stands at its start
krv_datum_t krv_block_in_memory(const krv_fd_t *fdp, krv_form_t form);

// Where a string of another section stands that is in memory, and the bytes of its offset. False: not that case.
struct krv_string_place_t {
    krv_secidx_t section;
    uint64_t offset; // within the section, or at its end
    uint64_t encoded;
};
bool krv_find_string(krv_handle_t *hp, krv_view_t view, krv_form_t form, const krv_encoding_t &encoding,
                     krv_string_place_t *place);

// As krv_decode_form, of a string into an array of characters.
inline int krv_decode_text(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, void *text, size_t size)
{
    const krv_datum_t datum = krv_string_in_memory(fdp->sfd_hp, krv_fd_view(fdp), form, encoding);
    if (datum.bytes == nullptr || datum.size > size)
        return krv_decode_form(fdp, form, encoding, false, text, size, nullptr);
    std::memcpy(text, datum.bytes, datum.size);
    krv_fd_advance(fdp, datum.encoded);
    krv_clear_error(fdp->sfd_hp);
    return 0;
}

// Reads one field of `form` into *field, as wide as the field; else pushes `message` behind the decoder's own.
template <typename T>
bool krv_read_field(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, T *field, const char *message)
{
    if constexpr (std::is_integral_v<T>) {
        if (krv_decode(fdp, form, encoding, field) == 0)
            return true;
    } else if (krv_decode_text(fdp, form, encoding, field, sizeof(T)) == 0) {
        return true;
    }
    krv_note(fdp->sfd_hp, "%s", message);
    return false;
}

// The same of what belongs to no unit, in the 32-bit format.
template <typename T>
inline int krv_decode(krv_fd_t *fdp, krv_form_t form, T *field)
{
    return krv_decode(fdp, form, krv_encoding(fdp->sfd_hp), field);
}

template <typename T>
inline bool krv_read_field(krv_fd_t *fdp, krv_form_t form, T *field, const char *message)
{
    return krv_read_field(fdp, form, krv_encoding(fdp->sfd_hp), field, message);
}

// What messages say of a length field.
struct krv_length_texts_t {
    const char *unread;         // its first 4 bytes cannot be read
    const char *unread_dwarf64; // the 8 bytes behind them
    const char *name;           // of the 4 bytes, where they hold a reserved value
};
constexpr krv_length_texts_t KRV_UNIT_LENGTH_TEXTS = {"failed to read 4-byte unit_length",
                                                      "failed to read 8-byte unit_length", "4-byte unit_length"};

// Reads the length field at the cursor. False: messages pushed.
bool krv_read_unit_length(krv_fd_t *fdp, const krv_length_texts_t &texts, krv_unit_length_t *ul);

// The form of a fixed-size unsigned datum of `size` bytes; 0 for a size without one.
krv_form_t krv_data_form(unsigned int size);

#endif
