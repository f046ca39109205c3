// SPDX-License-Identifier: Apache-2.0
#include "trace/trace.h"

#include "output.h"

#include <algorithm>
#include <compare>
#include <tuple>
#include <utility>

namespace korva::program
{

uint64_t saturating_sum(uint64_t a, uint64_t b)
{
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

uint64_t trace::count() const
{
    uint64_t sum = 0;
    for (const auto &[owner, count] : owners)
        sum = saturating_sum(sum, count);
    return sum;
}

template <typename T>
static int compare_values(const T &a, const T &b)
{
    const auto order = a <=> b;
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

// Addresses first: most frames differ there, which takes no look at a text.
int compare(const trace_frame &a, const trace_frame &b)
{
    const auto key = [](const trace_frame &f) {
        return std::tie(f.address, f.line, f.column, f.is_inlined, f.is_signal_frame, f.function, f.module, f.file,
                        f.build_id);
    };
    return compare_values(key(a), key(b));
}

static int compare_paths(const trace &a, const trace &b)
{
    const size_t both = std::min(a.frames.size(), b.frames.size());
    for (size_t i = 0; i < both; ++i)
        if (const int order = compare(a.frames[i], b.frames[i]); order != 0)
            return order;
    return compare_values(std::tuple(a.frames.size(), std::string_view(a.end), a.status),
                          std::tuple(b.frames.size(), std::string_view(b.end), b.status));
}

bool trace_set::by_path::operator()(const std::unique_ptr<trace> &a, const std::unique_ptr<trace> &b) const
{
    return compare_paths(*a, *b) < 0;
}

// As it comes back out of a record: who reads one must not tell it from what was read itself.
static void make_utf8(std::string *text)
{
    if (std::any_of(text->begin(), text->end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }))
        *text = json_value::parse(to_text(*text)).get<std::string>();
}

// Owners change hands without being copied: there may be a million.
static void add_owners(std::map<trace_owner, uint64_t> *into, std::map<trace_owner, uint64_t> from)
{
    while (!from.empty()) {
        auto owner = from.extract(from.begin());
        make_utf8(&owner.key().process);
        make_utf8(&owner.key().name);
        const uint64_t count = owner.mapped();
        const auto added = into->insert(std::move(owner));
        if (!added.inserted)
            added.position->second = saturating_sum(added.position->second, count);
    }
}

void trace_set::add(trace t)
{
    auto owners = std::exchange(t.owners, {});
    std::erase_if(owners, [](const auto &owner) { return owner.second == 0; });
    if (owners.empty())
        return;
    for (trace_frame &f : t.frames)
        for (std::string *text : {&f.function, &f.module, &f.build_id, &f.file})
            make_utf8(text);
    make_utf8(&t.end);
    make_utf8(&t.message);
    if (t.status == record_status::ok)
        t.message.clear();

    auto fresh = std::make_unique<trace>(std::move(t));
    auto at = m_traces.lower_bound(fresh);
    if (at == m_traces.end() || compare_paths(**at, *fresh) != 0)
        at = m_traces.insert(at, std::move(fresh));
    else
        (*at)->message = std::min((*at)->message, fresh->message);
    add_owners(&(*at)->owners, std::move(owners));
}

void trace_set::add(trace_set other)
{
    while (!other.is_empty())
        add(std::move(*other.m_traces.extract(other.m_traces.begin()).value()));
}

std::vector<const trace *> trace_set::sorted() const
{
    std::vector<const trace *> all;
    all.reserve(m_traces.size());
    for (const auto &each : m_traces)
        all.push_back(each.get());
    return all;
}

} // namespace korva::program
