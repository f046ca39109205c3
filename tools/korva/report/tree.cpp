// SPDX-License-Identifier: Apache-2.0
#include "report/tree.h"

#include "report/html.h"
#include "trace/trace_views.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <queue>
#include <string_view>
#include <utility>
#include <vector>

namespace korva::program
{

namespace
{

constexpr size_t MOST_BRANCHES = 2000; // that are shown
constexpr size_t DEEPEST = 100;        // elements in elements; browsers end at some hundreds

/** A function called from those above it. */
struct call {
    std::string name{};
    const trace_frame *example = nullptr;
    uint64_t count = 0;
    bool is_shown = false;
    std::map<std::string, size_t> below{}; // branches by their names
    std::map<trace_owner, uint64_t> owners{};
};

class tree_maker
{
public:
    tree_maker(const trace_set &traces, const page_sources &sources);
    void append(std::string *page);

private:
    struct step {
        size_t branch;
        size_t depth; // of elements; of a branch that goes on where the one above ended
        bool closes;  // only the element's end
    };

    void add(const trace &t);
    void choose();
    std::vector<size_t> below(const call &of) const;
    bool goes_on(const call &of) const { return of.below.size() == 1 && of.owners.empty(); }
    void append_line(std::string *page, const call &of) const;
    void append_owners(std::string *page, const call &of) const;

    const page_sources &m_sources;
    std::vector<call> m_branches; // the first is the root, which is no function
};

} // namespace

tree_maker::tree_maker(const trace_set &traces, const page_sources &sources) : m_sources(sources), m_branches(1)
{
    for (const trace *each : traces.sorted())
        add(*each);
    choose();
}

void tree_maker::add(const trace &t)
{
    const uint64_t count = t.count();
    size_t at = 0;
    for (auto f = t.frames.rbegin(); f != t.frames.rend(); ++f) {
        std::string name = frame_text(*f, frame_detail::function); // as the page's script has it
        const auto [next, is_fresh] = m_branches[at].below.try_emplace(name, m_branches.size());
        at = next->second;
        if (is_fresh)
            m_branches.push_back({.name = std::move(name), .example = &*f});
        m_branches[at].count = saturating_sum(m_branches[at].count, count);
    }
    for (const auto &[owner, times] : t.owners) {
        uint64_t &sum = m_branches[at].owners[owner];
        sum = saturating_sum(sum, times);
    }
}

// Where most was.
void tree_maker::choose()
{
    std::priority_queue<std::pair<uint64_t, size_t>> left;
    left.emplace(0, 0);
    for (size_t chosen = 0; chosen < MOST_BRANCHES && !left.empty(); ++chosen) {
        call &at = m_branches[left.top().second];
        left.pop();
        at.is_shown = true;
        for (const auto &[name, number] : at.below)
            left.emplace(m_branches[number].count, number);
    }
}

std::vector<size_t> tree_maker::below(const call &of) const
{
    std::vector<size_t> all;
    for (const auto &[name, number] : of.below)
        if (m_branches[number].is_shown)
            all.push_back(number);
    std::stable_sort(all.begin(), all.end(), // of equal counts as the names go
                     [this](size_t a, size_t b) { return m_branches[a].count > m_branches[b].count; });
    return all;
}

void tree_maker::append_line(std::string *page, const call &of) const
{
    page->append(fmt::format("<b>{}</b>", of.count));
    append_foreign(page, of.name);
    *page += ' ';
    m_sources.append_place(page, *of.example);
}

void tree_maker::append_owners(std::string *page, const call &of) const
{
    constexpr size_t MOST_OWNERS = 8;
    if (of.owners.empty())
        return;
    page->append("<p class=\"step at\">");
    size_t shown = 0;
    for (auto at = of.owners.begin(); at != of.owners.end() && shown < MOST_OWNERS; ++at, ++shown) {
        const trace_owner &owner = at->first;
        page->append(shown == 0 ? "" : ", ");
        append_foreign(page, fmt::format("{}/{} {}", owner.process, owner.tid, owner.name));
        page->append(at->second == 1 ? "" : fmt::format(" * {}", at->second));
    }
    if (of.owners.size() > shown)
        page->append(fmt::format(" and {} more", of.owners.size() - shown));
    page->append("</p>\n");
}

// Elements are nested as branches are; what has one way to go on stays in the element of the branch above.
void tree_maker::append(std::string *page)
{
    std::vector<step> left;
    const auto push = [&](const call &of, size_t depth) {
        const std::vector<size_t> next = below(of);
        for (auto at = next.rbegin(); at != next.rend(); ++at)
            left.push_back({*at, depth, false});
    };
    push(m_branches[0], 0);
    while (!left.empty()) {
        const step at = left.back();
        left.pop_back();
        if (at.closes) {
            page->append("</details>\n");
            continue;
        }
        const call &of = m_branches[at.branch];
        if (of.below.empty() || at.depth == DEEPEST) {
            page->append("<p class=\"step\">");
            append_line(page, of);
            page->append(of.below.empty() ? "</p>\n" : " \xe2\x80\xa6</p>\n");
            append_owners(page, of);
            continue;
        }
        page->append(at.depth < 3 ? "<details open><summary>" : "<details><summary>");
        append_line(page, of);
        page->append("</summary>\n");
        append_owners(page, of);
        size_t last = at.branch;
        while (goes_on(m_branches[last]) && m_branches[m_branches[last].below.begin()->second].is_shown) {
            last = m_branches[last].below.begin()->second;
            page->append("<p class=\"step\">");
            append_line(page, m_branches[last]);
            page->append("</p>\n");
            append_owners(page, m_branches[last]);
        }
        left.push_back({last, at.depth, true});
        push(m_branches[last], at.depth + 1);
    }
    const auto shown = std::count_if(m_branches.begin(), m_branches.end(), [](const call &b) { return b.is_shown; });
    if (static_cast<size_t>(shown) < m_branches.size())
        page->append(
            fmt::format("<p class=\"dim\">{} further functions in this tree are shown where scripts run.</p>\n",
                        m_branches.size() - static_cast<size_t>(shown)));
}

void append_tree(std::string *page, const trace_set &traces, const page_sources &sources)
{
    tree_maker(traces, sources).append(page);
}

} // namespace korva::program
