// SPDX-License-Identifier: Apache-2.0
//
// A process under inspection: a source of facts, and the modules found in its memory.
#ifndef KRV_PROC_H
#define KRV_PROC_H

#include "libkorva-proc.h"

#include "process/module_list.h"
#include "process/source.h"

#include <map>

struct krv_proc {
    explicit krv_proc(std::unique_ptr<krv_elf_loader::source> from);

    // The module of a record that was handed out, also one that is no longer loaded. Throws failure for any other.
    krv_elf_loader::loaded_module &module_of(const krv_proc_module_t *record);

    // Looks at modules and threads again. Records handed out stay.
    void refresh();

    std::unique_ptr<krv_elf_loader::source> from;
    krv_elf_loader::module_list modules;
    std::vector<std::unique_ptr<krv_elf_loader::loaded_module>> retired; // no longer loaded
    std::map<krv_opt_idx_t, uint64_t> bounds;                            // of what a module may cost a walk
};

#endif
