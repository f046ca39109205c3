// SPDX-License-Identifier: Apache-2.0
//
// The exported functions: raw file, then view, then handle. No exception leaves them.
#include "libkorva-elf.h"

#include "elf/build_id.h"
#include "elf/debug_file.h"
#include "elf/file.h"
#include "elf/frames.h"
#include "elf/open.h"
#include "elf/symbolizer.h"
#include "elf/symbols.h"
#include "elf/view.h"
#include "failure.h"
#include "page.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <new>
#include <optional>

using namespace krv_elf_loader;

namespace
{

struct handle_deleter {
    void operator()(krv_handle_t *hp) const { korva_handle_free(hp); }
};

} // namespace

// What is opened, then what the handle sees of it. The view is made when it is first asked for: who wants symbols only
// waits for nothing else.
struct krv_elf {
    krv_elf(const std::string &path, search_settings other_files)
        : where(std::move(other_files)), file(path, where.flags), hp(korva_handle_alloc(file.target()))
    {
        if (hp == nullptr)
            throw failure(KRV_ELF_ERR_NOMEM,
                          path + ": no libkorva handle: out of memory, or disabled by LIBKORVA_OPTIONS");
        if (!raw() && !has_debug_info(file))
            debug = find_debug_file(file, where);
        if (debug.file != nullptr && !symbols().from_symtab())
            debug_symbols.emplace(*debug.file);
    }

    bool raw() const { return (where.flags & KRV_ELF_F_RAW) != 0; }
    elf_file &source() { return debug.file != nullptr ? *debug.file : file; }
    const symbol_table &symbols() const { return debug_symbols ? *debug_symbols : own_symbols; }

    symbolizer &frames()
    {
        if (!described) {
            shown();
            described.emplace(hp.get(), symbols(),
                              16 * (file.image().size() + source().image().size()) + (uint64_t{1} << 20));
        }
        return *described;
    }

    // Makes the view, once, and attaches its sections. Without memory for corrections the file is shown as it stands.
    view &shown()
    {
        if (made)
            return *made;
        try {
            make_view(raw());
        } catch (const std::bad_alloc &) {
            make_view(true);
            made->add_note({"attach", "", 0, true, "out of memory: nothing is relocated"});
        }
        if (!raw())
            extend();
        for (const view_section &section : made->sections())
            attach(section);
        return *made;
    }

    // Names are asked for again and again: they stay.
    void trim()
    {
        if (!made)
            return;
        for (const view_section &section : made->sections()) {
            const bool has_names = section.index == KRV_SEC_STR || section.index == KRV_SEC_EXT_LINE_STR ||
                                   section.index == KRV_SEC_EXT_ALT_STR;
            if (!has_names && !section.is_deferred && !section.copy)
                section.home->bytes_of_file().trim(section.original);
        }
    }

    search_settings where; // other files are
    elf_file file;
    symbol_table own_symbols{file};
    bool symbols_lost = false; // when they were last asked for
    debug_file debug;
    std::optional<symbol_table> debug_symbols;
    debug_file alternate;
    std::optional<view> made;
    std::unique_ptr<krv_handle_t, handle_deleter> hp; // behind all that it reads
    std::optional<symbolizer> described;
    std::optional<file_frames> frames_of_file;

private:
    // The handle reads files as they are written, and tells what it leaves out.
    void extend()
    {
        korva_handle_set_opt(hp.get(), KRV_OPT_EXT_DWARF5, uint64_t{1});
        korva_handle_set_opt(hp.get(), KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
        korva_handle_set_opt(hp.get(), KRV_OPT_EXT_NOTE_FUNC, take_note);
        korva_handle_set_opt(hp.get(), KRV_OPT_EXT_NOTE_FUNC_ARG, this);
        for (const address_range &code : source().code().all())
            if (korva_handle_add_code(hp.get(), code.start, code.end - code.start) != 0)
                made->add_note({"attach", "", 0, true, "out of memory: not all of the code is known"});
    }

    static void take_note(const krv_note_t *told, void *arg)
    {
        view &shown = *static_cast<krv_elf *>(arg)->made;
        const bool kept = guarded(nullptr, false, [&] {
            shown.add_note({"reading", shown.name_of(told->section), told->offset, told->refused != 0, told->text});
            return true;
        });
        if (!kept)
            shown.lose_note();
    }

    void attach(const view_section &section)
    {
        auto *argument = const_cast<view_section *>(&section); // which read_deferred does not change either
        if (section.is_deferred) {
            korva_attach_section(hp.get(), section.index, section.size(), KRV_FD_TYPE_CB, read_deferred, argument);
            return;
        }
        korva_attach_section(hp.get(), section.index, section.size(), KRV_FD_TYPE_MEMORY,
                             const_cast<uint8_t *>(section.bytes().data()));
        if (section.home->bytes_of_file().can_read(section.bytes()))
            korva_attach_section_reader(hp.get(), section.index, read_file, argument);
    }

    static int64_t read_file(void *arg, void *buf, size_t count, uint64_t offset)
    {
        const auto *section = static_cast<const view_section *>(arg);
        const uint8_t *const from = section->original.data() + offset;
        return section->home->bytes_of_file().read(from, buf, count) ? static_cast<int64_t>(count) : -1;
    }

    static int64_t read_deferred(void *arg, void *buf, size_t count, uint64_t offset)
    {
        const auto *section = static_cast<const view_section *>(arg);
        return guarded<int64_t>(nullptr, -1, [&]() -> int64_t {
            const byte_span bytes = section->home->contents(*section->raw);
            if (offset > bytes.size() || count > bytes.size() - offset)
                return -1;
            std::copy_n(bytes.data() + offset, count, static_cast<uint8_t *>(buf));
            return static_cast<int64_t>(count);
        });
    }

    static bool has_debug_info(const elf_file &f)
    {
        return std::any_of(f.sections().begin(), f.sections().end(), [](const raw_section &section) {
            return section.file_size != 0 && (section.name == ".debug_info" || section.name == ".zdebug_info");
        });
    }

    void make_view(bool raw_only)
    {
        made.reset();
        const char *const linked = raw_only ? nullptr : alternate_link_of(source());
        if (linked != nullptr && alternate.file == nullptr)
            alternate = find_alternate_file(source(), where);
        made.emplace(source(), raw_only ? nullptr : alternate.file.get(), raw_only);
        if (linked != nullptr && alternate.file == nullptr)
            made->add_note({"debug-file", linked, 0, true,
                            "the alternate file is not found: names that stand in it are not known"});
        for (const debug_file *searched : {&debug, &alternate})
            if (searched->file == nullptr)
                for (const std::string &reason : searched->refused)
                    made->add_note({"debug-file", "", 0, true, reason});
    }
};

// NULL when memory ran out.
static view *made_view(krv_elf_t *elf)
{
    try {
        return &elf->shown();
    } catch (const std::exception &) {
        return nullptr;
    }
}

// The loaded segment that holds a byte of the file; failing that, one whose first page, which is mapped whole, does.
static const GElf_Phdr *find_segment(const elf_file &file, uint64_t file_offset)
{
    for (const bool whole_page : {false, true})
        for (const GElf_Phdr &segment : file.segments())
            if (segment.p_type == PT_LOAD &&
                file_offset >= (whole_page ? page_of(segment.p_offset) : segment.p_offset) &&
                (file_offset < segment.p_offset || file_offset - segment.p_offset < segment.p_filesz))
                return &segment;
    return nullptr;
}

krv_elf_t *korva_elf_open(const char *path, unsigned int flags, krv_elf_error_t *errorp)
{
    return korva_elf_open_with_debug_dirs(path, flags, nullptr, 0, errorp);
}

krv_elf_t *korva_elf_open_with_debug_dirs(const char *path, unsigned int flags, const char *const *dirs, size_t count,
                                          krv_elf_error_t *errorp)
{
    krv_elf_search_t search = {};
    search.dirs = dirs;
    search.dir_count = count;
    return korva_elf_open_search(path, flags, &search, errorp);
}

krv_elf_t *korva_elf_open_search(const char *path, unsigned int flags, const krv_elf_search_t *search,
                                 krv_elf_error_t *errorp)
{
    return guarded<krv_elf_t *>(errorp, nullptr,
                                [=] { return open_elf(path == nullptr ? "" : path, search_settings(flags, search)); });
}

krv_elf_t *krv_elf_loader::open_elf(const std::string &path, const search_settings &where)
{
    return new krv_elf(path, where);
}

char *korva_elf_find_build_id(const uint8_t *id, size_t size, int kind, unsigned int flags,
                              const krv_elf_search_t *search, krv_elf_error_t *errorp)
{
    return guarded<char *>(errorp, nullptr, [=] {
        const byte_span wanted(id, size);
        if (!is_usable_id(wanted))
            throw failure(KRV_ELF_ERR_FORMAT, fmt::format("no build-id: it has {} bytes", size));
        const search_settings where(flags, search);
        std::string refused;
        for (const auto &[asked, as] : {std::pair(KRV_ELF_FIND_DEBUG, file_kind::debug),
                                        std::pair(KRV_ELF_FIND_EXECUTABLE, file_kind::executable)}) {
            if ((kind & asked) == 0)
                continue;
            const debug_file found = find_by_build_id(wanted, as, where);
            if (found.file != nullptr) {
                char *path = strdup(found.file->path().c_str());
                if (path == nullptr)
                    throw std::bad_alloc();
                return path;
            }
            for (const std::string &why : found.refused)
                refused += "; " + why;
        }
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("no file of build-id {} is here{}", hex(wanted), refused));
    });
}

void korva_elf_close(krv_elf_t *elf)
{
    delete elf;
}

krv_handle_t *korva_elf_get_handle(krv_elf_t *elf)
{
    made_view(elf); // without memory the handle stays without sections
    return elf->hp.get();
}

const char *korva_elf_get_debug_path(krv_elf_t *elf)
{
    return elf->debug.file == nullptr ? nullptr : elf->debug.file->path().c_str();
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
              .has_symtab = elf->symbols().from_symtab() ? 1 : 0};
}

static krv_elf_section_t describe(const raw_section &raw, const view_section *attached)
{
    return {.name = raw.name.c_str(),
            .address = raw.address,
            .size = attached == nullptr ? raw.size : attached->size(),
            .file_size = raw.file_size,
            .index = attached == nullptr ? KRV_SEC_NONE : attached->index,
            .compressed = raw.compressed ? 1 : 0,
            .copied = attached != nullptr && attached->copy ? 1 : 0,
            .executable = raw.executable() ? 1 : 0};
}

int korva_elf_iter_sections(krv_elf_t *elf, krv_elf_iter_section_f *func, void *arg)
{
    view *shown = made_view(elf);
    if (shown == nullptr)
        return 0;
    const elf_file *separate = elf->debug.file.get(), *alternate = elf->alternate.file.get();
    // Of a file with separate debugging information, then what stands in that, and in the alternate file.
    for (const elf_file *file : {static_cast<const elf_file *>(&elf->file), separate, alternate})
        for (size_t number = 1; file != nullptr && file->section(number) != nullptr; ++number) {
            const raw_section &raw = *file->section(number);
            const view_section *attached = shown->find_raw(&raw);
            if (file != &elf->file && attached == nullptr)
                continue;
            const krv_elf_section_t section = describe(raw, attached);
            if (const int result = func(elf, &section, arg))
                return result;
        }
    return 0;
}

int korva_elf_iter_notes(krv_elf_t *elf, krv_elf_iter_note_f *func, void *arg)
{
    const view *shown_view = made_view(elf);
    if (shown_view == nullptr)
        return 0;
    const auto show = [=](const char *pass, const char *section, uint64_t offset, bool refused, const char *text) {
        const krv_elf_note_t shown = {
            .pass = pass, .section = section, .offset = offset, .refused = refused ? 1 : 0, .text = text};
        return func(elf, &shown, arg);
    };
    const auto sorted = guarded(nullptr, std::vector<const note *>(), [&] { return shown_view->notes(); });
    for (const note *n : sorted)
        if (const int result = show(n->pass, n->section.c_str(), n->offset, n->refused, n->text.c_str()))
            return result;
    if (shown_view->lacks_notes() || sorted.size() < shown_view->note_count())
        if (const int result =
                show("reading", "", 0, true, "not every note is here: they are too many, or out of memory"))
            return result;
    if (elf->symbols_lost)
        if (const int result = show("attach", "", 0, true, "out of memory: the symbols are not known"))
            return result;
    for (const elf_file *file : {&elf->file, elf->debug.file.get()})
        if (file != nullptr && file->was_cut())
            if (const int result = show("attach", "", 0, true, "the file became shorter while it was read"))
                return result;
    return 0;
}

int korva_elf_handle_bus_error(const void *address)
{
    return file_mapping::replace_missing(address) ? 1 : 0;
}

int korva_elf_iter_segments(krv_elf_t *elf, krv_elf_iter_segment_f *func, void *arg)
{
    for (const GElf_Phdr &header : elf->file.segments()) {
        const krv_elf_segment_t segment = {.type = header.p_type,
                                           .flags = header.p_flags,
                                           .address = header.p_vaddr,
                                           .size = header.p_memsz,
                                           .offset = header.p_offset,
                                           .file_size = header.p_filesz};
        if (const int result = func(elf, &segment, arg))
            return result;
    }
    return 0;
}

int korva_elf_iter_tried(krv_elf_t *elf, krv_elf_iter_tried_f *func, void *arg)
{
    made_view(elf); // which looks for the alternate file
    for (const debug_file *searched : {&elf->debug, &elf->alternate})
        for (const tried_file &t : searched->tried) {
            const krv_elf_tried_t tried = {.path = t.path.c_str(),
                                           .by = t.by,
                                           .reason = t.reason.c_str(),
                                           .outcome = t.outcome,
                                           .is_alternate = searched == &elf->alternate ? 1 : 0};
            if (const int result = func(elf, &tried, arg))
                return result;
        }
    return 0;
}

krv_handle_t *korva_elf_get_frame_handle(krv_elf_t *elf, krv_elf_error_t *errorp)
{
    return guarded<krv_handle_t *>(errorp, nullptr, [=] {
        if (!elf->frames_of_file)
            elf->frames_of_file.emplace(elf->file, elf->shown());
        return elf->frames_of_file->handle();
    });
}

// Symbols are read when they are asked for. Memory that ran out then is told by a note.
template <typename F>
static const krv_elf_symbol_t *ask_symbols(krv_elf_t *elf, const F &question)
{
    elf->symbols_lost = true;
    return guarded<const krv_elf_symbol_t *>(nullptr, nullptr, [&] {
        const krv_elf_symbol_t *found = question(elf->symbols());
        elf->symbols_lost = false;
        return found;
    });
}

const krv_elf_symbol_t *korva_elf_get_symbols(krv_elf_t *elf, size_t *countp)
{
    *countp = 0;
    return ask_symbols(elf, [=](const symbol_table &symbols) {
        *countp = symbols.all().size();
        return *countp == 0 ? nullptr : symbols.all().data();
    });
}

const krv_elf_symbol_t *korva_elf_lookup_symbol(krv_elf_t *elf, uint64_t address)
{
    return ask_symbols(elf, [=](const symbol_table &symbols) { return symbols.find(address); });
}

const krv_elf_symbol_t *korva_elf_lookup_symbol_by_name(krv_elf_t *elf, const char *name)
{
    return ask_symbols(elf, [=](const symbol_table &symbols) { return symbols.find(name); });
}

// Why there is no line: what the library says, and what of the file the loader could not present.
static failure no_source(krv_elf &elf, uint64_t address)
{
    krv_handle_t *hp = elf.hp.get();
    const int code = korva_handle_get_errno(hp);
    std::string text = fmt::format("{}: no line is known for {:#x}", elf.file.path(), address);
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    for (unsigned int i = 0; code != KRV_ERR_NOTFOUND && i < count; ++i)
        text += fmt::format("; {}", messages[i]);
    const auto notes = elf.shown().notes();
    const auto refused = std::find_if(notes.begin(), notes.end(), [](const note *n) { return n->refused; });
    if (refused != notes.end())
        text += "; " + (*refused)->text;
    return {code == KRV_ERR_NOTFOUND || code == KRV_ERR_NONE ? KRV_ELF_ERR_NOTFOUND
            : code == KRV_ERR_NOMEM                          ? KRV_ELF_ERR_NOMEM
            : code == KRV_ERR_EXT_LIMIT                      ? KRV_ELF_ERR_LIMIT
                                                             : KRV_ELF_ERR_FORMAT,
            text};
}

int korva_elf_lookup_source(krv_elf_t *elf, uint64_t address, krv_elf_source_t *sourcep, krv_elf_error_t *errorp)
{
    *sourcep = {.file = "", .line = 0, .column = 0, .function = ""};
    return guarded(errorp, -1, [=] {
        const krv_elf_symbol_t *function = elf->symbols().find(address);
        if (function != nullptr)
            sourcep->function = function->name;
        // Rows of its function may answer for an address between two sequences; outside any function none may.
        const uint64_t start = function == nullptr ? address : function->address;
        const uint64_t size = function == nullptr ? 1 : function->size;
        elf->shown();
        krv_handle_t *hp = elf->hp.get();
        krv_ctu_t *unit = korva_lookup_ctu_by_addr(hp, address, KRV_LOOKUP_F_NONE);
        source_place place;
        if (unit == nullptr || !find_place(hp, unit, start, size, address, &place))
            throw no_source(*elf, address);
        sourcep->file = place.path == nullptr ? "" : place.path;
        sourcep->line = place.line;
        sourcep->column = place.column;
        return 0;
    });
}

int korva_elf_symbolize(krv_elf_t *elf, uint64_t address, unsigned int flags, krv_elf_frame_t *frames, size_t room,
                        size_t *countp, krv_elf_error_t *errorp)
{
    *countp = 0;
    return guarded(errorp, -1, [=] {
        *countp = elf->frames().find(address, flags, frames, room);
        if (*countp == 0 && errorp != nullptr)
            throw no_source(*elf, address);
        return *countp == 0 ? -1 : 0;
    });
}

namespace
{

struct visited_frames {
    krv_elf_t *elf;
    const uint64_t *addresses;
    unsigned int flags;
    krv_elf_iter_frames_f *func;
    void *arg;
    bool is_stopped = false; // by the visitor
    bool is_lost = false;    // no memory
    size_t next = 0;         // to be shown
    std::vector<krv_elf_frame_t> frames{};

    int show(size_t index, const looked_up &found)
    {
        size_t known = 0;
        const bool described = guarded(nullptr, false, [&] {
            frames.resize(std::max({frames.size(), found.count, size_t{1}}));
            known = elf->frames().describe(addresses[index], flags, found, frames.data(), frames.size());
            return true;
        });
        const int result = described ? func(elf, index, frames.data(), known, arg) : -1;
        is_stopped = described && result != 0;
        is_lost = !described;
        next = index + 1;
        return result;
    }
};

} // namespace

int korva_elf_symbolize_all(krv_elf_t *elf, const uint64_t *addresses, size_t count, unsigned int flags,
                            krv_elf_iter_frames_f *func, void *arg, krv_elf_error_t *errorp)
{
    return guarded(errorp, -1, [=] {
        visited_frames all = {elf, addresses, flags, func, arg};
        elf->frames();
        krv_handle_t *hp = elf->hp.get();
        int result = 0;
        if ((flags & KRV_ELF_FRAMES_F_NO_FUNCTIONS) != 0) {
            std::vector<krv_row_t> rows(count);
            std::vector<krv_ctu_t *> units(count);
            result = korva_lookup_rows(hp, addresses, count, KRV_LOOKUP_F_NONE, units.data(), rows.data());
            for (size_t i = 0; i < count && result == 0; ++i)
                result = all.show(i, {rows[i], units[i], nullptr, 0});
        } else {
            const auto visit = [](krv_handle_t *, size_t index, const krv_row_t *row, const krv_call_t *calls,
                                  size_t found, void *to) {
                return static_cast<visited_frames *>(to)->show(index, {*row, nullptr, calls, found});
            };
            result = korva_iter_chains(hp, addresses, count, KRV_CHAINS_F_NONE, visit, &all);
        }
        if (result == 0 || all.is_stopped)
            return result;
        if (all.is_lost)
            throw std::bad_alloc();
        check_memory(hp);
        // What cannot be read fails all of them together; alone each may still have a symbol.
        std::vector<krv_elf_frame_t> found(256);
        for (result = 0; all.next < count && result == 0;) {
            const size_t index = all.next++;
            const size_t known = elf->frames().find(addresses[index], flags, found.data(), found.size());
            result = func(elf, index, found.data(), std::min(known, found.size()), arg);
        }
        return result;
    });
}

void korva_elf_trim(krv_elf_t *elf)
{
    elf->trim();
}

int korva_elf_load_bias(krv_elf_t *elf, uint64_t address, uint64_t file_offset, uint64_t *biasp,
                        krv_elf_error_t *errorp)
{
    return guarded(errorp, -1, [=] {
        const GElf_Phdr *segment = find_segment(elf->file, file_offset);
        if (segment == nullptr) {
            throw failure(KRV_ELF_ERR_NOTFOUND,
                          fmt::format("{}: no loaded segment holds offset {:#x}", elf->file.path(), file_offset));
        }
        *biasp = address - file_offset - (segment->p_vaddr - segment->p_offset); // modulo 2^64: any order is right
        return 0;
    });
}
