// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: ELF files. It needs libkorva-elf.
 */
#ifndef KORVA_ELF_HPP
#define KORVA_ELF_HPP

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "../libkorva-elf.h"
#include "handle.hpp"

namespace korva
{

namespace detail
{

inline error loader_error(const krv_elf_error_t &why)
{
    return {layer::loader, why.code, {why.message}};
}

} // namespace detail

/** korva_elf_demangle: empty when the symbol is of no language that mangles its names, or of one that is too long. */
inline std::string demangle(const char *name)
{
    std::string plain(127, '\0');
    const std::size_t size = korva_elf_demangle(name, plain.data(), plain.size() + 1);
    const bool was_cut = size > plain.size();
    plain.resize(size);
    if (was_cut)
        korva_elf_demangle(name, plain.data(), plain.size() + 1);
    return plain;
}

/** An opened file that somebody else owns. What it hands out lives as long as the file. */
class elf_view
{
public:
    explicit elf_view(krv_elf_t *elf) : elf_(elf) {}
    /** For the C functions; still owned by whoever owns it now. */
    krv_elf_t *get() const { return elf_; }

    /** The handle that answers for the file; the file owns it. */
    handle_view handle() const { return handle_view(korva_elf_get_handle(elf_)); }
    /** One that reads its .eh_frame; the file owns it. See korva_elf_get_frame_handle. */
    result<handle_view> frame_handle() const
    {
        krv_elf_error_t why;
        krv_handle_t *hp = korva_elf_get_frame_handle(elf_, &why);
        if (hp == nullptr)
            return detail::loader_error(why);
        return handle_view(hp);
    }
    /** Machine, type, target and build-id of the file. */
    krv_elf_info_t info() const
    {
        krv_elf_info_t info = {};
        korva_elf_get_info(elf_, &info);
        return info;
    }
    /** The path that the file was opened with. */
    const char *path() const { return korva_elf_get_path(elf_); }
    /** The path of the separate debug file that is read, or nullptr. */
    const char *debug_path() const { return korva_elf_get_debug_path(elf_); }

    /** The sections of the file, of its separate debug file, and those that the loader made. */
    std::vector<krv_elf_section_t> sections() const
    {
        std::vector<krv_elf_section_t> all;
        korva_elf_iter_sections(
            elf_,
            [](krv_elf_t *, const krv_elf_section_t *section, void *arg) noexcept {
                static_cast<std::vector<krv_elf_section_t> *>(arg)->push_back(*section);
                return 0;
            },
            &all);
        return all;
    }
    /** What was corrected, left out or refused so far. */
    std::vector<krv_elf_note_t> notes() const
    {
        std::vector<krv_elf_note_t> all;
        korva_elf_iter_notes(
            elf_,
            [](krv_elf_t *, const krv_elf_note_t *note, void *arg) noexcept {
                static_cast<std::vector<krv_elf_note_t> *>(arg)->push_back(*note);
                return 0;
            },
            &all);
        return all;
    }
    /** Why the file cannot answer at all: what the loader refused, when no unit is left that can be read. Else empty. */
    std::vector<std::string> refusal() const
    {
        std::vector<std::string> reasons;
        const std::vector<unit> units = handle().units();
        const bool any = std::any_of(units.begin(), units.end(), [](const unit &u) {
            const result<krv_cu_kind_t> kind = u.kind();
            return kind && kind->kind != 0;
        });
        if (any)
            return reasons;
        for (const krv_elf_note_t &note : notes())
            if (note.refused != 0)
                reasons.emplace_back(note.text);
        if (reasons.empty() && units.empty())
            reasons.emplace_back("no debugging information (.debug_info)");
        return reasons;
    }

    /** The segments of the file. */
    std::vector<krv_elf_segment_t> segments() const
    {
        std::vector<krv_elf_segment_t> all;
        korva_elf_iter_segments(
            elf_,
            [](krv_elf_t *, const krv_elf_segment_t *segment, void *arg) noexcept {
                static_cast<std::vector<krv_elf_segment_t> *>(arg)->push_back(*segment);
                return 0;
            },
            &all);
        return all;
    }
    /** The places where separate debug files were looked for. */
    std::vector<krv_elf_tried_t> tried() const
    {
        std::vector<krv_elf_tried_t> all;
        korva_elf_iter_tried(
            elf_,
            [](krv_elf_t *, const krv_elf_tried_t *place, void *arg) noexcept {
                static_cast<std::vector<krv_elf_tried_t> *>(arg)->push_back(*place);
                return 0;
            },
            &all);
        return all;
    }

    /** The function symbols, ascending by address. */
    span<const krv_elf_symbol_t> symbols() const
    {
        std::size_t count = 0;
        const krv_elf_symbol_t *all = korva_elf_get_symbols(elf_, &count);
        return {all, count};
    }
    /** The function that covers @p address, or nullptr. */
    const krv_elf_symbol_t *symbol(std::uint64_t address) const { return korva_elf_lookup_symbol(elf_, address); }
    /** The first function of that name, or nullptr. */
    const krv_elf_symbol_t *symbol(const char *name) const { return korva_elf_lookup_symbol_by_name(elf_, name); }

    /**
     * Where an address of the file comes from, its function too; KRV_ERR_NOTFOUND when no unit or no row covers it, with
     * the loader's reason where every unit was refused.
     */
    result<korva::source> source(std::uint64_t address) const
    {
        const krv_elf_symbol_t *function = symbol(address);
        const result<unit> home = handle().unit_of(address);
        result<korva::source> found = !home                 ? result<korva::source>(home.error())
                                      : function == nullptr ? home->source(address, address, 1)
                                                            : home->source(address, function->address, function->size);
        if (found && function != nullptr)
            found->function = function->name;
        if (found)
            return found;
        error why = found.error();
        for (std::string &reason : refusal())
            why.messages.push_back(std::move(reason));
        return why;
    }

    /**
     * The functions around an address of the file, innermost first: korva_elf_symbolize, with its flags
     * (KRV_ELF_FRAMES_F_*). At most @p most of them.
     */
    result<std::vector<krv_elf_frame_t>> frames(std::uint64_t address, unsigned int flags = KRV_ELF_FRAMES_F_NONE,
                                                std::size_t most = SIZE_MAX) const
    {
        std::vector<krv_elf_frame_t> found(std::min<std::size_t>(most, 8));
        for (;;) {
            krv_elf_error_t why;
            std::size_t count = 0;
            if (korva_elf_symbolize(elf_, address, flags, found.data(), found.size(), &count, &why) != 0)
                return detail::loader_error(why);
            const bool is_whole = std::min(count, most) <= found.size();
            found.resize(std::min(count, most));
            if (is_whole)
                return found;
        }
    }

    /**
     * The frames of many addresses, looked up together and visited in their order: korva_elf_symbolize_all. Calls
     * func(index, span of frames), which does not throw, and may return false to stop; false when it did.
     */
    template <typename F>
    result<bool> each_frames(const std::vector<std::uint64_t> &addresses, unsigned int flags, F &&func) const
    {
        using Func = std::remove_reference_t<F>;
        krv_elf_error_t why;
        why.code = KRV_ELF_ERR_NONE;
        const int stopped = korva_elf_symbolize_all(
            elf_, addresses.data(), addresses.size(), flags,
            [](krv_elf_t *, std::size_t index, const krv_elf_frame_t *frames, std::size_t count, void *arg) {
                return detail::visit(*static_cast<Func *>(arg), index, span<const krv_elf_frame_t>(frames, count));
            },
            detail::argument(func), &why);
        if (why.code != KRV_ELF_ERR_NONE)
            return detail::loader_error(why);
        return stopped == 0;
    }

    /** Gives back the memory that what was read of the file takes: korva_elf_trim. */
    void trim() const { korva_elf_trim(elf_); }

    /** What to add to addresses of the file when its byte at @p file_offset is mapped at @p address. */
    result<std::uint64_t> load_bias(std::uint64_t address, std::uint64_t file_offset) const
    {
        krv_elf_error_t why;
        std::uint64_t bias = 0;
        if (korva_elf_load_bias(elf_, address, file_offset, &bias, &why) != 0)
            return detail::loader_error(why);
        return bias;
    }

private:
    krv_elf_t *elf_;
};

/** Where files are looked for that nobody names: krv_elf_search_t. */
struct search {
    std::vector<std::string> debug_dirs;
    std::string sysroot; /**< "": none */
    /** What a server is doing; false gives it up. It must not throw. */
    std::function<bool(const krv_elf_fetch_t &)> on_fetch;
    std::uint32_t seconds = 0; /**< 0: as long as is usual */

    /** Calls @p func with the record that the C interface takes, which is valid during the call. */
    template <typename F>
    auto with(F &&func) const
    {
        std::vector<const char *> dirs;
        dirs.reserve(debug_dirs.size());
        for (const std::string &dir : debug_dirs)
            dirs.push_back(dir.c_str());
        krv_elf_search_t record = {};
        record.dirs = dirs.data();
        record.dir_count = dirs.size();
        record.sysroot = sysroot.empty() ? nullptr : sysroot.c_str();
        record.seconds = seconds;
        if (on_fetch) {
            record.fetch = [](const krv_elf_fetch_t *fetch, void *arg) noexcept {
                return static_cast<const search *>(arg)->on_fetch(*fetch) ? 0 : 1;
            };
            record.fetch_arg = const_cast<search *>(this);
        }
        return func(record);
    }
};

/** An opened file of one's own. */
class elf : public elf_view
{
public:
    /**
     * Opens a file; flags: KRV_ELF_F_*. Separate debug files are looked for under each of @p debug_dirs too, in their
     * order, before /usr/lib/debug.
     */
    static result<elf> open(const char *path, unsigned int flags = KRV_ELF_F_NONE,
                            const std::vector<std::string> &debug_dirs = {})
    {
        return open(path, flags, search{debug_dirs, {}, {}});
    }
    /** The same by @p where, which has to live as long as the file if it has on_fetch. */
    static result<elf> open(const char *path, unsigned int flags, const search &where)
    {
        krv_elf_error_t why;
        krv_elf_t *opened = where.with(
            [&](const krv_elf_search_t &record) { return korva_elf_open_search(path, flags, &record, &why); });
        if (opened == nullptr)
            return detail::loader_error(why);
        return elf(opened);
    }
    /** The path of a file with a build-id; kind: KRV_ELF_FIND_*. See korva_elf_find_build_id. */
    static result<std::string> find(const std::vector<std::uint8_t> &build_id, int kind,
                                    unsigned int flags = KRV_ELF_F_NONE, const search &where = {})
    {
        krv_elf_error_t why;
        char *path = where.with([&](const krv_elf_search_t &record) {
            return korva_elf_find_build_id(build_id.data(), build_id.size(), kind, flags, &record, &why);
        });
        if (path == nullptr)
            return detail::loader_error(why);
        const std::string found = path;
        std::free(path);
        return found;
    }

private:
    explicit elf(krv_elf_t *opened) : elf_view(opened), owner_(opened) {}
    detail::owner<krv_elf_t, korva_elf_close> owner_;
};

} // namespace korva

#endif // KORVA_ELF_HPP
