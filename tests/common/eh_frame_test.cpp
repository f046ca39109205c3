// SPDX-License-Identifier: Apache-2.0
//
// .eh_frame in the target's memory: pointer encodings, records, and the search table of .eh_frame_hdr.
#include "builders/frames.h"
#include "krv_eh_frame.h"
#include "krv_frame.h"
#include "support/handle.h"

#include <algorithm>
#include <random>
#include <set>

using namespace krv_test;

static constexpr uint64_t EH = 0x9000, HDR = 0xa000; // where the sections are loaded
static constexpr auto AMD64 = KRV_ACTIVATION_AMD64, I386 = KRV_ACTIVATION_I386;

namespace
{

// A program in memory.
struct loaded {
    handle h;
    reader memory{.contents = {}, .base = EH};

    explicit loaded(const bytes &eh_frame, const bytes &hdr = {}, krv_activation_type_t target = AMD64) : h(target)
    {
        memory.contents = eh_frame;
        if (hdr.size() != 0) {
            memory.contents.fill(HDR - EH - eh_frame.size()).add(hdr);
            korva_handle_set_opt(h, KRV_OPT_EH_FRAME_HDR_ADDR, HDR);
        }
        korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, EH);
        korva_attach_as(h, reader::read, &memory);
    }

    std::string dump_cie(uint64_t offset)
    {
        const krv_cie_owner c(krv_get_cie_by_offset(h, offset), {h});
        if (c == nullptr)
            return h.error();
        EXPECT_EQ(c->scie_sec, KRV_SEC_EH_FRAME);
        EXPECT_EQ(c->scie_section_length, c->scie_length + 4);
        std::string line =
            text("code %lu data %ld r%lu, %lu at 0x%lx", c->scie_code_alignment_factor, c->scie_data_alignment_factor,
                 c->scie_return_address_register, c->scie_cfi_size, c->scie_cfi_offset);
        const auto *a = static_cast<krv_amd64_cie_augmentation *>(c->scie_augmentation_data);
        EXPECT_EQ(c->scie_augmentation_type, a == nullptr ? KRV_AUG_NONE : KRV_AUG_AMD64);
        line += c->scie_signal ? ", S" : "";
        return a == nullptr ? line
                            : line + text(", P%u %lx R%u %x L%u %lx", a->scie_P, a->scie_pr, a->scie_R, a->scie_re,
                                          a->scie_L, a->scie_le);
    }

    std::string dump(krv_fde_t *fdep)
    {
        const krv_fde_owner f(fdep, {h});
        if (f == nullptr)
            return h.error();
        EXPECT_EQ(f->sfde_section_length, f->sfde_length + 4);
        std::string line = text("0x%lx+0x%lx, %lu at 0x%lx", f->sfde_target_address, f->sfde_address_range,
                                f->sfde_cfi_size, f->sfde_cfi_offset);
        const auto *a = static_cast<krv_amd64_fde_augmentation *>(f->sfde_augmentation_data);
        return a == nullptr ? line : line + text(", lsda 0x%lx", a->safa_ldsa);
    }
    std::string dump_fde(uint64_t offset) { return dump(krv_get_fde_by_offset(h, offset)); }
    std::string lookup(uint64_t address) { return dump(krv_get_fde_by_address(h, address)); }
};

} // namespace

TEST(EhFrame, PointerEncodings)
{
    const bytes input = bytes::hex("f0 83 44 f5 86 87 88 89");
    const uint64_t word = 0x89888786f54483f0, pc = 0x100, data = UINT64_MAX - 0xff; // whose sum wraps around
    for (const auto target : both_targets) {
        const size_t address = target == I386 ? 4 : 8;
        const size_t widths[16] = {address, 3, 2, 4, 8, 0, 0, 0, 0, 3, 2, 4, 8}; // 0: no such format
        const uint64_t first = target == I386 ? 0xf54483f0 : word, s3 = 0xfffffffffff101f0, s2 = 0xffffffffffff83f0;
        const uint64_t s4 = 0xfffffffff54483f0;
        const uint64_t values[16] = {first, 0x1101f0, 0x83f0, 0xf54483f0, word, 0, 0, 0, 0, s3, s2, s4, word};
        for (unsigned encoding = 0; encoding < 256; ++encoding) {
            const unsigned format = encoding & 0xf, base = encoding & 0xf0;
            const size_t width = widths[format];
            std::string expected = text("INVALID: illegal EH form (0x%x)", format);
            if (width != 0 && base != 0 && base != 0x10 && base != 0x30)
                expected =
                    text("UNSUPPORTED: unsupported target address encoding 0x%x | unable to decode EH datum", encoding);
            else if (width != 0)
                expected = text("%lx after %zu", values[format] + (base == 0x10 ? pc : base == 0x30 ? data : 0), width);
            for (const bytes &from : {input, input.first(width - (width != 0))}) {
                handle h(target);
                krv_fd_t fd = h.cursor(from);
                uint64_t datum = 0;
                const int result = krv_decode_eh_form(&fd, static_cast<uint8_t>(encoding), pc, data, &datum);
                const std::string outcome = result == 0 ? text("%lx after %lu", datum, fd.sfd_offset) : h.error();
                if (from.size() >= width)
                    EXPECT_EQ(outcome, expected) << encoding;
                else
                    EXPECT_TRUE(outcome.ends_with(" | korva_decode_form() failed | unable to decode EH datum"))
                        << outcome;
            }
        }
    }
}

TEST(EhFrame, Cies)
{
    const std::string head = "code 1 data -8 r16, ", routine = " | failed to read personality routine";
    const std::string at_start = " | failed to read CIE at address 0x9000 in .eh_frame";
    const struct {
        eh_cie record;
        std::string outcome; // of an error without its last message
    } rows[] = {
        {{}, head + "3 at 0x9011, P0 0 R1 1b L0 0"},
        {{.code_align = 4, .data_align = -4, .column = 200}, "code 4 data -4 r200, 2 at 0x9012, P0 0 R1 1b L0 0"},
        {{.augmentation = "", .instructions = bytes::hex("0c 07 08")}, head + "3 at 0x900d"},
        {{.augmentation = "z", .data = {}}, head + "1 at 0x900f, P0 0 R0 0 L0 0"},
        {{.augmentation = "zPLR", .data = bytes::hex("03 34 12 00 00 1b 3b")},
         head + "3 at 0x9019, P1 1234 R1 3b L1 1b"},
        {{.augmentation = "zRP", .data = bytes::hex("1b 1b 10 00 00 00")}, head + "1 at 0x9017, P1 9023 R1 1b L0 0"},
        {{.augmentation = "zP", .data = bytes::hex("3b f0 ff ff ff")}, head + "3 at 0x9015, P1 8ff0 R0 0 L0 0"},
        {{.data_length = 4}, head + "3 at 0x9011, P0 0 R1 1b L0 0"},              // the letters say what is read
        {{.length = UINT32_MAX}, head + "4294967282 at 0x9011, P0 0 R1 1b L0 0"}, // no 64-bit format

        {{.length = 0}, "CORRUPT: form DW_FORM_data4 requires 4 bytes;  0 remaining | failed to read CIE id"},
        {{.id = 5}, "CORRUPT: illegal CIE id (0x5)"},
        {{.version = 3}, "CORRUPT: illegal Version (3)"},
        {{.length = 7}, "CORRUPT: unterminated string | failed to read augmentation"},
        {{.augmentation = "zRRRRRRRRRRRRRRR"},
         "NOSPACE: string decoder requires 17 bytes;  storage offers 16 | failed to read augmentation"},
        {{.augmentation = "eh"}, "CORRUPT: augmentation string starts with illegal character"},
        {{.data_length = 5}, "CORRUPT: illegal augmentation length"},
        {{.augmentation = "zS"}, "CORRUPT: illegal operation in augmentation string"},
        {{.augmentation = "zRR"}, "CORRUPT: duplicate code encoding"},
        {{.augmentation = "zPP", .data = bytes::hex("02 00 00")}, "CORRUPT: duplicate personality specifier"},
        {{.length = 12, .data_length = 0},
         "CORRUPT: form DW_FORM_data1 requires 1 byte;  0 remaining | failed to read code encoding"},
        {{.augmentation = "zP", .data = bytes::hex("9b 00 00 00 00")},
         "UNSUPPORTED: unsupported target address encoding 0x9b | unable to decode EH datum" + routine},
    };
    for (const auto &row : rows)
        for (const auto target : both_targets)
            EXPECT_EQ(loaded(row.record.build().fill(16), {}, target).dump_cie(0),
                      row.outcome + (row.outcome.starts_with("code") ? "" : at_start));
}

TEST(EhFrame, Fdes)
{
    const eh_cie lsda{.augmentation = "zLR", .data = bytes::hex("1b 1b")}, plain{.data = bytes::hex("00")};
    const std::string unreadable = " | unable to decode EH datum | failed to read target address";
    const std::string no_parent = " in .eh_frame | couldn't get parent CIE";
    const struct {
        eh_fde record;
        std::string outcome; // of an error without its last message
        eh_cie parent = {};
        std::vector<krv_activation_type_t> targets = {I386, AMD64};
    } rows[] = {
        {{}, "0x1000+0x100, 3 at 0x9025, lsda 0x0"},
        {{.address = 0xfff0, .instructions = bytes::hex("41 0e 10")}, "0xfff0+0x100, 3 at 0x9025, lsda 0x0"},
        {{.encoding = DW_EH_PE_udata8, .augmented = false}, "0x1000+0x100, 0 at 0x9028", {.augmentation = ""}},
        {{.encoding = DW_EH_PE_absptr}, "0x1000+0x100, 3 at 0x902d, lsda 0x0", plain, {AMD64}},
        {{.encoding = DW_EH_PE_udata4}, "0x1000+0x100, 3 at 0x9025, lsda 0x0", plain, {I386}},
        {{}, "0xfe4+0x100, 3 at 0x9025, lsda 0x0", {.data = bytes::hex("3b")}}, // told from 0x901c, read from 0x9000
        {{.range = UINT64_MAX}, "0x1000+0xffffffffffffffff, 3 at 0x9025, lsda 0x0"},
        {{.data = bytes().u32(0x10)}, "0x1000+0x100, 3 at 0x9029, lsda 0x9035", lsda},
        {{.data = bytes().u64(0x77)}, "0x1000+0x100, 3 at 0x902d, lsda 0x77", {}, {AMD64}}, // no L: absptr

        {{.cie_pointer = 0}, "CORRUPT: illegal CIE pointer (0)"},
        // Itself; below the section, and below address 0.
        {{.cie_pointer = 4}, "CORRUPT: illegal CIE id (0x4) | failed to read CIE at address 0x9014" + no_parent},
        {{.cie_pointer = 0x9019},
         "CORRUPT: form DW_FORM_data4 requires 4 bytes;  0 remaining | failed to read Length | "
         "failed to read CIE at address 0xffffffffffffffff" +
             no_parent},
        {{.length = 12},
         "CORRUPT: DW_FORM_udata datum unterminated by end of section | failed to read augmentation section size"},
        {{.data_length = 4},
         "CORRUPT: length of remaining augmentation section (4) exceeds length of remaining FDE (3)"},
        {{}, "UNSUPPORTED: unsupported target address encoding 0x9b" + unreadable, {.data = bytes::hex("9b")}},
        {{}, "INVALID: illegal EH form (0xf) | failed to read target address", {.data = bytes::hex("ff")}},
        {{.data = bytes::hex("00")},
         "INVALID: illegal EH form (0xf) | failed to read LDSA",
         {.augmentation = "zLR", .data = bytes::hex("ff 1b")}},
    };
    for (const auto &row : rows)
        for (const auto target : row.targets) {
            const bytes parent = row.parent.build();
            const uint64_t at = EH + parent.size();
            eh_fde record = row.record;
            record.cie = EH;
            const std::string in = text(" | failed to read FDE at address 0x%lx in .eh_frame", at);
            EXPECT_EQ(loaded(parent + record.build(at), {}, target).dump_fde(parent.size()),
                      row.outcome + (row.outcome[0] == '0' ? "" : in));
        }
}

// What the base interface refuses, as compilers and linkers write it.
TEST(EhFrame, AsWritten)
{
    const std::string refused = " | failed to read CIE at address 0x9000 in .eh_frame", head = "code 1 data -8 r16, ";
    const std::string unreadable = "UNSUPPORTED: unknown letter 'X' in augmentation string" + refused;
    const struct {
        eh_cie record;
        std::string outcome;
        std::string fde = "0x1000+0x100, "; // begins with
    } rows[] = {
        {{.augmentation = "zPLR", .data = bytes::hex("9b 34 12 00 00 1b 1b")}, head + "3 at 0x9019, P1 0 R1 1b L1 0"},
        {{.augmentation = "zPLR", .data = bytes::hex("ff ff 1b")}, head + "3 at 0x9015, P1 0 R1 1b L1 0"},
        {{.augmentation = "zRS"}, head + "2 at 0x9012, S, P0 0 R1 1b L0 0"},
        {{.augmentation = "zSRB", .code_align = 300}, "code 300 data -8 r16, 0 at 0x9014, S, P0 0 R1 1b L0 0"},
        {{.version = 3}, head + "3 at 0x9011, P0 0 R1 1b L0 0"},
        {{.augmentation = "zRXS", .data = bytes::hex("1b 00 00")}, head + "3 at 0x9015, S, P0 0 R1 1b L0 0"},
        {{.augmentation = "zX", .data = bytes::hex("00")}, head + "3 at 0x9011, P0 0 R0 0 L0 0", ""},
        {{.augmentation = "zXR", .data = bytes::hex("00 1b")}, unreadable, unreadable},
        {{.augmentation = "zPR", .data = bytes::hex("05 1b")},
         "UNSUPPORTED: unknown letter 'P' in augmentation string" + refused,
         "UNSUPPORTED"},
        {{.data_length = 9}, "CORRUPT: illegal augmentation length" + refused, "CORRUPT"},
        {{.version = 4}, "CORRUPT: illegal Version (4)" + refused, "CORRUPT"},
    };
    for (const auto &row : rows) {
        const bytes parent = row.record.build();
        const bytes child = eh_fde{.cie = EH, .data = bytes().u16(0x77)}.build(EH + parent.size());
        for (const bool extended : {false, true}) {
            loaded p(parent + child);
            p.h.extend(extended ? KRV_EXT_AS_WRITTEN : 0);
            EXPECT_EQ(p.dump_cie(0) == row.outcome, extended || row.outcome.starts_with("CORRUPT")) << p.dump_cie(0);
            EXPECT_TRUE(!extended || p.dump_fde(parent.size()).starts_with(row.fde)) << p.dump_fde(parent.size());
        }
    }
    // A section without records is none that is damaged; without augmentation, addresses are as wide as the target's.
    loaded empty(bytes().u32(0)),
        plain(eh_cie{.augmentation = ""}.build() +
                  eh_fde{.cie = EH, .encoding = DW_EH_PE_udata4, .augmented = false}.build(EH + 16),
              {}, I386);
    empty.h.extend(KRV_EXT_AS_WRITTEN);
    EXPECT_TRUE(empty.lookup(0x1000).starts_with("NOTFOUND: "));
    plain.h.extend(KRV_EXT_AS_WRITTEN);
    EXPECT_EQ(plain.lookup(0x1000), "0x1000+0x100, 0 at 0x9020");
}

// Wherever memory ends, the field that was being read says so, although whole records are read ahead.
TEST(EhFrame, EveryReadIsReported)
{
    const bytes parent = eh_cie{.augmentation = "zPLR", .data = bytes::hex("03 34 12 00 00 1b 1b")}.build();
    const bytes section = parent + eh_fde{.cie = EH, .data = bytes().u32(1)}.build(EH + parent.size());
    std::string seen, last;
    for (size_t size = 0; size <= section.size(); ++size) {
        loaded p(section.first(size));
        const std::string outcome = failed_read(size < parent.size() ? p.dump_cie(0) : p.dump_fde(parent.size()));
        if (outcome != last)
            seen += outcome + "; ";
        last = outcome;
    }
    EXPECT_EQ(seen,
              "failed to read Length; failed to read CIE id; failed to read Version; failed to read augmentation; "
              "failed to read Ret Address Reg; failed to read augmentation section size; "
              "code 1 data -8 r16, 3 at 0x9019, P1 1234 R1 1b L1 1b; "
              "failed to read Length; failed to read CIE pointer; failed to read target address; "
              "failed to read address range; failed to read augmentation section size; "
              "0x1000+0x100, 3 at 0x9031, lsda 0x902e; ");
}

// A section that reaches the end of the address space, and no address space at all.
TEST(EhFrame, EndsOfMemory)
{
    loaded p(eh_cie{}.build());
    p.memory.base = UINT64_MAX - 8;
    korva_handle_set_opt(p.h, KRV_OPT_EH_FRAME_ADDR, p.memory.base);
    korva_attach_as(p.h, reader::read, &p.memory); // chooses again
    EXPECT_EQ(p.dump_cie(0), "INVALID: cannot truncate section to 16 bytes;  only 4 remain | "
                             "failed to read CIE at address 0xfffffffffffffff7 in .eh_frame");
    EXPECT_EQ(p.dump_fde(5), "CORRUPT: form DW_FORM_data4 requires 4 bytes;  3 remaining | failed to read Length | "
                             "failed to read FDE at address 0xfffffffffffffffc in .eh_frame");
    handle h;
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, EH);
    EXPECT_TRUE(refuses(h, krv_get_cie_by_offset(h, 1),
                        "INVALID: .debug_frame not present | section is empty | unable to seek to offset 0x9001 | "
                        "failed to read CIE at address 0x9001 in .eh_frame"));
}

TEST(EhFrame, SetLoc)
{
    const struct {
        int encoding; // -1: no augmentation
        const char *operand, *outcome;
    } rows[] = {
        {-1, "34 12 00 00 00 00 00 80", "1:8000000000001234"},
        {0x1b, "fe ff ff ff", "1:ffffffffffffffff"}, // relative to itself, at offset 1
        {0x3b, "fe ff ff ff", "1:8ffe"},
        {0x03, "fe ff ff ff", "1:fffffffe"},
        {0x03, "fe ff ff",
         "CORRUPT: form DW_FORM_data4 requires 4 bytes;  3 remaining | korva_decode_form() failed | "
         "unable to decode EH datum | failed to read operand"},
        {0x23, "00 00 00 00",
         "UNSUPPORTED: unsupported target address encoding 0x23 | unable to decode EH datum | failed to read operand"},
    };
    for (const auto &row : rows) {
        handle h(I386); // whose own addresses have 4 bytes
        krv_amd64_cie_augmentation augmentation = {};
        augmentation.scie_re = static_cast<uint8_t>(row.encoding);
        const bytes stream = bytes::hex("01") + bytes::hex(row.operand);
        krv_operation_t op;
        krv_fd_t fd = h.cursor(stream);
        EXPECT_TRUE(
            refuses(h, krv_eh_frame_aug_next_op(h, &fd, &op, &augmentation), "INVALID: .eh_frame address unknown"));
        korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, EH);
        fd = h.cursor(stream);
        const bool read = krv_eh_frame_aug_next_op(h, &fd, &op, row.encoding < 0 ? nullptr : &augmentation) == 0;
        EXPECT_EQ(read ? text("%u:%lx", op.opcode, op.operand[0].sa_u.su_unsigned) : h.error(), row.outcome);
    }
}

namespace
{

// Five functions, at 0x1000, 0x2000, ... 0x5000, of 0x800 bytes each.
struct image {
    bytes eh_frame = eh_cie{}.build();
    eh_hdr hdr = {};

    explicit image(uint8_t table_encoding = 0x3b)
    {
        hdr.table_encoding = table_encoding;
        for (uint64_t address = 0x1000; address <= 0x5000; address += 0x1000) {
            hdr.entries.emplace_back(address, EH + eh_frame.size());
            eh_frame += eh_fde{.cie = EH, .address = address, .range = 0x800}.build(EH + eh_frame.size());
        }
        eh_frame.u32(0);
    }
    bytes table() const { return hdr.build(HDR, EH); }
};

} // namespace

static void expect_every_function(loaded &p)
{
    for (uint64_t address = 0; address < 0x7000; address += 0x200)
        for (const uint64_t near : {address, address + 0x1ff}) {
            const bool covered = near >= 0x1000 && near < 0x6000 && near % 0x1000 < 0x800;
            const std::string found = p.lookup(near);
            EXPECT_TRUE(found.starts_with(covered ? text("0x%lx+0x800, ", near & ~0xfffUL) : "NOTFOUND"))
                << near << found;
        }
}

static bool walked(const loaded &p)
{
    return krv_get_reader(p.h)->sr_lt != nullptr;
}

static krv_eh_status_t status(const loaded &p)
{
    return static_cast<krv_eh_frame_reader_data *>(krv_get_reader(p.h)->sr_data)->sefh_status;
}

TEST(EhFrameHdr, FindsEveryFunction)
{
    for (const auto target : both_targets)
        for (const uint8_t encoding : {0x02, 0x03, 0x04, 0x0b, 0x0c, 0x14, 0x1b, 0x1c, 0x34, 0x3b, 0x3c}) {
            SCOPED_TRACE(text("encoding 0x%x", encoding));
            const image program(encoding);
            loaded p(program.eh_frame, program.table(), target);
            expect_every_function(p);
            EXPECT_EQ(status(p), KRV_EFH_INITIALISED);
            EXPECT_FALSE(walked(p));
        }
}

// A table that cannot be used is given up for good, and the section itself searched.
TEST(EhFrameHdr, FallsBackToTheSection)
{
    image no_fp, no_count;
    no_fp.hdr.fp_encoding = no_count.hdr.count_encoding = 0xff;
    const std::string datum = "korva_decode_form() failed; unable to decode EH datum; failed to read ";
    const std::vector<std::string> fields = {"failed to read version",
                                             "failed to read frame pointer encoding",
                                             "failed to read FDE count encoding",
                                             "failed to read table encoding",
                                             datum + "frame pointer",
                                             datum + "FDE count"};
    image one;
    one.hdr.count = 1;
    struct row {
        bytes hdr;
        std::string messages;
        unsigned fault_at = 0;
    };
    std::vector<row> rows = {
        {{}, ".eh_frame_hdr base address unknown"},
        {no_fp.table(), "illegal EH form (0xf); failed to read frame pointer"},
        {no_count.table(), "illegal EH form (0xf); failed to read FDE count"},
        {image(0x00).table(), "unsupported table entry encoding"},
        {image(0x01).table(), "unsupported table entry encoding"},
        {image().table().first(28), "read callback failed; " + datum + "VA"},   // memory ends before entry 2,
        {one.table().first(16), "read callback failed; " + datum + "location"}, // and within entry 0
        {image(0x23).table(), "unsupported target address encoding 0x23; unable to decode EH datum; failed to read VA"},
    };
    for (const std::string &field : fields)
        rows.push_back({image().table(), "read callback failed; " + field, static_cast<unsigned>(rows.size()) - 7});
    for (const row &r : rows) {
        loaded p(image().eh_frame, r.hdr);
        p.memory.kind = fault::fails;
        p.memory.fault_at = r.fault_at;
        krv_get_reader(p.h);
        p.h.watch(); // clears
        EXPECT_TRUE(p.lookup(0x1000).starts_with("0x1000+0x800, "));
        std::string messages;
        for (size_t i = 0; i < p.h.log.size() && !messages.ends_with("failure parsing .eh_frame_hdr"); ++i)
            messages += (i == 0 ? "" : "; ") + p.h.log[i].substr(2);
        EXPECT_EQ(messages, r.messages + "; failure parsing .eh_frame_hdr");
        EXPECT_EQ(status(p), KRV_EFH_UNSUPPORTED);
        EXPECT_TRUE(walked(p));
        p.h.log.clear();
        expect_every_function(p);
        EXPECT_EQ(p.h.log, std::vector<std::string>{});
    }
}

TEST(EhFrameHdr, TableAndSectionDisagree)
{
    image lies; // entry 0 leads to another function
    lies.hdr.entries[0].second = lies.hdr.entries[1].second;
    loaded p(lies.eh_frame, lies.table());
    EXPECT_TRUE(p.lookup(0x2000).starts_with("0x2000+0x800, "));
    EXPECT_FALSE(walked(p)); // this entry was right
    p.h.watch();
    EXPECT_TRUE(p.lookup(0x1000).starts_with("0x1000+0x800, "));
    EXPECT_TRUE(walked(p));
    p.h.log.resize(2);
    EXPECT_EQ(p.h.log[0],
              "1 BST entry found for address 0x1000 is { address = 0x1000, offset = 0x28 } (next address is "
              "0x2000) but FDE covers range 0x2000..0x27ff");
    EXPECT_EQ(p.h.log[1], "2 forcing BST regeneration");
    expect_every_function(p);

    image astray; // an entry that leads nowhere is a failure: only contradictions are worth a walk
    astray.hdr.entries[0].second = EH - 0x900;
    loaded q(astray.eh_frame, astray.table());
    EXPECT_EQ(q.lookup(0x1000), "IO: read callback failed | failed to read Length | "
                                "failed to read FDE at address 0x8700 in .eh_frame");
    EXPECT_FALSE(walked(q));

    // Indices have 32 bits, and a table without entries is no reason to walk either.
    for (const uint64_t count : {0UL, 1UL << 31 | 1, 0xffffffffUL, 1UL << 32 | 5}) {
        image counted;
        counted.hdr.count_encoding = DW_EH_PE_udata8;
        counted.hdr.count = count;
        loaded c(counted.eh_frame, counted.table());
        EXPECT_EQ(c.lookup(0x1000).starts_with("0x1000+0x800, "), count == (1UL << 32 | 5));
        EXPECT_EQ(korva_handle_get_errno(c.h), count == (1UL << 32 | 5) ? KRV_ERR_NONE : KRV_ERR_NOTFOUND);
        EXPECT_FALSE(walked(c));
    }
}

// Records and the table read at once, and field by field where the target's memory comes in words: the same answers and
// messages for the same damaged bytes.
TEST(EhFrameHdr, AtOnceOrFieldByField)
{
    static uint64_t behind_a_byte;
    const auto words = [](void *arg, void *buf, size_t count, uint64_t address) {
        const bool text = address == behind_a_byte; // a string stands behind the version, and is no bulk
        behind_a_byte = count == 1 ? address + 1 : 0;
        return count > 10 && !text ? -1 : reader::read(arg, buf, count, address);
    };
    std::mt19937 random(1);
    std::set<std::string> outcomes;
    for (int n = 0; n < 1000; ++n) {
        image program(random() % 4 == 0 ? 0x1b : 0x3b);
        loaded quick(program.eh_frame, program.table()), slow(program.eh_frame, program.table());
        for (unsigned damage = random() % 3; damage != 0; --damage) {
            size_t at = random() % (program.eh_frame.size() + program.table().size());
            at += at < program.eh_frame.size() ? 0 : HDR - EH - program.eh_frame.size();
            const unsigned byte =
                random() % 3 == 0 ? random() % 0x100 : quick.memory.contents.data()[at] ^ 1U << random() % 8;
            for (loaded *p : {&quick, &slow})
                p->memory.contents.set(at, byte, 1);
        }
        korva_attach_as(slow.h, words, &slow.memory);
        for (const uint64_t address : {0x1010UL, 0x1020UL, 0x3000UL, 0x57ffUL}) {
            const std::string outcome = quick.lookup(address);
            ASSERT_EQ(outcome, slow.lookup(address)) << n;
            outcomes.insert(outcome);
        }
    }
    EXPECT_GT(outcomes.size(), 100U);
}

// What searches saw on their way spares reads and changes no answer: in tables in order or not, and, of those that are in
// order, when memory has changed since.
TEST(EhFrameHdr, RemembersItsWay)
{
    std::mt19937 random(2);
    const auto find = [](loaded &p, uint64_t address) {
        uint64_t start = 0, offset = 0, next = 0;
        const int result = krv_get_fde_offset_by_address(p.h, address, B_FALSE, &start, &offset, &next);
        return text("%d %d %lx %lx %lx", result, korva_handle_get_errno(p.h), start, offset, next);
    };
    for (const unsigned count : {20U, 33U, 300U, 3000U})
        for (const unsigned swaps : {0U, 1U, count / 4}) {
            eh_hdr table;
            for (uint64_t i = 0; i < count; ++i)
                table.entries.emplace_back(0x1000 + 16 * i, EH + 8 * i);
            for (unsigned n = 0; n < swaps; ++n)
                std::swap(table.entries[random() % count], table.entries[random() % count]);
            if (swaps != 0)
                table.entries[random() % count].first -= 0x100000; // below 0, where the highest addresses are
            loaded old({}, table.build(HDR, EH));
            unsigned reads = 0;
            const auto compare = [&](unsigned times) {
                loaded fresh({}, table.build(HDR, EH));
                for (unsigned n = 0; n < times; ++n) {
                    const uint64_t address = 0xff0 + random() % (16 * count + 32);
                    krv_destroy_reader(fresh.h);
                    ASSERT_EQ(find(old, address), find(fresh, address))
                        << count << " entries, " << swaps << " swaps, " << std::hex << address;
                }
                reads += fresh.memory.reads;
            };
            compare(count < 3000 ? 1000 : 200);
            EXPECT_TRUE(count < 3000 || swaps != 0 || old.memory.reads < reads / 3) << old.memory.reads << " " << reads;
            if (swaps != 0)
                continue;
            for (auto &entry : table.entries) // everything moves down
                entry.first = 0x1000 + (entry.first - 0x1000) / 2 + (random() % 2 == 0 ? 0 : 4);
            std::sort(table.entries.begin(), table.entries.end());
            old.memory.contents = loaded({}, table.build(HDR, EH)).memory.contents;
            compare(200);
        }
}
