// SPDX-License-Identifier: Apache-2.0
//
// The loader on a core file: its modules, and the walks of its threads.
#include "file.h"
#include "libkorva-proc.h"

static int visit_module(krv_proc_t *proc, const krv_proc_module_t *module, void *)
{
    krv_elf_error_t error;
    korva_proc_module_handle(proc, module, &error);
    return 0;
}

static int visit_thread(krv_proc_t *proc, const krv_proc_thread_t *thread, void *)
{
    krv_proc_end_t end;
    korva_proc_walk(
        proc, thread->tid, 30, [](auto...) { return 0; }, nullptr, &end);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const krv_fuzz::file file(data, size);
    krv_elf_error_t error;
    krv_proc_t *proc = korva_proc_open_core(file.path().c_str(), nullptr, &error);
    if (proc == nullptr)
        return 0;
    uint8_t buf[64];
    korva_proc_read(proc, buf, sizeof(buf), 0x1000);
    korva_proc_read(proc, buf, sizeof(buf), UINT64_MAX - 8);
    korva_proc_iter_modules(proc, visit_module, nullptr);
    korva_proc_iter_threads(proc, visit_thread, nullptr);
    korva_proc_close(proc);
    return 0;
}
