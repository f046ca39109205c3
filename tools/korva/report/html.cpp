// SPDX-License-Identifier: Apache-2.0
#include "report/html.h"

#include "output.h"

#include <algorithm>

namespace korva::program
{

static constexpr size_t MOST_LETTERS = 400;

static void append_escaped(std::string *page, std::string_view text)
{
    for (const char c : text)
        switch (c) {
        case '&':
            page->append("&amp;");
            break;
        case '<':
            page->append("&lt;");
            break;
        case '>':
            page->append("&gt;");
            break;
        case '"':
            page->append("&quot;");
            break;
        case '\'':
            page->append("&#39;");
            break;
        default:
            *page += c;
        }
}

void append_html(std::string *page, std::string_view text)
{
    size_t end = text.size();
    if (end > MOST_LETTERS) {
        end = MOST_LETTERS;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) // not within a character
            --end;
    }
    append_escaped(page, printable(text.substr(0, end)));
    if (end < text.size())
        page->append("\xe2\x80\xa6");
}

void append_foreign(std::string *page, std::string_view text)
{
    page->append("<bdi>");
    append_html(page, text);
    page->append("</bdi>");
}

// A NUL would become U+FFFD, a CR a newline: such a name is no file's, and is found no more.
void append_attribute(std::string *page, std::string_view text)
{
    append_escaped(page, text);
}

void append_data(std::string *page, std::string_view json)
{
    for (size_t at = 0; at < json.size();) {
        const size_t next = std::min(json.find('<', at), json.size());
        page->append(json.substr(at, next - at));
        if (next < json.size())
            page->append("\\u003c"); // in JSON it stands in strings only
        at = next + 1;
    }
}

} // namespace korva::program
