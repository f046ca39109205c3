// SPDX-License-Identifier: Apache-2.0
//
// The way of an answer: what is asked, what was found on the way so far, and the steps that tell of it.
#pragma once

#include "locate.h"
#include "output.h"

#include <korva.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korva::program::explanation
{

/** One step: lines for people, fields for programs. */
struct step {
    const char *name;                        /**< in front of its lines */
    const char *key;                         /**< in JSON */
    std::vector<std::string> lines{};        /**< empty: there is nothing to say to people */
    json_value fields = json_value(nullptr); /**< null: it was not taken */

    template <typename... T>
    void say(fmt::format_string<T...> format, T &&...args)
    {
        lines.push_back(fmt::format(format, std::forward<T>(args)...));
    }
};

/** An address in the memory of a process. */
struct loaded_place {
    const process *proc;
    const krv_proc_module_t *module;
    uint64_t pc;                             /**< as it was asked for */
    const krv_proc_frame_t *frame = nullptr; /**< of a thread that is there, with its registers; NULL: none is */
    int tid = 0;                             /**< of that thread */
};

/** What is asked, and what the steps have found for those that follow. */
struct trail {
    object *file;
    locator *lines;
    uint64_t address; /**< of the file, that is looked up */
    unsigned int frame_flags = 0;
    std::optional<loaded_place> loaded{};
    unsigned int context = 2; /**< lines of source around the one that answers */

    std::vector<krv_elf_frame_t> frames{};      /**< the answer, as korva addr has it */
    std::vector<krv_elf_section_t> sections{};  /**< of the file */
    const krv_elf_section_t *section = nullptr; /**< that holds the address */
    bool is_mapped = false;                     /**< a segment or section does */
    std::optional<krv_unit_why_t> unit{};       /**< what named a unit, or that none does */
    std::vector<std::string> stopped{};         /**< why something is not known */
    std::vector<std::string> help{};            /**< what would help */

    std::string between{};                 /**< functions of the symbol table that no other lies between */
    const record_error *refusal = nullptr; /**< what korva addr would tell of a failure */

    const krv_proc_frame_t *frame() const { return loaded ? loaded->frame : nullptr; }
    /** In a section of code that compilers made. */
    bool is_plain_code() const
    {
        return section != nullptr && section->executable != 0 && !std::string_view(section->name).starts_with(".plt");
    }
    handle_view handle() const { return file->handle(); }
    template <typename... T>
    void stop(fmt::format_string<T...> format, T &&...args)
    {
        stopped.push_back(fmt::format(format, std::forward<T>(args)...));
    }
};

/** The steps, in their order. Each reads the trail and adds what it finds. */
step explain_place(trail &t);
step explain_debug_file(trail &t);
step explain_unit(trail &t);
step explain_line(trail &t);
step explain_functions(trail &t);
step explain_symbol(trail &t);
step explain_frame(trail &t);

/** "0x10..0x20": the second is the first address behind. */
std::string range_text(uint64_t start, uint64_t end);
json_value range_record(uint64_t start, uint64_t end);

} // namespace korva::program::explanation
