// SPDX-License-Identifier: Apache-2.0
//
// How texts that come from anywhere go into a page, so that they stay texts.
#pragma once

#include <string>
#include <string_view>

namespace korva::program
{

/**
 * Adds a text to a page, for the content of an element or a quoted attribute. Control characters become \xNN; of a long text
 * the beginning is added, which ends with an ellipsis.
 */
void append_html(std::string *page, std::string_view text);

/** The same in an element that keeps its direction to itself. */
void append_foreign(std::string *page, std::string_view text);

/** Adds the whole of a text for a quoted attribute that the page's script reads. */
void append_attribute(std::string *page, std::string_view text);

/** Adds JSON text for a script element that is data: nothing in it ends the element. */
void append_data(std::string *page, std::string_view json);

} // namespace korva::program
