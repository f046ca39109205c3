// SPDX-License-Identifier: Apache-2.0
//
// What a user writes for an address: a hexadecimal number or symbol+offset.
#pragma once

#include "object.h"
#include "text_input.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace korva::program
{

/** What an input stands for. */
struct input_address {
    uint64_t value;
    bool is_number; /**< else it comes from a symbol */
};

/**
 * Reads addresses. A number is hexadecimal, with or without 0x; a text that is both is a number (`add`; write `add+0`
 * for the function). A symbol is a function's, as in the file or demangled; the offset behind `+` is decimal, or
 * hexadecimal with 0x.
 */
class address_reader
{
public:
    /** With @p lenient whatever begins as an address is one, as for GNU addr2line: "12 main()" is 0x12. */
    address_reader(const object &obj, bool lenient) : m_object(obj), m_lenient(lenient) {}

    /** What a text stands for that is a number. */
    std::optional<uint64_t> read_number(std::string_view text) const;
    /**
     * What a text stands for: one address, or several ascending ones where functions share a name. Empty when it is no
     * address.
     */
    std::vector<input_address> read(std::string_view text);

private:
    using symbol_list = std::vector<const krv_elf_symbol_t *>;

    std::string_view words_of(std::string_view text) const;
    std::vector<uint64_t> find_symbol(const std::string &name);
    std::vector<uint64_t> read_symbol(std::string_view text);

    const object &m_object;
    bool m_lenient;
    symbol_list m_by_name;                                             // made when a name is first asked for
    std::unordered_multimap<size_t, const krv_elf_symbol_t *> m_plain; // by the hash of the C++ name, likewise
};

} // namespace korva::program
