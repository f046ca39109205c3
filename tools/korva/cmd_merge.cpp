// SPDX-License-Identifier: Apache-2.0
//
// korva merge: the traces of many runs, as one run over everything would have written them.
#include "command.h"
#include "trace/trace_json.h"
#include "trace/trace_options.h"

#include <memory>

namespace korva::program
{

namespace
{

struct merge_options : common_options {
    frame_detail by = frame_detail::function;
    std::vector<std::string> files;
};

} // namespace

static int run_merge(const merge_options &options)
{
    answers out(options.format);
    trace_set all;
    tally done;
    for (const std::string &file : options.files) {
        try {
            read_traces(file, &all, &done);
        } catch (const failure &f) {
            diagnose(f.what());
            done.missed();
        }
    }
    write_traces(&out, all, options.by);
    out.finish();
    return done.status();
}

void add_merge(CLI::App &app, int *status)
{
    auto options = std::make_shared<merge_options>();
    CLI::App *verb = app.add_subcommand("merge", "Merges the stacks that korva stack --merge wrote");
    verb->add_option("FILE", options->files,
                     "What --format=jsonl of korva stack --merge or korva merge wrote; - is standard input")
        ->required();
    add_format_option(verb, options.get(), trace_formats());
    add_by_option(verb, &options->by);
    verb->footer(
        "What is written depends on what is in the files alone, not on their order or on how it came into them.\n"
        "A line that is no trace is told, and left out.\n"
        "Exit status: 0 every line was merged, 1 some could not be, 2 nothing.\n"
        "Examples:\n"
        "  korva merge monday.jsonl tuesday.jsonl\n"
        "  korva merge --format=folded shard.*.jsonl | flamegraph.pl > flames.svg");
    verb->callback([options, status] { *status = run_merge(*options); });
}

} // namespace korva::program
