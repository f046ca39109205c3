// SPDX-License-Identifier: Apache-2.0
//
// Records of .debug_frame.
#include "builders/frames.h"
#include "krv_frame.h"
#include "support/handle.h"

using namespace krv_test;

static constexpr auto AMD64 = KRV_ACTIVATION_AMD64, I386 = KRV_ACTIVATION_I386;

// A record in one line, or the error.
static std::string dump_cie(krv_handle_t *hp, uint64_t offset)
{
    const krv_cie_owner c(krv_get_cie_by_offset(hp, offset), {hp});
    if (c == nullptr)
        return error_line(hp);
    EXPECT_EQ(c->scie_sec, KRV_SEC_FRAME);
    EXPECT_EQ(c->scie_augmentation_type, KRV_AUG_NONE);
    return text("v%u %u/%u code %lu data %ld r%lu, %lu at %lu of %lu/%lu%s", c->scie_version, c->scie_address_size,
                c->scie_segment_size, c->scie_code_alignment_factor, c->scie_data_alignment_factor,
                c->scie_return_address_register, c->scie_cfi_size, c->scie_cfi_offset, c->scie_length,
                c->scie_section_length, c->scie_signal ? ", S" : "");
}

static std::string dump_fde(krv_handle_t *hp, uint64_t offset)
{
    const krv_fde_owner f(krv_get_fde_by_offset(hp, offset), {hp});
    if (f == nullptr)
        return error_line(hp);
    return text("0x%lx+0x%lx cie %lu v%u, %lu at %lu of %lu/%lu", f->sfde_target_address, f->sfde_address_range,
                f->sfde_pointer, f->sfde_cie->scie_version, f->sfde_cfi_size, f->sfde_cfi_offset, f->sfde_length,
                f->sfde_section_length);
}

static const std::string cie_at_0 = " | failed to read CIE at offset 0x0 in .debug_frame";

TEST(DebugFrame, Cies)
{
    const bytes unended = bytes::hex("08 00 00 00 ff ff ff ff 03 00 81 81"),
                cut = bytes::hex("08 00 00 00 ff ff ff ff");
    const struct {
        bytes section;
        std::string outcome; // of an error without its last message
        krv_activation_type_t target = AMD64;
    } rows[] = {
        {cie{}.build(), "v3 0/0 code 1 data -8 r16, 3 at 13 of 12/16"},
        {cie{.instructions = bytes::hex("0c 07 08 90 01")}.build(), "v3 0/0 code 1 data -8 r16, 11 at 13 of 20/24"},
        {cie{.data_align = -4, .word = 4}.build(), "v3 0/0 code 1 data -4 r16, 3 at 13 of 12/16", I386},
        {cie{.instructions = bytes().u32(0), .word = 4}.build(), "v3 0/0 code 1 data -8 r16, 7 at 13 of 16/20", I386},
        {cie{.version = 4}.build(), "v4 8/0 code 1 data -8 r16, 1 at 15 of 12/16"},
        {cie{.version = 4, .address_size = 9}.build(), "v4 9/0 code 1 data -8 r16, 1 at 15 of 12/16"},
        {cie{.dwarf64 = true, .code_align = 200}.build(), "v3 0/0 code 200 data -8 r16, 6 at 26 of 20/32"},
        {cie{.version = 1, .column = bytes::hex("90")}.build(), "v1 0/0 code 1 data -8 r144, 3 at 13 of 12/16"},

        {cie{.length = 0xfffffff0}.build(), "CORRUPT: reserved value (0xfffffff0) in 4-byte length"},
        {cie{.length = 13}.build(), "CORRUPT: Total CIE length (17) is not a multiple of target size (8)"},
        {cie{.length = 10}.build(), "CORRUPT: Total CIE length (14) is not a multiple of target size (4)", I386},
        {cie{.length = 20}.build(), "INVALID: cannot truncate section to 20 bytes;  only 12 remain"},
        {cie{.dwarf64 = true, .length = UINT64_MAX - 11}.build(), // 0 with the length field, modulo 2^64
         "INVALID: cannot truncate section to 18446744073709551604 bytes;  only 20 remain"},
        {cie{.id = 0}.build(), "CORRUPT: illegal CIE_id (0x0)"},
        {cie{.id = 0xfffffffe}.build(), "CORRUPT: illegal CIE_id (0xfffffffffffffffe)"},
        {cie{.dwarf64 = true, .id = 0xffffffff}.build(), "CORRUPT: illegal CIE_id (0xffffffff)"},
        {cie{.dwarf64 = true, .version = 1}.build(), "CORRUPT: 64-bit length in version 1 CIE"},
        {cie{.version = 2}.build(), "UNSUPPORTED: unsupported CIE version (2)"},
        {cie{.augmentation = "fifteen letters"}.build(), "UNSUPPORTED: augmentation found in CIE"},
        {cie{.augmentation = "sixteen letters."}.build(),
         "NOSPACE: string decoder requires 17 bytes;  storage offers 16 | failed to read augmentation"},
        {cie{.version = 4, .segment_size = 2}.build(), "UNSUPPORTED: unsupported segment_size (2)"},
        {cut.first(3), "CORRUPT: form DW_FORM_sec_offset requires 4 bytes;  3 remaining | "
                       "failed to read 4-byte unit_length"},
        {bytes::hex("ff ff ff ff 0c"), "CORRUPT: form DW_FORM_sec_offset requires 8 bytes;  1 remaining | "
                                       "failed to read 8-byte length"},
        {bytes(cut).set(0, 4, 4).u8(3), // the byte behind is another record's
         "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining | failed to read version"},
        {bytes(unended).u8(0),
         "CORRUPT: DW_FORM_udata datum unterminated by end of section | failed to read Code Align Factor", I386},
    };
    for (const auto &row : rows) {
        handle h(row.target);
        h.attach(KRV_SEC_FRAME, row.section);
        EXPECT_EQ(dump_cie(h, 0), row.outcome + (row.outcome[0] == 'v' ? "" : cie_at_0));
    }
    // As written: any length; letters without data, and data of a known size.
    const bytes sized = bytes().u8(16).uleb(2).u16(0x1b9b).u8(0);
    const std::pair<cie, std::string> written[] = {
        {{.length = 13}, "v3 0/0 code 1 data -8 r16, 4 at 13 of 13/17"},
        {{.augmentation = "S"}, "v3 0/0 code 1 data -8 r16, 2 at 14 of 12/16, S"},
        {{.augmentation = "zPL", .column = sized}, "v3 0/0 code 1 data -8 r16, 5 at 19 of 20/24"},
        {{.augmentation = "zL", .column = bytes().u8(16).uleb(90)}, "CORRUPT: illegal augmentation length" + cie_at_0},
        {{.augmentation = "zR", .column = sized}, "UNSUPPORTED: augmentation found in CIE" + cie_at_0},
        {{.augmentation = "eh"}, "UNSUPPORTED: augmentation found in CIE" + cie_at_0},
    };
    for (const auto &[record, outcome] : written) {
        handle h;
        h.extend(KRV_EXT_AS_WRITTEN).attach(KRV_SEC_FRAME, record.build().fill(8));
        EXPECT_EQ(dump_cie(h, 0), outcome);
    }
}

// A record that cannot be read costs the functions that it is of, and no others.
TEST(DebugFrame, StepsOverWhatItCannotRead)
{
    const bytes sound = cie{}.build(), odd = cie{.augmentation = "eh"}.build();
    const bytes section = sound + odd + fde{.cie = sound.size(), .address = 0x2000}.build() + bytes().u64(4) +
                          fde{.address = 0x1000}.build();
    for (const uint32_t extensions : {0U, KRV_EXT_AS_WRITTEN}) {
        handle h;
        h.extend(extensions).attach(KRV_SEC_FRAME, section);
        const krv_fde_owner found(krv_get_fde_by_address(h, 0x10ff), {h});
        EXPECT_EQ(found != nullptr, extensions != 0);
        EXPECT_EQ(h.notes,
                  extensions == 0 ? "" : "!.debug_frame 16 3 records of call-frame information cannot be read\n");
    }
}

TEST(DebugFrame, Fdes)
{
    const std::string fde_at_16 = " | failed to read FDE at offset 0x10 in .debug_frame";
    const std::string no_parent = " | couldn't get parent CIE";
    const bytes narrow = fde{.address = UINT32_MAX, .range = 1, .address_size = 4, .word = 4}.build();
    const struct {
        bytes record;
        std::string outcome; // of an error without its last message
        cie parent = {};     // 16 bytes
        krv_activation_type_t target = AMD64;
    } rows[] = {
        {fde{}.build(), "0x1000+0x100 cie 0 v3, 0 at 40 of 20/24"},
        {narrow, "0xffffffff+0x1 cie 0 v3, 0 at 32 of 12/16", {.word = 4}, I386},
        {fde{.address_size = 4}.build(), "0x1000+0x100 cie 0 v4, 0 at 32 of 12/16", {.version = 4, .address_size = 4}},
        {fde{.word = 4}.build(), "0x1000+0x100 cie 0 v4, 0 at 40 of 20/24", {.version = 4}, I386},
        {fde{.dwarf64 = true}.build(), "0x1000+0x100 cie 0 v3, 4 at 52 of 28/40"},

        {fde{.length = 16}.build(), "CORRUPT: Total FDE length (20) is not a multiple of target size (8)"},
        {fde{.length = 28}.build(), "INVALID: cannot truncate section to 28 bytes;  only 20 remain"},
        // Itself; another FDE; not sign-extended, and out of the section.
        {fde{.cie = 16}.build(),
         "CORRUPT: illegal CIE_id (0x10) | failed to read CIE at offset 0x10 in .debug_frame" + no_parent},
        {fde{.cie = 40}.build() + fde{}.build(),
         "CORRUPT: illegal CIE_id (0x0) | failed to read CIE at offset 0x28 in .debug_frame" + no_parent},
        {fde{.cie = UINT32_MAX}.build(), "INVALID: can't seek beyond end | unable to seek to offset 0xffffffff | "
                                         "failed to read CIE at offset 0xffffffff in .debug_frame" +
                                             no_parent},
        {fde{}.build(), "UNSUPPORTED: unsupported CIE version (2)" + cie_at_0 + no_parent, {.version = 2}},
        {fde{.dwarf64 = true}.build(), "CORRUPT: 64-bit length in version 1 FDE", {.version = 1}},
        {fde{}.build(), "INVALID: unsupported address_size (2)", {.version = 4, .address_size = 2}},
        {fde{.length = 12}.build(),
         "CORRUPT: form DW_FORM_addr requires 8 bytes;  0 remaining | failed to read address_range"},
    };
    for (const auto &row : rows) {
        handle h(row.target);
        h.attach(KRV_SEC_FRAME, row.parent.build() + row.record);
        EXPECT_EQ(dump_fde(h, 16), row.outcome + (row.outcome[0] == '0' ? "" : fde_at_16));
    }
    handle h;
    EXPECT_EQ(dump_fde(h.attach(KRV_SEC_FRAME, cie{}.build()), 17),
              "INVALID: can't seek beyond end | unable to seek to offset 0x11 | "
              "failed to read FDE at offset 0x11 in .debug_frame");
}

TEST(DebugFrame, EveryReadIsReported)
{
    const bytes section = cie{.version = 4}.build() + fde{}.build();
    const std::vector<std::string> fields = {
        "4-byte unit_length", "CIE pointer",     "4-byte unit_length", "CIE_id",       "version",
        "augmentation",       "augmentation",    "address_size",       "segment_size", "Code Align Factor",
        "Data Align Factor",  "Ret Address Reg", "target address",     "address_range"};
    for (size_t n = 1; n <= fields.size() + 1; ++n) {
        reader source{.contents = section, .kind = fault::fails, .fault_at = static_cast<unsigned>(n)};
        handle h;
        const std::string outcome = dump_fde(h.attach(KRV_SEC_FRAME, &source), 16);
        if (n <= fields.size())
            EXPECT_EQ(failed_read(outcome), "failed to read " + fields[n - 1]);
        else
            EXPECT_EQ(outcome, "0x1000+0x100 cie 0 v4, 0 at 40 of 20/24");
    }
    for_each_prefix(section, [&](const bytes &prefix) {
        handle h;
        EXPECT_NE(dump_fde(h.attach(KRV_SEC_FRAME, prefix), 16)[0], '0');
        EXPECT_EQ(krv_get_fde_by_address(h, 0x1000), nullptr);
    });
}
