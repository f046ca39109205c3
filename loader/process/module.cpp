// SPDX-License-Identifier: Apache-2.0
#include "process/module.h"

#include "elf/build_id.h"
#include "elf/debug_file.h"
#include "elf/open.h"
#include "page.h"
#include "process/eh_frame.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace krv_elf_loader
{

namespace
{

constexpr uint64_t LARGEST_VDSO = 1 << 20;
constexpr char VDSO[] = "[vdso]";

krv_handle_t *new_handle(krv_activation_type_t target)
{
    krv_handle_t *hp = korva_handle_alloc(target);
    if (hp == nullptr)
        throw failure(KRV_ELF_ERR_NOMEM, "no libkorva handle: out of memory, or disabled by LIBKORVA_OPTIONS");
    korva_handle_set_opt(hp, KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
    korva_handle_set_opt(hp, KRV_OPT_EXT_DWARF5, uint64_t{1}); // for expressions
    return hp;
}

struct wanted_section {
    const char *name;
    uint64_t address;
    bool found;
};

int match_section(krv_elf_t *, const krv_elf_section_t *section, void *arg)
{
    auto *wanted = static_cast<wanted_section *>(arg);
    if (std::strcmp(section->name, wanted->name) != 0)
        return 0;
    wanted->address = section->address;
    wanted->found = true;
    return 1;
}

wanted_section find_section(krv_elf_t *elf, const char *name)
{
    wanted_section wanted = {name, 0, false};
    korva_elf_iter_sections(elf, match_section, &wanted);
    return wanted;
}

} // namespace

bool is_vdso(const source &from, const mapping &m)
{
    return from.aux.vdso != 0 && m.start == from.aux.vdso;
}

loaded_module::loaded_module(source &from, const mapping &at, elf_image headers, uint64_t load_bias)
    : process(from), where(at), image(std::move(headers)), path(at.path)
{
    const bool vdso = is_vdso(from, at);
    if (vdso)
        path = VDSO;
    record.start = at.start;
    record.end = load_bias + image.end;
    record.bias = load_bias;
    record.target = image.target;
    build_id = read_build_id(from.module_bytes(), image, load_bias);
    if (const Elf64_Phdr *header = image.find(PT_GNU_EH_FRAME); header != nullptr) {
        record.eh_frame_hdr = load_bias + header->p_vaddr;
        record.eh_frame = read_eh_frame_address(from.module_bytes(), image.target, record.eh_frame_hdr);
    }
    if (vdso)
        record.flags |= KRV_PROC_MODULE_F_VDSO;
    if (at.deleted)
        record.flags |= KRV_PROC_MODULE_F_DELETED;
    if (!vdso && !path.empty() && from.mismatched(at))
        record.flags |= KRV_PROC_MODULE_F_MISMATCH;
    record.path = path.c_str();
    record.build_id = build_id.empty() ? nullptr : build_id.data();
    record.build_id_size = build_id.size();
}

// The file's page at `offset` of a mapping is where the headers want it.
bool loaded_module::has(const mapping &m) const
{
    if (m.start == where.start)
        return true;
    if (m.path != where.path || m.inode != where.inode || m.deleted != where.deleted)
        return false;
    return std::any_of(image.segments.begin(), image.segments.end(), [&](const Elf64_Phdr &segment) {
        return segment.p_type == PT_LOAD &&
               m.start - m.offset == record.bias + page_of(segment.p_vaddr) - page_of(segment.p_offset);
    });
}

loaded_module::~loaded_module()
{
    korva_handle_free(unwind_handle);
    korva_elf_close(file);
}

bool loaded_module::same_as(const loaded_module &other) const
{
    return record.start == other.record.start && record.end == other.record.end && path == other.path &&
           build_id == other.build_id;
}

int64_t loaded_module::read(void *arg, void *buf, size_t count, uint64_t address)
{
    auto *m = static_cast<loaded_module *>(arg);
    return guarded<int64_t>(nullptr, -1, [&]() -> int64_t {
        if (!m->process.bytes().read(address, buf, count)) {
            m->process.unreadable = address;
            return -1;
        }
        return static_cast<int64_t>(count);
    });
}

krv_elf_t *loaded_module::open_vdso()
{
    std::vector<uint8_t> bytes(std::min(where.end - where.start, LARGEST_VDSO));
    if (!process.bytes().read(where.start, bytes.data(), bytes.size()))
        throw failure(KRV_ELF_ERR_NOTFOUND, "[vdso]: its memory cannot be read");
    const int fd = memfd_create("vdso", MFD_CLOEXEC);
    if (fd < 0)
        throw failure(KRV_ELF_ERR_SYSTEM, std::string("[vdso]: ") + std::strerror(errno));
    krv_elf_error_t error = {};
    krv_elf_t *elf = nullptr;
    if (write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()))
        elf = korva_elf_open(fmt::format("/proc/self/fd/{}", fd).c_str(), KRV_ELF_F_NONE, &error);
    close(fd);
    if (elf == nullptr)
        throw failure(error.code != 0 ? error.code : KRV_ELF_ERR_SYSTEM, std::string("[vdso]: ") + error.message);
    return elf;
}

krv_elf_t *loaded_module::open_other(const failure &why)
{
    const search_settings files = process.files();
    std::string refused;
    for (const file_kind kind : {file_kind::debug, file_kind::executable}) {
        const debug_file found = is_usable_id(build_id) ? find_by_build_id(build_id, kind, files) : debug_file();
        if (found.file != nullptr) {
            process.take_file(found.file->path());
            return open_elf(found.file->path(), files);
        }
        for (const std::string &text : found.refused)
            refused += "; " + text;
    }
    throw failure(why.code, why.what() + refused);
}

krv_elf_t *loaded_module::open()
{
    if ((record.flags & KRV_PROC_MODULE_F_VDSO) != 0)
        return open_vdso();
    if (path.empty())
        return open_other({KRV_ELF_ERR_NOTFOUND, fmt::format("module at {:#x}: of no known file", record.start)});
    try {
        const std::string found = process.locate(where);
        elf_ptr opened(open_elf(found, process.files()));
        krv_elf_info_t info;
        korva_elf_get_info(opened.get(), &info);
        const byte_span its_id(info.build_id, info.build_id_size);
        if (!its_id.empty() && !build_id.empty() && hex(its_id) != hex(build_id))
            throw failure(KRV_ELF_ERR_NOTFOUND,
                          fmt::format("{}: its build-id is {}, but {} was loaded", found, hex(its_id), hex(build_id)));
        return opened.release();
    } catch (const failure &f) {
        if (f.code != KRV_ELF_ERR_NOTFOUND)
            throw;
        return open_other(f);
    }
}

// Opened while no server was asked, a file may have its debugging information there. What was handed out stays open.
void loaded_module::open_again()
{
    was_held = false;
    try {
        elf_ptr better(open());
        if (korva_elf_get_debug_path(better.get()) != nullptr)
            before.reset(std::exchange(file, better.release()));
    } catch (const failure &f) {
        if (f.code == KRV_ELF_ERR_NOMEM)
            throw;
    }
}

krv_elf_t *loaded_module::elf()
{
    if (was_held && !process.is_held()) {
        if (file != nullptr)
            open_again();
        else
            file_failure.reset();
    }
    if (file_failure)
        throw failure(*file_failure);
    if (file != nullptr)
        return file;
    was_held = process.is_held() && (process.client_files.flags & KRV_ELF_F_DEBUGINFOD) != 0;
    try {
        file = open();
    } catch (const failure &f) {
        if (f.code != KRV_ELF_ERR_NOMEM) // which says nothing about the file
            file_failure.emplace(f);
        throw;
    }
    return file;
}

// Without .eh_frame_hdr only the section headers know, and they are in the file alone.
uint64_t loaded_module::find_eh_frame()
{
    if (record.eh_frame != 0)
        return record.eh_frame;
    // Once more: now files are looked for by build-id.
    if (const uint64_t address = record.eh_frame_hdr == 0 ? 0
                                                          : read_eh_frame_address(process.module_bytes(), record.target,
                                                                                  record.eh_frame_hdr))
        return address;
    try {
        const wanted_section section = find_section(elf(), ".eh_frame");
        return section.address == 0 ? 0 : record.bias + section.address;
    } catch (const failure &f) {
        if (f.code == KRV_ELF_ERR_NOMEM)
            throw;
        return 0;
    }
}

// That of the segment; failing that, of the module.
uint64_t loaded_module::end_of_eh_frame(uint64_t start) const
{
    uint64_t end = record.end;
    for (const Elf64_Phdr &segment : image.segments)
        if (segment.p_type == PT_LOAD && start - record.bias - segment.p_vaddr < segment.p_memsz)
            end = record.bias + segment.p_vaddr + segment.p_memsz;
    return end;
}

// Kept when all of it is there: a later query tries again.
void loaded_module::prepare()
{
    if (unwind_handle != nullptr)
        return;
    std::unique_ptr<krv_handle_t, decltype(&korva_handle_free)> fresh(new_handle(record.target), korva_handle_free);
    korva_attach_as(fresh.get(), read, this);
    const uint64_t start = find_eh_frame();
    bool has_records = false;
    try {
        has_records = start != 0 && has_frame_record(process.module_bytes(), start);
        if (has_records && end_of_eh_frame(start) > start)
            process.take_module_bytes(end_of_eh_frame(start) - start); // without a search table all records are read
    } catch (const failure &f) {
        has_records = false;
        frames_failure = f.what();
        process.note(frames_failure);
    }
    if (has_records) { // else the core, too, would find nothing, but say that the section is damaged
        if (record.eh_frame_hdr != 0)
            korva_handle_set_opt(fresh.get(), KRV_OPT_EH_FRAME_HDR_ADDR, record.eh_frame_hdr);
        korva_handle_set_opt(fresh.get(), KRV_OPT_EH_FRAME_ADDR, start);
    }
    unwind_handle = fresh.release();
}

krv_handle_t *loaded_module::handle()
{
    prepare();
    return unwind_handle;
}

krv_handle_t *loaded_module::debug_frame_handle()
{
    if (debug_frame_known)
        return debug_handle;
    try {
        if (find_section(elf(), ".debug_frame").found || find_section(elf(), ".zdebug_frame").found) {
            debug_handle = korva_elf_get_handle(elf());
            korva_attach_as(debug_handle, read, this);
        }
    } catch (const failure &f) {
        if (f.code == KRV_ELF_ERR_NOMEM)
            throw;
        // No file, no .debug_frame. Who wants to know why asks for the file.
    }
    debug_frame_known = true;
    return debug_handle;
}

void loaded_module::open_before_release()
{
    if (unwind_handle == nullptr || ((record.flags & KRV_PROC_MODULE_F_VDSO) == 0 && process.outlived(where)))
        return;
    try {
        elf();
    } catch (const failure &) {
        // Who wants to know why asks for the file.
    }
}

std::optional<uint64_t> loaded_module::file_offset(uint64_t address) const
{
    if ((record.flags & KRV_PROC_MODULE_F_VDSO) != 0)
        return std::nullopt;
    for (const Elf64_Phdr &segment : image.segments)
        if (segment.p_type == PT_LOAD && address - record.bias - segment.p_vaddr < segment.p_filesz)
            return segment.p_offset + (address - record.bias - segment.p_vaddr);
    return std::nullopt;
}

} // namespace krv_elf_loader
