// SPDX-License-Identifier: Apache-2.0
#include "input.h"

#include "demangle.h"

#include <charconv>
#include <cstdlib>
#include <string>

namespace korva::program
{

static constexpr std::string_view BLANKS = " \t\n\v\f\r";

static std::string_view trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

static std::optional<uint64_t> parse_whole(std::string_view text, int base)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size())
        return {};
    return value;
}

static bool strip_0x(std::string_view *text)
{
    if (!text->starts_with("0x") && !text->starts_with("0X"))
        return false;
    text->remove_prefix(2);
    return true;
}

std::optional<uint64_t> parse_hex(std::string_view text)
{
    strip_0x(&text);
    return parse_whole(text, 16);
}

static std::optional<uint64_t> parse_offset(std::string_view text, bool lenient)
{
    if (lenient)
        return std::strtoull(std::string(text).c_str(), nullptr, 0);
    const bool is_hex = strip_0x(&text);
    return parse_whole(text, is_hex ? 16 : 10);
}

static std::optional<uint64_t> find_symbol(const object &obj, std::string_view name)
{
    const std::string text(name);
    if (const krv_elf_symbol_t *symbol = obj.elf().symbol(text.c_str()))
        return symbol->address;
    for (const krv_elf_symbol_t &symbol : obj.elf().symbols())
        if (symbol.name[0] == '_' && demangle(symbol.name) == text)
            return symbol.address;
    return {};
}

static std::optional<uint64_t> parse_symbol(const object &obj, std::string_view text, bool lenient)
{
    if (const auto address = find_symbol(obj, text))
        return address;
    const size_t plus = text.rfind('+');
    if (plus == std::string_view::npos)
        return {};
    const auto offset = parse_offset(text.substr(plus + 1), lenient);
    const auto address = offset ? find_symbol(obj, text.substr(0, plus)) : std::nullopt;
    if (!address)
        return {};
    return *address + *offset;
}

std::optional<input_address> parse_address(const object &obj, std::string_view text, bool lenient)
{
    text = trim(text);
    if (text.empty())
        return {};
    if (lenient)
        text = text.substr(0, text.find_first_of(BLANKS));
    if (const auto number = parse_hex(text))
        return input_address{*number, true};
    const bool is_digit = text[0] >= '0' && text[0] <= '9';
    if (!(lenient && is_digit))
        if (const auto address = parse_symbol(obj, text, lenient))
            return input_address{*address, false};
    const bool is_letter = (text[0] >= 'a' && text[0] <= 'f') || (text[0] >= 'A' && text[0] <= 'F');
    if (lenient && (is_digit || (is_letter && text.find('+') == std::string_view::npos)))
        return input_address{std::strtoull(std::string(text).c_str(), nullptr, 16), true};
    return {};
}

} // namespace korva::program
