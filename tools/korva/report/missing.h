// SPDX-License-Identifier: Apache-2.0
//
// What traces lack, and why.
#pragma once

#include "report/sources.h"
#include "trace/trace.h"

#include <string>
#include <vector>

namespace korva::program
{

/** Adds it to a page; @p told: what was diagnosed when the traces were read. */
void append_missing(std::string *page, const trace_set &traces, const page_sources &sources,
                    const std::vector<std::string> &told);

/** The traces in numbers, as terms and descriptions. */
void append_figures(std::string *page, const trace_set &traces);

} // namespace korva::program
