// SPDX-License-Identifier: Apache-2.0
//
// Register tables and register access. The caller's frame is the matter of unwind_test.
#include "krv_activation.h"
#include "support/handle.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace krv_test;

namespace
{

constexpr auto DWARF = KRV_ACTIVATION_REG_DWARF, HOST = KRV_ACTIVATION_REG_HOST, LIBRARY = KRV_ACTIVATION_REG_LIBRARY;
constexpr auto CURRENT = KRV_ACTIVATION_FRAME_CURRENT;

struct frame {
    explicit frame(krv_activation_type_t target = KRV_ACTIVATION_AMD64) : h(target), ap(korva_activation_alloc(h)) {}
    handle h;
    krv_activation_owner ap;

    std::string read(krv_reg_type_t type, unsigned int reg) // as hexadecimal digits, or the error
    {
        krv_greg_t value = 0;
        if (korva_activation_get_greg(h, ap.get(), type, CURRENT, reg, &value) != 0)
            return h.error();
        return text("%llx", static_cast<unsigned long long>(value));
    }
};

// Register sets in which every byte tells where it lies.
struct patterns {
    krv_gregset_t g;
    krv_fpregset_t f;
    patterns()
    {
        for (unsigned int i = 0; i < KRV_HOST_MAX; ++i)
            g[i] = 0x0101010101010101 * (i + 1);
        for (size_t i = 0; i < sizeof(f); ++i)
            reinterpret_cast<uint8_t *>(&f)[i] = static_cast<uint8_t>(i * 7);
    }
};

} // namespace

// Every DWARF number of both targets against its place in the sets that a client loads.
TEST(Activation, RegistersLieWhereTheTargetHasThem)
{
    struct place {
        bool fp;      // in the FXSAVE image, else a general register
        size_t where; // byte offset, or host number
        size_t size;
    };
    struct run {
        unsigned int first;
        std::vector<place> places;
    };
    const auto g = [](std::vector<size_t> hosts, size_t size) {
        std::vector<place> list;
        for (const size_t host : hosts)
            list.push_back({false, host, size});
        return list;
    };
    const auto f = [](size_t offset, size_t count, size_t size) {
        std::vector<place> list;
        for (size_t i = 0; i < count; ++i)
            list.push_back({true, offset + 16 * i, size});
        return list;
    };
    const std::vector<size_t> segments = {24, 18, 21, 25, 22, 23};
    const std::vector<run> amd64 = {
        {0, g({14, 12, 13, 11, 9, 8, 10, 20, 7, 6, 5, 4, 3, 2, 1, 0, 17}, 8)},
        {17, f(160, 16, 16)},
        {33, f(32, 8, 10)},
        {41, f(32, 8, 16)},
        {49, g({19}, 8)},
        {50, g(segments, 8)},
        {58, g({26, 27}, 8)},
        {62, g({0, 0}, 0)},
        {64, f(24, 1, 4)},
        {65, f(0, 1, 2)},
        {66, f(2, 1, 2)},
    };
    const std::vector<run> i386 = {
        {0, g({14, 13, 12, 11, 20, 10, 9, 8, 17, 19}, 4)},
        {11, f(32, 8, 10)},
        {21, f(160, 8, 16)},
        {29, f(32, 8, 16)},
        {39, f(24, 1, 4)},
        {40, g(segments, 4)},
        {48, g({0, 0}, 0)},
    };
    for (const krv_activation_type_t target : both_targets) {
        SCOPED_TRACE(target);
        frame t(target);
        const patterns all;
        ASSERT_EQ(korva_activation_set_regs(t.h, t.ap.get(), all.g, UINT64_MAX, &all.f), 0);
        std::vector<std::string> expected(t.ap->sa_n_registers - 2, "undefined");
        for (const run &r : target == KRV_ACTIVATION_AMD64 ? amd64 : i386)
            for (size_t i = 0; i < r.places.size(); ++i) {
                const place &p = r.places[i];
                const auto *from = p.fp ? reinterpret_cast<const char *>(&all.f) + p.where
                                        : reinterpret_cast<const char *>(&all.g[p.where]);
                expected.at(r.first + i) = std::string(from, p.size);
            }
        for (unsigned int reg = 0; reg < expected.size(); ++reg) {
            char buf[32];
            size_t size = 99;
            std::string found = "undefined";
            if (krv_activation_get_reg_size(t.h, t.ap.get(), DWARF, reg, &size) == 0) {
                ASSERT_EQ(korva_activation_get_reg(t.h, t.ap.get(), DWARF, CURRENT, reg, buf, sizeof(buf)), 0);
                found.assign(buf, size);
            }
            EXPECT_EQ(found, expected[reg]) << "register " << reg;
        }
    }
}

TEST(Activation, TablesAreSound)
{
    for (const krv_mach_def_t *mach : {&amd64_mach, &i386_mach}) {
        std::string rules, names;
        for (unsigned int i = 0; i < mach->smd_n_defs; ++i) {
            const krv_reg_def_t &row = mach->smd_defs[i];
            EXPECT_EQ(names.find(std::string(row.srd_name) + " "), std::string::npos) << row.srd_name;
            names += std::string(row.srd_name) + " ";
            EXPECT_LE(row.srd_offset + row.srd_size, offsetof(krv_registers_t, special));
            EXPECT_EQ(row.srd_flags, 0U);
            EXPECT_EQ(row.srd_rule.arg, 0U);
            if (row.srd_rule.desc != KRV_CFA_RULE_UNDEFINED)
                rules += text("%s %d ", row.srd_name, row.srd_rule.desc);
        }
        EXPECT_EQ(rules, mach == &amd64_mach ? "%rbx 1 %rbp 1 %rsp 3 %r12 1 %r13 1 %r14 1 %r15 1 " : "%esp 3 ");
    }
}

// What a register name leads to. Every register holds its pattern; the program counter was set to 0x1234.
TEST(Activation, Numberings)
{
    const char *const no_match = "INVALID";
    const struct {
        krv_activation_type_t target;
        krv_reg_type_t type;
        unsigned int reg;
        const char *expected;
    } rows[] = {
        {KRV_ACTIVATION_AMD64, HOST, KRV_HOST_RAX, "f0f0f0f0f0f0f0f"},
        {KRV_ACTIVATION_AMD64, HOST, KRV_HOST_RIP, "1234"},
        {KRV_ACTIVATION_AMD64, DWARF, 16, "1212121212121212"},
        {KRV_ACTIVATION_AMD64, HOST, KRV_HOST_R15, "101010101010101"}, // the first row with host number 0
        {KRV_ACTIVATION_I386, HOST, 0, "110a03fcf5eee7e0"},            // likewise: %st0
        {KRV_ACTIVATION_I386, HOST, KRV_HOST_RAX, "f0f0f0f"},
        {KRV_ACTIVATION_I386, HOST, KRV_HOST_RIP, "1234"},
        {KRV_ACTIVATION_I386, HOST, KRV_HOST_R8, no_match},
        {KRV_ACTIVATION_AMD64, HOST, KRV_HOST_TRAPNO, no_match},
        {KRV_ACTIVATION_AMD64, HOST, 28, no_match},
        {KRV_ACTIVATION_AMD64, HOST, UINT32_MAX, no_match}, // not the rows without a host number
        {KRV_ACTIVATION_AMD64, LIBRARY, KRV_REG_PC, "1234"},
        {KRV_ACTIVATION_AMD64, LIBRARY, KRV_REG_CFA, "NOTFOUND: register not present (0)"},
        {KRV_ACTIVATION_AMD64, LIBRARY, 2, "INVALID: register (2) out of range (0..1)"},
        {KRV_ACTIVATION_AMD64, DWARF, 56, "INVALID: DWARF register 56 is undefined"},
        {KRV_ACTIVATION_AMD64, DWARF, 67, "INVALID: register (67) out of range (0..66)"},
        {KRV_ACTIVATION_I386, DWARF, 50, "INVALID: register (50) out of range (0..49)"},
        {KRV_ACTIVATION_I386, DWARF, UINT32_MAX, "INVALID: register (-1) out of range (0..49)"},
        {KRV_ACTIVATION_AMD64, KRV_ACTIVATION_REG_MAX, 0, "INVALID: illegal register type (3)"},
        {KRV_ACTIVATION_AMD64, -1, 0, "INVALID: illegal register type (-1)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(text("target %d numbering %d register %u", row.target, row.type, row.reg));
        frame t(row.target);
        const patterns all;
        ASSERT_EQ(korva_activation_set_regs(t.h, t.ap.get(), all.g, UINT64_MAX, &all.f), 0);
        ASSERT_EQ(korva_activation_set_greg(t.h, t.ap.get(), HOST, KRV_HOST_RIP, 0x1234), 0);
        EXPECT_EQ(t.read(row.type, row.reg), row.expected);
        // Writing finds the same registers.
        const bool names_one = std::string(row.expected).find("INVALID") == std::string::npos;
        EXPECT_EQ(korva_activation_set_greg(t.h, t.ap.get(), row.type, row.reg, 5), names_one ? 0 : -1);
        EXPECT_EQ(t.read(row.type, row.reg), names_one ? "5" : row.expected);
    }
}

TEST(Activation, WidthsAndPieces)
{
    frame t;
    const auto set = [&](unsigned int reg, const void *buf) {
        return korva_activation_set_reg(t.h, t.ap.get(), DWARF, reg, buf);
    };
    const auto get = [&](unsigned int reg, size_t size) {
        char buf[24] = "???????????????????????";
        EXPECT_EQ(korva_activation_get_reg(t.h, t.ap.get(), DWARF, CURRENT, reg, buf, size), 0);
        return std::string(buf, 20);
    };
    ASSERT_EQ(set(44, "0123456789abcdefGH"), 0); // %mm3, as wide as its slot
    EXPECT_EQ(t.read(DWARF, 36), "NOTFOUND: register not present (36)");
    ASSERT_EQ(set(18, "ABCDEFGHIJKLMNOP"), 0); // %xmm1
    EXPECT_EQ(get(18, 20), "ABCDEFGHIJKLMNOP????");
    EXPECT_EQ(get(18, 8), "ABCDEFGH????????????");
    EXPECT_EQ(get(18, 0), "????????????????????");
    t.ap->sa_current_registers->srs_metadata[18].sr_flags |= KRV_REG_FLAG_PIECE_HI;
    EXPECT_EQ(get(18, 8), "IJKLMNOP????????????");
    ASSERT_EQ(set(36, "zyxwvutsrq"), 0); // %st3: the first 10 bytes of %mm3
    EXPECT_EQ(get(44, 20), "zyxwvutsrqabcdef????");
    // The value of a wide register has zeros above the 8 bytes given.
    ASSERT_EQ(korva_activation_set_greg(t.h, t.ap.get(), DWARF, 44, 0x4141414141414141), 0);
    EXPECT_EQ(get(44, 20), std::string("AAAAAAAA\0\0\0\0\0\0\0\0????", 20));

    frame narrow(KRV_ACTIVATION_I386);
    ASSERT_EQ(korva_activation_set_greg(narrow.h, narrow.ap.get(), DWARF, 0, -2), 0);
    EXPECT_EQ(narrow.read(DWARF, 0), "fffffffe");
    ASSERT_EQ(korva_activation_set_greg(narrow.h, narrow.ap.get(), LIBRARY, KRV_REG_PC, 0x100000008), 0);
    EXPECT_EQ(narrow.read(LIBRARY, KRV_REG_PC), "8");
}

TEST(Activation, PresenceMasks)
{
    constexpr uint64_t bit = 1;
    const struct {
        krv_activation_type_t target;
        bool g;
        uint64_t mask;
        bool f;
        const char *present;
        uint64_t mask_out;
    } rows[] = {
        {KRV_ACTIVATION_AMD64, true, bit << 14 | bit << 15, false, "0 ", bit << 14},
        {KRV_ACTIVATION_AMD64, false, UINT64_MAX, false, "", 0},
        {KRV_ACTIVATION_AMD64, true, bit, false, "15 62 63 ", bit}, // the rows without storage say host 0
        {KRV_ACTIVATION_AMD64, true, bit << 63, false, "64 65 66 ", 0},
        {KRV_ACTIVATION_AMD64, false, bit << 63, true,
         "17 18 19 20 21 22 23 24 25 26 27 28 29 30 31 32 33 34 35 36 37 38 39 40 41 42 43 44 45 46 47 48 ", 0},
        {KRV_ACTIVATION_I386, true, bit << 14, false, "0 ", bit << 14},
        {KRV_ACTIVATION_I386, false, 0, true,
         "11 12 13 14 15 16 17 18 21 22 23 24 25 26 27 28 29 30 31 32 33 34 35 36 39 ", bit},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.present);
        frame t(row.target);
        const patterns all;
        // An earlier load leaves nothing behind; the library registers stay.
        ASSERT_EQ(korva_activation_set_regs(t.h, t.ap.get(), all.g, UINT64_MAX, &all.f), 0);
        ASSERT_EQ(korva_activation_set_greg(t.h, t.ap.get(), LIBRARY, KRV_REG_PC, 7), 0);
        ASSERT_EQ(
            korva_activation_set_regs(t.h, t.ap.get(), row.g ? all.g : nullptr, row.mask, row.f ? &all.f : nullptr), 0);
        std::string present;
        for (unsigned int reg = 0; reg < krv_dwarf_slots(t.ap.get()); ++reg)
            if (t.read(DWARF, reg).find(':') == std::string::npos)
                present += text("%u ", reg);
        EXPECT_EQ(present, row.present);
        EXPECT_EQ(t.read(LIBRARY, KRV_REG_PC), "7");
        krv_gregset_t out = {};
        uint64_t mask = 99;
        ASSERT_EQ(korva_activation_get_gregs(t.h, t.ap.get(), CURRENT, &out, &mask), 0);
        EXPECT_EQ(mask, row.mask_out);
        EXPECT_EQ(std::memcmp(out, all.g, sizeof(out)), 0);
        ASSERT_EQ(korva_activation_reset(t.h, t.ap.get()), 0);
        EXPECT_EQ(t.read(LIBRARY, KRV_REG_PC), "NOTFOUND: register not present (1)");
        EXPECT_EQ(t.read(DWARF, 0), "NOTFOUND: register not present (0)");
    }
}

TEST(Activation, Arguments)
{
    frame t;
    krv_handle_t *h = t.h;
    krv_activation_t *ap = t.ap.get();
    krv_greg_t value = 0;
    krv_gregset_t set = {};
    uint64_t mask = 0;
    unsigned int argc = 0;
    uint8_t b[1];
    const std::function<int(krv_handle_t *)> calls[] = {
        [&](krv_handle_t *hp) { return korva_activation_reset(hp, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_get_reg(hp, nullptr, DWARF, CURRENT, 0, &value, 8); },
        [&](krv_handle_t *hp) { return korva_activation_get_reg(hp, ap, DWARF, CURRENT, 0, nullptr, 8); },
        [&](krv_handle_t *hp) { return korva_activation_get_greg(hp, nullptr, DWARF, CURRENT, 0, &value); },
        [&](krv_handle_t *hp) { return korva_activation_get_greg(hp, ap, DWARF, CURRENT, 0, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_set_reg(hp, nullptr, DWARF, 0, &value); },
        [&](krv_handle_t *hp) { return korva_activation_set_reg(hp, ap, DWARF, 0, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_set_greg(hp, nullptr, DWARF, 0, 0); },
        [&](krv_handle_t *hp) { return korva_activation_set_regs(hp, nullptr, nullptr, 0, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_get_gregs(hp, nullptr, CURRENT, &set, &mask); },
        [&](krv_handle_t *hp) { return korva_activation_get_gregs(hp, ap, CURRENT, nullptr, &mask); },
        [&](krv_handle_t *hp) { return korva_activation_get_gregs(hp, ap, CURRENT, &set, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_unwind(hp, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_get_argc(hp, nullptr, &argc); },
        [&](krv_handle_t *hp) { return korva_activation_get_argc(hp, ap, nullptr); },
        [&](krv_handle_t *hp) { return korva_activation_get_argv(hp, nullptr, 1, b, b, b, 1, &mask); },
        [&](krv_handle_t *hp) { return korva_activation_get_argv(hp, ap, 1, nullptr, b, b, 1, &mask); },
        [&](krv_handle_t *hp) { return korva_activation_get_argv(hp, ap, 1, b, nullptr, b, 1, &mask); },
        [&](krv_handle_t *hp) { return korva_activation_get_argv(hp, ap, 1, b, b, nullptr, 1, &mask); },
        [&](krv_handle_t *hp) { return korva_activation_get_argv(hp, ap, 1, b, b, b, 1, nullptr); },
    };
    for (const auto &call : calls) {
        SCOPED_TRACE(&call - calls);
        ASSERT_EQ(korva_activation_reset(h, ap), 0); // leaves no error behind
        EXPECT_EQ(call(nullptr), -1);
        EXPECT_EQ(t.h.error(), "NONE");
        EXPECT_EQ(call(h), -1);
        EXPECT_EQ(t.h.error(), "INVALID");
    }
    EXPECT_EQ(korva_activation_alloc(nullptr), nullptr);
    korva_activation_free(nullptr);
    EXPECT_EQ(korva_activation_get_greg(h, ap, DWARF, KRV_ACTIVATION_FRAME_MAX, 0, &value), -1);
    EXPECT_EQ(t.h.error(), "INVALID: invalid frame type (2)");
    EXPECT_EQ(korva_activation_get_gregs(h, ap, -1, &set, &mask), -1);
    EXPECT_EQ(t.h.error(), "INVALID: invalid frame type (-1)");
}
