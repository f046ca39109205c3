// SPDX-License-Identifier: Apache-2.0
//
// Frame readers: which one serves a handle, and the search for the FDE of an address.
#include "builders/frames.h"
#include "krv_eh_frame.h"
#include "krv_frame.h"
#include "support/handle.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>

using namespace krv_test;

static std::string lookup(krv_handle_t *hp, uint64_t address)
{
    const krv_fde_owner f(krv_get_fde_by_address(hp, address), {hp});
    return f == nullptr ? error_line(hp) : text("0x%lx", f->sfde_target_address);
}

TEST(Frame, ReaderOfAHandle)
{
    handle h;
    EXPECT_EQ(lookup(h, 0x1000), "NOTFOUND: .debug_frame not present | .eh_frame load address not set");
    krv_reader_t *none = krv_get_reader(h);
    const std::string neither = h.error();
    EXPECT_TRUE(refuses(h, krv_get_cie_by_offset(h, 0), neither));
    EXPECT_TRUE(refuses(h, krv_get_fde_by_offset(h, 0), neither));
    uint64_t start, offset, next;
    EXPECT_TRUE(refuses(h, krv_get_fde_offset_by_address(h, 0, B_TRUE, &start, &offset, &next), neither));

    // Chosen once; a new address space makes the next query choose again.
    reader memory{.contents = eh_cie{}.build() + eh_fde{.address = 0x2000}.build(20).u32(0)};
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, uint64_t{0});
    EXPECT_EQ(krv_get_reader(h), none);
    EXPECT_TRUE(lookup(h, 0x2000).starts_with("NOTFOUND"));
    korva_attach_as(h, reader::read, &memory);
    EXPECT_EQ(lookup(h, 0x2000), "0x2000");
    h.attach(KRV_SEC_FRAME, cie{}.build() + fde{}.build());
    EXPECT_EQ(lookup(h, 0x2000), "0x2000");
    krv_destroy_reader(h);
    EXPECT_EQ(lookup(h, 0x2000), "NOTFOUND");
    EXPECT_EQ(lookup(h, 0x1000), "0x1000");
    krv_destroy_reader(h);
    krv_destroy_reader(h);
}

// Any number of FDEs in any order, against a search that looks at each.
TEST(Frame, LinearTable)
{
    for (unsigned count = 1; count <= 9; ++count) {
        std::vector<uint64_t> order(count);
        std::iota(order.begin(), order.end(), 1);
        std::shuffle(order.begin(), order.end(), std::mt19937(count));
        bytes section = cie{}.build();
        for (const uint64_t place : order)
            section += fde{.address = 0x100 * place, .range = 0x80}.build();
        reader source{.contents = section};
        handle h;
        h.attach(KRV_SEC_FRAME, &source);
        for (uint64_t address = 0; address < 0x100 * (count + 2); address += 0x20) {
            const uint64_t expected = std::min(address / 0x100, uint64_t{count}) * 0x100;
            uint64_t start = 0, offset = 0, next = 0;
            const bool found = krv_get_fde_offset_by_address(h, address, B_FALSE, &start, &offset, &next) == 0;
            ASSERT_EQ(found, expected != 0) << address;
            EXPECT_EQ(start, expected);
            EXPECT_TRUE(!found || next == start || next == start + 0x100) << next;
            EXPECT_EQ(lookup(h, address).substr(0, 8),
                      found && address < expected + 0x80 ? text("0x%lx", expected) : "NOTFOUND");
        }
        const unsigned reads = source.reads;
        const krv_linear_t *lt = krv_get_reader(h)->sr_lt;
        EXPECT_EQ(lookup(h, 0), "NOTFOUND"); // needs no read, and no other table
        EXPECT_EQ(source.reads, reads);
        EXPECT_EQ(krv_get_reader(h)->sr_lt, lt);
        EXPECT_EQ(lt->sl_table_size, lt->sl_table_entries);
    }
}

TEST(Frame, Extents)
{
    const std::string no_record = "CORRUPT: form DW_FORM_sec_offset requires 4 bytes;  0 remaining | "
                                  "failed to read 4-byte unit_length | "
                                  "failed to read FDE at offset 0x10 in .debug_frame";
    const bytes gap = fde{}.build() + fde{.address = 0x1100, .range = 0x10}.build();
    const bytes overlap = fde{.range = 0x101}.build() + fde{.address = 0x1100, .range = 0x10}.build();
    const bytes last = fde{.address = UINT64_MAX - 0xf, .range = 0x10}.build();
    const struct {
        bytes fdes;
        uint64_t address;
        std::string outcome;
    } rows[] = {
        {gap, 0x1000, "0x1000"},
        {gap, 0x10ff, "0x1000"},
        {gap, 0x1100, "0x1100"},
        {gap, 0x1110, "NOTFOUND"},
        {gap, 0xfff, "NOTFOUND: "},
        {overlap, 0x1100, "0x1100"}, // whoever asks of the last entry does not see the one before
        {overlap, 0x10ff,
         "CORRUPT: BST entry found for address 0x10ff is { address = 0x1000, offset = 0x10 } (next address is 0x1100) "
         "but FDE covers range 0x1000..0x1100 | giving up"},
        {last, UINT64_MAX, "0xfffffffffffffff0"},
        {fde{.address = UINT64_MAX - 0xf, .range = 0x20}.build(), UINT64_MAX, "NOTFOUND"}, // beyond the last address
        {fde{.range = 0}.build(), 0x1000, "NOTFOUND"},
        {fde{.address = 0, .range = 0}.build(), 0x1000, "NOTFOUND"}, // not everything
        {fde{.address = 0, .range = 0}.build(), 0, "NOTFOUND"},
        {{}, 0x1000, no_record},
    };
    for (const auto &row : rows) {
        handle h;
        h.attach(KRV_SEC_FRAME, cie{}.build() + row.fdes);
        lookup(h, 0); // the walk leaves messages
        const std::string outcome = lookup(h, row.address);
        EXPECT_EQ(outcome.substr(0, row.outcome.ends_with(": ") ? row.outcome.size() : outcome.size()), row.outcome);
    }
}
