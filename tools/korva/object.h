// SPDX-License-Identifier: Apache-2.0
//
// An opened file: its handle, its compilation units, and everything that can go wrong with them put into words.
#pragma once

#include "output.h"

#include <korva.hpp>

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korva::program
{

/** Set by the handler of SIGBUS: some file became shorter while it was read. */
inline volatile std::sig_atomic_t file_was_cut = 0;

/** A compilation unit and what the program knows of it. */
struct unit_record {
    korva::unit unit;
    krv_cu_header_t header = {};
    krv_cu_kind_t kind = {};
    bool refused = false;       /**< its failure has been told; it is not asked again */
    record_error why = {};      /**< that failure */
    std::optional<range> lines; /**< the addresses that its line table speaks of, once that was asked in vain */

    bool is_readable() const { return kind.kind != 0; }
};

/** What the questions of one record may cost: KRV_OPT_EXT_MAX_STEPS and the others; 0 is anything. */
struct cost_bounds {
    uint64_t steps = 0;
    uint64_t bytes = 0;
    uint64_t rows = 0;
    uint64_t milliseconds = 0;
    bool stay = false; /**< a record that ran into one does not lessen what others may cost */
};

/** An address range. */
struct extent {
    uint64_t address;
    uint64_t size;
};

class object
{
public:
    /** Opens @p path; @p flags: KRV_ELF_F_*. @p where, if it tells of progress, lives longer. Throws failure. */
    object(const std::string &path, unsigned int flags, const search &where = {}, const cost_bounds &bounds = {});
    /** Looks at a file that somebody else has opened and will close, later. */
    object(elf_view elf, const std::string &path, const cost_bounds &bounds = {});
    /** Tells if the file became shorter while it was read. */
    ~object();
    object(const object &) = delete;
    object &operator=(const object &) = delete;

    /** Whether a record may not cost anything it likes. */
    bool is_bounded() const { return (m_bounds.steps | m_bounds.bytes | m_bounds.rows | m_bounds.milliseconds) != 0; }
    /** What is asked from now on is asked for another record. */
    void begin_record();
    /**
     * How the record ended. One that ran into a bound halves what those behind it may cost: a hostile file costs a batch
     * little more than twice the bound.
     */
    void end_record(record_status status);

    const std::string &path() const { return m_path; }
    const elf_view &elf() const { return m_elf; }
    handle_view handle() const { return m_elf.handle(); }
    /** Hexadecimal digits of an address of the target. */
    int address_digits() const { return m_info.target == KRV_ACTIVATION_I386 ? 8 : 16; }
    /** Whether a linker has placed its code: then no code lies at address 0. */
    bool is_linked() const;
    bool has_debug_info() const;
    /** Whether any object told that. */
    static bool has_named_cut_file() { return s_named_cut_file; }

    /**
     * The units in section order, read on first use; throws failure when none can be read. A unit table that ends
     * early is diagnosed, and is_complete() is false afterwards.
     */
    std::vector<unit_record> &units();
    bool is_complete() const { return m_complete; }

    /** Prints a diagnostic that names the file. */
    void diagnose(std::string_view text) const;
    /** Tells once what of a unit cannot be read, which is in @p section at @p offset, and why, and marks the unit. */
    void refuse(unit_record &u, std::string_view what, const char *section, std::optional<uint64_t> offset,
                const error &why);
    /** The same of its line table. */
    void refuse_lines(unit_record &u, const error &why);
    /** The same for a unit that is not readable, and why. Told once for all such units. */
    void refuse_unread(unit_record &u);
    /** Tells what the loader could not present, apart from what questions meet. False when there was anything. */
    bool diagnose_notes();
    /** What was told of the file as a whole, as records. */
    void record_faults(answers *out) const;

    /** A section of the file, or nothing. */
    std::optional<extent> find_section(const std::string &name) const;

private:
    void read_units();

    static bool s_named_cut_file;

    std::string m_path;
    cost_bounds m_bounds;
    std::optional<korva::elf> m_own; // unless somebody else owns it
    elf_view m_elf;
    krv_elf_info_t m_info;
    std::vector<unit_record> m_units;
    bool m_complete = true;
    bool m_unread_refused = false;      // told
    std::vector<record_error> m_faults; // of the whole
};

} // namespace korva::program
