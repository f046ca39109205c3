// SPDX-License-Identifier: Apache-2.0
//
// Traces as records, one a line: what `--format=jsonl` writes and `korva merge` reads. Equal sets are equal bytes.
#pragma once

#include "output.h"
#include "status.h"
#include "trace/trace.h"

#include <optional>
#include <string>
#include <string_view>

namespace korva::program
{

/** Adds a trace to a line, as a JSON object. */
void append_trace(std::string *line, const trace &t);

/** The trace of such a line, which may come from anywhere; or nothing, and @p fault says what is wrong with it. */
std::optional<trace> read_trace(std::string_view line, std::string *fault);

/** Writes all as records; the format is json or jsonl. */
void write_records(answers *out, const trace_set &traces);

/**
 * Adds the traces of a file; - is standard input. A line that is none is diagnosed with its number and left out. Throws failure when
 * the file cannot be read, or not to its end. What was answered: lines.
 */
void read_traces(const std::string &path, trace_set *into, tally *done);

} // namespace korva::program
