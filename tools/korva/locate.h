// SPDX-License-Identifier: Apache-2.0
//
// From an address to its functions and source lines.
#pragma once

#include "object.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace korva::program
{

/** What is known of an address. */
struct location {
    const krv_elf_symbol_t *function = nullptr;
    std::optional<source_view> source;
    std::optional<unit> owner; /**< the unit that knows the source */
};

/** A frame whose texts are all "". */
krv_elf_frame_t nothing_known();

/**
 * Finds addresses in the units of a file: in those whose known ranges cover it, then in those whose entries do, then in
 * those whose line tables do; of several the first that knows a line answers. A refused unit that covers an address, or
 * may, is diagnosed, once, as is a file without readable units; its functions are found all the same.
 */
class locator
{
public:
    explicit locator(object *obj) : m_object(obj) {}

    /**
     * The functions around an address, innermost first, at most @p most of them; flags: KRV_ELF_FRAMES_F_*. Empty when
     * nothing is known. Valid until the next call.
     */
    std::span<const krv_elf_frame_t> frames(uint64_t address, unsigned int flags, size_t most);

    /** What stood in the way of knowing the line of the last address; NULL: nothing, it is known or not there. */
    const record_error *refusal() const { return m_refusal; }

private:
    location find(uint64_t address);
    std::span<const krv_elf_frame_t> take_symbol(uint64_t address, unsigned int flags);
    enum class outcome { found, absent, refused };
    struct sequence {
        range addresses;
        unit_record *owner;
    };

    bool read_units();
    void note_ranges_failed(const error &why);
    unit_record *record_of(const unit &u);
    unit_record *next_covering(unit_record *behind, uint64_t address, krv_lookup_flag_t flags);
    void refuse_lines(unit_record &u, const error &why);
    static void learn_lines(unit_record &u);
    size_t next_with_lines(size_t number);
    std::optional<source_view> ask_readable(const unit &u, uint64_t address) const;
    extent range_around(uint64_t address, location *found) const;
    outcome ask(unit_record &u, const extent &range, uint64_t address, location *found);
    outcome ask_covering(uint64_t address, location *found);
    outcome ask_sequences(uint64_t address, location *found);
    void index_sequences();
    void index_unit(unit_record &u);

    object *m_object;
    std::vector<krv_elf_frame_t> m_frames;
    const record_error *m_refusal = nullptr;
    record_error m_failed;    // of what concerns all units
    record_error m_limit;     // of the last address that cost too much
    std::string m_limit_name; // its function
    bool m_limit_told = false;
    std::vector<unit_record> *m_units = nullptr; // read when an address is not known at once
    bool m_no_units = false;                     // they cannot be read
    std::vector<unit_record *> m_unranged;       // units whose ranges only a look at their entries can tell
    std::vector<size_t> m_next;                  // of each unit known to have no lines, one to go on with behind it
    bool m_lines_refused = false;                // of any unit
    bool m_ranges_failed = false;
    bool m_indexed = false;
    std::vector<sequence> m_sequences; // of the unranged units, ascending
};

} // namespace korva::program
