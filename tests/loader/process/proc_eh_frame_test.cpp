// SPDX-License-Identifier: Apache-2.0
//
// .eh_frame in memory as the core gets to see it: what it refuses as it stands, it reads through the view.
#include "process/eh_frame.h"

#include "krv_dwarf.h"
#include "support/activation.h"

#include <cstring>

using namespace krv_test;
using namespace krv_elf_loader;

namespace
{

constexpr uint64_t EH_FRAME = 0x4000, CODE = 0x9000, CODE_SIZE = 0x100, STACK = 0x7000;

// .eh_frame at EH_FRAME and a stack of words 0x1101 * (n + 1), seen through a view.
struct target_memory : memory {
    bytes section, stack;
    eh_frame_view view;
    bool corrected = true;

    explicit target_memory(const bytes &eh_frame) : section(eh_frame)
    {
        for (uint64_t n = 1; n <= 16; ++n)
            stack.u64(0x1101 * n);
        view.scan(*this, KRV_ACTIVATION_AMD64, EH_FRAME, EH_FRAME + section.size());
    }

    bool read(uint64_t address, void *buf, size_t count) override
    {
        const bool on_stack = address >= STACK;
        const bytes &from = on_stack ? stack : section;
        const uint64_t at = address - (on_stack ? STACK : EH_FRAME);
        if (at > from.size() || count > from.size() - at)
            return false;
        std::memcpy(buf, from.data() + at, count);
        return true;
    }

    static int64_t read_as(void *arg, void *buf, size_t count, uint64_t address)
    {
        auto *m = static_cast<target_memory *>(arg);
        if (!m->read(address, buf, count))
            return -1;
        if (m->corrected)
            m->view.correct(address, buf, count);
        return static_cast<int64_t>(count);
    }
};

struct view_case {
    const char *letters;
    bytes data; // augmentation data of the CIE
    uint64_t code_align = 1;
    bytes lsda = {}, rows = {}; // of the FDE
    bool refused = true;        // by the core as it stands
    bool signal = false;
    uint8_t version = 1;
};

// CIE: CFA is %rsp + 8, the return address below it. FDE: addresses are absolute, 8 bytes.
bytes build(const view_case &c)
{
    const bool augmented = *c.letters != '\0';
    const bytes first = eh_cie{.version = c.version,
                               .augmentation = c.letters,
                               .code_align = c.code_align,
                               .data = c.data,
                               .instructions = op(DW_CFA_def_cfa).uleb(7).uleb(8).add(op(DW_CFA_offset, 16).uleb(1))}
                            .build();
    const eh_fde second{.cie = EH_FRAME,
                        .address = CODE,
                        .range = CODE_SIZE,
                        .encoding = DW_EH_PE_udata8,
                        .data = c.lsda,
                        .augmented = augmented,
                        .instructions = c.rows};
    return first + second.build(EH_FRAME + first.size()) + bytes().u32(0);
}

// The caller's stack pointer, or the error, of a frame at CODE + 0x40.
std::string caller_sp(target_memory &m, bool corrected)
{
    m.corrected = corrected;
    const handle h;
    korva_attach_as(h, target_memory::read_as, &m);
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, EH_FRAME);
    const krv_activation_owner ap(korva_activation_alloc(h));
    korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_DWARF, 7, STACK);
    korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, CODE + 0x40);
    return greg_of(h, ap.get(), KRV_ACTIVATION_FRAME_CALLER, KRV_ACTIVATION_REG_DWARF, 7);
}

TEST(EhFrameView, ShowsWhatTheCoreReads)
{
    const bytes indirect = bytes().u8(0x9b).u32(0x1234), direct = bytes().u8(0x1b).u32(0x1234);
    const bytes lsda = bytes().u8(0x1b), absolute = bytes().u8(0);
    // A landing pad's function: push 8 bytes for a call, pop them; the sizes in one byte and in three.
    const bytes pushes = bytes()
                             .add(op(DW_CFA_advance_loc, 4))
                             .add(op(DW_CFA_def_cfa_offset).uleb(16))
                             .add(op(0x2e).uleb(8))
                             .add(op(DW_CFA_advance_loc1).u8(0x30))
                             .add(op(0x2e).uleb(0, 3))
                             .add(op(DW_CFA_def_cfa_offset).uleb(24))
                             .add(op(DW_CFA_advance_loc, 0x3f));
    const view_case cases[] = {
        {.letters = "zR", .data = absolute, .refused = false},
        {.letters = "zPLR", .data = direct + lsda + absolute, .refused = false},
        {.letters = "zPLR", .data = indirect + lsda + absolute},
        {.letters = "zRS", .data = absolute, .signal = true},
        {.letters = "zSR", .data = absolute, .code_align = 300, .signal = true},
        {.letters = "zS", .data = {}, .signal = true},
        {.letters = "zR", .data = absolute, .version = 3},
        {.letters = "", .data = {}, .version = 3},
        {.letters = "zPLRS", .data = indirect + lsda + absolute, .signal = true},
    };
    for (const view_case &c : cases) {
        target_memory m(build(c));
        EXPECT_EQ(caller_sp(m, false) != "7008", c.refused) << c.letters;
        EXPECT_EQ(caller_sp(m, true), "7008") << c.letters;
        EXPECT_FALSE(m.view.empty());
        EXPECT_EQ(m.view.signal_frame(CODE), c.signal) << c.letters;
        EXPECT_EQ(m.view.signal_frame(CODE + CODE_SIZE - 1), c.signal) << c.letters;
        EXPECT_FALSE(m.view.signal_frame(CODE + CODE_SIZE));
    }
    target_memory m(
        build({.letters = "zPLR", .data = direct + lsda + absolute, .lsda = bytes().u32(0x77), .rows = pushes}));
    EXPECT_NE(caller_sp(m, false).find("unknown instruction 0x2e"), std::string::npos) << caller_sp(m, false);
    EXPECT_EQ(caller_sp(m, true), "7018");
}

// Whatever part of a record is read, in pieces of whatever size, it is the same record.
TEST(EhFrameView, IsOneWhateverIsRead)
{
    const bytes indirect = bytes().u8(0x9b).u32(0x1234);
    target_memory m(build({.letters = "zPRS", .data = indirect + bytes().u8(0)}));
    std::vector<uint8_t> whole(m.section.size());
    ASSERT_EQ(target_memory::read_as(&m, whole.data(), whole.size(), EH_FRAME), static_cast<int64_t>(whole.size()));
    EXPECT_NE(std::memcmp(whole.data(), m.section.data(), whole.size()), 0);
    for (size_t size = 1; size < 9; ++size)
        for (size_t at = 0; at + size <= whole.size(); ++at) {
            uint8_t piece[8];
            target_memory::read_as(&m, piece, size, EH_FRAME + at);
            ASSERT_EQ(std::memcmp(piece, whole.data() + at, size), 0) << at << "+" << size;
        }
}

TEST(EhFrameView, EndsWhereRecordsDo)
{
    const bytes whole = build({.letters = "zPRS", .data = bytes().u8(0x9b).u32(1).u8(0)});
    for (size_t size = 0; size < whole.size(); ++size)
        target_memory(whole.first(size)); // every prefix, without a step over its end
    for (const uint64_t length : {1ULL, 3ULL, 0xfffffff0ULL, 0xffffffffULL}) {
        bytes damaged = whole;
        target_memory m(damaged.set(0, length, 4));
        EXPECT_TRUE(m.view.empty());
    }
}

TEST(EhFrameView, HeaderSaysWhereItIs)
{
    const auto address = [](const char *hex) {
        target_memory m(bytes::hex(hex)); // the "section" is a header here
        return read_eh_frame_address(m, KRV_ACTIVATION_AMD64, EH_FRAME);
    };
    EXPECT_EQ(address("01 1b 03 3b 10 00 00 00"), EH_FRAME + 4 + 0x10);
    EXPECT_EQ(address("01 1b 03 3b f0 ff ff ff"), EH_FRAME + 4 - 0x10);
    EXPECT_EQ(address("01 03 03 3b 78 56 34 12"), 0x12345678U);
    EXPECT_EQ(address("01 3b 03 3b 00 01 00 00"), EH_FRAME + 0x100);
    for (const char *bad : {"02 1b 03 3b 10 00 00 00", "01 ff 03 3b 10 00 00 00", "01 9b 03 3b 10 00 00 00",
                            "01 05 03 3b 10 00 00 00", "01 1b 03 3b 10 00", "01 1b", ""})
        EXPECT_EQ(address(bad), 0U) << bad;
}

} // namespace
