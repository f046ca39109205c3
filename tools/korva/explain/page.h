// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "explain/step.h"

#include <string>
#include <vector>

namespace korva::program::explanation
{

/** Takes all steps, in their order, and finds the answer that they lead to. */
std::vector<step> take_steps(trail &t, std::vector<std::string> *notes);

/** The text of an answer and its way: what was asked for stands on top of it. */
std::string make_page(const std::string &input, const trail &t, const std::vector<step> &steps,
                      const std::vector<std::string> &notes);

/** The fields of its record. */
json_value make_record(const std::string &input, const trail &t, const std::vector<step> &steps,
                       const std::vector<std::string> &notes);

} // namespace korva::program::explanation
