// SPDX-License-Identifier: Apache-2.0
//
// What a verb of the program is: a function add_NAME that adds its subcommand, with options and help, to the command
// line. The subcommand's call-back does the work and stores the exit status.
#pragma once

#include "libkorva-elf.h"
#include "object.h"
#include "output.h"
#include "status.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace korva::program
{

/** Options that every verb has. */
struct common_options {
    std::string file;
    output_format format = output_format::text;
    bool raw = false;
    bool inflate_any = false;
    bool debuginfod = false;
    korva::search search; /**< where other files are looked for */
    cost_bounds bounds;

    /** How files are opened: KRV_ELF_F_*. */
    unsigned int flags() const
    {
        return (raw ? KRV_ELF_F_RAW : KRV_ELF_F_NONE) | (inflate_any ? KRV_ELF_F_INFLATE_ANY : KRV_ELF_F_NONE) |
               (debuginfod ? KRV_ELF_F_DEBUGINFOD : KRV_ELF_F_NONE);
    }
};

/** For an option that is a number with a point. */
CLI::Validator number_within(double least, double most);

/** Adds --format, with the names of @p formats. */
void add_format_option(CLI::App *verb, common_options *options, const format_names &formats);

/** Adds --inflate-any, those on where other files are, and the bounds of what a record may cost. */
void add_file_options(CLI::App *verb, common_options *options);

/** Adds --format, --raw and those of add_file_options. */
void add_common_options(CLI::App *verb, common_options *options, const format_names &formats);

} // namespace korva::program
