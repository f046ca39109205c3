// SPDX-License-Identifier: Apache-2.0
//
// korva report: stacks of many processes as a page to look at.
#include "command.h"
#include "report/page.h"
#include "trace/trace_json.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace korva::program
{

namespace
{

struct report_options : common_options {
    std::vector<std::string> files;
    std::string output;
    page_request page;
};

} // namespace

static void write_page(const std::string &page, const std::string &output)
{
    if (output.empty() || output == "-") {
        answers out(output_format::text);
        out.write(page);
        out.finish();
        return;
    }
    std::FILE *file = std::fopen(output.c_str(), "we");
    const bool is_whole = file != nullptr && std::fwrite(page.data(), 1, page.size(), file) == page.size();
    const int error = errno;
    if (file == nullptr || !is_whole)
        errno = error;
    if (file == nullptr || std::fclose(file) != 0 || !is_whole)
        throw failure(fmt::format("{}: {}", output, std::strerror(errno)));
}

static int run_report(report_options &options)
{
    trace_set traces;
    tally done;
    {
        kept_diagnostics told;
        for (const std::string &file : options.files) {
            try {
                read_traces(file, &traces, &done);
            } catch (const failure &f) { // the others are shown all the same
                diagnose(f.what());
                done.missed();
            }
        }
        options.page.told = told.texts;
    }
    for (const std::string &text : options.page.told)
        diagnose(text);
    if (traces.is_empty())
        throw failure("there are no traces: no page is written");
    write_page(make_page(traces, options.page), options.output);
    return done.status();
}

void add_report(CLI::App &app, int *status)
{
    auto options = std::make_shared<report_options>();
    CLI::App *verb = app.add_subcommand("report", "Makes a page to look at of stacks of many processes");
    verb->add_option("FILE", options->files,
                     "What --format=jsonl of korva stack --merge or korva merge wrote; - is standard input")
        ->required();
    verb->add_option("-o,--output", options->output, "Where the page goes; standard output when not given")
        ->type_name("FILE");
    verb->add_option("--context", options->page.context, "Source lines on each side of a place; 4 when not given")
        ->check(CLI::Range(0, 100));
    verb->add_flag("!--no-source", options->page.has_sources, "Read no source files");
    verb->footer("The page is one HTML file that needs no network. It shows the source lines of files that stacks "
                 "name: those that\n"
                 "are named as sources are.\n"
                 "Exit status: 0 all is in the page, 1 some could not be read, 2 there is no page.\n"
                 "Examples:\n"
                 "  korva report merged.jsonl > report.html\n"
                 "  korva stack --merge --format=jsonl core.* | korva report -o report.html -");
    verb->callback([options, status] { *status = run_report(*options); });
}

} // namespace korva::program
