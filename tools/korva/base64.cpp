// SPDX-License-Identifier: Apache-2.0
#include "base64.h"

#include <array>
#include <cstdint>

namespace korva::program
{

static constexpr std::string_view BASE64_DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static constexpr uint8_t NO_DIGIT = 64;

static constexpr std::array<uint8_t, 256> make_base64_values()
{
    std::array<uint8_t, 256> values{};
    values.fill(NO_DIGIT);
    for (size_t i = 0; i < BASE64_DIGITS.size(); ++i)
        values[static_cast<uint8_t>(BASE64_DIGITS[i])] = static_cast<uint8_t>(i);
    return values;
}
static constexpr std::array<uint8_t, 256> BASE64_VALUES = make_base64_values();

std::string to_base64(std::string_view bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    uint32_t bits = 0;
    unsigned count = 0; // of bits that are not written
    for (const char c : bytes) {
        bits = bits << 8 | static_cast<uint8_t>(c);
        for (count += 8; count >= 6; count -= 6)
            text += BASE64_DIGITS[bits >> (count - 6) & 63];
    }
    if (count != 0)
        text += BASE64_DIGITS[bits << (6 - count) & 63];
    text.append((4 - text.size() % 4) % 4, '=');
    return text;
}

std::optional<std::string> from_base64(std::string_view text)
{
    const size_t padding = text.size() % 4 != 0 ? 0 : text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    text.remove_suffix(padding);
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    uint32_t bits = 0;
    unsigned count = 0; // of bits that are not taken
    for (const char c : text) {
        const uint8_t value = BASE64_VALUES[static_cast<uint8_t>(c)];
        if (value == NO_DIGIT)
            return {};
        bits = bits << 6 | value;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xff);
        }
    }
    const bool is_whole = text.size() % 4 != 1 && (bits & ((1U << count) - 1)) == 0;
    return is_whole ? std::optional(std::move(bytes)) : std::nullopt;
}

} // namespace korva::program
