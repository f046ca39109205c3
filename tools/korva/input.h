// SPDX-License-Identifier: Apache-2.0
//
// What a user writes for an address: a hexadecimal number or symbol+offset.
#pragma once

#include "object.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace korva::program
{

/** A hexadecimal number with or without 0x, and nothing else. */
std::optional<uint64_t> parse_hex(std::string_view text);

struct input_address {
    uint64_t value;
    bool is_number; /**< else it comes from a symbol */
};

/**
 * Reads an address. A number is hexadecimal, with or without 0x; a text that is both is a number (`add`; write
 * `add+0` for the function). A symbol is a function's, as in the file or demangled; the offset behind `+` is decimal,
 * or hexadecimal with 0x. With @p lenient whatever begins as an address is one, as for GNU addr2line: "12 main()" is
 * 0x12. Nothing when it is no address.
 */
std::optional<input_address> parse_address(const object &obj, std::string_view text, bool lenient);

} // namespace korva::program
