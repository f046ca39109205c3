// SPDX-License-Identifier: Apache-2.0
//
// From what a log says of an address to a file and an address in it.
#pragma once

#include "filter/log_maps.h"
#include "filter/log_scan.h"
#include "module_cache.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::program
{

struct place_options {
    std::vector<std::string> files; /**< that addresses may be of, whatever their paths are in the log */
    cost_bounds bounds;             /**< of what an address may cost */
    korva::search search;           /**< for files by build-id; its sysroot stands before absolute paths */
    size_t most_open = 64;
    unsigned int flags = 0; /**< KRV_ELF_F_* */
    bool open_paths = true; /**< that the log alone names */
};

/** A file and an address in it; valid until the next question. */
struct log_place {
    opened_module *module = nullptr;
    uint64_t address = 0;
};

class log_places
{
public:
    /** Throws failure where one of the given files cannot be read. */
    explicit log_places(const place_options &options);

    /** Mappings that the user gave. */
    log_maps &given() { return m_given; }
    /** Those that stand in the log. */
    log_maps &seen() { return m_seen; }

    /**
     * Where an address is. Nothing: nobody says that there is code, it may be any number. No module: its file is not to be
     * had, which is told, or has no such place.
     */
    std::optional<log_place> find(const log_address &a);
    /** Why the file of the last was not to be had; forgets that. */
    std::optional<record_error> take_refusal() { return m_cache.take_refusal(); }

private:
    struct given_file {
        std::string path, name, build_id;
        uint64_t bias;            // of a program, as far as it is known
        std::vector<extent> code; // of a program
    };

    opened_module *find_module(std::string_view name, std::string_view build_id, bool may_open);
    opened_module *find_named(std::string_view name, std::string_view build_id);
    opened_module *find_kernel(std::string_view name);
    std::optional<log_place> find_in_memory(uint64_t address, std::string_view module);
    static std::optional<uint64_t> address_in(opened_module *module, const log_address &a);

    const place_options &m_options;
    module_cache m_cache;
    std::vector<given_file> m_files;
    log_maps m_given, m_seen;
};

} // namespace korva::program
