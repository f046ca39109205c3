// SPDX-License-Identifier: Apache-2.0
//
// Traces and described threads as records of others: what is read of a trace is written so that the same is read again, and the order in which
// traces are merged makes no difference.
#include "trace/trace_json.h"
#include "unwind/described.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using namespace korva::program;

static std::string written(const trace_set &traces)
{
    std::string text;
    for (const trace *each : traces.sorted()) {
        append_trace(&text, *each);
        text += '\n';
    }
    return text;
}

static std::vector<trace> read_all(std::string_view text)
{
    std::vector<trace> all;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string fault;
        if (auto read = read_trace(text.substr(at, end - at), &fault))
            all.push_back(std::move(*read));
        else if (fault.empty())
            std::abort();
        at = end + 1;
    }
    return all;
}

static trace_set merged(const std::vector<trace> &traces)
{
    trace_set all;
    for (const trace &each : traces)
        all.add(each);
    return all;
}

static void read_threads(std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        try {
            const described_process of = read_described(text.substr(at, end - at));
            for (const described_memory &piece : of.memory)
                if (piece.bytes.size() > UINT64_MAX - piece.address)
                    std::abort();
        } catch (const failure &f) {
            if (f.why.messages[0].empty())
                std::abort();
        }
        at = end + 1;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    std::vector<trace> traces = read_all(text);
    const std::string once = written(merged(traces));
    if (written(merged(read_all(once))) != once)
        std::abort();
    std::reverse(traces.begin(), traces.end());
    if (written(merged(traces)) != once)
        std::abort();
    const auto half = traces.begin() + static_cast<std::ptrdiff_t>(traces.size() / 2);
    trace_set parts = merged({half, traces.end()});
    parts.add(merged({traces.begin(), half}));
    if (written(parts) != once)
        std::abort();
    read_threads(text);
    return 0;
}
