// SPDX-License-Identifier: Apache-2.0
//
// The addresses that a line of a log speaks of, by the formats that write them. Nothing is opened or looked up here.
#pragma once

#include "filter/log_text.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace korva::program
{

/** An address in a line. All texts are parts of the line. */
struct log_address {
    enum class kind {
        memory,      /**< of a process */
        module,      /**< from where the module is loaded on; of one that is not moved perhaps its own address */
        file_offset, /**< in the module's file */
        mapping,     /**< from the mapping of the module's code on */
        symbol       /**< from a symbol on */
    };

    kind of = kind::memory;
    uint64_t value = 0;
    std::string_view text{};     /**< what speaks of it */
    std::string_view module{};   /**< a path or a name; empty when the line names none */
    std::string_view build_id{}; /**< hexadecimal digits, likewise */
    std::string_view symbol{};
    uint64_t size = 0;      /**< of the symbol or the mapping; 0 when the line does not tell */
    bool is_return = false; /**< where a call returns to, of formats that write it so */
};

/**
 * Adds the addresses of a line, at most some, to @p found. A line of a format that shows file and line already, and has
 * them, has none. Addresses of processes may be any numbers: whoever asks has to know that there is code.
 */
void scan_line(const log_line &line, std::vector<log_address> *found);

/** A number at the beginning of @p text, at most 16 hexadecimal digits without 0x, and how many these are; 0 when none. */
size_t read_hex(std::string_view text, uint64_t *number);

} // namespace korva::program
