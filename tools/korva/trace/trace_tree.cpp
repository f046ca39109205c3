// SPDX-License-Identifier: Apache-2.0
//
// Traces as a tree to look at. What has one way to go on is not indented, so that a deep stack stays on the screen.
#include "trace/trace_views.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

namespace korva::program
{

namespace
{

/** Who was at a place, of the traces that ended there for the same reason. */
struct ending {
    std::string message{};
    std::map<trace_owner, uint64_t> owners{};
};

/** A function called from those above it. */
struct branch {
    uint64_t count = 0;
    std::map<uint32_t, size_t> below{}; // branches by the number of their text
    std::map<std::pair<record_status, std::string>, ending> endings{};
};

class tree_writer
{
public:
    tree_writer(answers *out, const trace_set &traces, frame_detail by);
    void write();

private:
    struct step {
        size_t branch;
        uint32_t text;
        size_t indent;
    };

    void add(const trace_paths::path &path);
    std::vector<step> below(const branch &of, size_t indent) const;
    void write_summary();
    void write_endings(const branch &of, size_t indent);

    answers *m_out;
    const trace_paths m_paths;
    std::vector<branch> m_branches; // the first is the root, which is no function
    size_t m_width = 0;             // of the largest count
};

} // namespace

tree_writer::tree_writer(answers *out, const trace_set &traces, frame_detail by)
    : m_out(out), m_paths(traces, by), m_branches(1)
{
    for (const trace_paths::path &each : m_paths.paths)
        add(each);
    m_width = fmt::format("{}", m_branches[0].count).size();
}

void tree_writer::add(const trace_paths::path &path)
{
    const uint64_t count = path.of->count();
    size_t at = 0;
    m_branches[0].count = saturating_sum(m_branches[0].count, count);
    for (const uint32_t text : path.frames) {
        const auto [next, is_fresh] = m_branches[at].below.try_emplace(text, m_branches.size());
        at = next->second;
        if (is_fresh)
            m_branches.emplace_back();
        m_branches[at].count = saturating_sum(m_branches[at].count, count);
    }
    auto &endings = m_branches[at].endings;
    const auto [end, is_first] = endings.try_emplace({path.of->status, path.of->end});
    if (is_first || path.of->message < end->second.message)
        end->second.message = path.of->message;
    for (const auto &[owner, times] : path.of->owners) {
        uint64_t &sum = end->second.owners[owner];
        sum = saturating_sum(sum, times);
    }
}

// What most came to first.
std::vector<tree_writer::step> tree_writer::below(const branch &of, size_t indent) const
{
    const bool is_alone = of.below.size() + of.endings.size() == 1;
    std::vector<step> all;
    for (const auto &[text, number] : of.below)
        all.push_back({number, text, is_alone ? indent : indent + 2});
    std::sort(all.begin(), all.end(), [this](const step &a, const step &b) {
        return std::tuple(m_branches[b.branch].count, std::string_view(m_paths.texts[a.text])) <
               std::tuple(m_branches[a.branch].count, std::string_view(m_paths.texts[b.text]));
    });
    return all;
}

// "core.1/17,18,19 (worker), core.2/12*37 (main) ... and 997 more": a number behind * is how often.
static std::string owners_text(const std::map<trace_owner, uint64_t> &owners)
{
    constexpr size_t MOST_OWNERS = 6;
    std::string text;
    const trace_owner *before = nullptr;
    size_t shown = 0;
    const auto end_group = [&text, &before] {
        if (before != nullptr && !before->name.empty())
            text += fmt::format(" ({})", printable(before->name));
    };
    for (auto at = owners.begin(); at != owners.end() && shown < MOST_OWNERS; ++at, ++shown) {
        const trace_owner &owner = at->first;
        if (before != nullptr && before->process == owner.process && before->name == owner.name) {
            text += fmt::format(",{}", owner.tid);
        } else {
            end_group();
            text += fmt::format("{}{}", before == nullptr ? "" : ", ", printable(owner.process));
            if (owner.tid != 0)
                text += fmt::format("/{}", owner.tid);
        }
        if (at->second != 1)
            text += fmt::format("*{}", at->second);
        before = &owner;
    }
    end_group();
    return owners.size() > shown ? text + fmt::format(" ... and {} more", owners.size() - shown) : text;
}

void tree_writer::write_endings(const branch &of, size_t indent)
{
    for (const auto &[how, what] : of.endings) {
        if (how.first != record_status::ok)
            m_out->print("{:{}}ended early, {}: {}\n", "", m_width + 2 + indent, printable(how.second),
                         printable(what.message));
        m_out->print("{:{}}{}\n", "", m_width + 2 + indent, owners_text(what.owners));
    }
}

void tree_writer::write_summary()
{
    std::set<std::string> processes;
    uint64_t unread = 0;
    for (const trace_paths::path &path : m_paths.paths)
        for (const auto &[owner, times] : path.of->owners) {
            processes.insert(owner.process);
            if (owner.tid == 0)
                unread = saturating_sum(unread, times);
        }
    m_out->print("{} traces of {} processes, {} different{}\n", m_branches[0].count, processes.size(),
                 m_paths.paths.size(), unread == 0 ? "" : fmt::format("; {} could not be read", unread));
}

void tree_writer::write()
{
    write_summary();
    std::vector<step> left = {{0, 0, 0}};
    while (!left.empty()) {
        const step at = left.back();
        left.pop_back();
        const branch &of = m_branches[at.branch];
        if (at.branch != 0)
            m_out->print("{:>{}}  {:{}}{}\n", of.count, m_width, "", at.indent, printable(m_paths.texts[at.text]));
        const std::vector<step> next = below(of, at.indent);
        left.insert(left.end(), next.rbegin(), next.rend());
        write_endings(of, at.indent);
    }
}

void write_tree(answers *out, const trace_set &traces, frame_detail by)
{
    tree_writer(out, traces, by).write();
}

} // namespace korva::program
