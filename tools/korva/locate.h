// SPDX-License-Identifier: Apache-2.0
//
// From an address to its function and source line.
#pragma once

#include "object.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korva::program
{

/** A source line, as a row of a line table gives it. */
struct source_line {
    std::string path;       /**< empty when not known */
    uint32_t line;          /**< 0 when not known */
    uint16_t column;        /**< 0 when not known */
    uint16_t discriminator; /**< 0 when there is none */
};

/** What is known of an address. */
struct location {
    const krv_elf_symbol_t *function = nullptr;
    std::optional<source_line> source;
};

/**
 * Finds addresses in the units of a file: in those whose known ranges cover it, then in those whose entries do, then in
 * those whose line tables do; of several the first that knows a line answers. A refused unit that covers an address, or
 * may, is diagnosed, once.
 */
class locator
{
public:
    /** A file without readable units is diagnosed; its functions are found all the same. */
    explicit locator(object *obj);

    bool has_units() const { return m_units != nullptr; }
    location find(uint64_t address);

private:
    enum class outcome { found, absent, refused };
    struct sequence {
        uint64_t start, end;
        unit *owner;
    };

    void note_ranges_failed();
    unit &unit_of(krv_ctu_t *cu);
    bool covers(unit &u, uint64_t address, krv_lookup_flag_t flags);
    outcome ask(unit &u, const extent &range, uint64_t address, source_line *source);
    outcome ask_covering(const extent &range, uint64_t address, source_line *source);
    outcome ask_sequences(const extent &range, uint64_t address, source_line *source);
    void index_sequences();
    void index_unit(unit &u);

    object *m_object;
    std::vector<unit> *m_units = nullptr;
    std::vector<unit *> m_unranged; // units whose ranges only a look at their entries can tell
    bool m_ranges_failed = false;
    bool m_indexed = false;
    std::vector<sequence> m_sequences; // of the unranged units, ascending
};

} // namespace korva::program
