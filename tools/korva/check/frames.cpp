// SPDX-License-Identifier: Apache-2.0
//
// Call-frame information: every record of .eh_frame and .debug_frame, and the search table of .eh_frame_hdr.
#include "check/subject.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace korva::program::check
{

namespace
{

/** A section with its place in memory. */
struct placed {
    const uint8_t *bytes = nullptr;
    uint64_t size = 0, address = 0;
};

/** A record of a function, by its offset. */
struct function_record {
    uint64_t offset;
    uint64_t start; /**< NOWHERE: it cannot be read */
};

/** What was read of a section. */
struct records {
    std::vector<function_record> functions{};
    uint64_t end = NOWHERE; /**< nothing is known of what is there, or behind it */
};

// Pointer encodings (LSB Core, "DWARF Exception Header Encoding").
constexpr uint8_t DW_EH_PE_pcrel = 0x10, DW_EH_PE_datarel = 0x30, DW_EH_PE_omit = 0xff;

} // namespace

// Bytes of a pointer of fixed size, and whether it has a sign; 0 for others.
static unsigned pointer_width(uint8_t encoding, krv_activation_type_t target, bool *is_signed)
{
    *is_signed = (encoding & 0x08) != 0;
    switch (encoding & 0x07) {
    case 0:
        return target == KRV_ACTIVATION_I386 ? 4 : 8;
    case 2:
        return 2;
    case 3:
        return 4;
    case 4:
        return 8;
    default:
        return 0;
    }
}

// Reads a pointer of .eh_frame_hdr; false where it is of a kind that is not there.
static bool read_pointer(byte_reader *from, uint8_t encoding, const placed &header, krv_activation_type_t target,
                         uint64_t *valuep)
{
    bool is_signed = false;
    const uint64_t at = header.address + from->at();
    const unsigned width = pointer_width(encoding, target, &is_signed);
    if (width == 0)
        return false;
    *valuep = is_signed ? static_cast<uint64_t>(from->signed_number(width)) : from->number(width);
    const unsigned base = encoding & 0xf0U;
    *valuep += base == DW_EH_PE_pcrel ? at : base == DW_EH_PE_datarel ? header.address : 0;
    if (target == KRV_ACTIVATION_I386)
        *valuep &= UINT32_MAX;
    return !from->failed() && (base == 0 || base == DW_EH_PE_pcrel || base == DW_EH_PE_datarel);
}

// The target's memory, in which only this section is.
static int64_t read_memory(void *arg, void *buf, size_t count, uint64_t address)
{
    const auto *section = static_cast<const placed *>(arg);
    const uint64_t offset = address - section->address;
    if (address < section->address || offset > section->size || count > section->size - offset)
        return -1;
    std::memcpy(buf, section->bytes + offset, count);
    return static_cast<int64_t>(count);
}

// Reads all records of a section, which the handle has as its call-frame information.
static records check_records(subject *of, handle_view handle, const char *name, uint64_t size)
{
    findings &found = of->found();
    records all;
    std::vector<stretch> covered;
    detail::owner<krv_activation_t, korva_activation_free> scratch(korva_activation_alloc(handle.get()));
    if (scratch == nullptr)
        throw std::bad_alloc();
    std::map<uint64_t, uint64_t> parents; // bytes of CIEs, by offset
    uint64_t budget = 16 * size + (1 << 20);
    for (uint64_t at = 0; at < size;) {
        krv_frame_record_t record;
        const bool is_sound = korva_frame_record_at(handle.get(), scratch.get(), at, &record) == 0;
        if (!is_sound)
            found.add(kind::frame_record, {.section = name, .offset = at}, last_messages(handle));
        if (record.kind == KRV_FRAME_RECORD_END) {
            if (at + 4 < size) {
                found.add(kind::frame_end, {.section = name, .offset = at},
                          fmt::format("a terminator, with {} bytes behind it", size - at - 4));
                all.end = at;
            }
            break;
        }
        if (record.size == 0 || record.size > size - at) {
            if (is_sound)
                found.add(kind::frame_record, {.section = name, .offset = at}, "the record leads out of the section");
            all.end = at;
            break;
        }
        ++found.read.frame_records;
        if (record.kind == KRV_FRAME_RECORD_CIE) {
            parents.emplace(at, record.size);
        } else { // its CIE was read again
            const auto parent = parents.find(record.cie);
            const uint64_t cost = parent == parents.end() ? size : parent->second;
            if (cost > budget) {
                found.add(kind::unchecked, {.section = name, .offset = at}, "FDEs share a long CIE too often");
                all.end = at;
                break;
            }
            budget -= cost;
        }
        if (record.kind == KRV_FRAME_RECORD_FDE) {
            all.functions.push_back({at, is_sound ? record.start : NOWHERE});
            if (is_sound && record.length != 0 && of->is_code(record.start))
                covered.push_back({record.start, record.start + record.length, at});
        }
        at += record.size;
    }
    sort_stretches(&covered);
    each_overlap(covered, [&](const stretch &a, const stretch &b) {
        found.add(kind::frame_overlap, {.section = name, .offset = b.owner},
                  fmt::format("the record at 0x{:x} covers 0x{:x} too", a.owner, b.start));
    });
    return all;
}

// A handle for one section alone.
static korva::handle make_handle(subject *of)
{
    result<korva::handle> made = korva::handle::make(of->target());
    if (!made)
        throw std::bad_alloc();
    korva_handle_set_opt(made->get(), KRV_OPT_EXT_DWARF5, uint64_t{1});
    korva_handle_set_opt(made->get(), KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
    return std::move(*made);
}

static void check_table(subject *of, byte_reader table, uint8_t encoding, uint64_t count, const placed &header,
                        const placed &eh_frame, const records &frames)
{
    findings &found = of->found();
    const std::vector<function_record> &functions = frames.functions;
    uint64_t last = 0, entries = 0;
    for (; entries < count; ++entries) {
        const uint64_t at = table.at();
        uint64_t start = 0, address = 0;
        if (!read_pointer(&table, encoding, header, of->target(), &start) ||
            !read_pointer(&table, encoding, header, of->target(), &address)) {
            found.add(
                kind::frame_header, {.offset = at},
                fmt::format("entry {} of {} leads out of the section, or has an unknown encoding", entries, count));
            return;
        }
        const uint64_t offset = address - eh_frame.address;
        const auto record = std::lower_bound(functions.begin(), functions.end(), offset,
                                             [](const function_record &f, uint64_t o) { return f.offset < o; });
        if (start < last)
            found.add(kind::frame_header, {.offset = at},
                      fmt::format("the entry of 0x{:x} is behind that of 0x{:x}", start, last));
        else if (offset < frames.end && (record == functions.end() || record->offset != offset))
            found.add(
                kind::frame_header, {.offset = at},
                fmt::format("the entry of 0x{:x} leads to 0x{:x} of .eh_frame, where no FDE begins", start, offset));
        else if (offset < frames.end && record->start != start && record->start != NOWHERE)
            found.add(kind::frame_header, {.offset = at},
                      fmt::format("the entry of 0x{:x} leads to the FDE of 0x{:x}", start, record->start));
        last = start;
    }
    if (entries < functions.size())
        found.add(kind::frame_header, {.offset = 0},
                  fmt::format("{} entries, where .eh_frame has {} FDEs", entries, functions.size()));
}

static void check_header(subject *of, const placed &header, const placed &eh_frame, const records &frames)
{
    findings &found = of->found();
    byte_reader from(header.bytes, header.size);
    const uint64_t version = from.number(1);
    const auto of_frame = static_cast<uint8_t>(from.number(1)), of_count = static_cast<uint8_t>(from.number(1)),
               of_table = static_cast<uint8_t>(from.number(1));
    uint64_t frame = 0, count = 0;
    if (from.failed() || version != 1) {
        found.add(kind::frame_header, {.offset = 0}, fmt::format("a header of version {}", version));
        return;
    }
    if (!read_pointer(&from, of_frame, header, of->target(), &frame) || frame != eh_frame.address) {
        found.add(kind::frame_header, {.offset = 4},
                  fmt::format("leads to 0x{:x}, where .eh_frame is at 0x{:x}", frame, eh_frame.address));
        return;
    }
    if (of_count == DW_EH_PE_omit || of_table == DW_EH_PE_omit) {
        found.add(kind::no_frame_header, {.offset = 0}, "there is no search table");
        return;
    }
    if (!read_pointer(&from, of_count, header, of->target(), &count)) {
        found.add(kind::frame_header, {.offset = 2},
                  fmt::format("a number of entries in the encoding 0x{:x}", of_count));
        return;
    }
    check_table(of, from, of_table, count, header, eh_frame, frames);
}

static placed place_section(const section_bytes &bytes, const std::vector<krv_elf_section_t> &sections,
                            krv_secidx_t index)
{
    for (const krv_elf_section_t &section : sections)
        if (section.index == index)
            return {bytes.data(), bytes.size(), section.address};
    return {};
}

// Those of the file that is loaded: a separate debug file has only their names.
static void check_eh_frame(subject *of)
{
    std::optional<korva::elf> loaded;
    if (of->elf().debug_path() != nullptr)
        if (auto opened = korva::elf::open(of->elf().path(), KRV_ELF_F_RAW | KRV_ELF_F_INFLATE_ANY))
            loaded.emplace(std::move(*opened));
    const elf_view from = loaded ? elf_view(*loaded) : of->elf();
    const std::vector<krv_elf_section_t> sections = from.sections();
    const section_bytes frame_bytes(from.handle(), KRV_SEC_EH_FRAME), header_bytes(from.handle(), KRV_SEC_EH_FRAME_HDR);
    placed eh_frame = place_section(frame_bytes, sections, KRV_SEC_EH_FRAME);
    const placed header = place_section(header_bytes, sections, KRV_SEC_EH_FRAME_HDR);
    if (eh_frame.size == 0)
        return;
    korva::handle handle = make_handle(of);
    korva_attach_as(handle.get(), read_memory, &eh_frame);
    korva_handle_set_opt(handle.get(), KRV_OPT_EH_FRAME_ADDR, eh_frame.address);
    const records frames = check_records(of, handle, ".eh_frame", eh_frame.size);
    if (header.size != 0)
        check_header(of, header, eh_frame, frames);
    else if (of->is_linked() && !frames.functions.empty())
        of->found().add(kind::no_frame_header, {}, "there is no .eh_frame_hdr");
}

void check_frames(subject *of)
{
    check_eh_frame(of);
    const section_bytes bytes(of->handle(), KRV_SEC_FRAME);
    if (bytes.size() == 0)
        return;
    korva::handle handle = make_handle(of);
    (void)handle.attach_section(KRV_SEC_FRAME, bytes.data(), bytes.size());
    (void)check_records(of, handle, ".debug_frame", bytes.size());
}

} // namespace korva::program::check
