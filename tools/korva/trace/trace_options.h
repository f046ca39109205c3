// SPDX-License-Identifier: Apache-2.0
//
// What the verbs that write traces have in common on the command line.
#pragma once

#include "command.h"
#include "trace/process_traces.h"
#include "trace/trace_views.h"

#include <CLI/CLI.hpp>

namespace korva::program
{

/** For add_format_option(). */
inline format_names trace_formats()
{
    return {{"text", output_format::text},
            {"json", output_format::json},
            {"jsonl", output_format::jsonl},
            {"folded", output_format::folded},
            {"speedscope", output_format::speedscope}};
}

/** Of processes and core files what the options that all verbs have say of them. */
inline trace_request request_of(const common_options &options, const place_request &places, const std::string &exe)
{
    return {.places = places, .exe = exe, .flags = options.flags(), .search = options.search, .bounds = options.bounds};
}

/** Adds --by. */
inline CLI::Option *add_by_option(CLI::App *verb, frame_detail *by)
{
    static const std::map<std::string, frame_detail> names = {
        {"function", frame_detail::function}, {"line", frame_detail::line}, {"address", frame_detail::address}};
    return verb
        ->add_option_function<std::string>(
            "--by", [by](const std::string &name) { *by = names.at(name); },
            "Frames that count as equal in text, folded and speedscope: those of one function, line or address; "
            "function when not given. Records always have all")
        ->check(CLI::IsMember({"function", "line", "address"}));
}

} // namespace korva::program
