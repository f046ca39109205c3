// SPDX-License-Identifier: Apache-2.0
//
// Traces as a page to look at: one HTML file that has all it needs in it.
#pragma once

#include "trace/trace.h"

#include <cstdint>
#include <string>
#include <vector>

namespace korva::program
{

struct page_request {
    uint32_t context = 4;            /**< source lines on each side */
    bool has_sources = true;         /**< else no source file is read */
    std::vector<std::string> told{}; /**< what was diagnosed when the traces were read */
};

/** The page. Equal traces, files and requests are equal bytes. */
std::string make_page(const trace_set &traces, const page_request &wanted);

} // namespace korva::program
