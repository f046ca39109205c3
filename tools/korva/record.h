// SPDX-License-Identifier: Apache-2.0
//
// How every JSON record begins, whatever the verb: the version of the shape, how the question ended, and why it has no
// answer where it has none.
#pragma once

#include <korva.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::program
{

/** How what a record is about ended. */
enum class record_status {
    ok,
    not_found, /**< nothing is known of it */
    error,     /**< something could not be read; what the record has besides is right all the same */
    limit      /**< the client's own budget ended it */
};

/** Why: the "error" of a record. Empty texts and numbers that are not there are not known. */
struct record_error {
    std::string code = {};                  /**< the constant's name: "KRV_ERR_CORRUPT", "KRV_ELF_ERR_FORMAT", ... */
    std::string section = {};               /**< where it was met: ".debug_line" */
    std::optional<uint64_t> offset = {};    /**< in it, of the part that cannot be read */
    std::optional<uint64_t> unit = {};      /**< offset of the unit in .debug_info */
    std::vector<std::string> messages = {}; /**< cause first */
};

/** What a call says of its failure, and where it was met. */
record_error to_record_error(const error &why, std::string_view section = {}, std::optional<uint64_t> offset = {},
                             std::optional<uint64_t> unit = {});

/** The status of a record that failed so; ok for NULL. */
record_status status_of(const record_error *why);

/** As a record has it: "ok", ... */
const char *name_of(record_status status);

/** Adds what a record begins with, without its opening brace: "v":1,"status":"ok","error":null */
void append_record_head(std::string *line, record_status status, const record_error *why);

} // namespace korva::program
