// SPDX-License-Identifier: Apache-2.0
//
// The exported functions about processes, but for the walks. No exception leaves them.
#include "process/proc.h"

#include "failure.h"

#include <algorithm>
#include <fmt/format.h>

using namespace krv_elf_loader;

krv_proc::krv_proc(std::unique_ptr<source> facts) : from(std::move(facts)), modules(*from)
{
    from->end_of_list();
}

loaded_module &krv_proc::module_of(const krv_proc_module_t *record)
{
    if (loaded_module *m = modules.find(record->start); m != nullptr && &m->shown() == record)
        return *m;
    for (const std::unique_ptr<loaded_module> &m : retired)
        if (&m->shown() == record)
            return *m;
    throw failure(KRV_ELF_ERR_NOTFOUND, "not a module of this process");
}

void krv_proc::refresh()
{
    from->refresh();
    module_list fresh(*from);
    auto left = fresh.keep(std::move(modules));
    for (std::unique_ptr<loaded_module> &gone : left)
        retired.push_back(std::move(gone));
    modules = std::move(fresh);
}

krv_proc_t *korva_proc_attach(int pid, krv_elf_error_t *errorp)
{
    return guarded<krv_proc_t *>(errorp, nullptr, [&] { return new krv_proc(attach_source(pid)); });
}

krv_proc_t *korva_proc_watch(int pid, krv_elf_error_t *errorp)
{
    return guarded<krv_proc_t *>(errorp, nullptr, [&] { return new krv_proc(watch_source(pid)); });
}

krv_proc_t *korva_proc_open_core(const char *core, const char *exe, krv_elf_error_t *errorp)
{
    return korva_proc_open_core_search(core, exe, KRV_ELF_F_NONE, nullptr, errorp);
}

krv_proc_t *korva_proc_open_core_search(const char *core, const char *exe, unsigned int flags,
                                        const krv_elf_search_t *search, krv_elf_error_t *errorp)
{
    return guarded<krv_proc_t *>(errorp, nullptr, [&] {
        return new krv_proc(core_source(core == nullptr ? "" : core, exe == nullptr ? "" : exe, {flags, search}));
    });
}

krv_proc_t *korva_proc_self(krv_elf_error_t *errorp)
{
    return guarded<krv_proc_t *>(errorp, nullptr, [&] { return new krv_proc(self_source()); });
}

void korva_proc_close(krv_proc_t *proc)
{
    delete proc;
}

int korva_proc_refresh(krv_proc_t *proc, krv_elf_error_t *errorp)
{
    return guarded<int>(errorp, -1, [&] {
        if (proc->from->is_free())
            proc->refresh();
        return 0;
    });
}

void korva_proc_release(krv_proc_t *proc)
{
    for (const std::unique_ptr<loaded_module> &m : proc->modules.all())
        guarded<int>(nullptr, 0, [&] {
            m->open_before_release();
            return 0;
        });
    proc->from->release();
}

int korva_proc_set_files(krv_proc_t *proc, unsigned int flags, const char *const *dirs, size_t count,
                         krv_elf_error_t *errorp)
{
    return guarded<int>(errorp, -1, [&] {
        proc->from->client_files.debug_dirs.assign(dirs, dirs + count);
        proc->from->client_files.flags = flags;
        return 0;
    });
}

int korva_proc_set_search(krv_proc_t *proc, unsigned int flags, const krv_elf_search_t *search, krv_elf_error_t *errorp)
{
    return guarded<int>(errorp, -1, [&] {
        search_settings files(flags, search);
        if (proc->from->kind == KRV_PROC_CORE) // whose files were looked for when it was opened
            files.sysroot = proc->from->client_files.sysroot;
        proc->from->client_files = std::move(files);
        return 0;
    });
}

int korva_proc_set_bound(krv_proc_t *proc, krv_opt_idx_t bound, uint64_t most, krv_elf_error_t *errorp)
{
    return guarded<int>(errorp, -1, [&] {
        if (bound < KRV_OPT_EXT_MAX_STEPS || bound > KRV_OPT_EXT_TIMEOUT)
            throw failure(KRV_ELF_ERR_UNSUPPORTED,
                          fmt::format("option {:#x} bounds nothing", static_cast<unsigned>(bound)));
        proc->bounds[bound] = most;
        return 0;
    });
}

int korva_proc_iter_notes(krv_proc_t *proc, krv_proc_note_f *func, void *arg)
{
    for (size_t i = 0; i < proc->from->notes.size(); ++i) // the visitor may bring others
        if (const int result = func(proc, proc->from->notes[i].c_str(), arg))
            return result;
    return 0;
}

void korva_proc_get_info(krv_proc_t *proc, krv_proc_info_t *infop)
{
    const char *exe = nullptr;
    for (const std::unique_ptr<loaded_module> &m : proc->modules.all())
        if ((m->shown().flags & KRV_PROC_MODULE_F_MAIN) != 0 && m->shown().path[0] != '\0')
            exe = m->shown().path;
    *infop = {.kind = proc->from->kind,
              .pid = proc->from->pid,
              .signal = proc->from->signal,
              .target = proc->from->target,
              .exe = exe};
}

int64_t korva_proc_read(void *proc, void *buf, size_t count, uint64_t address)
{
    return guarded<int64_t>(nullptr, -1, [&] {
        source &from = *static_cast<krv_proc_t *>(proc)->from;
        return from.changing_bytes().read(address, buf, count) ? static_cast<int64_t>(count) : -1;
    });
}

int korva_proc_iter_modules(krv_proc_t *proc, krv_proc_module_f *func, void *arg)
{
    // By index over a copy of the records' addresses: the visitor may refresh.
    std::vector<const krv_proc_module_t *> records;
    const bool listed = guarded<bool>(nullptr, false, [&] {
        for (const std::unique_ptr<loaded_module> &m : proc->modules.all())
            records.push_back(&m->shown());
        return true;
    });
    if (!listed)
        return -1;
    for (const krv_proc_module_t *record : records)
        if (const int result = func(proc, record, arg))
            return result;
    return 0;
}

const krv_proc_module_t *korva_proc_find_module(krv_proc_t *proc, uint64_t address)
{
    const loaded_module *m = proc->modules.find(address);
    return m == nullptr ? nullptr : &m->shown();
}

krv_elf_t *korva_proc_module_elf(krv_proc_t *proc, const krv_proc_module_t *module, krv_elf_error_t *errorp)
{
    return guarded<krv_elf_t *>(errorp, nullptr, [&] { return proc->module_of(module).elf(); });
}

int korva_proc_file_offset(krv_proc_t *proc, uint64_t address, uint64_t *offsetp)
{
    const loaded_module *m = proc->modules.find(address);
    const std::optional<uint64_t> offset = m == nullptr ? std::nullopt : m->file_offset(address);
    if (offset)
        *offsetp = *offset;
    return offset ? 0 : -1;
}

krv_handle_t *korva_proc_module_handle(krv_proc_t *proc, const krv_proc_module_t *module, krv_elf_error_t *errorp)
{
    return guarded<krv_handle_t *>(errorp, nullptr, [&] { return proc->module_of(module).handle(); });
}

int korva_proc_iter_threads(krv_proc_t *proc, krv_proc_thread_f *func, void *arg)
{
    for (const thread &t : proc->from->threads.all()) {
        const krv_proc_thread_t shown = {.tid = t.tid, .name = t.name.c_str(), .target = t.target};
        if (const int result = func(proc, &shown, arg))
            return result;
    }
    return 0;
}

int korva_proc_thread_state(krv_proc_t *proc, int tid)
{
    const thread *t = proc->from->threads.find(tid);
    return t == nullptr ? 0 : t->state;
}

int korva_proc_get_regs(krv_proc_t *proc, int tid, krv_gregset_t *gregsp, uint64_t *maskp, krv_fpregset_t *fpregsp,
                        krv_elf_error_t *errorp)
{
    return guarded<int>(errorp, -1, [&] {
        const register_set set = proc->from->registers(tid);
        std::copy(std::begin(set.gregs), std::end(set.gregs), *gregsp);
        *maskp = set.mask;
        if (!set.has_fpregs || fpregsp == nullptr)
            return 0;
        *fpregsp = set.fpregs;
        return 1;
    });
}
