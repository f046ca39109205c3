// SPDX-License-Identifier: Apache-2.0
//
// A described thread as the core file that its process would have left: what walks those walks it.
#pragma once

#include "unwind/described.h"

#include <cstdint>
#include <string>
#include <vector>

namespace korva::program
{

/** A part of a file in memory. */
struct mapped_part {
    uint64_t start = 0, end = 0;
    uint64_t offset = 0; /**< in the file */
    std::string path{};
};

/** Where a core file has the registers of its one thread, as its thread id. */
constexpr int CORE_TID = 1;

/**
 * A core file of the registers and the memory of @p of, where @p parts are mapped; @p vdso is where the kernel's own object
 * begins, 0 when it is not there. Registers that are not known are 0.
 */
std::string make_core(const described_process &of, const std::vector<mapped_part> &parts, uint64_t vdso);

} // namespace korva::program
