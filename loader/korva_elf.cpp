// SPDX-License-Identifier: Apache-2.0
//
// The exported functions: raw file, then view, then handle. No exception leaves them.
#include "libkorva-elf.h"

#include "elf_file.h"
#include "elf_symbols.h"
#include "elf_view.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

using namespace krv_elf_loader;

namespace
{

struct handle_deleter {
    void operator()(krv_handle_t *hp) const { korva_handle_free(hp); }
};

} // namespace

struct krv_elf {
    krv_elf(const std::string &path, unsigned int flags)
        : file(path), shown(file, (flags & KRV_ELF_F_RAW) != 0), symbols(file)
    {
        hp.reset(korva_handle_alloc(file.target()));
        if (hp == nullptr)
            throw failure(KRV_ELF_ERR_NOMEM,
                          path + ": no libkorva handle: out of memory, or disabled by LIBKORVA_OPTIONS");
        for (const view_section &section : shown.sections())
            korva_attach_section(hp.get(), section.index, section.bytes().size(), KRV_FD_TYPE_MEMORY,
                                 const_cast<uint8_t *>(section.bytes().data()));
    }

    elf_file file;
    view shown;
    symbol_table symbols;
    std::unique_ptr<krv_handle_t, handle_deleter> hp; // last: it reads what stands before it
};

// One line of text, whatever is in the path that it names.
static void tell(krv_elf_error_t *errorp, int code, const char *message)
{
    if (errorp == nullptr)
        return;
    errorp->code = code;
    std::snprintf(errorp->message, sizeof(errorp->message), "%s", message);
    std::replace(errorp->message, errorp->message + std::strlen(errorp->message), '\n', '?');
}

// Runs the body of an exported function that may throw; tells what it threw, and returns `failed`.
template <typename R, typename F>
static R guarded(krv_elf_error_t *errorp, R failed, const F &body)
{
    try {
        return body();
    } catch (const failure &f) {
        tell(errorp, f.code, f.what());
    } catch (const std::bad_alloc &) {
        tell(errorp, KRV_ELF_ERR_NOMEM, "out of memory");
    } catch (const std::exception &e) {
        tell(errorp, KRV_ELF_ERR_FORMAT, e.what());
    } catch (...) {
        tell(errorp, KRV_ELF_ERR_FORMAT, "unknown failure");
    }
    return failed;
}

// The loaded segment that holds a byte of the file; failing that, one whose first page, which is mapped whole, does.
static const GElf_Phdr *find_segment(const elf_file &file, uint64_t file_offset)
{
    constexpr uint64_t PAGE = 4096;
    for (const uint64_t mask : {UINT64_MAX, ~(PAGE - 1)})
        for (const GElf_Phdr &segment : file.segments())
            if (segment.p_type == PT_LOAD && file_offset >= (segment.p_offset & mask) &&
                (file_offset < segment.p_offset || file_offset - segment.p_offset < segment.p_filesz))
                return &segment;
    return nullptr;
}

krv_elf_t *korva_elf_open(const char *path, unsigned int flags, krv_elf_error_t *errorp)
{
    return guarded<krv_elf_t *>(errorp, nullptr, [=] { return new krv_elf(path == nullptr ? "" : path, flags); });
}

void korva_elf_close(krv_elf_t *elf)
{
    delete elf;
}

krv_handle_t *korva_elf_get_handle(krv_elf_t *elf)
{
    return elf->hp.get();
}

const char *korva_elf_get_path(krv_elf_t *elf)
{
    return elf->file.path().c_str();
}

void korva_elf_get_info(krv_elf_t *elf, krv_elf_info_t *infop)
{
    const byte_span build_id = elf->file.build_id();
    *infop = {.machine = elf->file.machine(),
              .type = elf->file.type(),
              .target = elf->file.target(),
              .build_id = build_id.empty() ? nullptr : build_id.data(),
              .build_id_size = build_id.size(),
              .has_symtab = elf->symbols.from_symtab() ? 1 : 0};
}

int korva_elf_iter_sections(krv_elf_t *elf, krv_elf_iter_section_f *func, void *arg)
{
    for (const raw_section &raw : elf->file.sections()) {
        krv_elf_section_t section = {.name = raw.name.c_str(),
                                     .address = raw.address,
                                     .size = raw.size,
                                     .file_size = raw.file_size,
                                     .index = KRV_SEC_NONE,
                                     .compressed = raw.compressed ? 1 : 0,
                                     .copied = 0,
                                     .executable = raw.executable() ? 1 : 0};
        for (const view_section &attached : elf->shown.sections()) {
            if (attached.raw != &raw)
                continue;
            section.size = attached.bytes().size();
            section.index = attached.index;
            section.copied = attached.copy ? 1 : 0;
        }
        if (const int result = func(elf, &section, arg))
            return result;
    }
    return 0;
}

int korva_elf_iter_notes(krv_elf_t *elf, krv_elf_iter_note_f *func, void *arg)
{
    for (const note &n : elf->shown.notes()) {
        const krv_elf_note_t shown = {.pass = n.pass,
                                      .section = n.section.c_str(),
                                      .offset = n.offset,
                                      .refused = n.refused ? 1 : 0,
                                      .text = n.text.c_str()};
        if (const int result = func(elf, &shown, arg))
            return result;
    }
    return 0;
}

const krv_elf_symbol_t *korva_elf_get_symbols(krv_elf_t *elf, size_t *countp)
{
    const std::vector<krv_elf_symbol_t> &all = elf->symbols.all();
    *countp = all.size();
    return all.empty() ? nullptr : all.data();
}

const krv_elf_symbol_t *korva_elf_lookup_symbol(krv_elf_t *elf, uint64_t address)
{
    return elf->symbols.find(address);
}

const krv_elf_symbol_t *korva_elf_lookup_symbol_by_name(krv_elf_t *elf, const char *name)
{
    return elf->symbols.find(name);
}

int korva_elf_load_bias(krv_elf_t *elf, uint64_t address, uint64_t file_offset, uint64_t *biasp,
                        krv_elf_error_t *errorp)
{
    return guarded(errorp, -1, [=] {
        const GElf_Phdr *segment = find_segment(elf->file, file_offset);
        if (segment == nullptr) {
            char text[64];
            std::snprintf(text, sizeof(text), ": no loaded segment holds offset 0x%llx",
                          static_cast<unsigned long long>(file_offset));
            throw failure(KRV_ELF_ERR_NOTFOUND, elf->file.path() + text);
        }
        *biasp = address - file_offset - (segment->p_vaddr - segment->p_offset); // modulo 2^64: any order is right
        return 0;
    });
}
