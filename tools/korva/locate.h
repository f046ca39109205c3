// SPDX-License-Identifier: Apache-2.0
//
// From an address to its function and source line.
#pragma once

#include "object.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace korva::program
{

/** What is known of an address. */
struct location {
    const krv_elf_symbol_t *function = nullptr;
    std::optional<korva::source> source;
    const unit_record *unit = nullptr; /**< that knows the source */
};

/**
 * Finds addresses in the units of a file: in those whose known ranges cover it, then in those whose entries do, and where
 * a file is read as it stands in those whose line tables do; of several the first that knows a line answers. A refused
 * unit that covers an address, or may, is diagnosed, once. Units are read as far as answers need them.
 */
class locator
{
public:
    /** A file without readable units is diagnosed; its functions are found all the same. */
    explicit locator(object *obj);

    location find(uint64_t address);

private:
    enum class outcome { found, absent, refused };
    struct sequence {
        range addresses;
        unit_record *owner;
    };

    std::vector<unit_record> *units();
    void note_ranges_failed(const error &why);
    void refuse_unread();
    bool covers(const unit_record &u, uint64_t address, krv_lookup_flag_t flags);
    void refuse_lines(unit_record &u, const error &why);
    static void learn_lines(unit_record &u);
    outcome ask(unit_record &u, const extent &range, uint64_t address, location *found);
    outcome ask_covering(const extent &range, uint64_t address, location *found);
    outcome ask_sequences(const extent &range, uint64_t address, location *found);
    void index_sequences();
    void index_unit(unit_record &u);

    object *m_object;
    bool m_has_units;
    bool m_ranges_failed = false;
    bool m_indexed = false;
    std::vector<sequence> m_sequences; // of units whose ranges only a look at their entries can tell, ascending
};

} // namespace korva::program
