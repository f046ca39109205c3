// SPDX-License-Identifier: Apache-2.0
//
// Where .eh_frame is in memory.
#include "process/eh_frame.h"

#include "builders/bytes.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace krv_test;
using namespace krv_elf_loader;

namespace
{

constexpr uint64_t EH_FRAME = 0x4000;

struct target_memory : memory {
    bytes section;

    explicit target_memory(const bytes &contents) : section(contents) {}

    bool read(uint64_t address, void *buf, size_t count) override
    {
        const uint64_t at = address - EH_FRAME;
        if (at > section.size() || count > section.size() - at)
            return false;
        std::memcpy(buf, section.data() + at, count);
        return true;
    }
};

TEST(ProcEhFrame, HeaderSaysWhereItIs)
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
    for (const auto &[hex, expected] :
         {std::pair("04 00 00 00", true), {"03 00 00 00", false}, {"00 00 00 00", false}, {"04 00 00", false}}) {
        target_memory m(bytes::hex(hex));
        EXPECT_EQ(has_frame_record(m, EH_FRAME), expected) << hex;
    }
}

} // namespace
