// SPDX-License-Identifier: Apache-2.0
//
// A frame of a stack as a member of a record.
#pragma once

#include "frame_place.h"
#include "output.h"

#include <cstddef>
#include <string>

namespace korva::program
{

/** The bytes of an argument as they are shown. */
std::string bytes_text(const argument &bytes);

/** What is known of a frame of @p proc, with what its address means. */
json_value frame_record(const process &proc, size_t index, const stack_frame &f, const frame_place &at,
                        const place_request &wanted);

} // namespace korva::program
