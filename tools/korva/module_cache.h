// SPDX-License-Identifier: Apache-2.0
//
// Files that logs and questions speak of, opened when they are first needed, and a bounded number of them at a time.
#pragma once

#include "input.h"
#include "locate.h"
#include "object.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace korva::program
{

/** For tables whose keys are asked for by parts of other texts. */
struct text_hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

/** The same bounds for records each of which is answered as if it were the only one. */
inline cost_bounds for_each_alone(cost_bounds bounds)
{
    bounds.stay = true;
    return bounds;
}

/** An opened file, asked by what logs know. Addresses are the file's. */
class opened_module
{
public:
    struct segment {
        uint64_t address, size, offset, file_size;
        bool is_code;
    };

    /** Throws failure. */
    opened_module(const std::string &path, unsigned int flags, const korva::search &where, const cost_bounds &bounds);

    const object &file() const { return m_file; }
    /** NULL without debugging information. */
    locator *lines() { return m_file.has_debug_info() ? &m_lines : nullptr; }
    const std::string &path() const { return m_file.path(); }
    /** Hexadecimal digits; empty when it has none. */
    const std::string &build_id() const { return m_build_id; }
    bool is_moved() const { return m_is_moved; }     /**< where it is loaded */
    bool is_program() const { return m_is_program; } /**< it names its interpreter */
    /** Those that are loaded. */
    const std::vector<segment> &segments() const { return m_segments; }
    /** Where it begins. */
    uint64_t first_address() const;
    std::optional<uint64_t> address_of_offset(uint64_t file_offset) const;
    /** Where the code begins that takes so many bytes when it is loaded. */
    std::optional<uint64_t> start_of_code(uint64_t size) const;
    bool has_code_at(uint64_t address) const;
    /** Whether the file has the bytes of its code: one of debugging information alone does not. */
    bool has_code() const;
    std::vector<extent> code() const;
    /** Where a function is; @p size chooses between several of one name, as the kernel counts it; 0: the first. */
    std::optional<uint64_t> address_of_symbol(std::string_view name, uint64_t size);
    /** locator::frames. */
    std::span<const krv_elf_frame_t> frames(uint64_t address, unsigned int flags, size_t most);
    /** Why the last has no line. */
    const record_error *refusal() const { return m_lines.refusal(); }

private:
    void read_segments();

    object m_file;
    locator m_lines;
    address_reader m_symbols;
    std::vector<segment> m_segments; // that are loaded
    std::string m_build_id;
    bool m_is_moved = true;
    bool m_is_program = false;
    size_t m_asked = 0;
};

class module_cache
{
public:
    /** At most @p most files are open. @p where lives longer. */
    module_cache(size_t most, unsigned int flags, const korva::search &where, const cost_bounds &bounds)
        : m_most(most), m_flags(flags), m_search(where), m_bounds(bounds)
    {
    }

    /**
     * The file, valid until the next is opened; or NULL, told once and not tried again soon. Only a regular file is opened. With
     * @p is_guess one that is not there is nothing to tell.
     */
    opened_module *open(std::string_view path, bool is_guess = false);
    /**
     * The same by build-id, wherever the loader looks for one; @p kind: KRV_ELF_FIND_*. NULL: told as what is wrong with
     * @p name.
     */
    opened_module *open_build_id(std::string_view name, std::string_view build_id, int kind = KRV_ELF_FIND_ANY);
    /**
     * By path, below the sysroot if it is absolute, unless that has another build-id or is not there, else by build-id. Either
     * may be empty.
     */
    opened_module *find(std::string_view name, std::string_view build_id, int kind = KRV_ELF_FIND_ANY);
    /** Tells of a module once what is wrong with it. */
    void refuse(std::string_view name, std::string_view what);
    /** Why the last that was asked for was not to be had, unless it was a guess; forgets that. */
    std::optional<record_error> take_refusal() { return std::exchange(m_refusal, std::nullopt); }

private:
    struct entry {
        std::unique_ptr<opened_module> file{}; // NULL: not to be had
        std::optional<record_error> refusal{}; // told
        uint64_t used = 0;
    };

    const std::string &path_of(std::string_view build_id, int kind);
    std::unique_ptr<opened_module> open_file(const std::string &path, bool is_guess);
    void forget_some();
    void close_oldest();
    void tell(const std::string &text);

    size_t m_most;
    unsigned int m_flags;
    const korva::search &m_search;
    const cost_bounds m_bounds;
    std::unordered_map<std::string, entry, text_hash, std::equal_to<>> m_entries;
    std::unordered_map<std::string, std::string> m_paths; // by kind and build-id; empty: there is none
    size_t m_open = 0;
    uint64_t m_time = 0;
    size_t m_told = 0;
    std::optional<record_error> m_refusal;
};

} // namespace korva::program
