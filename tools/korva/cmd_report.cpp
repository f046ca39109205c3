// SPDX-License-Identifier: Apache-2.0
//
// korva report: stacks of many processes as a page to look at.
#include "command.h"
#include "report/page.h"
#include "trace/trace_json.h"
#include "trace/trace_options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace korva::program
{

namespace
{

struct report_options : common_options {
    std::vector<std::string> files; // core files, and traces as records
    std::vector<int> pids;
    std::string exe;
    bool demangle = false;
    bool no_source = false;
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

// Core files among what is to be read. A pipe is none, and must not be looked into: it can be read once.
static bool is_core(const std::string &path)
{
    std::error_code none;
    char start[4] = {};
    std::FILE *file = std::filesystem::is_regular_file(path, none) ? std::fopen(path.c_str(), "re") : nullptr;
    const bool is_read = file != nullptr && std::fread(start, 1, sizeof(start), file) == sizeof(start);
    if (file != nullptr)
        std::fclose(file);
    return is_read && std::memcmp(start, "\177ELF", sizeof(start)) == 0;
}

// Processes and core files. The page tells what was not as it should be.
static exit_status collect_stacks(const report_options &options, const std::vector<std::string> &cores,
                                  trace_set *traces, std::vector<std::string> *told)
{
    trace_collector all(request_of(options, {.demangle = options.demangle}, options.exe));
    for (const int pid : options.pids)
        all.add_process(pid);
    for (const std::string &core : cores)
        all.add_core(core);
    *traces = all.take_traces();
    *told = all.notes();
    for (const std::string &text : *told)
        diagnose(text);
    return all.status();
}

static int run_report(report_options &options)
{
    if (options.files.empty() && options.pids.empty())
        throw CLI::ValidationError("report", "give a FILE or -p PID");
    trace_set traces;
    options.page.has_sources = !options.no_source;
    const auto first_core = std::stable_partition(options.files.begin(), options.files.end(),
                                                  [](const auto &file) { return !is_core(file); });
    const std::vector<std::string> cores(first_core, options.files.end());
    options.files.erase(first_core, options.files.end());
    const bool has_stacks = !options.pids.empty() || !cores.empty();
    const exit_status of_stacks = has_stacks ? collect_stacks(options, cores, &traces, &options.page.told) : ANSWERED;
    tally done;
    std::vector<std::string> told;
    {
        kept_diagnostics kept;
        for (const std::string &file : options.files) {
            try {
                read_traces(file, &traces, &done);
            } catch (const failure &f) { // the others are shown all the same
                diagnose(f.what());
                done.missed();
            }
        }
        told = kept.texts;
    }
    for (const std::string &text : told)
        diagnose(text);
    options.page.told.insert(options.page.told.end(), told.begin(), told.end());
    if (traces.is_empty())
        throw failure("there are no traces: no page is written");
    write_page(make_page(traces, options.page), options.output);
    return of_stacks == ANSWERED ? done.status() : PARTLY;
}

void add_report(CLI::App &app, int *status)
{
    auto options = std::make_shared<report_options>();
    CLI::App *verb = app.add_subcommand("report", "Makes a page to look at of stacks of many processes");
    verb->add_option(
        "FILE", options->files,
        "Core file, or what --format=jsonl of korva stack --merge or korva merge wrote; - is standard input");
    verb->add_option("-p,--pid", options->pids, "Process; may be repeated")
        ->check(CLI::PositiveNumber)
        ->allow_extra_args(false)
        ->type_name("PID");
    verb->add_option("-e,--exe", options->exe, "Executable of the core files, when it is not where it was");
    verb->add_flag("-C,--demangle", options->demangle,
                   "Names of C++, Rust and D as these write them, of core files and processes");
    verb->add_option("-o,--output", options->output, "Where the page goes; standard output when not given")
        ->type_name("FILE");
    verb->add_option("--context", options->page.context, "Source lines on each side of a place; 4 when not given")
        ->check(CLI::Range(0, 100));
    verb->add_flag("--no-source", options->no_source, "Read no source files");
    add_file_options(verb, options.get());
    verb->footer("The page is one HTML file that needs no network. It shows the source lines of files that stacks "
                 "name: those that\n"
                 "are named as sources are.\n"
                 "Exit status: 0 all is in the page, 1 some could not be read, 2 there is no page.\n"
                 "Examples:\n"
                 "  korva report core.4711 > report.html\n"
                 "  korva stack --merge --format=jsonl core.* | korva report -o report.html -");
    verb->callback([options, status] { *status = run_report(*options); });
}

} // namespace korva::program
