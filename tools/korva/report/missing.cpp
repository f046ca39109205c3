// SPDX-License-Identifier: Apache-2.0
#include "report/missing.h"

#include "report/html.h"

#include <algorithm>
#include <fmt/format.h>
#include <initializer_list>
#include <set>
#include <tuple>
#include <utility>

namespace korva::program
{

namespace
{

constexpr size_t MOST_ROWS = 100; // of a table

// With commas between the thousands.
std::string grouped(uint64_t number)
{
    std::string text = std::to_string(number);
    for (size_t at = text.size(); at > 3;)
        text.insert(at -= 3, 1, ',');
    return text;
}

/** A table whose first column is a number, or empty. What has the largest numbers is first. */
class table
{
public:
    explicit table(std::string head) : m_head(std::move(head)) {}

    /** Each text may be anything. */
    void add(uint64_t count, std::initializer_list<std::string_view> cells)
    {
        std::string row;
        for (const std::string_view each : cells) {
            row.append("<td>");
            append_foreign(&row, each);
            row.append("</td>");
        }
        m_rows.emplace_back(~count, std::move(row));
        ++m_added;
        if (m_rows.size() == 2 * MOST_ROWS)
            keep_first();
    }

    void append(std::string *page)
    {
        if (m_rows.empty())
            return;
        keep_first();
        page->append(m_head);
        for (const auto &[rest, row] : m_rows)
            page->append(fmt::format("<tr><td class=\"n\">{}</td>{}</tr>\n", grouped(~rest), row));
        page->append("</table></div>\n");
        if (m_added > m_rows.size())
            page->append(fmt::format("<p class=\"dim\">and {} more</p>\n", m_added - m_rows.size()));
    }

private:
    // A row may take fifty times the room that an owner takes in a record, and there may be a million of them.
    void keep_first()
    {
        std::sort(m_rows.begin(), m_rows.end());
        m_rows.resize(std::min(m_rows.size(), MOST_ROWS));
    }

    std::string m_head;
    size_t m_added = 0;
    std::vector<std::pair<uint64_t, std::string>> m_rows{};
};

std::string head(std::string_view title, std::initializer_list<std::string_view> columns)
{
    std::string text = fmt::format("<h3>{}</h3>\n<div class=\"scroll\"><table>\n<tr>", title);
    bool is_first = true;
    for (const std::string_view each : columns)
        text += fmt::format("<th{}>{}</th>", std::exchange(is_first, false) ? " class=\"n\"" : "", each);
    return text + "</tr>\n";
}

bool is_unread(const trace &t)
{
    return t.frames.empty() && t.status != record_status::ok;
}

void append_unread(std::string *page, const trace_set &traces)
{
    table rows(head("Processes and core files that could not be read", {"traces", "which", "why"}));
    for (const trace *each : traces.sorted())
        if (is_unread(*each))
            for (const auto &[owner, count] : each->owners)
                rows.add(count, {owner.process, each->message});
    rows.append(page);
}

void append_early(std::string *page, const trace_set &traces)
{
    std::map<std::tuple<std::string_view, std::string_view, std::string_view>, std::pair<uint64_t, const trace *>> ends;
    for (const trace *each : traces.sorted()) {
        if (each->status == record_status::ok || each->frames.empty())
            continue;
        auto &[count, example] = ends[{each->end, each->frames.back().module, each->message}];
        count = saturating_sum(count, each->count());
        example = each;
    }
    table rows(head("Walks that ended early: what is above is not known", {"traces", "end", "in", "why", "for one"}));
    for (const auto &[key, what] : ends) {
        const trace_owner &owner = what.second->owners.begin()->first;
        const auto &[end, module, message] = key;
        rows.add(what.first,
                 {end, module.empty() ? "no module" : module, message, fmt::format("{}/{}", owner.process, owner.tid)});
    }
    rows.append(page);
}

void append_modules(std::string *page, const trace_set &traces)
{
    struct lack {
        uint64_t frames = 0, nameless = 0, lineless = 0;
    };
    std::map<std::pair<std::string_view, std::string_view>, lack> modules;
    uint64_t outside = 0;
    for (const trace *each : traces.sorted())
        for (const trace_frame &f : each->frames) {
            if (f.module.empty()) {
                outside = saturating_sum(outside, f.is_inlined || !f.function.empty() ? 0 : each->count());
                continue;
            }
            lack &of = modules[{f.module, f.build_id}];
            of.frames = saturating_sum(of.frames, each->count());
            of.nameless = saturating_sum(of.nameless, f.function.empty() ? each->count() : 0);
            of.lineless = saturating_sum(of.lineless, f.line == 0 ? each->count() : 0);
        }
    table rows(head("Modules whose frames have no name or line", {"frames", "module", "build-id", "lacking"}));
    if (outside != 0)
        rows.add(outside, {"no module", "", "code outside of all modules: made at run time, or a walk gone astray"});
    for (const auto &[key, of] : modules) {
        if (of.nameless == 0 && of.lineless == 0)
            continue;
        std::string what;
        if (of.nameless != 0)
            what = fmt::format("{} without a function: no symbol covers them", of.nameless);
        if (of.lineless != 0)
            what += fmt::format("{}{}", what.empty() ? "" : "; ",
                                of.lineless == of.frames ? "no lines: no debugging information was found"
                                                         : fmt::format("{} without a line", of.lineless));
        rows.add(of.frames, {key.first, key.second, what});
    }
    rows.append(page);
}

void append_sources(std::string *page, const page_sources &sources)
{
    if (sources.unread().empty() && sources.left_out() == 0)
        return;
    page->append("<h3>Source files that are not shown</h3>\n<div "
                 "class=\"scroll\"><table>\n<tr><th>file</th><th>why</th></tr>\n");
    size_t shown = 0;
    for (const auto &[file, why] : sources.unread()) {
        if (++shown > MOST_ROWS)
            break;
        page->append("<tr><td>");
        append_foreign(page, file);
        page->append("</td><td>");
        append_foreign(page, why);
        page->append("</td></tr>\n");
    }
    page->append("</table></div>\n");
    if (sources.unread().size() > MOST_ROWS)
        page->append(fmt::format("<p class=\"dim\">and {} more</p>\n", sources.unread().size() - MOST_ROWS));
    if (sources.left_out() != 0)
        page->append(fmt::format("<p class=\"dim\">The lines of {} places where least was are left out.</p>\n",
                                 sources.left_out()));
}

} // namespace

void append_missing(std::string *page, const trace_set &traces, const page_sources &sources,
                    const std::vector<std::string> &told)
{
    const size_t before = page->size();
    append_unread(page, traces);
    append_early(page, traces);
    append_modules(page, traces);
    append_sources(page, sources);
    if (!told.empty()) {
        page->append("<h3>Told while the input was read</h3>\n");
        for (size_t i = 0; i < std::min(told.size(), MOST_ROWS); ++i) {
            page->append("<p>");
            append_foreign(page, told[i]);
            page->append("</p>\n");
        }
    }
    if (page->size() == before)
        page->append("<p class=\"dim\">Nothing is missing: every walk came to its end, and every frame has its "
                     "function and line.</p>\n");
}

void append_figures(std::string *page, const trace_set &traces)
{
    std::set<std::string_view> processes;
    uint64_t all = 0, early = 0, unread = 0;
    for (const trace *each : traces.sorted()) {
        all = saturating_sum(all, each->count());
        if (is_unread(*each))
            unread = saturating_sum(unread, each->count());
        else if (each->status != record_status::ok)
            early = saturating_sum(early, each->count());
        for (const auto &[owner, count] : each->owners)
            processes.insert(owner.process);
    }
    const auto add = [page](const char *what, uint64_t number, bool is_warning) {
        page->append(fmt::format("<div{}><dt>{}</dt><dd>{}</dd></div>",
                                 is_warning && number != 0 ? " class=\"warn\"" : "", what, grouped(number)));
    };
    add("traces", all, false);
    add("processes", processes.size(), false);
    add("different", traces.size(), false);
    add("ended early", early, true);
    add("not read", unread, true);
}

} // namespace korva::program
