// SPDX-License-Identifier: Apache-2.0
//
// Decoding and encoding of forms.
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_names.h"
#include "support/handle.h"

using namespace krv_test;

static std::string to_hex(const uint8_t *data, size_t size)
{
    std::string digits;
    for (size_t i = 0; i < size; ++i)
        digits += text(i == 0 ? "%02x" : " %02x", data[i]);
    return digits;
}

static bool is_block(krv_form_t form)
{
    return krv_get_form_class(form) == KRV_CLASS_BLOCK || form == DW_FORM_exprloc;
}

// What a decode into `size` bytes of room gives: the bytes stored, or the error state.
static std::string decode(handle &h, krv_fd_t *fdp, krv_form_t form, uint32_t flags, size_t size)
{
    std::vector<uint8_t> room(size, 0x55);
    if (!is_block(form))
        return korva_decode_form(fdp, form, flags, room.data(), size, nullptr) == 0 ? to_hex(room.data(), size)
                                                                                    : h.error();
    krv_fd_t block = {.sfd_hp = h, .sfd_size = 7, .sfd_offset = 7, .sfd_remaining = 7, .sfd_flags = 0, .sfd_u = {}};
    block.sfd_u.buf = room.data();
    if (korva_decode_form(fdp, form, flags, &block, size, nullptr) != 0)
        return h.error();
    EXPECT_TRUE(block.sfd_offset == 0 && block.sfd_remaining == block.sfd_size);
    return to_hex(room.data(), block.sfd_size);
}

constexpr uint32_t SIGNED = KRV_FORM_F_SIGNED, DWARF64 = KRV_FORM_F_DWARF64;
constexpr krv_activation_type_t I386 = KRV_ACTIVATION_I386;

// From every kind of cursor, stopping short of the byte that follows; a failure moves nothing; every proper prefix of
// a good datum fails.
TEST(Code, Decode)
{
    const std::string no_end = " datum unterminated by end of section", too_big = " datum exceeds 64-bit storage";
    const char *max = "ff ff ff ff ff ff ff ff ff 01", *min = "80 80 80 80 80 80 80 80 80 7f";
    const char *eight = "01 02 03 04 05 06 07 08", *seventeen = "30 31 32 33 34 35 36 37 38 39 30 31 32 33 34 35 00";
    const struct {
        krv_form_t form;
        uint32_t flags;
        const char *datum;
        size_t size;         // of the storage
        std::string outcome; // the bytes stored, or the error state
        krv_activation_type_t target = KRV_ACTIVATION_AMD64;
    } rows[] = {
        {DW_FORM_data1, SIGNED, "ff", 8, "ff ff ff ff ff ff ff ff"},
        {DW_FORM_data1, SIGNED, "7f", 2, "7f 00"},
        {DW_FORM_flag, 0, "01", 1, "01"},
        {DW_FORM_data2, SIGNED, "fe ff", 8, "fe ff ff ff ff ff ff ff"},
        {DW_FORM_data4, SIGNED, "00 00 00 80", 8, "00 00 00 80 ff ff ff ff"},
        {DW_FORM_ref4, 0, "78 56 34 12", 4, "78 56 34 12"},
        {DW_FORM_data8, SIGNED, "01 02 03 04 05 06 07 88", 10, "01 02 03 04 05 06 07 88 ff ff"},
        {DW_FORM_ref_sig8, DWARF64, eight, 8, eight},
        {DW_FORM_addr, DWARF64, "01 02 03 84", 8, "01 02 03 84 00 00 00 00", I386}, // the target decides
        {DW_FORM_addr, 0, eight, 8, eight},
        {DW_FORM_sec_offset, 0, "01 02 03 04", 8, "01 02 03 04 00 00 00 00"},
        {DW_FORM_sec_offset, DWARF64, eight, 8, eight, I386}, // the format decides
        {DW_FORM_udata, 0, "e5 8e 26", 4, "65 87 09 00"},
        {DW_FORM_udata, 0, "80 00", 1, "00"}, // padded
        {DW_FORM_udata, 0, "ff 01", 1, "ff"},
        {DW_FORM_ref_udata, SIGNED, max, 9, "ff ff ff ff ff ff ff ff 00"},
        {DW_FORM_sdata, 0, "7f", 10, "ff ff ff ff ff ff ff ff ff ff"},
        {DW_FORM_sdata, 0, "80 7f", 1, "80"},
        {DW_FORM_sdata, 0, "c0 bb 78", 4, "c0 1d fe ff"},
        {DW_FORM_sdata, 0, "80 80 80 80 80 80 80 80 40", 8, "00 00 00 00 00 00 00 c0"},
        {DW_FORM_sdata, 0, min, 8, "00 00 00 00 00 00 00 80"},
        {DW_FORM_string, 0, "00", 1, "00"},
        {DW_FORM_string, 0, seventeen, 17, seventeen}, // the NUL opens a second chunk
        {DW_FORM_strp, 0, "07 00 00 00", 7, "2f 62 75 69 6c 64 00"},
        {DW_FORM_strp, DWARF64, "0b 00 00 00 00 00 00 00", 3, "6c 64 00"},
        {DW_FORM_block1, 0, "03 aa bb cc", 8, "aa bb cc"},
        {DW_FORM_block2, 0, "02 00 aa bb", 2, "aa bb"},
        {DW_FORM_block4, 0, "01 00 00 00 aa", 1, "aa"},
        {DW_FORM_block, 0, "82 00 aa bb", 2, "aa bb"},
        {DW_FORM_exprloc, 0, "01 9c", 1, "9c"},
        {DW_FORM_indirect, 0, "16 16 0b 2a", 2, "2a 00"},
        {DW_FORM_indirect, 0, "08 61 62 00", 3, "61 62 00"},

        {DW_FORM_data4, 0, "01 02", 8, "CORRUPT: form DW_FORM_data4 requires 4 bytes;  3 remaining"},
        {DW_FORM_data4, 0, "01 02 03 04", 3, "NOSPACE: form DW_FORM_data4 requires 4;  storage offers 3"},
        {DW_FORM_ref_udata, 0, "80 ff", 8, "CORRUPT: DW_FORM_ref_udata" + no_end},
        {DW_FORM_udata, 0, "80 80 80 80 80 80 80 80 80 02", 8, "NOSPACE: DW_FORM_udata" + too_big},
        {DW_FORM_udata, 0, "80 80 80 80 80 80 80 80 80 81 00", 8, "NOSPACE: DW_FORM_udata" + too_big},
        {DW_FORM_sdata, 0, "80 80 80 80 80 80 80 80 80 00", 8, "NOSPACE: DW_FORM_sdata" + too_big},
        {DW_FORM_udata, 0, "e5 8e 26", 2, "NOSPACE: DW_FORM_udata datum requires 4 bytes;  storage offers 2"},
        {DW_FORM_sdata, 0, "80 01", 1, "NOSPACE: DW_FORM_sdata datum requires 2 bytes;  storage offers 1"},
        {DW_FORM_string, 0, "61 62", 8, "CORRUPT: unterminated string"},
        {DW_FORM_string, 0, "61 62 63 00", 3, "NOSPACE: string decoder requires 4 bytes;  storage offers 3"},
        {DW_FORM_strp, 0, "0f 00 00 00", 8, "INVALID: can't seek beyond end | cannot seek to offset 15 in .debug_str"},
        {DW_FORM_strp, SIGNED, "fe ff ff ff", 8,
         "INVALID: can't seek beyond end | cannot seek to offset 18446744073709551614 in .debug_str"},
        {DW_FORM_strp, 0, "0e 00 00 00", 8, "CORRUPT: unterminated string"}, // just at the end
        {DW_FORM_block1, 0, "05 01 02 03 04 05", 4, "NOSPACE: block form DW_FORM_block1 requires 5;  storage offers 4"},
        {DW_FORM_block2, 0, "05 00 01 02", 8, "CORRUPT: form DW_FORM_block2 requires 5 bytes for block;  3 remain"},
        {DW_FORM_block2, SIGNED, "fe ff", 8,
         "CORRUPT: form DW_FORM_block2 requires 18446744073709551614 bytes for block;  1 remain"},
        {DW_FORM_block, 0, max, 8,
         "CORRUPT: form DW_FORM_block requires 18446744073709551615 bytes for block;  1 remain"},
        {DW_FORM_indirect, 0, "80 02 00", 8,
         "NOSPACE: DW_FORM_udata datum requires 2 bytes;  storage offers 1 | unable to decode DW_FORM_indirect"},
        {DW_FORM_indirect, 0, "10 01", 8, "INVALID: decoder passed invalid form 16 (DW_FORM_ref_addr)"},
        {DW_FORM_ref_addr, 0, "01 02 03 04", 8, "INVALID: decoder passed invalid form 16 (DW_FORM_ref_addr)"},
        {0x1a, 0, "01", 8, "INVALID: decoder passed invalid form 26 (unknown)"},
        {0xff, 0, "01", 8, "INVALID: decoder passed invalid form -1 (unknown)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(text("form %u of %s", row.form, row.datum));
        handle h(row.target);
        h.attach(KRV_SEC_STR, bytes().cstr("main.c").cstr("/build"));
        const bytes datum = bytes::hex(row.datum);
        const bool good = row.outcome.find(':') == std::string::npos;
        const bool sized = good && (is_block(row.form) || row.form == DW_FORM_string || row.form == DW_FORM_strp);
        for_each_cursor(h, bytes(datum).u8(0xee), [&](krv_fd_t *fdp, fault kind) {
            size_t need = 0; // what a size query says, which moves nothing
            const int query = !sized ? -1 : korva_decode_form(fdp, row.form, row.flags, nullptr, 0, &need);
            EXPECT_TRUE(query != 0 || need == bytes::hex(row.outcome).size());
            EXPECT_EQ(fdp->sfd_offset, 0U);
            const std::string outcome = decode(h, fdp, row.form, row.flags, row.size);
            // LEB128 numbers take what comes of the ten bytes that they ask for: most miss nothing that they need.
            const bool same = outcome == row.outcome;
            const bool cut = kind == fault::short_ && outcome.find(no_end) != std::string::npos;
            EXPECT_TRUE(same || kind != fault::none) << outcome;
            EXPECT_TRUE(same || cut || outcome.rfind("IO: read callback failed", 0) == 0) << outcome;
            EXPECT_EQ(fdp->sfd_offset, good && same ? datum.size() : 0);
            EXPECT_EQ(fdp->sfd_offset + fdp->sfd_remaining, datum.size() + 1);
        });
        for_each_prefix(good ? datum : bytes(), [&](const bytes &prefix) {
            krv_fd_t fd = h.cursor(prefix);
            EXPECT_EQ(decode(h, &fd, row.form, row.flags, row.size).rfind("CORRUPT: ", 0), 0U) << h.error();
            EXPECT_TRUE(fd.sfd_offset == 0 && fd.sfd_remaining == prefix.size());
        });
    }
    handle h;
    krv_fd_t fd = h.cursor(bytes().u8(1));
    const std::string four = " requires 4 bytes;  1 remaining | ";
    EXPECT_EQ(decode(h, &fd, DW_FORM_block4, 0, 1),
              "CORRUPT: form DW_FORM_data4" + four + "Failed to read block size for DW_FORM_block4");
    EXPECT_EQ(decode(h, &fd, DW_FORM_strp, 0, 1),
              "CORRUPT: form DW_FORM_sec_offset" + four + "unable to decode DW_FORM_strp");
    EXPECT_EQ(korva_fd_truncate(&fd, 0), 0);
    EXPECT_EQ(decode(h, &fd, DW_FORM_data1, 0, 1), "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining");
    EXPECT_EQ(decode(h, &fd, DW_FORM_sdata, 0, 1), "CORRUPT: DW_FORM_sdata" + no_end);
    reader broken{.contents = bytes().cstr("abc"), .kind = fault::fails, .fault_at = 1};
    fd = h.cursor(&broken);
    EXPECT_EQ(decode(h, &fd, DW_FORM_string, 0, 8), "IO: read callback failed | unable to read from descriptor");
}

TEST(Code, StorageProtocol)
{
    handle h;
    reader source{.contents = bytes().fill(8)};
    krv_fd_t fd = h.cursor(bytes::hex("02 41 42 00")), call_back = h.cursor(&source), zero = {};
    uint8_t room[8] = {0x5a};
    size_t need = 0;
    for (const krv_form_t form : {DW_FORM_data1, DW_FORM_udata, DW_FORM_string, DW_FORM_block1}) {
        EXPECT_TRUE(refuses(h, korva_decode_form(&fd, form, 0, room, sizeof(room), &need), "INVALID")); // both
        EXPECT_TRUE(refuses(h, korva_decode_form(&fd, form, 0, nullptr, 8, nullptr), "INVALID")); // room, but nowhere
        const bool sized = form == DW_FORM_string || form == DW_FORM_block1;
        EXPECT_EQ(korva_decode_form(&fd, form, 0, nullptr, 8, &need), sized ? 0 : -1);
        EXPECT_EQ(h.error(), sized ? "NONE" : "INVALID");
    }
    EXPECT_TRUE(refuses(h, korva_decode_form(&fd, DW_FORM_block1, 0, &call_back, 8, nullptr), "UNSUPPORTED"));
    reader fails{.contents = bytes::hex("02 41 42"), .kind = fault::fails, .fault_at = 2};
    krv_fd_t behind = h.cursor(&fails), block;
    krv_fd_attach_mem(h, &block, sizeof(room), room);
    EXPECT_TRUE(
        refuses(h, korva_decode_form(&behind, DW_FORM_block1, 0, &block, 8, nullptr), "IO: read callback failed"));
    EXPECT_EQ(block.sfd_size, 2U); // set before the bytes are read
    EXPECT_TRUE(refuses(h, korva_decode_form(&fd, DW_FORM_strp, 0, room, 8, nullptr),
                        "INVALID: section is empty | cannot seek to offset 4342018 in .debug_str"));
    EXPECT_EQ(korva_decode_form(&fd, DW_FORM_flag_present, 0, room, 8, nullptr), 0);
    EXPECT_TRUE(room[0] == 0x5a && fd.sfd_offset == 0);
    EXPECT_EQ(korva_decode_form(nullptr, DW_FORM_data1, 0, room, 8, nullptr), -1);
    EXPECT_EQ(korva_decode_form(&zero, DW_FORM_data1, 0, room, 8, nullptr), -1);
    EXPECT_EQ(korva_encode_form(nullptr, DW_FORM_data1, 0, 1) + korva_encode_form(&zero, DW_FORM_data1, 0, 1), -2);
}

TEST(Code, Encode)
{
    const std::string refused = "INVALID: encoder passed invalid form ";
    const struct {
        krv_form_t form;
        uint32_t flags;
        uint64_t value;
        std::string outcome;
        krv_activation_type_t target = KRV_ACTIVATION_AMD64;
    } rows[] = {
        {DW_FORM_data1, 0, 0x1234, "34"}, // cut to the width
        {DW_FORM_ref4, 0, 0x123456789a, "9a 78 56 34"},
        {DW_FORM_addr, 0, 0x12345678, "78 56 34 12", I386},
        {DW_FORM_addr, 0, 0x12345678, "78 56 34 12 00 00 00 00"},
        {DW_FORM_sec_offset, 0, 1, "01 00 00 00"},
        {DW_FORM_sec_offset, DWARF64, 1, "01 00 00 00 00 00 00 00"},
        {DW_FORM_udata, 0, 624485, "e5 8e 26"},
        {DW_FORM_ref_udata, 0, UINT64_MAX, "ff ff ff ff ff ff ff ff ff 01"},
        {DW_FORM_sdata, 0, static_cast<uint64_t>(-123456), "c0 bb 78"},
        {DW_FORM_sdata, 0, 64, "c0 00"},
        {DW_FORM_sdata, 0, static_cast<uint64_t>(-64), "40"},
        {DW_FORM_sdata, 0, UINT64_C(1) << 63, "80 80 80 80 80 80 80 80 80 7f"},
        {DW_FORM_block1, 0, 1, refused + "10 (DW_FORM_block1)"},
        {DW_FORM_indirect, 0, 1, refused + "22 (DW_FORM_indirect)"},
        {0x99, 0, 1, refused + "-103 (unknown)"},
    };
    for (const auto &row : rows) {
        handle h(row.target);
        const bool good = row.outcome.find(':') == std::string::npos;
        const size_t width = good ? bytes::hex(row.outcome).size() : 8;
        for_each_room(width, [&](uint8_t *room, size_t size, bool fits) {
            krv_fd_t fd;
            ASSERT_EQ(korva_fd_attach(h, &fd, size + 1, KRV_FD_TYPE_MEMORY, room) + korva_fd_truncate(&fd, size), 0);
            const int result = korva_encode_form(&fd, row.form, row.flags, row.value);
            const std::string no_room = text("NOSPACE: cannot write %zu bytes; only %zu bytes remaining | Could not "
                                             "encode %s datum",
                                             width, size, krv_name_or_unknown(KRV_DEF_FORM, row.form));
            EXPECT_EQ(result == 0 ? to_hex(room, width) : h.error(), good && !fits ? no_room : row.outcome);
            EXPECT_EQ(fd.sfd_offset, result == 0 ? width : 0);
        });
    }
    handle h;
    reader source{.contents = bytes().fill(8)};
    krv_fd_t fd = h.cursor(&source);
    EXPECT_TRUE(refuses(h, korva_encode_form(&fd, DW_FORM_data1, 0, 1),
                        "INVALID: cannot write to non-memory files | Could not encode DW_FORM_data1 datum"));
}

TEST(CodeDeathTest, Values)
{
    krv_value_t value = {};
    value.sa_u.su_signed = -2;
    EXPECT_TRUE(korva_value_unsigned(&value) == UINT64_MAX - 1 && korva_value_signed(&value) == -2);
    EXPECT_EQ(korva_value_addr(&value), value.sa_u.su_addr);
    EXPECT_DEATH(korva_value_unsigned(nullptr), "korva_value_unsigned: assertion failed: value != NULL");
}
