// SPDX-License-Identifier: Apache-2.0
#include "report/sources.h"

#include "report/html.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fmt/format.h>

namespace korva::program
{

static constexpr size_t MOST_PLACES = 4000;

static bool is_named_as_source(std::string_view path)
{
    static constexpr std::array<std::string_view, 34> ENDINGS = {
        ".c",   ".cc",  ".cpp", ".cxx", ".c++", ".C",   ".h",   ".hh",  ".hpp",   ".hxx", ".h++", ".tcc",
        ".inl", ".ipp", ".inc", ".def", ".y",   ".l",   ".m",   ".mm",  ".s",     ".S",   ".asm", ".rs",
        ".go",  ".d",   ".zig", ".f",   ".f90", ".F90", ".adb", ".ads", ".swift", ".nim"};
    return path.find('\0') == std::string_view::npos &&
           std::any_of(ENDINGS.begin(), ENDINGS.end(), [path](std::string_view each) { return path.ends_with(each); });
}

page_sources::page_sources(const trace_set &traces, uint32_t context, bool is_wanted)
{
    if (!is_wanted)
        return;
    struct known {
        uint64_t count = 0;
        std::string_view module{};
    };
    std::map<place, known> places;
    for (const trace *each : traces.sorted())
        for (const trace_frame &f : each->frames)
            if (!f.file.empty() && f.line != 0) {
                known &at = places[{f.file, f.line}];
                at.count = saturating_sum(at.count, each->count());
                at.module = f.module;
            }
    std::vector<std::pair<uint64_t, place>> order;
    order.reserve(places.size());
    for (const auto &[where, what] : places)
        order.emplace_back(~what.count, where); // what most came to is first
    std::sort(order.begin(), order.end());
    m_left_out = order.size() - std::min(order.size(), MOST_PLACES);
    order.resize(order.size() - m_left_out);
    std::map<std::string_view, std::vector<uint32_t>> files;
    for (const auto &[count, where] : order)
        files[where.first].push_back(where.second);
    for (auto &[path, lines] : files) {
        std::sort(lines.begin(), lines.end());
        read_file(path, lines, context, places[{path, lines[0]}].module);
    }
    for (const auto &[where, text] : m_texts)
        m_numbers.emplace(where, m_numbers.size() + 1);
}

void page_sources::read_file(std::string_view path, const std::vector<uint32_t> &lines, uint32_t context,
                             std::string_view module)
{
    if (!is_named_as_source(path)) {
        m_unread.emplace(path, "its name is not that of a source");
        return;
    }
    const std::string file(path);
    std::error_code failed;
    const uintmax_t size = std::filesystem::file_size(file, failed);
    if (!failed && size > m_bytes_left) {
        m_unread.emplace(path, "more was read than a page is to be made of");
        return;
    }
    m_bytes_left -= failed ? 0 : size;
    std::vector<explanation::source_text> texts = explanation::read_sources(file, lines, context, std::string(module));
    for (size_t i = 0; i < lines.size(); ++i)
        if (texts[i].lines.empty())
            m_unread.emplace(path, texts[i].why_not);
        else
            m_texts.emplace(place{path, lines[i]}, std::move(texts[i]));
}

void page_sources::append_place(std::string *page, const trace_frame &f) const
{
    if (f.file.empty())
        return;
    const auto found = m_numbers.find({f.file, f.line});
    page->append(found == m_numbers.end() ? "<span class=\"at\">" : fmt::format("<a href=\"#s{}\">", found->second));
    append_foreign(page, f.line == 0 ? f.file : fmt::format("{}:{}", f.file, f.line));
    page->append(found == m_numbers.end() ? "</span>" : "</a>");
}

void page_sources::append_lines(std::string *page) const
{
    for (const auto &[where, text] : m_texts) {
        page->append(fmt::format("<details data-line=\"{}\" data-file=\"", where.second));
        append_attribute(page, where.first);
        page->append("\"><summary>");
        append_foreign(page, fmt::format("{}:{}", where.first, where.second));
        page->append(fmt::format("</summary><pre class=\"code\" id=\"s{}\">", m_numbers.at(where)));
        for (const auto &[number, line] : text.lines) {
            const char *tag = number == where.second ? "mark" : "span";
            page->append(fmt::format("<{} data-n=\"{}\">", tag, number));
            append_html(page, line.empty() ? " " : line);
            page->append(fmt::format("</{}>", tag));
        }
        page->append("</pre>");
        if (text.is_newer)
            page->append("<p class=\"dim\">The source is newer than the program: lines may have moved.</p>");
        page->append("</details>\n");
    }
    if (m_texts.empty())
        page->append("<p class=\"dim\">None of the files could be read here.</p>\n");
}

} // namespace korva::program
