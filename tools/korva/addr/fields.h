// SPDX-License-Identifier: Apache-2.0
//
// What is known of an address, as members of a record of korva addr.
#pragma once

#include "object.h"
#include "status.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace korva::program
{

/** What is known of an address, the innermost function first; empty when nothing is. */
using answer = std::span<const krv_elf_frame_t>;

/** Counts an answer; one without a line is known in part. */
void count(answer a, tally *done);

/** Adds `"NAME":` and a string, or null, to a line. @p key has what stands before the value. */
void append_text(std::string *line, const char *key, std::optional<std::string_view> value);

class address_fields
{
public:
    address_fields(const object &of, bool basenames) : m_object(of), m_basenames(basenames) {}

    /** The file of a frame as it is to be shown; empty when it is not known. */
    std::string_view path_of(const krv_elf_frame_t &frame) const;
    /** Of the unit that knows the line; nothing when there is none, or it has none. */
    std::optional<std::string_view> unit_name(answer a);
    /** Adds the members from "address" to "frames", with a comma before each. */
    void append(std::string *line, std::optional<uint64_t> address, answer a);

private:
    void append_frame(std::string *line, const krv_elf_frame_t &frame) const;

    const object &m_object;
    bool m_basenames;
    krv_ctu_t *m_named = nullptr;
    result<std::string> m_unit_name = error(); // of that one: the next answer is often of it too
};

} // namespace korva::program
