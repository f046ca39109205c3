// SPDX-License-Identifier: Apache-2.0
#include "elf/frames.h"

#include "process/eh_frame.h"

#include <algorithm>
#include <cstring>

namespace krv_elf_loader
{

file_frames::file_frames(elf_file &of, view &shown) : hp(korva_handle_alloc(of.target()))
{
    if (hp == nullptr)
        throw failure(KRV_ELF_ERR_NOMEM, "no libkorva handle: out of memory, or disabled by LIBKORVA_OPTIONS");
    korva_handle_set_opt(hp, KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
    korva_handle_set_opt(hp, KRV_OPT_EXT_DWARF5, uint64_t{1}); // for expressions
    try {
        take_segments(of);
        if (extents.empty())
            take_sections(of, shown);
    } catch (...) {
        korva_handle_free(hp);
        throw;
    }
    korva_attach_as(hp, read_for_handle, this);
    find_records(of);
}

file_frames::~file_frames()
{
    korva_handle_free(hp);
}

void file_frames::add(uint64_t address, byte_span bytes)
{
    if (!bytes.empty())
        extents.push_back({address, bytes});
}

void file_frames::take_segments(const elf_file &of)
{
    const byte_span image = of.image();
    for (const GElf_Phdr &segment : of.segments())
        if (segment.p_type == PT_LOAD && segment.p_offset < image.size())
            add(segment.p_vaddr,
                image.subspan(segment.p_offset, std::min<uint64_t>(segment.p_filesz, image.size() - segment.p_offset)));
}

void file_frames::take_sections(elf_file &of, view &shown)
{
    for (const raw_section &section : of.sections()) {
        if ((section.flags & SHF_ALLOC) == 0 || section.compressed)
            continue;
        const view_section *relocated = shown.find_raw(&section);
        add(section.address, relocated != nullptr ? relocated->bytes() : section.bytes);
    }
}

bool file_frames::read(uint64_t address, void *buf, size_t count)
{
    for (const extent &e : extents)
        if (address >= e.address && address - e.address < e.bytes.size() &&
            count <= e.bytes.size() - (address - e.address)) {
            std::memcpy(buf, e.bytes.data() + (address - e.address), count);
            return true;
        }
    return false;
}

int64_t file_frames::read_for_handle(void *arg, void *buf, size_t count, uint64_t address)
{
    return static_cast<file_frames *>(arg)->read(address, buf, count) ? static_cast<int64_t>(count) : -1;
}

// As a process has them: by .eh_frame_hdr where a segment says where that is; else by the section's own header.
void file_frames::find_records(const elf_file &of)
{
    uint64_t header = 0, start = 0;
    for (const GElf_Phdr &segment : of.segments())
        if (segment.p_type == PT_GNU_EH_FRAME)
            header = segment.p_vaddr;
    if (header != 0)
        start = read_eh_frame_address(*this, of.target(), header);
    for (const raw_section &section : of.sections())
        if (start == 0 && section.name == ".eh_frame" && section.file_size != 0)
            start = section.address;
    if (!has_frame_record(*this, start)) // else the core, too, would find nothing, but say that the section is damaged
        return;
    if (header != 0)
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_HDR_ADDR, header);
    korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, start);
}

} // namespace krv_elf_loader
