// SPDX-License-Identifier: Apache-2.0
//
// Questions in JSON Lines: one object a line.
#pragma once

#include "output.h"
#include "status.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace korva::program
{

/** What of an object is asked for: its id, whatever that is, and its members that are texts or numbers. */
class json_line
{
public:
    struct member {
        std::string text;               /**< of a string; of a number as it is written */
        std::optional<uint64_t> number; /**< that it is; of a string behind 0x, hexadecimal */
        bool is_text = false;
    };

    /** Reads a line. False: it is no JSON object, problem() says why; there is no member then, and no id. */
    bool read(std::string_view line);
    const std::string &problem() const { return m_problem; }

    /** The member "id" as JSON text, numbers to their last digit; "null" when there is none. */
    const std::string &id() const { return m_id; }
    /** Of several of one name the last. NULL: there is none, or it is neither text nor number. */
    const member *find(const std::string &name) const;

private:
    class reader;

    std::string m_id, m_problem;
    std::unordered_map<std::string, member> m_members;
};

/**
 * Calls @p line for each line of a file, and @p before_waiting before more is read that is not there yet, and at the end; "" and
 * "-" are standard input. Throws failure when the file cannot be opened; that it cannot be read to its end is told, counted in
 * @p done, and the last record.
 */
void each_line(const std::string &path, answers *out, tally *done, const std::function<void(std::string_view)> &line,
               const std::function<void()> &before_waiting);

} // namespace korva::program
