// SPDX-License-Identifier: Apache-2.0
//
// The header of a unit of DWARF 5 has another order of fields (DWARF 5, 7.5.1.1). What the core gets to see instead is
// a header in the order of versions 2 to 4, with the unit's own length and version, and one entry without attributes;
// the rest of the unit's bytes stays behind it, unread.
#include "elf/dwarf_units.h"
#include "elf/pass.h"

#include <fmt/format.h>

namespace krv_elf_loader
{

namespace
{

// One entry without attributes: code 1, DW_TAG_compile_unit, no children; end of pairs; end of table.
constexpr uint8_t EMPTY_UNIT_ABBREVS[] = {1, 0x11, 0, 0, 0, 0};
constexpr uint8_t EMPTY_UNIT_CODE = 1;

constexpr char TOO_SHORT[] = "; it is too short to be shown as an empty unit, and may end the list of units";

// The abbreviation table of the empty units: behind the file's own tables, once it is needed.
class empty_abbrevs
{
public:
    explicit empty_abbrevs(view *v) : shown(v) {}

    uint64_t offset()
    {
        if (place)
            return *place;
        view_section *abbrev = shown->find(KRV_SEC_ABBREV);
        if (abbrev == nullptr)
            abbrev = shown->make(KRV_SEC_ABBREV, ".debug_abbrev");
        std::vector<uint8_t> &bytes = abbrev->writable();
        place = bytes.size();
        bytes.insert(bytes.end(), std::begin(EMPTY_UNIT_ABBREVS), std::end(EMPTY_UNIT_ABBREVS));
        return *place;
    }

private:
    view *shown;
    std::optional<uint64_t> place;
};

// Writes the header of versions 2 to 4, and the entry, over the beginning of the unit.
void present_empty(std::vector<uint8_t> &info, const unit &u, uint64_t abbrev_offset, krv_activation_type_t target)
{
    uint64_t at = u.offset + u.length_size() + 2; // length and version stay
    write_number(info, at, abbrev_offset, u.offset_size);
    at += u.offset_size;
    info[at++] = target == KRV_ACTIVATION_AMD64 ? 8 : 4;
    info[at] = EMPTY_UNIT_CODE;
}

} // namespace

void correct_unit_versions(view &v, const char *name)
{
    view_section *info = v.find(KRV_SEC_INFO);
    if (info == nullptr)
        return;
    empty_abbrevs abbrevs(&v);
    const uint64_t end = info->bytes().size();
    unit u;
    for (uint64_t offset = 0; offset < end; offset += u.size) {
        std::string reason;
        if (!read_unit(info->bytes(), offset, &u, &reason)) {
            v.add_note({name, info->name, offset, true,
                        fmt::format("unit at offset {:#x} of {} cannot be read, nor any behind it: {}", offset,
                                    info->name, reason)});
            return;
        }
        if (u.readable())
            continue;
        const bool shown = u.size > u.header_size();
        if (shown)
            present_empty(info->writable(), u, abbrevs.offset(), v.file().target());
        v.add_note({name, info->name, u.offset, true,
                    fmt::format("unit at offset {:#x} of {} is DWARF {}, and libkorva reads DWARF 2 to 4{}{}", u.offset,
                                info->name, u.version, shown ? "" : TOO_SHORT,
                                u.version > 4 ? "; compile with -gdwarf-4" : "")});
    }
}

} // namespace krv_elf_loader
