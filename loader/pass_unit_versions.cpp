// SPDX-License-Identifier: Apache-2.0
//
// The header of a unit of DWARF 5 has another order of fields (DWARF 5, 7.5.1.1). What the core gets to see instead is
// a header in the order of versions 2 to 4, with the unit's own length and version, and one entry without attributes;
// the rest of the unit's bytes stays behind it, unread.
#include "pass.h"

#include <cstring>
#include <fmt/format.h>
#include <optional>

namespace krv_elf_loader
{

namespace
{

// One entry without attributes: code 1, DW_TAG_compile_unit, no children; end of pairs; end of table.
constexpr uint8_t EMPTY_UNIT_ABBREVS[] = {1, 0x11, 0, 0, 0, 0};
constexpr uint8_t EMPTY_UNIT_CODE = 1;

struct unit {
    uint64_t offset;
    uint64_t size; // length field included
    size_t offset_size;
    uint16_t version;

    size_t length_size() const { return offset_size == 8 ? 12 : 4; }
    size_t header_size() const { return length_size() + 2 + offset_size + 1; } // of versions 2 to 4
};

uint64_t read_number(byte_span bytes, uint64_t offset, size_t width)
{
    uint64_t value = 0;
    std::memcpy(&value, bytes.data() + offset, width);
    return value;
}

// The unit at `offset`; nothing, with the reason, when its header is damaged.
std::optional<unit> read_unit(byte_span info, uint64_t offset, std::string *reason)
{
    const uint64_t left = info.size() - offset;
    unit u = {offset, 0, 4, 0};
    *reason = "the section ends within its header";
    if (left < 4)
        return {};
    uint64_t length = read_number(info, offset, 4);
    if (length == 0xffffffff) {
        if (left < 12)
            return {};
        u.offset_size = 8;
        length = read_number(info, offset + 4, 8);
    } else if (length >= 0xfffffff0) {
        *reason = fmt::format("its length {:#x} is reserved", length);
        return {};
    }
    if (length > left - u.length_size()) {
        *reason = fmt::format("its length {:#x} exceeds the section", length);
        return {};
    }
    if (length < 2)
        return {};
    u.size = length + u.length_size();
    u.version = static_cast<uint16_t>(read_number(info, offset + u.length_size(), 2));
    return u;
}

void write_number(std::vector<uint8_t> &bytes, uint64_t offset, uint64_t value, size_t width)
{
    std::memcpy(bytes.data() + offset, &value, width);
}

// Where the abbreviation table of empty units stands: behind the file's own tables.
uint64_t append_abbrevs(view &v)
{
    view_section *abbrev = v.find(KRV_SEC_ABBREV);
    if (abbrev == nullptr)
        abbrev = v.make(KRV_SEC_ABBREV, ".debug_abbrev");
    std::vector<uint8_t> &bytes = v.writable(abbrev);
    const uint64_t offset = bytes.size();
    bytes.insert(bytes.end(), std::begin(EMPTY_UNIT_ABBREVS), std::end(EMPTY_UNIT_ABBREVS));
    v.written(abbrev);
    return offset;
}

void present_empty(view &v, view_section *info, const unit &u, uint64_t abbrev_offset)
{
    std::vector<uint8_t> &bytes = v.writable(info);
    uint64_t at = u.offset + u.length_size() + 2; // behind the version
    write_number(bytes, at, abbrev_offset, u.offset_size);
    at += u.offset_size;
    bytes[at++] = v.file().target() == KRV_ACTIVATION_AMD64 ? 8 : 4;
    bytes[at] = EMPTY_UNIT_CODE;
}

} // namespace

void correct_unit_versions(view &v, const char *name)
{
    view_section *info = v.find(KRV_SEC_INFO);
    if (info == nullptr)
        return;
    std::optional<uint64_t> abbrev_offset;
    const uint64_t end = info->bytes.size();
    for (uint64_t offset = 0; offset < end;) {
        std::string reason;
        const std::optional<unit> u = read_unit(info->bytes, offset, &reason);
        if (!u) {
            v.add_note(name, info->name, offset, true,
                       fmt::format("unit at offset {:#x} of {} cannot be read, nor any behind it: {}", offset,
                                   info->name, reason));
            return;
        }
        offset += u->size;
        if (u->version >= 2 && u->version <= 4)
            continue;
        v.add_note(name, info->name, u->offset, true,
                   fmt::format("unit at offset {:#x} of {} is DWARF {}, and libkorva reads DWARF 2 to 4; compile with "
                               "-gdwarf-4",
                               u->offset, info->name, u->version));
        if (u->size <= u->header_size())
            continue; // no room for an entry: the core ends its unit table here
        if (!abbrev_offset) {
            abbrev_offset = append_abbrevs(v);
            info = v.find(KRV_SEC_INFO); // a new section moves the others
        }
        present_empty(v, info, *u, *abbrev_offset);
    }
}

} // namespace krv_elf_loader
