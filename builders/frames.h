// SPDX-License-Identifier: Apache-2.0
//
// Records of .debug_frame, and .eh_frame with its search table as a program has them in memory, with sound defaults.
// Any single field can be written wrong, as in sections.h. A section is the sum of its records:
//
//     h.attach(KRV_SEC_FRAME, cie{}.build() + fde{.address = 0x1000, .range = 0x20}.build());
#ifndef KRV_BUILDERS_FRAMES_H
#define KRV_BUILDERS_FRAMES_H

#include "builders/sections.h"

#include <string>
#include <utility>
#include <vector>

namespace krv_test
{

// A length and what it counts, padded with DW_CFA_nop so that both fill whole words.
inline bytes frame_record(bool dwarf64, number length, bytes rest, size_t word)
{
    rest.fill((2 * word - (dwarf64 ? 12 : 4) % word - rest.size() % word) % word);
    return bytes().unit_length(dwarf64, length.value_or(rest.size())).add(rest);
}

// .debug_frame

struct cie {
    bool dwarf64 = false;
    number length = {};
    uint64_t id = UINT64_MAX;
    uint8_t version = 3;
    std::string augmentation = {};
    uint8_t address_size = 8, segment_size = 0; // written for version 4 only
    uint64_t code_align = 1;
    int64_t data_align = -8;
    bytes column = bytes().u8(16);
    bytes instructions = {};
    size_t word = 8;

    bytes build() const
    {
        bytes b;
        b.offset(dwarf64, id).u8(version).cstr(augmentation);
        if (version == 4)
            b.u8(address_size).u8(segment_size);
        b.uleb(code_align).sleb(data_align).add(column).add(instructions);
        return frame_record(dwarf64, length, b, word);
    }
};

struct fde {
    bool dwarf64 = false;
    number length = {};
    uint64_t cie = 0; // section offset
    uint64_t address = 0x1000, range = 0x100;
    size_t address_size = 8;
    bytes instructions = {};
    size_t word = 8;

    bytes build() const
    {
        bytes b;
        b.offset(dwarf64, cie).uint(address, address_size).uint(range, address_size).add(instructions);
        return frame_record(dwarf64, length, b, word);
    }
};

// .eh_frame and .eh_frame_hdr. `at` is the target address of what is built.

// A pointer in a DW_EH_PE_* encoding of a fixed width, relative to where it is or to `data`.
inline bytes eh_pointer(uint8_t encoding, uint64_t value, uint64_t at, uint64_t data = 0)
{
    static constexpr size_t widths[8] = {8, 0, 2, 4, 8};
    const uint64_t base = (encoding & 0x70) == DW_EH_PE_pcrel ? at : (encoding & 0x70) == DW_EH_PE_datarel ? data : 0;
    return bytes().uint(value - base, widths[encoding & 7]);
}

struct eh_cie {
    number length = {};
    uint64_t id = 0;
    uint8_t version = 1;
    std::string augmentation = "zR";
    uint64_t code_align = 1;
    int64_t data_align = -8;
    uint64_t column = 16;
    number data_length = {};
    bytes data = bytes::hex("1b"); // of the augmentation
    bytes instructions = {};

    bytes build() const
    {
        bytes b;
        b.u32(id).u8(version).cstr(augmentation).uleb(code_align).sleb(data_align).uleb(column);
        if (!augmentation.empty())
            b.uleb(data_length.value_or(data.size())).add(data);
        return frame_record(false, length, b.add(instructions), 4);
    }
};

struct eh_fde {
    number length = {};
    uint64_t cie = 0; // target address
    number cie_pointer = {};
    uint64_t address = 0x1000, range = 0x100;
    uint8_t encoding = DW_EH_PE_pcrel | DW_EH_PE_sdata4;
    number data_length = {};
    bytes data = {}; // of the augmentation
    bool augmented = true;
    bytes instructions = {};

    bytes build(uint64_t at) const
    {
        bytes b;
        b.u32(cie_pointer.value_or(at + 4 - cie)).add(eh_pointer(encoding, address, at + 8));
        b.add(eh_pointer(encoding & 0xf, range, 0));
        if (augmented)
            b.uleb(data_length.value_or(data.size())).add(data);
        return frame_record(false, length, b.add(instructions), 4);
    }
};

struct eh_hdr {
    uint8_t fp_encoding = DW_EH_PE_pcrel | DW_EH_PE_sdata4;
    uint8_t count_encoding = DW_EH_PE_udata4;
    uint8_t table_encoding = DW_EH_PE_datarel | DW_EH_PE_sdata4;
    number count = {};
    std::vector<std::pair<uint64_t, uint64_t>> entries = {}; // address, target address of its FDE

    bytes build(uint64_t at, uint64_t eh_frame) const
    {
        bytes b;
        b.u8(1).u8(fp_encoding).u8(count_encoding).u8(table_encoding);
        b.add(eh_pointer(fp_encoding, eh_frame, at + b.size(), at));
        b.add(eh_pointer(count_encoding, count.value_or(entries.size()), at + b.size(), at));
        for (const auto &[address, fde_address] : entries)
            for (const uint64_t value : {address, fde_address})
                b.add(eh_pointer(table_encoding, value, at + b.size(), at));
        return b;
    }
};

} // namespace krv_test

#endif
