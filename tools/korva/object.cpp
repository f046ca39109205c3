// SPDX-License-Identifier: Apache-2.0
#include "object.h"

#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <elf.h>

namespace korva::program
{

// DWARF 5, 7.5.4
static constexpr uint32_t DW_AT_stmt_list = 0x10;

bool object::s_named_cut_file = false;

static elf open_elf(const std::string &path, unsigned int flags, const search &where)
{
    result<elf> opened = elf::open(path.c_str(), flags, where);
    if (!opened)
        throw failure(opened.error().text(), to_record_error(opened.error())); // names the file
    return std::move(*opened);
}

object::object(const std::string &path, unsigned int flags, const search &where, const cost_bounds &bounds)
    : m_path(path), m_bounds(bounds), m_own(open_elf(path, flags, where)), m_elf(*m_own), m_info(m_elf.info())
{
    begin_record();
}

object::object(elf_view elf, const std::string &path, const cost_bounds &bounds)
    : m_path(path), m_bounds(bounds), m_elf(elf), m_info(elf.info())
{
    begin_record();
}

object::~object()
{
    if (file_was_cut == 0)
        return;
    try {
        for (const krv_elf_note_t &note : m_elf.notes())
            if (std::string_view(note.text).ends_with("became shorter while it was read")) {
                diagnose(fmt::format("{}; nothing is known of what is missing", note.text));
                s_named_cut_file = true;
            }
    } catch (const std::bad_alloc &) { // told without the name
    }
}

static void halve(uint64_t *bound)
{
    *bound = (*bound + 1) / 2; // 0 is no bound
}

// Setting one bound begins all.
void object::begin_record()
{
    krv_handle_t *hp = handle().get();
    if (m_bounds.steps != 0)
        korva_handle_set_opt(hp, KRV_OPT_EXT_MAX_STEPS, m_bounds.steps);
    if (m_bounds.bytes != 0)
        korva_handle_set_opt(hp, KRV_OPT_EXT_MAX_BYTES, m_bounds.bytes);
    if (m_bounds.rows != 0)
        korva_handle_set_opt(hp, KRV_OPT_EXT_MAX_ROWS, m_bounds.rows);
    if (m_bounds.milliseconds != 0)
        korva_handle_set_opt(hp, KRV_OPT_EXT_TIMEOUT, m_bounds.milliseconds);
}

void object::end_record(record_status status)
{
    if (status != record_status::limit || m_bounds.stay)
        return;
    halve(&m_bounds.steps);
    halve(&m_bounds.bytes);
    halve(&m_bounds.rows);
    halve(&m_bounds.milliseconds);
}

// The bytes of .debug_info, 0 when the file has none.
static uint64_t get_info_size(const elf_view &elf)
{
    uint64_t size = 0;
    for (const krv_elf_section_t &section : elf.sections())
        if (section.index == KRV_SEC_INFO)
            size = section.size;
    return size;
}

bool object::has_debug_info() const
{
    return get_info_size(m_elf) != 0;
}

bool object::is_linked() const
{
    return m_info.type != ET_REL;
}

void object::diagnose(std::string_view text) const
{
    program::diagnose(fmt::format("{}: {}", m_path, text));
}

void object::refuse(unit_record &u, std::string_view what, const char *section, std::optional<uint64_t> offset,
                    const error &why)
{
    if (!u.refused)
        diagnose(fmt::format("{}: {}", what, why.text()));
    u.refused = true;
    u.why = to_record_error(why, section, offset, u.header.offset);
    end_record(status_of(&u.why));
}

void object::refuse_lines(unit_record &u, const error &why)
{
    const auto first = entry::first(handle(), u.unit);
    const auto table = first ? first->find(DW_AT_stmt_list) : result<attr>(first.error());
    refuse(u, fmt::format("line table of unit at offset 0x{:x}", u.header.offset), ".debug_line",
           table ? std::optional(table->number) : std::nullopt, why);
}

// What the reader noted of a unit.
static std::string get_reason(const elf_view &elf, const unit_record &u)
{
    for (const krv_elf_note_t &note : elf.notes())
        if (note.refused != 0 && note.offset == u.header.offset && note.section == std::string_view(".debug_info"))
            return note.text;
    return fmt::format("unit at offset 0x{:x} of .debug_info cannot be read", u.header.offset);
}

void object::refuse_unread(unit_record &u)
{
    if (!m_unread_refused) {
        const auto others = std::count_if(m_units.begin(), m_units.end(),
                                          [](const unit_record &other) { return !other.is_readable(); }) -
                            1;
        diagnose(fmt::format("{}{}", get_reason(m_elf, u),
                             others == 0 ? "" : fmt::format("; nor are {} other units read", others)));
    }
    m_unread_refused = true;
    u.refused = true;
    u.why = {.code = "KRV_ERR_UNSUPPORTED",
             .section = ".debug_info",
             .offset = u.header.offset,
             .unit = u.header.offset,
             .messages = {get_reason(m_elf, u)}};
}

bool object::diagnose_notes()
{
    bool any = false;
    for (const krv_elf_note_t &note : m_elf.notes())
        if (note.refused != 0 && note.pass != std::string_view("reading")) {
            diagnose(note.text);
            m_faults.push_back({.section = note.section, .offset = note.offset, .messages = {note.text}});
            any = true;
        }
    return !any;
}

void object::record_faults(answers *out) const
{
    for (const record_error &why : m_faults)
        out->record_failure(why);
}

std::optional<extent> object::find_section(const std::string &name) const
{
    for (const krv_elf_section_t &section : m_elf.sections())
        if (section.name == name)
            return extent{section.address, section.size};
    return {};
}

void object::read_units()
{
    const uint64_t info_size = get_info_size(m_elf);
    if (info_size == 0)
        throw failure(fmt::format("{}: no debugging information (.debug_info)", m_path),
                      {.code = "KRV_ERR_NOTFOUND", .section = ".debug_info"});

    std::vector<korva::unit> found;
    const progress shown(fmt::format("{}: reading units", m_path), 0, progress::mode::silent);
    // The call-back asks the handle nothing: what the reader said about the end of the table must stay in it.
    if (const auto all = handle().each_unit([&](const korva::unit &u) { found.push_back(u); }); !all)
        throw failure(fmt::format("{}: no unit can be read: {}", m_path, all.error().text()),
                      to_record_error(all.error(), ".debug_info"));
    const error end = last_error(handle().get());

    for (const korva::unit &u : found) {
        const auto header = u.header();
        if (!header)
            throw failure(fmt::format("{}: no unit header: {}", m_path, header.error().text()),
                          to_record_error(header.error(), ".debug_info"));
        m_units.push_back({.unit = u, .header = *header, .kind = u.kind().value_or({}), .lines = {}});
    }
    const krv_cu_header_t &last = m_units.back().header;
    m_complete = last.offset + last.size == info_size;
    if (m_complete)
        return;
    const uint64_t end_offset = last.offset + last.size;
    const std::string text = fmt::format(
        "unit table ends early, at offset 0x{:x} of 0x{:x} of .debug_info: the units behind it cannot be read{}",
        end_offset, info_size, end.messages.empty() ? "" : ": " + end.text()); // else an earlier question was told why
    diagnose(text);
    m_faults.push_back(to_record_error(end, ".debug_info", end_offset));
    m_faults.back().messages = {text};
}

std::vector<unit_record> &object::units()
{
    if (m_units.empty())
        read_units();
    return m_units;
}

} // namespace korva::program
