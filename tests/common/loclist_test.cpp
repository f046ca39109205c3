// SPDX-License-Identifier: Apache-2.0
//
// Location lists: which expression holds at an address.
#include "builders/sections.h"
#include "support/handle.h"

#include <gtest/gtest.h>

using namespace krv_test;

namespace
{

// What a walk over a list tells of an address.
struct seen_at {
    uint64_t pc;
    krv_fd_t place{}, fallback{};
};

} // namespace

static int see(krv_handle_t *, const krv_location_t *here, void *arg)
{
    auto *seen = static_cast<seen_at *>(arg);
    if (here->is_default != 0)
        seen->fallback = here->expression;
    else if (here->start <= seen->pc && seen->pc < here->end)
        seen->place = here->expression;
    return 0;
}

TEST(LocationList, Expressions)
{
    const bytes pairs = bytes().u64(0x10).u64(0x20).u16(2).add(bytes::hex("50 51")).u64(0x20).u64(0x20).u16(1).u8(0x52);
    const bytes based = bytes().u64(UINT64_MAX).u64(0x9000).u64(0).u64(8).u16(0);
    const bytes end = bytes().u64(0).u64(0);
    const auto at = [](const char *hex) { return bytes::hex(hex); };
    const auto addresses = [](uint64_t a, uint64_t b) { return bytes().u8(7).u64(a).u64(b); };
    const std::string list = "failed to read the location list at offset ", loc = " of .debug_loc",
                      lists = " of .debug_loclists";
    const struct {
        uint16_t version;
        bytes section;
        uint64_t list;
        uint32_t flags;
        uint64_t pc;
        std::string outcome;
    } rows[] = {
        {4, pairs + end, 0, 0, 0x1010, "2 bytes at 18"}, // from the unit's base
        {4, pairs + end, 0, 0, 0x1020, "NOTFOUND"},
        {4, pairs + based + end, 0, 0, 0x9007, "0 bytes at 73"},
        {4, pairs, 0, 0, 0x1030, "CORRUPT: form DW_FORM_addr requires 8 bytes;  0 remaining | " + list + "0x0" + loc},
        {4, bytes().u64(0x10).u64(0x20).u16(3), 0, 0, 0x1010,
         "CORRUPT: expression of 3 bytes, where 0 remain | " + list + "0x0" + loc},
        {4, end, 16, 0, 0, "CORRUPT: location list at offset 0x10 leads out of .debug_loc"},
        {5, at("09 00 00 04 10 20 01 50 05 02 51 52 00"), 0, 0, 0x1010, "1 bytes at 7"},
        {5, at("09 00 00 04 10 20 01 50 05 02 51 52 00"), 0, 0, 0x1020, "2 bytes at 10"}, // the default location
        {5, addresses(8, 9).add(at("00 08")).u64(8).u8(2).u8(0).u8(0), 0, 0, 9, "0 bytes at 29"},
        {5, bytes().u8(6).u64(0x7000).add(at("04 00 01 01 53 00")), 0, 0, 0x7000, "1 bytes at 13"},
        {5, at("01 01 04 00 04 00 00"), 0, 0, 0x4003, "0 bytes at 6"},
        {5, at("02 00 01 01 57 03 01 08 00 00"), 0, 0, 0x3000, "1 bytes at 4"},
        {5, at("02 00 01 01 57 03 01 08 00 00"), 0, 0, 0x4007, "0 bytes at 9"},
        {5, at("03 02 08 00 00"), 0, 0, 0,
         "CORRUPT: index 2 at base 0x8 leads out of .debug_addr | " + list + "0x0" + lists},
        {5, at("0a"), 0, 0, 0, "CORRUPT: unknown kind 0x9 of range | " + list + "0x0" + lists},
        {5, bytes().u32(25).u16(5).u16(8).u32(1).u32(4).add(at("05 01 50 00")), 0, KRV_LOCATION_F_INDEX, 0,
         "1 bytes at 18"},
        {5, bytes().u32(25).u16(5).u16(8).u32(1).u32(4).add(at("05 01 50 00")), 1, KRV_LOCATION_F_INDEX, 0,
         "CORRUPT: index 1 at base 0xc leads out of .debug_loclists"},
    };
    for (const auto &row : rows) {
        handle h;
        h.extend().attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit low_pc:addr"));
        const uint8_t kind = row.version == 5 ? KRV_UNIT_COMPILE : 0;
        h.attach(KRV_SEC_INFO, unit{.version = row.version, .kind = kind, .dies = bytes().uleb(1).u64(0x1000)}.build());
        h.attach(row.version == 5 ? krv_secidx_t{KRV_SEC_EXT_LOCLISTS} : krv_secidx_t{KRV_SEC_LOC}, row.section);
        h.attach(KRV_SEC_EXT_ADDR, bytes().u32(20).u16(5).u16(8).u64(0x3000).u64(0x4000));
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
        krv_fd_t expression;
        EXPECT_EQ(korva_find_location(h, cu, row.list, row.flags, row.pc, &expression) != 0
                      ? h.error()
                      : text("%lu bytes at %lu", expression.sfd_remaining, expression.sfd_offset),
                  row.outcome);
        seen_at seen{.pc = row.pc};
        uint64_t size = 0;
        const int walked = korva_iter_locations(h, cu, row.list, row.flags, see, &seen, &size);
        const krv_fd_t &found = seen.place.sfd_hp != nullptr ? seen.place : seen.fallback;
        EXPECT_EQ(walked != 0               ? h.error()
                  : found.sfd_hp == nullptr ? "NOTFOUND"
                                            : text("%lu bytes at %lu", found.sfd_remaining, found.sfd_offset),
                  row.outcome);
        EXPECT_TRUE(walked != 0 || size + row.list <= row.section.size());
    }
}
