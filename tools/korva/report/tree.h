// SPDX-License-Identifier: Apache-2.0
//
// The merged stacks as nested elements that open and close, for readers without scripts.
#pragma once

#include "report/sources.h"
#include "trace/trace.h"

#include <string>

namespace korva::program
{

/** Adds the tree to a page: where most was, as far as a page without scripts can show it. */
void append_tree(std::string *page, const trace_set &traces, const page_sources &sources);

} // namespace korva::program
