// SPDX-License-Identifier: Apache-2.0
//
// From a frame of a stack to its functions and source lines, through the file of its module.
#pragma once

#include "locate.h"
#include "object.h"
#include "stacks.h"

#include <korva.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace korva::program
{

/** A module's file with what is known of its lines; empty when it cannot be opened. */
struct module_file {
    std::unique_ptr<object> file{};
    std::unique_ptr<locator> lines{}; /**< only with debugging information */
};

/** What is wanted of a place. */
struct place_request {
    bool demangle = false;
    bool basenames = false; /**< files without folders */
    bool no_inlines = false;
    bool no_source = false;
};

/** What a frame's address means. */
struct frame_place {
    std::string function{};               /**< empty when not known */
    uint64_t offset = 0;                  /**< of pc in the function */
    std::vector<krv_elf_frame_t> calls{}; /**< inlined there, innermost first, then the function; without no_inlines */
    std::string path{};                   /**< of the innermost; empty when not known */
    uint32_t line = 0;                    /**< likewise; 0 when not known */
};

std::string basename_of(const std::string &path);

/** The build-id in hexadecimal digits; empty when there is none. */
std::string build_id_of(const krv_proc_module_t &module);

/**
 * Opens a module's file; a failure is diagnosed, with @p hint where it is a core file's executable. It is valid as long as
 * the process.
 */
module_file open_module(const process &proc, const krv_proc_module_t &module, const cost_bounds &bounds,
                        const std::string &hint);

/** What the frame's address means in the file of its module. Its calls are valid until the next look-up there. */
frame_place look_up(const module_file &opened, const stack_frame &f, const place_request &wanted);

/** The same of a file that somebody else has opened, where the frame is at @p address; @p lines may be NULL. */
frame_place look_up(const object &file, locator *lines, const stack_frame &f, uint64_t address,
                    const place_request &wanted);

/** The file of a call as it is to be shown; empty when it is not. */
std::string path_of(const krv_elf_frame_t &call, const place_request &wanted);

} // namespace korva::program
