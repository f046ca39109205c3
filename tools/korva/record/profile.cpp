// SPDX-License-Identifier: Apache-2.0
#include "record/profile.h"

#include <algorithm>
#include <utility>

namespace korva::program
{

namespace
{

/** How a walk by tables ended, as korva stack says it, and why early; without addresses, so that equal stacks stay equal. */
struct end_text {
    const char *end;
    record_status status;
    const char *message;
};

end_text describe_end(int reason)
{
    switch (reason) {
    case KRV_STACK_END:
        return {"outermost", record_status::ok, ""};
    case KRV_STACK_NO_RULE:
        return {"no-fde", record_status::error, "nothing describes how to leave the last frame"};
    case KRV_STACK_NO_PROGRESS:
        return {"no-progress", record_status::error, "the stack leads back to the last frame"};
    case KRV_STACK_LIMIT:
        return {"limit", record_status::limit, "more frames than a sample may have"};
    case KRV_STACK_REGISTER:
        return {"error", record_status::error, "the last frame depends on a register whose value is not known"};
    default:
        return {"error", record_status::error, "the stack of the last frame cannot be read"};
    }
}

} // namespace

void profile::add(int tid, const raw_stack &stack, stack_walker *walker)
{
    std::vector<uint64_t> key = {walker->generation(), static_cast<uint64_t>(stack.end)};
    key.insert(key.end(), stack.addresses.begin(), stack.addresses.end());
    const auto [at, fresh] = m_stacks.try_emplace(std::move(key));
    if (fresh)
        at->second = {.frames = walker->resolve(stack), .end = stack.end};
    ++at->second.counts[tid];
}

bool profile::is_whole() const
{
    return std::all_of(m_stacks.begin(), m_stacks.end(), [](const auto &s) { return s.second.end == KRV_STACK_END; });
}

trace_set profile::traces(int pid, const look_up &find) const
{
    using place = std::pair<std::pair<const krv_proc_module_t *, uint64_t>, bool>;
    std::map<place, std::vector<trace_frame>> known;
    trace_set all;
    for (const auto &[key, stack] : m_stacks) {
        const end_text end = describe_end(stack.end);
        trace t = {.end = end.end, .status = end.status, .message = end.message};
        for (const sampled_frame &frame : stack.frames) {
            const auto [at, fresh] = known.try_emplace({{frame.module, frame.address}, frame.is_signal_frame});
            if (fresh)
                at->second = find(frame);
            t.frames.insert(t.frames.end(), at->second.begin(), at->second.end());
        }
        for (const auto &[tid, count] : stack.counts) {
            const auto name = m_names.find(tid);
            t.owners[{std::to_string(pid), tid, name == m_names.end() ? "" : name->second}] += count;
        }
        all.add(std::move(t));
    }
    return all;
}

} // namespace korva::program
