// SPDX-License-Identifier: Apache-2.0
#include "variables.h"

#include "visitor.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace korva::program
{

namespace
{

constexpr size_t MOST_BYTES = 64; // of a value that is no number

// DWARF 5, 7.8 and 7.3
enum : uint32_t { ATE_boolean = 2, ATE_float = 4, ATE_signed = 5, ATE_signed_char = 6, ATE_unsigned_char = 8 };
enum : uint32_t {
    TAG_base = 0x24,
    TAG_enumeration = 0x04,
    TAG_pointer = 0x0f,
    TAG_reference = 0x10,
    TAG_rvalue = 0x42
};

/** The bytes of a value, and which of them are known. */
struct value_bytes {
    std::array<uint8_t, MOST_BYTES> bytes, valid, in_register;
    uint64_t size = 0;
    bool is_cut = false;

    bool is_whole() const
    {
        return std::all_of(valid.begin(), valid.begin() + static_cast<ptrdiff_t>(size),
                           [](uint8_t v) { return v != 0; });
    }
    template <typename T>
    T as() const
    {
        T number = {};
        std::memcpy(&number, bytes.data(), std::min<size_t>(size, sizeof(number)));
        return number;
    }
};

} // namespace

static std::string hexadecimal(const value_bytes &value)
{
    std::string text;
    for (uint64_t i = 0; i < value.size; ++i)
        text +=
            fmt::format("{}{}", i == 0 ? "" : " ", value.valid[i] != 0 ? fmt::format("{:02x}", value.bytes[i]) : "??");
    return value.is_cut ? text + " ..." : text;
}

static std::string number_text(const value_bytes &value, uint32_t encoding)
{
    const unsigned int unused = 64 - 8 * static_cast<unsigned int>(value.size);
    const auto number = value.as<uint64_t>();
    const int64_t with_sign = static_cast<int64_t>(number << unused) >> unused;
    switch (encoding) {
    case ATE_boolean:
        return number == 0 ? "false" : number == 1 ? "true" : fmt::format("{}", number);
    case ATE_float:
        return value.size == 4 ? fmt::format("{}", value.as<float>()) : fmt::format("{}", value.as<double>());
    case ATE_signed:
        return fmt::format("{}", with_sign);
    case ATE_signed_char:
    case ATE_unsigned_char: {
        const std::string code = encoding == ATE_signed_char ? fmt::format("{}", with_sign) : fmt::format("{}", number);
        return value.size == 1 && number >= ' ' && number < 0x7f
                   ? fmt::format("{} '{}'", code, static_cast<char>(number))
                   : code;
    }
    default:
        return fmt::format("{}", number);
    }
}

static std::string value_text(const value_bytes &value, const krv_type_t &type)
{
    const bool is_float = type.encoding == ATE_float;
    if (value.size == 0 || !value.is_whole() || value.is_cut || value.size > 8 || (is_float && value.size < 4))
        return hexadecimal(value);
    switch (type.tag) {
    case TAG_base:
        return number_text(value, type.encoding);
    case TAG_enumeration:
        return fmt::format("{}", value.as<uint64_t>());
    case TAG_pointer:
    case TAG_reference:
    case TAG_rvalue:
        return fmt::format("0x{:x}", value.as<uint64_t>());
    default:
        return hexadecimal(value);
    }
}

static std::string read_value(krv_handle_t *hp, const krv_variable_t &variable, const krv_variable_frame_t &frame)
{
    krv_type_t type;
    if (korva_entry_get_type(hp, &variable.entry, &type) != 0)
        return fmt::format("<{}>", last_error(hp).text());
    value_bytes value;
    value.is_cut = type.size > MOST_BYTES;
    const uint64_t wanted = type.size == 0 ? 8 : std::min<uint64_t>(type.size, MOST_BYTES);
    if (korva_variable_read(hp, &variable, &frame, value.bytes.data(), value.valid.data(), value.in_register.data(),
                            wanted, &value.size) == 0)
        return value_text(value, type);
    const error why = last_error(hp);
    return why.code == KRV_ERR_NOTFOUND ? "<optimized out>" : fmt::format("<{}>", why.text());
}

std::vector<call_variables> read_variables(const process &proc, const krv_proc_frame_t &frame)
{
    std::vector<call_variables> all;
    if (frame.module == nullptr || frame.activation == nullptr)
        return all;
    const auto file = proc.file(*frame.module);
    if (!file) // who shows the frame tells why
        return all;
    krv_handle_t *hp = file->handle().get();
    const uint64_t address = frame.lookup_pc - frame.module->bias;
    std::vector<krv_call_t> calls(MOST_CALLS);
    size_t count = 0;
    if (korva_lookup_calls(hp, address, calls.data(), calls.size(), &count) != 0 || count > calls.size())
        return all;
    calls.resize(count);
    const krv_variable_frame_t at = {.handle = frame.handle,
                                     .activation = frame.activation,
                                     .function = &calls.back().entry,
                                     .address = address,
                                     .bias = frame.module->bias};
    for (const krv_call_t &call : calls) {
        call_variables &found = all.emplace_back();
        visitor add([&](const krv_variable_t &variable) {
            char type[256];
            if (korva_entry_get_type_text(hp, &variable.entry, type, sizeof(type)) != 0)
                std::strcpy(type, "?");
            found.push_back({.name = variable.name == nullptr ? "" : variable.name,
                             .type = type,
                             .value = read_value(hp, variable, at),
                             .is_parameter = variable.is_parameter != 0});
        });
        korva_iter_variables(
            hp, &call.entry, address,
            [](krv_handle_t *, const krv_variable_t *variable, void *arg) {
                return (*static_cast<decltype(add) *>(arg))(*variable) ? 0 : 1;
            },
            &add);
        add.rethrow();
    }
    return all;
}

} // namespace korva::program
