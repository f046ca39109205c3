// SPDX-License-Identifier: Apache-2.0
//
// The variables of a frame, in words.
#pragma once

#include <korva.hpp>

#include <string>
#include <vector>

namespace korva::program
{

struct shown_variable {
    std::string name;
    std::string type;  /**< as C writes it */
    std::string value; /**< a number, bytes in hexadecimal digits, or in angle brackets why there is none */
    bool is_parameter;
};

/** Those of a function or inlined call that are in scope. */
using call_variables = std::vector<shown_variable>;

constexpr size_t MOST_CALLS = 256; /**< of a frame that are asked for */

/**
 * The variables of each of the functions around a frame's address, inlined calls first, as korva_lookup_calls has them; empty
 * without debugging information. To be called while the walk is at the frame.
 */
std::vector<call_variables> read_variables(const process &proc, const krv_proc_frame_t &frame);

} // namespace korva::program
