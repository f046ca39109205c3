// SPDX-License-Identifier: Apache-2.0
//
// Source lines around the places of traces, as far as the files can be read here.
#pragma once

#include "explain/source_text.h"
#include "trace/trace.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korva::program
{

/**
 * The lines around the places where most was. A trace may name any file, and who makes a page may show it to others: what is not
 * named as a source is, is not read.
 */
class page_sources
{
public:
    /** Reads @p context lines on each side; nothing at all where @p is_wanted is false. @p traces outlives this. */
    page_sources(const trace_set &traces, uint32_t context, bool is_wanted);

    /** Adds a place to a page; a link to its lines where there are some. */
    void append_place(std::string *page, const trace_frame &f) const;
    /** Adds all lines to a page. */
    void append_lines(std::string *page) const;

    /** Files without lines, and why. */
    const std::map<std::string_view, std::string> &unread() const { return m_unread; }
    /** Places beyond the most that are read. */
    size_t left_out() const { return m_left_out; }

private:
    using place = std::pair<std::string_view, uint32_t>;

    void read_file(std::string_view path, const std::vector<uint32_t> &lines, uint32_t context,
                   std::string_view module);

    std::map<place, explanation::source_text> m_texts;
    std::map<std::string_view, std::string> m_unread;
    std::map<place, size_t> m_numbers; // of those that have lines
    size_t m_left_out = 0;
    uint64_t m_bytes_left = uint64_t{256} << 20; // to be read of all files
};

} // namespace korva::program
