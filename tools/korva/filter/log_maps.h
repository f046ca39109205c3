// SPDX-License-Identifier: Apache-2.0
//
// What lies where in a process, as texts tell it.
#pragma once

#include "module_cache.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace korva::program
{

/** Code of a file in a process. */
struct log_mapping {
    uint64_t start = 0, end = 0;
    uint64_t offset = 0; /**< in the file of what is at start */
    std::string path{};
    std::string build_id{};         /**< hexadecimal digits; empty when not known */
    std::optional<uint64_t> bias{}; /**< what was added to the file's addresses; then offset says nothing */
    bool is_event = false;          /**< told when it was made; else one of a list that ascends */
};

/**
 * The mapping of code that a line tells of, as these write it: /proc/PID/maps, also with text before it; perf script
 * --show-mmap-events; gdb's `info proc mappings`.
 */
std::optional<log_mapping> read_mapping(std::string_view line);

/** A module, by path or name, whose build-id a line tells, as systemd-coredump writes it. */
struct log_build_id {
    std::string_view module, build_id;
};
std::optional<log_build_id> read_build_id(std::string_view line);

/**
 * A module as --modules tells it, a JSON object: "path" and "build_id", or one of them; "start" and "size" of what it
 * takes of the process; "bias", or "offset" in the file of what is at start, else start is where the file begins. Numbers may be
 * strings "0x...". Throws failure with what is wrong.
 */
log_mapping read_module_record(const std::string &line);

/** The last part of a path. */
std::string_view name_of(std::string_view path);

/** Mappings that do not overlap. */
class log_maps
{
public:
    /**
     * Adds a mapping, in the place of those that it overlaps. One of a list that does not ascend begins the list of another
     * process, and the present one is forgotten; so are all when they become too many.
     */
    void add(log_mapping mapping);
    /** The mapping of an address, or NULL. Valid until the next change. */
    const log_mapping *find(uint64_t address) const;
    /** A mapping of the file of that name, or NULL. Likewise. */
    const log_mapping *find(std::string_view name) const;
    /** Notes the build-id of a file by its name, or asks for it: "" when it is not known. */
    void add(const log_build_id &module);
    std::string_view find_build_id(std::string_view name) const;
    void clear();

private:
    void forget_mappings();

    std::map<uint64_t, log_mapping> m_all;                                                // by start
    std::unordered_map<std::string, uint64_t, text_hash, std::equal_to<>> m_starts;       // by name
    std::unordered_map<std::string, std::string, text_hash, std::equal_to<>> m_build_ids; // by name
    uint64_t m_last = 0; // where the last of the list starts
};

} // namespace korva::program
