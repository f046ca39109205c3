// SPDX-License-Identifier: Apache-2.0
#include "process/eh_frame.h"

#include "elf/dwarf_cursor.h"
#include "krv_dwarf.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

namespace krv_elf_loader
{

namespace
{

constexpr size_t LONGEST_CIE = 1024;      // those in use have less than 64 bytes
constexpr size_t LONGEST_FDE = 64 * 1024; // a function of some thousand lines has a few hundred

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

// What of a CIE matters here. Positions count from the record's length field.
struct cie_record {
    std::vector<uint8_t> bytes;
    size_t version = 0;              // position
    size_t augmentation = 0;         // position of the string
    size_t factors = 0;              // position of the first number behind it
    size_t personality_encoding = 0; // position; 0 without a personality
    uint8_t fde_encoding = DW_EH_PE_absptr;
    size_t signal_letter = 0; // position of 'S'; 0 without
    bool has_lsda = false;    // 'L'
};

// Reads a CIE of augmentation "z...". Nothing for any other, or one that is not understood: the core judges it.
std::optional<cie_record> parse_cie(memory &mem, krv_activation_type_t target, uint64_t address, size_t size)
{
    cie_record cie;
    if (size > LONGEST_CIE)
        return std::nullopt;
    cie.bytes.resize(size);
    if (!mem.read(address, cie.bytes.data(), size))
        return std::nullopt;
    record_cursor c(cie.bytes, address);
    c.skip(8); // length, CIE id
    cie.version = c.at();
    const uint8_t version = c.byte();
    if (version != 1 && version != 3)
        return std::nullopt;
    cie.augmentation = c.at();
    std::string letters;
    for (uint8_t letter = c.byte(); letter != 0 && c.ok(); letter = c.byte())
        letters += static_cast<char>(letter);
    cie.factors = c.at();
    c.uleb();                   // code alignment factor
    c.sleb();                   // data alignment factor
    if ((c.byte() & 0x80) != 0) // return-address register: a byte, or in version 3 a LEB128 number, here of one byte
        return std::nullopt;
    if (letters.empty() && version == 3)
        return c.ok() ? std::optional(std::move(cie)) : std::nullopt;
    if (!letters.starts_with('z'))
        return std::nullopt;
    c.uleb(); // augmentation length
    for (size_t i = 1; i < letters.size() && c.ok(); ++i) {
        switch (letters[i]) {
        case 'L':
            cie.has_lsda = true;
            c.byte();
            break;
        case 'P': {
            cie.personality_encoding = c.at();
            const uint8_t encoding = c.byte();
            c.pointer(encoding, address_size_of(target), 0);
            break;
        }
        case 'R':
            cie.fde_encoding = c.byte();
            break;
        case 'S':
            cie.signal_letter = cie.augmentation + i;
            break;
        default:
            return std::nullopt;
        }
    }
    return c.ok() ? std::optional(std::move(cie)) : std::nullopt;
}

// The corrections of a record say whether they changed it.

// The core reads the pointer where the personality's address is kept as if it were that address, and uses neither.
bool show_direct_personality(cie_record &cie)
{
    if (cie.personality_encoding == 0 || cie.bytes[cie.personality_encoding] == DW_EH_PE_omit ||
        (cie.bytes[cie.personality_encoding] & DW_EH_PE_indirect) == 0)
        return false;
    cie.bytes[cie.personality_encoding] &= static_cast<uint8_t>(~DW_EH_PE_indirect);
    return true;
}

// Version 3 differs from version 1 in the return-address register's encoding alone.
bool show_version_one(cie_record &cie)
{
    const bool other = cie.bytes[cie.version] != 1;
    cie.bytes[cie.version] = 1;
    return other;
}

// Takes the letter 'S' out of the string. What it leaves is filled by the number behind the string: a LEB128 number may
// have any number of bytes that add nothing to it.
bool hide_signal_letter(cie_record &cie)
{
    if (cie.signal_letter == 0)
        return false;
    size_t last = cie.factors; // of the code alignment factor's bytes
    while ((cie.bytes[last] & 0x80) != 0)
        ++last;
    std::memmove(&cie.bytes[cie.signal_letter], &cie.bytes[cie.signal_letter + 1], last - cie.signal_letter);
    cie.bytes[last - 1] |= 0x80;
    cie.bytes[last] = 0;
    return true;
}

// What of a CIE its FDEs need.
struct cie_facts {
    uint8_t fde_encoding;
    bool signal_frame;
    bool has_lsda;
};

struct fde_record {
    std::vector<uint8_t> bytes;
    uint64_t start; // of the addresses it covers
    uint64_t count;
    size_t instructions; // position
};

std::optional<fde_record> parse_fde(memory &mem, krv_activation_type_t target, uint64_t address, size_t size,
                                    const cie_facts &cie, uint64_t eh_frame)
{
    fde_record fde;
    if (size > LONGEST_FDE)
        return std::nullopt;
    fde.bytes.resize(size);
    if (!mem.read(address, fde.bytes.data(), size))
        return std::nullopt;
    record_cursor c(fde.bytes, address);
    c.skip(8); // length, CIE pointer
    fde.start = c.pointer(cie.fde_encoding, address_size_of(target), eh_frame);
    fde.count = c.pointer(cie.fde_encoding & DW_EH_PE_format, address_size_of(target), 0);
    c.skip(c.uleb()); // augmentation data
    fde.instructions = c.at();
    return c.ok() ? std::optional(std::move(fde)) : std::nullopt;
}

// The operands of an instruction, DW_CFA_GNU_args_size among them. False for one that is not known.
bool skip_operands(record_cursor &c, uint8_t opcode, const cie_facts &cie, krv_activation_type_t target)
{
    // LEB128 operands of the instructions below 0x17, of which some have a block behind them.
    constexpr uint8_t numbers[] = {0, 0, 0, 0, 0, 2, 1, 1, 1, 2, 0, 0, 2, 1, 1, 0, 1, 2, 2, 1, 2, 2, 1};
    if ((opcode & DW_CFA_primary) != 0) {
        if ((opcode & DW_CFA_primary) == DW_CFA_offset)
            c.uleb();
        return true;
    }
    switch (opcode) {
    case DW_CFA_set_loc:
        c.pointer(cie.fde_encoding, address_size_of(target), 0);
        return true;
    case DW_CFA_advance_loc1:
    case DW_CFA_advance_loc2:
    case DW_CFA_advance_loc4:
        c.skip(size_t{1} << (opcode - DW_CFA_advance_loc1));
        return true;
    case DW_CFA_GNU_args_size:
        c.uleb();
        return true;
    default:
        break;
    }
    if (opcode >= sizeof(numbers))
        return false;
    for (unsigned i = 0; i < numbers[opcode]; ++i)
        c.uleb();
    if (opcode == DW_CFA_def_cfa_expression || opcode == DW_CFA_expression || opcode == DW_CFA_val_expression)
        c.skip(c.uleb());
    return true;
}

// Functions with landing pads have it after every change of the bytes they have pushed. It becomes DW_CFA_nop.
bool hide_argument_sizes(fde_record &fde, const cie_facts &cie, krv_activation_type_t target)
{
    bool changed = false;
    record_cursor c(fde.bytes, 0);
    for (c.skip(fde.instructions); c.more();) {
        const size_t start = c.at();
        const uint8_t opcode = c.byte();
        if (!skip_operands(c, opcode, cie, target) || !c.ok())
            break;
        if (opcode != DW_CFA_GNU_args_size)
            continue;
        std::memset(&fde.bytes[start], 0, c.at() - start);
        changed = true;
    }
    return changed;
}

} // namespace

void eh_frame_view::show(memory &mem, uint64_t address, const std::vector<uint8_t> &corrected)
{
    std::vector<uint8_t> original(corrected.size());
    if (!mem.read(address, original.data(), original.size()))
        return;
    for (size_t i = 0; i < corrected.size(); ++i)
        if (original[i] != corrected[i])
            bytes.push_back({address + i, corrected[i]});
}

void eh_frame_view::scan(memory &mem, krv_activation_type_t target, uint64_t start, uint64_t end)
{
    constexpr uint64_t HEAD = 8;        // length, and CIE id or pointer
    std::map<uint64_t, cie_facts> cies; // by address
    size_t size = 0;
    for (uint64_t at = start; at < end && end - at >= HEAD; at += size) {
        uint32_t head[2];
        if (!mem.get(at, &head) || head[0] < sizeof(head[1]) || head[0] > end - at - 4)
            break;
        size = size_t{head[0]} + 4;
        if (head[1] == 0) {
            if (auto cie = parse_cie(mem, target, at, size)) {
                cies[at] = {cie->fde_encoding, cie->signal_letter != 0, cie->has_lsda};
                bool changed = show_version_one(*cie);
                changed = show_direct_personality(*cie) || changed;
                changed = hide_signal_letter(*cie) || changed;
                if (changed)
                    show(mem, at, cie->bytes);
            }
        } else {
            ++fdes;
            const auto facts = cies.find(at + 4 - head[1]);
            if (facts == cies.end() || (!facts->second.signal_frame && !facts->second.has_lsda))
                continue;
            auto fde = parse_fde(mem, target, at, size, facts->second, start);
            if (!fde)
                continue;
            if (facts->second.signal_frame && fde->count <= UINT64_MAX - fde->start)
                signal_frames.add({fde->start, fde->start + fde->count});
            if (hide_argument_sizes(*fde, facts->second, target))
                show(mem, at, fde->bytes);
        }
    }
    signal_frames.finish();
}

void eh_frame_view::correct(uint64_t address, void *buf, size_t count) const
{
    auto next = std::lower_bound(bytes.begin(), bytes.end(), address,
                                 [](const shown_byte &b, uint64_t a) { return b.address < a; });
    for (; next != bytes.end() && next->address - address < count; ++next)
        static_cast<uint8_t *>(buf)[next->address - address] = next->value;
}

bool eh_frame_view::signal_frame(uint64_t pc) const
{
    return signal_frames.hold({pc, pc + 1});
}

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

} // namespace krv_elf_loader
