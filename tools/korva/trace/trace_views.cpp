// SPDX-License-Identifier: Apache-2.0
#include "trace/trace_views.h"

#include "frame_place.h"
#include "trace/trace_json.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace korva::program
{

std::string frame_text(const trace_frame &f, frame_detail by)
{
    std::string text = !f.function.empty() ? f.function
                       : f.is_signal_frame ? "<signal handler called>"
                       : !f.module.empty() ? fmt::format("[{}]", basename_of(f.module))
                                           : "??";
    if (by == frame_detail::function)
        return text;
    if (!f.file.empty())
        text += f.line == 0 ? fmt::format(" ({})", f.file) : fmt::format(" ({}:{})", f.file, f.line);
    if (by == frame_detail::address && f.address)
        text += fmt::format(" [{}+0x{:x}]", f.module, *f.address);
    return f.is_inlined ? text + " (inlined)" : text;
}

trace_paths::trace_paths(const trace_set &traces, frame_detail by)
{
    std::map<std::string, uint32_t> numbers;
    for (const trace *each : traces.sorted()) {
        path made = {.frames = {}, .of = each};
        made.frames.reserve(each->frames.size());
        for (auto f = each->frames.rbegin(); f != each->frames.rend(); ++f) {
            const auto [at, is_fresh] = numbers.try_emplace(frame_text(*f, by), static_cast<uint32_t>(texts.size()));
            if (is_fresh) {
                texts.push_back(at->first);
                examples.push_back(&*f);
            }
            made.frames.push_back(at->second);
        }
        paths.push_back(std::move(made));
    }
}

/** Where equal paths end, with how many. */
static std::map<std::vector<uint32_t>, uint64_t> sum_paths(const std::vector<trace_paths::path> &paths)
{
    std::map<std::vector<uint32_t>, uint64_t> sums;
    for (const trace_paths::path &each : paths) {
        uint64_t &sum = sums[each.frames];
        sum = saturating_sum(sum, each.of->count());
    }
    return sums;
}

static const std::string NOT_READ = "[not read]"; // a path without frames

void write_folded(answers *out, const trace_set &traces, frame_detail by)
{
    const trace_paths view(traces, by);
    std::vector<std::string> names;
    for (const std::string &text : view.texts) {
        names.push_back(printable(text));
        std::replace(names.back().begin(), names.back().end(), ' ', '_');
        std::replace(names.back().begin(), names.back().end(), ';', ':');
    }
    std::map<std::string, uint64_t> lines; // names may have become equal
    for (const auto &[frames, count] : sum_paths(view.paths)) {
        std::string line;
        for (const uint32_t each : frames)
            line.append(line.empty() ? "" : ";").append(names[each]);
        uint64_t &sum = lines[frames.empty() ? "[not_read]" : line];
        sum = saturating_sum(sum, count);
    }
    for (const auto &[line, count] : lines)
        out->print("{} {}\n", line, count);
}

// Of a function many lines may be in the traces: they are told only where lines make frames.
static json_value speedscope_frame(const std::string &text, const trace_frame *f, frame_detail by)
{
    json_value frame = {{"name", text}};
    if (f == nullptr || by == frame_detail::function)
        return frame;
    if (!f->file.empty())
        frame["file"] = f->file;
    if (f->line != 0)
        frame["line"] = f->line;
    return frame;
}

// Written piece by piece: the whole as one value would take several times its room.
void write_speedscope(answers *out, const trace_set &traces, frame_detail by)
{
    const trace_paths view(traces, by);
    const auto sums = sum_paths(view.paths);
    uint64_t total = 0;
    for (const auto &[frames, count] : sums)
        total = saturating_sum(total, count);

    out->write(R"({"$schema":"https://www.speedscope.app/file-format-schema.json","exporter":"korva","name":"traces",)"
               "\n\"shared\":{\"frames\":[");
    std::string line;
    for (size_t i = 0; i < view.texts.size(); ++i)
        out->print("{}{}", i == 0 ? "" : ",\n", to_text(speedscope_frame(view.texts[i], view.examples[i], by)));
    if (sums.contains({})) // its number is that behind the others
        out->print("{}{}", view.texts.empty() ? "" : ",\n", to_text(speedscope_frame(NOT_READ, nullptr, by)));
    out->print("]}},\n\"profiles\":[{{\"type\":\"sampled\",\"name\":\"traces\",\"unit\":\"none\",\"startValue\":0,"
               "\"endValue\":{},\n\"samples\":[",
               total);
    const char *before = "";
    for (const auto &[frames, count] : sums) {
        line.assign(std::exchange(before, ",\n")).append("[");
        for (size_t i = 0; i < frames.size(); ++i) {
            line.append(i == 0 ? "" : ",");
            append_decimal(&line, frames[i]);
        }
        if (frames.empty())
            append_decimal(&line, view.texts.size());
        out->write(line.append("]"));
    }
    out->write("],\n\"weights\":[");
    before = "";
    for (const auto &[frames, count] : sums)
        out->print("{}{}", std::exchange(before, ","), count);
    out->write("]}]}\n");
}

void write_traces(answers *out, const trace_set &traces, frame_detail by)
{
    switch (out->format()) {
    case output_format::folded:
        return write_folded(out, traces, by);
    case output_format::speedscope:
        return write_speedscope(out, traces, by);
    case output_format::text:
        return write_tree(out, traces, by);
    default:
        return write_records(out, traces);
    }
}

} // namespace korva::program
