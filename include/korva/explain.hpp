// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: how answers were come by, and records as they stand.
 */
#ifndef KORVA_EXPLAIN_HPP
#define KORVA_EXPLAIN_HPP

#include <cstdint>
#include <vector>

#include "entries.hpp"
#include "error.hpp"
#include "expression.hpp"
#include "handle.hpp"

namespace korva
{

/** Which unit an address leads to, and what named it. See korva_explain_unit. */
inline result<krv_unit_why_t> explain_unit(handle_view handle, std::uint64_t address)
{
    krv_unit_why_t why;
    if (korva_explain_unit(handle.get(), address, &why) != 0)
        return last_error(handle.get());
    return why;
}

/** The row for an address of a unit, with its neighbours. See korva_explain_row. */
inline result<krv_row_why_t> explain_row(handle_view handle, const unit &of, range within, std::uint64_t address)
{
    krv_row_why_t why;
    if (korva_explain_row(handle.get(), of.get(), within.start, within.end - within.start, address, &why) != 0)
        return last_error(handle.get());
    return why;
}

/** Where the names of a function stand. See korva_explain_name. */
inline result<krv_name_why_t> explain_name(handle_view handle, const krv_entry_t &function)
{
    krv_name_why_t why;
    if (korva_explain_name(handle.get(), &function, &why) != 0)
        return last_error(handle.get());
    return why;
}

/** How the caller of a frame is found. */
struct frame_why {
    krv_frame_why_t records = {};
    std::vector<krv_rule_record_t> rules; /**< the CFA's first */
};

/** By which records and rules the caller of a frame at @p pc is found. See korva_explain_frame. */
inline result<frame_why> explain_frame(handle_view handle, std::uint64_t pc)
{
    frame_why why;
    why.rules.resize(64);
    for (;;) {
        std::size_t count = 0;
        if (korva_explain_frame(handle.get(), pc, &why.records, why.rules.data(), why.rules.size(), &count) != 0)
            return last_error(handle.get());
        const bool fits = count <= why.rules.size();
        why.rules.resize(count);
        if (fits)
            return why;
    }
}

/** A cursor over a section as it was attached. See korva_get_section. */
inline result<krv_fd_t> section_of(handle_view handle, krv_secidx_t section)
{
    krv_fd_t fd;
    if (korva_get_section(handle.get(), section, &fd) != 0)
        return last_error(handle.get());
    return fd;
}

/** A record of call-frame information, read whole; the activation is overwritten. See korva_frame_record_at. */
inline result<krv_frame_record_t> frame_record_at(handle_view handle, const activation &scratch, std::uint64_t offset)
{
    krv_frame_record_t record;
    if (korva_frame_record_at(handle.get(), scratch.get(), offset, &record) != 0)
        return last_error(handle.get());
    return record;
}

} // namespace korva

#endif // KORVA_EXPLAIN_HPP
