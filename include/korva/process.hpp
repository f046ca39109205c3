// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: processes and core files. It needs libkorva-elf.
 */
#ifndef KORVA_PROCESS_HPP
#define KORVA_PROCESS_HPP

#include <cstdio>

#include "../libkorva-proc.h"
#include "elf.hpp"
#include "expression.hpp"

namespace korva
{

/** A process: a live one, a core file, or the calling process. What it hands out lives as long as the object. */
class process
{
public:
    /** Stops a live process, until this object goes. */
    static result<process> attach(int pid)
    {
        krv_elf_error_t why;
        return made(korva_proc_attach(pid, &why), why);
    }
    /** Looks at a live process while it runs: no registers, no walks. */
    static result<process> watch(int pid)
    {
        krv_elf_error_t why;
        return made(korva_proc_watch(pid, &why), why);
    }
    /** Opens a core file; @p exe is where the main executable is found instead of its recorded path. */
    static result<process> open_core(const char *core, const char *exe = nullptr)
    {
        krv_elf_error_t why;
        return made(korva_proc_open_core(core, exe, &why), why);
    }
    /** The same, looking for the files of the process by @p where, which has to live as long as it if it has on_fetch. */
    static result<process> open_core(const char *core, const char *exe, unsigned int flags, const search &where)
    {
        krv_elf_error_t why;
        return made(where.with([&](const krv_elf_search_t &record) {
            return korva_proc_open_core_search(core, exe, flags, &record, &why);
        }),
                    why);
    }
    /** The calling process. */
    static result<process> self()
    {
        krv_elf_error_t why;
        return made(korva_proc_self(&why), why);
    }
    /** For the C functions; still owned by whoever owns it now. */
    krv_proc_t *get() const { return owner_.get(); }

    /** What the process is. */
    krv_proc_info_t info() const
    {
        krv_proc_info_t info = {};
        korva_proc_get_info(get(), &info);
        return info;
    }
    /** Looks at the calling process, or one that is watched, again; later questions see libraries loaded since. */
    result<void> refresh()
    {
        krv_elf_error_t why;
        if (korva_proc_refresh(get(), &why) != 0)
            return detail::loader_error(why);
        return {};
    }
    /** Lets a live process run on: what was learnt stays, registers and walks are no longer to be had. */
    void release() { korva_proc_release(get()); }
    /** What is missing or odd on the whole, a line each. See korva_proc_iter_notes. */
    std::vector<std::string> notes() const
    {
        std::vector<std::string> all;
        korva_proc_iter_notes(
            get(),
            [](krv_proc_t *, const char *text, void *arg) noexcept {
                static_cast<std::vector<std::string> *>(arg)->emplace_back(text);
                return 0;
            },
            &all);
        return all;
    }
    /** Reads memory: all of the bytes, or false. */
    bool read(std::uint64_t address, void *buf, std::size_t count) const
    {
        return korva_proc_read(get(), buf, count, address) == static_cast<std::int64_t>(count);
    }

    /** The threads; of a core file in its order, the failing one first. */
    std::vector<krv_proc_thread_t> threads() const
    {
        std::vector<krv_proc_thread_t> all;
        korva_proc_iter_threads(
            get(),
            [](krv_proc_t *, const krv_proc_thread_t *thread, void *arg) noexcept {
                static_cast<std::vector<krv_proc_thread_t> *>(arg)->push_back(*thread);
                return 0;
            },
            &all);
        return all;
    }
    /** The letter of what a thread did before it was stopped, 'R', 'S', 'D', 'T' ...; 0 when it is not known. */
    int state(int tid) const { return korva_proc_thread_state(get(), tid); }
    /** The registers of a stopped thread. */
    result<registers> regs(int tid) const
    {
        registers all;
        krv_fpregset_t floating = {};
        krv_elf_error_t why;
        const int rc = korva_proc_get_regs(get(), tid, &all.general, &all.mask, &floating, &why);
        if (rc < 0)
            return detail::loader_error(why);
        if (rc == 1)
            all.floating = floating;
        return all;
    }

    /** The modules, ascending by address. */
    std::vector<const krv_proc_module_t *> modules() const
    {
        std::vector<const krv_proc_module_t *> all;
        korva_proc_iter_modules(
            get(),
            [](krv_proc_t *, const krv_proc_module_t *module, void *arg) noexcept {
                static_cast<std::vector<const krv_proc_module_t *> *>(arg)->push_back(module);
                return 0;
            },
            &all);
        return all;
    }
    /** The module that covers @p address, or nullptr. */
    const krv_proc_module_t *module_of(std::uint64_t address) const { return korva_proc_find_module(get(), address); }
    /** How files of modules are opened from now on, as elf::open does. */
    result<void> set_files(unsigned int flags, const std::vector<std::string> &debug_dirs = {})
    {
        return set_files(flags, search{debug_dirs, {}, {}});
    }
    /** The same by @p where, which has to live as long as the process if it has on_fetch. See korva_proc_set_search. */
    result<void> set_files(unsigned int flags, const search &where)
    {
        krv_elf_error_t why;
        if (where.with([&](const krv_elf_search_t &record) {
                return korva_proc_set_search(get(), flags, &record, &why);
            }) != 0)
            return detail::loader_error(why);
        return {};
    }
    /** What each module may cost a walk: KRV_OPT_EXT_MAX_STEPS or the like. See korva_proc_set_bound. */
    result<void> set_bound(krv_opt_idx_t bound, std::uint64_t most)
    {
        krv_elf_error_t why;
        if (korva_proc_set_bound(get(), bound, most, &why) != 0)
            return detail::loader_error(why);
        return {};
    }
    /** Where the byte at @p address is in the file of its module, if it is in one. */
    std::optional<std::uint64_t> file_offset(std::uint64_t address) const
    {
        std::uint64_t offset = 0;
        if (korva_proc_file_offset(get(), address, &offset) != 0)
            return std::nullopt;
        return offset;
    }
    /** The file of a module. It knows addresses without the module's bias. */
    result<elf_view> file(const krv_proc_module_t &module) const
    {
        krv_elf_error_t why;
        krv_elf_t *opened = korva_proc_module_elf(get(), &module, &why);
        if (opened == nullptr)
            return detail::loader_error(why);
        return elf_view(opened);
    }
    /** The handle that walks use for the frames of a module. */
    result<handle_view> handle(const krv_proc_module_t &module) const
    {
        krv_elf_error_t why;
        krv_handle_t *hp = korva_proc_module_handle(get(), &module, &why);
        if (hp == nullptr)
            return detail::loader_error(why);
        return handle_view(hp);
    }

    /**
     * Calls func(const krv_proc_frame_t &) for the frames of a thread, topmost first, at most @p max_frames of them (0:
     * 4096), and tells why it ended; reason KRV_PROC_END_ERROR is a failure. Of process::self() @p tid is 0 or the
     * calling thread, and the first frame the function that calls this one.
     */
    template <typename F>
    [[gnu::noinline]] krv_proc_end_t walk(int tid, F &&func, unsigned int max_frames = 0) const
    {
        using Func = std::remove_reference_t<F>;
        const unsigned int most = max_frames == 0 ? 4096 : max_frames;
        // This function has a frame of its own, which is left out.
        const unsigned int own = info().kind == KRV_PROC_SELF ? 1 : 0;
        struct state {
            Func &func;
            unsigned int own;
        } s = {func, own};
        krv_proc_end_t end = {};
        korva_proc_walk(
            get(), tid, most + own < most ? most : most + own,
            [](krv_proc_t *, const krv_proc_frame_t *frame, void *arg) {
                auto *st = static_cast<state *>(arg);
                if (frame->index < st->own)
                    return 0;
                krv_proc_frame_t shown = *frame;
                shown.index -= st->own;
                return detail::visit(st->func, static_cast<const krv_proc_frame_t &>(shown));
            },
            &s, &end);
        if (end.frames >= own)
            end.frames -= own;
        if (own != 0 && end.reason == KRV_PROC_END_LIMIT)
            std::snprintf(end.message, sizeof(end.message), "more than %u frames", most);
        return end;
    }

    /**
     * The same for process::self(), from a ucontext_t: the third argument of a signal handler that was installed with
     * SA_SIGINFO, or what getcontext stored. See korva_proc_walk_context.
     */
    template <typename F>
    krv_proc_end_t walk_context(const void *ucontext, F &&func, unsigned int max_frames = 0) const
    {
        using Func = std::remove_reference_t<F>;
        krv_proc_end_t end = {};
        korva_proc_walk_context(
            get(), ucontext, max_frames,
            [](krv_proc_t *, const krv_proc_frame_t *frame, void *arg) {
                return detail::visit(*static_cast<Func *>(arg), *frame);
            },
            detail::argument(func), &end);
        return end;
    }

private:
    explicit process(krv_proc_t *proc) : owner_(proc) {}
    static result<process> made(krv_proc_t *proc, const krv_elf_error_t &why)
    {
        if (proc == nullptr)
            return detail::loader_error(why);
        return process(proc);
    }
    detail::owner<krv_proc_t, korva_proc_close> owner_;
};

} // namespace korva

#endif // KORVA_PROCESS_HPP
