// SPDX-License-Identifier: Apache-2.0
//
// The modules of a process and whose an address is. Objects are found by their headers among the mappings; how far each
// reaches its headers only claim, and what is mapped of another file there is not its own.
#ifndef KRV_PROC_MODULE_LIST_H
#define KRV_PROC_MODULE_LIST_H

#include "process/module.h"

#include <memory>
#include <string>
#include <vector>

namespace krv_elf_loader
{

class module_list
{
public:
    explicit module_list(source &from);

    loaded_module *find(uint64_t address) const; // NULL: it is no module's

    const std::vector<std::unique_ptr<loaded_module>> &all() const { return modules; } // ascending by address

    // Why modules above those in the list were not looked at, or "".
    const std::string &problem() const { return incomplete; }

    // Keeps the modules of `before` that are still there, so that what was handed out of them stays, in place of those
    // found now. Returns the ones that are gone.
    std::vector<std::unique_ptr<loaded_module>> keep(module_list &&before);

private:
    struct extent {
        uint64_t start;
        uint64_t end;
        size_t module; // index
    };

    void list(source &from);
    void add(uint64_t start, uint64_t end, size_t module);

    std::vector<std::unique_ptr<loaded_module>> modules;
    std::vector<extent> extents; // ascending, without overlaps
    std::string incomplete;
};

} // namespace krv_elf_loader

#endif
