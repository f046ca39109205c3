// SPDX-License-Identifier: Apache-2.0
//
// Traces as others than programs of this one read them: a tree to look at, folded stacks for flame graphs, a profile for
// speedscope. Frames count as equal there by as much as is asked for. Equal sets are equal bytes.
#pragma once

#include "output.h"
#include "trace/trace.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace korva::program
{

/** What makes two frames one: its text. */
enum class frame_detail {
    function, /**< its name; of one that is not known the module's */
    line,     /**< and its file and line */
    address   /**< and its module and address there */
};

/** The text of a frame; never empty. */
std::string frame_text(const trace_frame &f, frame_detail by);

/** Traces whose frames are numbers of texts. */
struct trace_paths {
    trace_paths(const trace_set &traces, frame_detail by);

    struct path {
        std::vector<uint32_t> frames; /**< texts by number, the outermost first */
        const trace *of;
    };

    std::vector<std::string> texts{};
    std::vector<const trace_frame *> examples{}; /**< of each text a frame that has it */
    std::vector<path> paths{};                   /**< in the order of the traces */
};

/** A tree, the outermost function at the top, with counts and who was there. */
void write_tree(answers *out, const trace_set &traces, frame_detail by);

/**
 * A line each: functions from the outermost on, separated by semicolons, a blank, the count. In names, blanks are
 * underscores, semicolons are colons.
 */
void write_folded(answers *out, const trace_set &traces, frame_detail by);

/** One JSON object as www.speedscope.app reads it. */
void write_speedscope(answers *out, const trace_set &traces, frame_detail by);

/** In the format that @p out has. */
void write_traces(answers *out, const trace_set &traces, frame_detail by);

} // namespace korva::program
