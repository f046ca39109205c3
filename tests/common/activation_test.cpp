// SPDX-License-Identifier: Apache-2.0
//
// Register tables and register access. The caller's frame is the matter of unwind_test.
#include "support/activation.h"

#include <cstring>

using namespace krv_test;

namespace
{

constexpr auto DWARF = KRV_ACTIVATION_REG_DWARF, HOST = KRV_ACTIVATION_REG_HOST, LIBRARY = KRV_ACTIVATION_REG_LIBRARY;
constexpr auto CURRENT = KRV_ACTIVATION_FRAME_CURRENT;

// Register sets in which every byte tells where it lies, loaded into an activation whose program counter is 0x1234.
struct loaded {
    krv_gregset_t g = {};
    krv_fpregset_t f = {};
    stopped s;

    explicit loaded(krv_activation_type_t target = KRV_ACTIVATION_AMD64) : s({.target = target})
    {
        for (unsigned int i = 0; i < KRV_HOST_MAX; ++i)
            g[i] = 0x0101010101010101 * (i + 1);
        for (size_t i = 0; i < sizeof(f); ++i)
            reinterpret_cast<uint8_t *>(&f)[i] = static_cast<uint8_t>(i * 7);
        korva_activation_set_regs(s.h, s.ap.get(), g, UINT64_MAX, &f);
        s.load_pc(0x1234);
    }
    std::string get(krv_reg_type_t type, unsigned int reg) { return s.get(CURRENT, type, reg); }
};

} // namespace

// Every DWARF number against its place in the sets that a client loads.
TEST(Activation, RegistersLieWhereTheTargetHasThem)
{
    struct run {
        unsigned int first, count;
        const char *hosts; // one character a register, 'A' for host number 0; or
        size_t at, size;   // offset in the FXSAVE image of the first, the others 16 bytes apart
    };
    static const run amd64[] = {
        {0, 17, "OMNLJIKUHGFEDCBAR", 0, 8},
        {17, 16, nullptr, 160, 16},
        {33, 8, nullptr, 32, 10},
        {41, 8, nullptr, 32, 16},
        {49, 7, "TYSVZWX", 0, 8},
        {58, 2, "[\\", 0, 8},
        {62, 2, "AA", 0, 0},
        {64, 1, nullptr, 24, 4},
        {65, 1, nullptr, 0, 2},
        {66, 1, nullptr, 2, 2},
    };
    static const run i386[] = {
        {0, 10, "ONMLUKJIRT", 0, 4}, {11, 8, nullptr, 32, 10}, {21, 8, nullptr, 160, 16}, {29, 8, nullptr, 32, 16},
        {39, 1, nullptr, 24, 4},     {40, 6, "YSVZWX", 0, 4},  {48, 2, "AA", 0, 0},
    };
    for (const krv_activation_type_t target : both_targets) {
        SCOPED_TRACE(target);
        loaded t(target);
        std::vector<std::string> expected(t.s.ap->sa_n_registers - 2, "undefined");
        const bool wide = target == KRV_ACTIVATION_AMD64;
        for (const run &r :
             wide ? std::vector(std::begin(amd64), std::end(amd64)) : std::vector(std::begin(i386), std::end(i386)))
            for (unsigned int i = 0; i < r.count; ++i)
                expected.at(r.first + i) =
                    r.hosts == nullptr
                        ? std::string(reinterpret_cast<const char *>(&t.f) + r.at + size_t{16} * i, r.size)
                        : std::string(reinterpret_cast<const char *>(&t.g[r.hosts[i] - 'A']), r.size);
        for (unsigned int reg = 0; reg < expected.size(); ++reg) {
            char buf[32];
            size_t size = 0;
            std::string found = "undefined";
            if (krv_activation_get_reg_size(t.s.h, t.s.ap.get(), DWARF, reg, &size) == 0) {
                ASSERT_EQ(korva_activation_get_reg(t.s.h, t.s.ap.get(), DWARF, CURRENT, reg, buf, sizeof(buf)), 0);
                found.assign(buf, size);
            }
            EXPECT_EQ(found, expected[reg]) << "register " << reg;
        }
    }
}

// What a register name leads to, in reading and in writing.
TEST(Activation, Numberings)
{
    constexpr auto I386 = KRV_ACTIVATION_I386, AMD64 = KRV_ACTIVATION_AMD64;
    const struct {
        krv_activation_type_t target;
        krv_reg_type_t type;
        unsigned int reg;
        const char *expected;
    } rows[] = {
        {AMD64, HOST, KRV_HOST_RAX, "f0f0f0f0f0f0f0f"},
        {AMD64, HOST, KRV_HOST_RIP, "1234"}, // the program counter, not the column
        {AMD64, DWARF, 16, "1212121212121212"},
        {AMD64, HOST, 0, "101010101010101"}, // %r15: the first row with host number 0
        {I386, HOST, 0, "110a03fcf5eee7e0"}, // likewise: %st0
        {I386, HOST, KRV_HOST_RAX, "f0f0f0f"},
        {I386, HOST, KRV_HOST_RIP, "1234"},
        {I386, HOST, KRV_HOST_R8, "INVALID"},
        {AMD64, HOST, 28, "INVALID"},
        {AMD64, HOST, UINT32_MAX, "INVALID"}, // not the rows without a host number
        {AMD64, LIBRARY, KRV_REG_PC, "1234"},
        {AMD64, LIBRARY, KRV_REG_CFA, "NOTFOUND: register not present (0)"},
        {AMD64, LIBRARY, 2, "INVALID: register (2) out of range (0..1)"},
        {AMD64, DWARF, 56, "INVALID: DWARF register 56 is undefined"},
        {AMD64, DWARF, 67, "INVALID: register (67) out of range (0..66)"},
        {I386, DWARF, UINT32_MAX, "INVALID: register (-1) out of range (0..49)"},
        {AMD64, KRV_ACTIVATION_REG_MAX, 0, "INVALID: illegal register type (3)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(text("target %d numbering %d register %u", row.target, row.type, row.reg));
        loaded t(row.target);
        EXPECT_EQ(t.get(row.type, row.reg), row.expected);
        const bool none = std::string(row.expected).starts_with("INVALID");
        EXPECT_EQ(korva_activation_set_greg(t.s.h, t.s.ap.get(), row.type, row.reg, 5), none ? -1 : 0);
        EXPECT_EQ(t.get(row.type, row.reg), none ? row.expected : "5");
    }
}

TEST(Activation, WidthsAndPieces)
{
    stopped s({});
    const auto get = [&](unsigned int reg, size_t size) {
        char buf[] = "????????????????????";
        EXPECT_EQ(korva_activation_get_reg(s.h, s.ap.get(), DWARF, CURRENT, reg, buf, size), 0);
        return std::string(buf, 20);
    };
    EXPECT_EQ(korva_activation_set_reg(s.h, s.ap.get(), DWARF, 44, "0123456789abcdefGH"), 0); // %mm3
    EXPECT_EQ(get(44, 20), "0123456789abcdef????");
    EXPECT_EQ(get(44, 8), "01234567????????????");
    s.ap->sa_current_registers->srs_metadata[44].sr_flags |= KRV_REG_FLAG_PIECE_HI;
    EXPECT_EQ(get(44, 8), "89abcdef????????????");
    EXPECT_EQ(korva_activation_set_reg(s.h, s.ap.get(), DWARF, 36, "zyxwvutsrq"), 0); // %st3, in the same storage
    EXPECT_EQ(get(44, 20), "zyxwvutsrqabcdef????");
    s.load(44, 0x4141414141414141); // zeros above the 8 bytes given
    EXPECT_EQ(get(44, 20), std::string("AAAAAAAA\0\0\0\0\0\0\0\0????", 20));
}

TEST(Activation, PresenceMasks)
{
    constexpr uint64_t bit = 1;
    const struct {
        uint64_t mask, mask_out;
        const char *present; // DWARF numbers
        krv_activation_type_t target;
        bool g, f;
    } rows[] = {
        {bit << 14 | bit << 15, bit << 14, "0 ", KRV_ACTIVATION_AMD64, true, false}, // nothing is host register 15
        {bit, bit, "15 62 63 ", KRV_ACTIVATION_AMD64, true, false}, // the rows without storage say 0, like %r15
        {bit << 63, 0, "64 65 66 ", KRV_ACTIVATION_AMD64, true, false},
        {bit << 14, bit << 14, "0 ", KRV_ACTIVATION_I386, true, false},
        {0, bit, "11 12 13 14 15 16 17 18 21 22 23 24 25 26 27 28 29 30 31 32 33 34 35 36 39 ", KRV_ACTIVATION_I386,
         false, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.present);
        loaded t(row.target); // an earlier load leaves nothing behind; the library registers stay
        krv_activation_t *ap = t.s.ap.get();
        EXPECT_EQ(korva_activation_set_regs(t.s.h, ap, row.g ? t.g : nullptr, row.mask, row.f ? &t.f : nullptr), 0);
        std::string present;
        for (unsigned int reg = 0; reg < krv_dwarf_slots(ap); ++reg)
            if (t.get(DWARF, reg).find(':') == std::string::npos)
                present += std::to_string(reg) + " ";
        EXPECT_EQ(present, row.present);
        EXPECT_EQ(t.get(LIBRARY, KRV_REG_PC), "1234");
        krv_gregset_t out = {};
        uint64_t mask = 99;
        EXPECT_EQ(korva_activation_get_gregs(t.s.h, ap, CURRENT, &out, &mask), 0);
        EXPECT_EQ(mask, row.mask_out);
        EXPECT_EQ(std::memcmp(out, t.g, sizeof(out)), 0);
        EXPECT_EQ(korva_activation_reset(t.s.h, ap), 0);
        EXPECT_EQ(t.get(LIBRARY, KRV_REG_PC), "NOTFOUND: register not present (1)");
    }
}

TEST(Activation, ArgumentsAreChecked)
{
    stopped s({});
    krv_activation_t *ap = s.ap.get();
    krv_gregset_t set = {};
    uint64_t n = 0;
    uint8_t b = 0;
    for (krv_handle_t *hp : {static_cast<krv_handle_t *>(nullptr), static_cast<krv_handle_t *>(s.h)}) {
        EXPECT_EQ(korva_activation_set_reg(hp, ap, DWARF, 0, nullptr), -1);
        EXPECT_EQ(korva_activation_get_reg(hp, ap, DWARF, CURRENT, 7, nullptr, 8), -1);
        EXPECT_EQ(korva_activation_get_greg(hp, ap, DWARF, CURRENT, 7, nullptr), -1);
        EXPECT_EQ(korva_activation_get_gregs(hp, ap, CURRENT, &set, nullptr), -1);
        EXPECT_EQ(korva_activation_get_argc(hp, ap, nullptr), -1);
        EXPECT_TRUE(refuses(s.h, korva_activation_get_argv(hp, ap, 1, &b, &b, nullptr, 1, &n),
                            hp == nullptr ? "NONE" : "INVALID"));
    }
    EXPECT_EQ(s.get(KRV_ACTIVATION_FRAME_MAX, DWARF, 0), "INVALID: invalid frame type (2)");
    EXPECT_TRUE(refuses(s.h, korva_activation_get_gregs(s.h, ap, -1, &set, &n), "INVALID: invalid frame type (-1)"));
}
