// SPDX-License-Identifier: Apache-2.0
//
// Bytes as text: base64, as RFC 4648 has it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korva::program
{

std::string to_base64(std::string_view bytes);

/** The bytes of a text, with or without padding. Nothing where it is none. */
std::optional<std::string> from_base64(std::string_view text);

} // namespace korva::program
