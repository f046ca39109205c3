// SPDX-License-Identifier: Apache-2.0
//
// The page's own files page.html, page.css and page.js, which the build takes into the program.
#pragma once

#include <string_view>

namespace korva::program
{

/** Places that are to be filled in are {{named}}. */
extern const std::string_view PAGE_HTML, PAGE_STYLE, PAGE_SCRIPT;
/** What a Content-Security-Policy calls them. */
extern const std::string_view PAGE_STYLE_HASH, PAGE_SCRIPT_HASH;

} // namespace korva::program
