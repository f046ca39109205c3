// SPDX-License-Identifier: Apache-2.0
//
// A thread and its process as a record of another machine tells of them.
#pragma once

#include <korva.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::program
{

struct described_memory {
    uint64_t address = 0;
    std::string bytes; /**< none of them is beyond the target's last address */
};

struct described_module {
    std::string path, build_id; /**< empty when not known */
    uint64_t start = 0, end = 0;
    std::optional<uint64_t> bias; /**< what was added to the file's addresses */
    uint64_t offset = 0;          /**< else: in the file, of what is at start */
};

struct described_process {
    krv_activation_type_t target = KRV_ACTIVATION_AMD64;
    std::map<unsigned int, uint64_t> registers; /**< by KRV_HOST_* */
    std::vector<described_module> modules;      /**< ascending by start */
    std::vector<described_memory> memory;
};

/** Reads a line that is a JSON object. Throws failure with what is wrong. */
described_process read_described(std::string_view line);

} // namespace korva::program
