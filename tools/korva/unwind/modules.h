// SPDX-License-Identifier: Apache-2.0
//
// The files of a described process: where each lies, and why one is not to be had.
#pragma once

#include "module_cache.h"
#include "unwind/core_image.h"
#include "unwind/described.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korva::program
{

/** A module of a described process. */
struct placed_module {
    std::string shown{}; /**< its path in the process; where none is told, that of the file */
    std::string path{};  /**< of the file that stands for it; empty: none does */
    std::string build_id{};
    uint64_t start = 0, end = 0, bias = 0;
    std::optional<record_error> missing{}; /**< why its code is not there */
};

class placed_modules
{
public:
    /** Finds the files of @p of in @p cache. */
    placed_modules(const described_process &of, module_cache *cache);

    /** What is mapped of them. */
    const std::vector<mapped_part> &parts() const { return m_parts; }
    /** Where the kernel's own object is; 0: nowhere. */
    uint64_t vdso() const { return m_vdso; }

    /** The module of an address, where its code is missing; NULL: it is in none of those. */
    const placed_module *find_missing(uint64_t address) const;
    /** The module that a walk found in a file; NULL for the kernel's own. */
    const placed_module *find(const krv_proc_module_t &module) const;

private:
    void place(const described_process &of, const described_module &m, module_cache *cache);
    bool map(const opened_module &file, uint64_t bias, uint64_t last);

    std::vector<placed_module> m_modules;                          // ascending by start
    std::map<std::pair<std::string, std::string>, size_t> m_last;  // of a path and a build-id
    std::map<std::pair<std::string, uint64_t>, size_t> m_by_place; // by file and bias
    std::map<uint64_t, size_t> m_missing;                          // by start
    std::vector<mapped_part> m_parts;
    uint64_t m_vdso = 0;
};

} // namespace korva::program
