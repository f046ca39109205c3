// SPDX-License-Identifier: Apache-2.0
#include "report/page.h"

#include "report/html.h"
#include "report/missing.h"
#include "report/page_text.h"
#include "report/tree.h"
#include "trace/trace_json.h"

#include <set>
#include <string_view>

namespace korva::program
{

// Made of numbers alone: a name would have to be shortened, and a page's title is shown without care.
static std::string title_of(const trace_set &traces)
{
    std::set<std::string_view> processes;
    for (const trace *each : traces.sorted())
        for (const auto &[owner, count] : each->owners)
            processes.insert(owner.process);
    return fmt::format("Stacks of {} process{}", processes.size(), processes.size() == 1 ? "" : "es");
}

// Records as korva merge reads them, one a line.
static void append_traces(std::string *page, const trace_set &traces)
{
    std::string line;
    for (const trace *each : traces.sorted()) {
        line.clear();
        append_trace(&line, *each);
        append_data(page, line);
        *page += '\n';
    }
}

std::string make_page(const trace_set &traces, const page_request &wanted)
{
    const page_sources sources(traces, wanted.context, wanted.has_sources);
    std::string page;
    const auto fill_in = [&](std::string_view name) {
        if (name == "title")
            page += title_of(traces);
        else if (name == "style")
            page += PAGE_STYLE;
        else if (name == "style hash")
            page += PAGE_STYLE_HASH;
        else if (name == "script")
            page += PAGE_SCRIPT;
        else if (name == "script hash")
            page += PAGE_SCRIPT_HASH;
        else if (name == "version")
            page += KORVA_VERSION;
        else if (name == "figures")
            append_figures(&page, traces);
        else if (name == "tree")
            append_tree(&page, traces, sources);
        else if (name == "missing")
            append_missing(&page, traces, sources, wanted.told);
        else if (name == "sources")
            sources.append_lines(&page);
        else if (name == "traces")
            append_traces(&page, traces);
    };
    std::string_view left = PAGE_HTML;
    for (size_t at = 0; (at = left.find("{{")) != std::string_view::npos;) {
        const size_t end = left.find("}}", at);
        page += left.substr(0, at);
        fill_in(left.substr(at + 2, end - at - 2));
        left.remove_prefix(end + 2);
    }
    page += left;
    return page;
}

} // namespace korva::program
