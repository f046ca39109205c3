// SPDX-License-Identifier: Apache-2.0
//
// korva addr --jsonl: questions about addresses of many files.
#pragma once

#include "command.h"

#include <cstddef>
#include <string>

namespace korva::program
{

struct file_questions {
    std::string input;      /**< a file; empty or "-": standard input */
    size_t most_open = 64;  /**< files at a time */
    unsigned int names = 0; /**< KRV_ELF_FRAMES_F_* */
    size_t most_frames = 0; /**< of one address */
    bool basenames = false;
};

/** Answers each line of the input by a record, in their order. Returns the exit status. */
int answer_files(const common_options &options, const file_questions &asked);

} // namespace korva::program
