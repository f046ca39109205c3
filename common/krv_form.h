// SPDX-License-Identifier: Apache-2.0
//
// The attribute forms. A form is one row of KRV_DW_FORM; how its values are decoded, sized and stepped over, its class
// and its name come from there. Needs no other header of the core, so that whoever steps over entries can include it.
#ifndef KRV_FORM_H
#define KRV_FORM_H

#include <array>
#include <cstddef>
#include <cstdint>

constexpr uint8_t KRV_BASE_FORMS = 0x21; // codes below are known to everyone
constexpr uint8_t KRV_ALL_FORMS = 0xb5;  // and these with extensions

// What the bytes of a value depend on besides its form.
struct krv_encoding_t {
    bool is_dwarf64 = false;        // the 64-bit format: offsets take 8 bytes and not 4
    uint8_t address_size = 0;       // bytes of DW_FORM_addr: 4 or 8
    uint16_t version = 0;           // of the unit; 0 outside one
    uint8_t forms = KRV_BASE_FORMS; // or KRV_ALL_FORMS

    constexpr bool is_extended() const { return forms != KRV_BASE_FORMS; }
};

// Form classes, as bits in the order of DWARF 4, 7.5.4.
enum : uint32_t {
    KRV_CLASS_ADDRESS = 0x1,
    KRV_CLASS_BLOCK = 0x2,
    KRV_CLASS_CONSTANT = 0x4,
    KRV_CLASS_EXPRLOC = 0x8,
    KRV_CLASS_FLAG = 0x10,
    KRV_CLASS_LINEPTR = 0x20,
    KRV_CLASS_LOCLISTPTR = 0x40,
    KRV_CLASS_MACPTR = 0x80,
    KRV_CLASS_RANGELISTPTR = 0x100,
    KRV_CLASS_REFERENCE = 0x200,
    KRV_CLASS_STRING = 0x400,
    KRV_CLASS_SECTION = KRV_CLASS_LINEPTR | KRV_CLASS_LOCLISTPTR | KRV_CLASS_MACPTR | KRV_CLASS_RANGELISTPTR,
};

// How a value is read.
enum class krv_family_t : uint8_t {
    unknown,   // not at all
    number,    // `width` bytes
    uleb128,   // an unsigned LEB128 number
    sleb128,   // a signed one
    string,    // the bytes up to a NUL
    strp,      // `width` bytes, the offset of such a string in .debug_str
    block,     // a length of `width` bytes, 0 for a ULEB128 number, and as many bytes
    indirect,  // a ULEB128 number, the form of the value behind it
    present,   // no bytes: the value is 1
    opaque,    // `width` bytes, stepped over and not decoded
    line_strp, // as strp, in .debug_line_str
    alt_strp,  // as strp, in .debug_str of the alternate file
    bytes,     // `width` bytes, kept as a block
    implicit,  // no bytes: the value stands in the abbreviation
};

// Widths that are not a number of bytes.
constexpr uint8_t KRV_WIDTH_OFFSET = 0xfd;  // 4 or 8 by the format
constexpr uint8_t KRV_WIDTH_ADDRESS = 0xfe; // 4 or 8 by the target
constexpr uint8_t KRV_WIDTH_UNIT = 0xff;    // that of an offset, and in version 2 of an address

// clang-format off

// DWARF 4, 7.5.4, figure 21: name, number, family, width, class
#define KRV_DW_FORM(X) \
    X(DW_FORM_addr, 0x01, number, KRV_WIDTH_ADDRESS, KRV_CLASS_ADDRESS) \
    X(DW_FORM_block2, 0x03, block, 2, KRV_CLASS_BLOCK) \
    X(DW_FORM_block4, 0x04, block, 4, KRV_CLASS_BLOCK) \
    X(DW_FORM_data2, 0x05, number, 2, KRV_CLASS_CONSTANT) \
    X(DW_FORM_data4, 0x06, number, 4, KRV_CLASS_CONSTANT) /* never a section pointer, unlike in DWARF 2 and 3 */ \
    X(DW_FORM_data8, 0x07, number, 8, KRV_CLASS_CONSTANT) \
    X(DW_FORM_string, 0x08, string, 0, KRV_CLASS_STRING) \
    X(DW_FORM_block, 0x09, block, 0, KRV_CLASS_BLOCK) \
    X(DW_FORM_block1, 0x0a, block, 1, KRV_CLASS_BLOCK) \
    X(DW_FORM_data1, 0x0b, number, 1, KRV_CLASS_CONSTANT) \
    X(DW_FORM_flag, 0x0c, number, 1, KRV_CLASS_FLAG) \
    X(DW_FORM_sdata, 0x0d, sleb128, 0, KRV_CLASS_CONSTANT) \
    X(DW_FORM_strp, 0x0e, strp, KRV_WIDTH_OFFSET, KRV_CLASS_STRING) \
    X(DW_FORM_udata, 0x0f, uleb128, 0, KRV_CLASS_CONSTANT) \
    X(DW_FORM_ref_addr, 0x10, opaque, KRV_WIDTH_UNIT, KRV_CLASS_REFERENCE) \
    X(DW_FORM_ref1, 0x11, number, 1, KRV_CLASS_REFERENCE) \
    X(DW_FORM_ref2, 0x12, number, 2, KRV_CLASS_REFERENCE) \
    X(DW_FORM_ref4, 0x13, number, 4, KRV_CLASS_REFERENCE) \
    X(DW_FORM_ref8, 0x14, number, 8, KRV_CLASS_REFERENCE) \
    X(DW_FORM_ref_udata, 0x15, uleb128, 0, KRV_CLASS_REFERENCE) \
    X(DW_FORM_indirect, 0x16, indirect, 0, 0) \
    X(DW_FORM_sec_offset, 0x17, number, KRV_WIDTH_OFFSET, KRV_CLASS_SECTION) \
    X(DW_FORM_exprloc, 0x18, block, 0, KRV_CLASS_EXPRLOC) \
    X(DW_FORM_flag_present, 0x19, present, 0, KRV_CLASS_FLAG) \
    X(DW_FORM_ref_sig8, 0x20, number, 8, KRV_CLASS_REFERENCE)

// Those of extensions, by codes of the library's own: what is written is mapped to them by krv_extended_form, and only for
// a handle that asks. Otherwise these codes are as unknown as any.
// DWARF 5, 7.5.6, and those of GNU tools: name, number as written, code, family, width, class
#define KRV_DW_FORM_NEW(X) \
    X(DW_FORM_strx, 0x1a, 0x9a, uleb128, 0, KRV_CLASS_STRING) \
    X(DW_FORM_addrx, 0x1b, 0x9b, uleb128, 0, KRV_CLASS_ADDRESS) \
    X(DW_FORM_ref_sup4, 0x1c, 0x9c, number, 4, KRV_CLASS_REFERENCE) \
    X(DW_FORM_strp_sup, 0x1d, 0x9d, alt_strp, KRV_WIDTH_OFFSET, KRV_CLASS_STRING) \
    X(DW_FORM_data16, 0x1e, 0x9e, bytes, 16, KRV_CLASS_BLOCK) /* a constant, but no number of 64 bits */ \
    X(DW_FORM_line_strp, 0x1f, 0x9f, line_strp, KRV_WIDTH_OFFSET, KRV_CLASS_STRING) \
    X(DW_FORM_implicit_const, 0x21, 0xa1, implicit, 0, KRV_CLASS_CONSTANT) \
    X(DW_FORM_loclistx, 0x22, 0xa2, uleb128, 0, KRV_CLASS_LOCLISTPTR) \
    X(DW_FORM_rnglistx, 0x23, 0xa3, uleb128, 0, KRV_CLASS_RANGELISTPTR) \
    X(DW_FORM_ref_sup8, 0x24, 0xa4, number, 8, KRV_CLASS_REFERENCE) \
    X(DW_FORM_strx1, 0x25, 0xa5, number, 1, KRV_CLASS_STRING) \
    X(DW_FORM_strx2, 0x26, 0xa6, number, 2, KRV_CLASS_STRING) \
    X(DW_FORM_strx3, 0x27, 0xa7, number, 3, KRV_CLASS_STRING) \
    X(DW_FORM_strx4, 0x28, 0xa8, number, 4, KRV_CLASS_STRING) \
    X(DW_FORM_addrx1, 0x29, 0xa9, number, 1, KRV_CLASS_ADDRESS) \
    X(DW_FORM_addrx2, 0x2a, 0xaa, number, 2, KRV_CLASS_ADDRESS) \
    X(DW_FORM_addrx3, 0x2b, 0xab, number, 3, KRV_CLASS_ADDRESS) \
    X(DW_FORM_addrx4, 0x2c, 0xac, number, 4, KRV_CLASS_ADDRESS) \
    X(DW_FORM_GNU_addr_index, 0x1f01, 0xb1, uleb128, 0, KRV_CLASS_ADDRESS) \
    X(DW_FORM_GNU_str_index, 0x1f02, 0xb2, uleb128, 0, KRV_CLASS_STRING) \
    X(DW_FORM_GNU_ref_alt, 0x1f20, 0xb3, number, KRV_WIDTH_OFFSET, KRV_CLASS_REFERENCE) \
    X(DW_FORM_GNU_strp_alt, 0x1f21, 0xb4, alt_strp, KRV_WIDTH_OFFSET, KRV_CLASS_STRING)

// And one that is known, but not decoded, without them.
#define KRV_DW_FORM_EXT(X) \
    X(DW_FORM_ref_addr, 0x10, 0x90, number, KRV_WIDTH_UNIT, KRV_CLASS_REFERENCE) \
    KRV_DW_FORM_NEW(X)

// clang-format on

#define KRV_ENUMERATOR(name, value, ...) name = (value),
enum : unsigned { KRV_DW_FORM(KRV_ENUMERATOR) KRV_DW_FORM_NEW(KRV_ENUMERATOR) }; // as they are written
#undef KRV_ENUMERATOR
#define KRV_ENUMERATOR(name, written, code, ...) KRV_EXT_##name = (code),
enum : unsigned { KRV_DW_FORM_EXT(KRV_ENUMERATOR) };
#undef KRV_ENUMERATOR

struct krv_form_row_t {
    krv_family_t family;
    uint8_t width; // bytes, or KRV_WIDTH_*
    uint16_t classes;
};

static_assert(KRV_BASE_FORMS == DW_FORM_ref_sig8 + 1 && KRV_ALL_FORMS == KRV_EXT_DW_FORM_GNU_strp_alt + 1);

// By number: every value of every entry asks.
constexpr auto krv_form_table = [] {
    std::array<krv_form_row_t, KRV_ALL_FORMS> rows{};
#define KRV_ROW(name, number, family, width, classes) rows[name] = {krv_family_t::family, (width), (classes)};
    KRV_DW_FORM(KRV_ROW)
#undef KRV_ROW
#define KRV_ROW(name, written, code, family, width, classes) rows[code] = {krv_family_t::family, (width), (classes)};
    KRV_DW_FORM_EXT(KRV_ROW)
#undef KRV_ROW
    return rows;
}();

// The row of a form; an empty one for a number without.
constexpr krv_form_row_t krv_form_row(uint64_t form, uint8_t forms = KRV_BASE_FORMS)
{
    return form < forms ? krv_form_table[form] : krv_form_row_t{};
}

// The code of a form as it is written, for a handle with extensions: the same for those that everyone knows, one without
// a row for what is none.
constexpr uint8_t krv_extended_form(uint64_t written)
{
    constexpr uint8_t NO_FORM = 0x7f;
    switch (written) {
#define KRV_CODE(name, number, code, ...)                                                                              \
    case number:                                                                                                       \
        return code;
        KRV_DW_FORM_EXT(KRV_CODE)
#undef KRV_CODE
    default:
        return written < KRV_BASE_FORMS ? static_cast<uint8_t>(written) : NO_FORM;
    }
}

// What krv_extended_form maps to another code.
constexpr bool krv_is_extended_form(uint8_t code)
{
    return code >= 0x80;
}

// Bytes of a row's width.
constexpr size_t krv_form_width(krv_form_row_t row, const krv_encoding_t &encoding)
{
    switch (row.width) {
    case KRV_WIDTH_OFFSET:
        return encoding.is_dwarf64 ? 8 : 4;
    case KRV_WIDTH_ADDRESS:
        return encoding.address_size;
    case KRV_WIDTH_UNIT:
        return encoding.version != 2 ? (encoding.is_dwarf64 ? 8 : 4) : encoding.address_size;
    default:
        return row.width;
    }
}

#endif
