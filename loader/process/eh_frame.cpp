// SPDX-License-Identifier: Apache-2.0
#include "process/eh_frame.h"

#include "elf/dwarf_cursor.h"
#include "krv_dwarf.h"

namespace krv_elf_loader
{

namespace
{

// A walk over bytes that stand at an address, for pointers that count from where they are.
class record_cursor : public cursor
{
public:
    record_cursor(byte_span record, uint64_t at_address) : cursor(record), address(at_address) {}

    // A pointer as encoded, the base added, an indirection not followed. `data` is the base of DW_EH_PE_datarel.
    uint64_t pointer(uint8_t encoding, size_t address_size, uint64_t data)
    {
        const uint64_t here = address + at();
        const uint64_t base = (encoding & DW_EH_PE_base) == DW_EH_PE_pcrel     ? here
                              : (encoding & DW_EH_PE_base) == DW_EH_PE_datarel ? data
                                                                               : 0;
        switch (encoding & DW_EH_PE_format) {
        case DW_EH_PE_absptr:
            return base + number(address_size);
        case DW_EH_PE_uleb128:
            return base + uleb();
        case DW_EH_PE_sleb128:
            return base + static_cast<uint64_t>(sleb());
        case DW_EH_PE_udata2:
            return base + number(2);
        case DW_EH_PE_sdata2:
            return base + static_cast<uint64_t>(int64_t{static_cast<int16_t>(number(2))});
        case DW_EH_PE_udata4:
            return base + number(4);
        case DW_EH_PE_sdata4:
            return base + static_cast<uint64_t>(int64_t{static_cast<int32_t>(number(4))});
        case DW_EH_PE_udata8:
        case DW_EH_PE_sdata8:
            return base + number(8);
        default:
            fail();
            return 0;
        }
    }

private:
    uint64_t address;
};

size_t address_size_of(krv_activation_type_t target)
{
    return target == KRV_ACTIVATION_AMD64 ? 8 : 4;
}

} // namespace

uint64_t read_eh_frame_address(memory &mem, krv_activation_type_t target, uint64_t header)
{
    uint8_t bytes[4 + 10]; // version, three encodings, the pointer
    size_t size = sizeof(bytes);
    while (size > 4 && !mem.read(header, bytes, size)) // it may lie at the very end
        --size;
    if (size == 4 || bytes[0] != 1 || bytes[1] == DW_EH_PE_omit)
        return 0;
    record_cursor c({bytes, size}, header);
    c.skip(4);
    const uint64_t address = c.pointer(bytes[1], address_size_of(target), header);
    return c.ok() && (bytes[1] & DW_EH_PE_indirect) == 0 ? address : 0;
}

bool has_frame_record(memory &mem, uint64_t address)
{
    uint32_t length = 0;
    return mem.get(address, &length) && length >= sizeof(length);
}

} // namespace krv_elf_loader
