// SPDX-License-Identifier: Apache-2.0
//
// Units, their entries with all values, and what these lead to: entries, lists, expressions, files. Entries are walked once; only
// where a reference leads to none, once more to find who refers.
#include "check/bitmap.h"
#include "check/subject.h"
#include "progress.h"
#include "visitor.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <unordered_map>

namespace korva::program::check
{

namespace
{

constexpr uint32_t DW_TAG_subprogram = 0x2e;
constexpr uint32_t DW_AT_stmt_list = 0x10, DW_AT_low_pc = 0x11, DW_AT_high_pc = 0x12, DW_AT_decl_file = 0x3a,
                   DW_AT_ranges = 0x55, DW_AT_call_file = 0x58;
constexpr uint16_t DW_FORM_ref_addr = 0x10;
// Attributes whose value may be an expression or a location list (DWARF 5, 7.5.4), in any version.
constexpr uint32_t LOCATIONS[] = {0x02, 0x19, 0x2a, 0x38, 0x40, 0x46, 0x48, 0x4a, 0x4d};
constexpr uint32_t DW_AT_data_member_location = 0x38; // a constant in DWARF 3 too

bool is_location(uint32_t attribute)
{
    return std::find(std::begin(LOCATIONS), std::end(LOCATIONS), attribute) != std::end(LOCATIONS);
}

/** The section that entries stand in. */
struct entry_section {
    entry_section(const char *section, uint64_t bytes) : name(section), size(bytes), starts(bytes), targets(bytes) {}

    const char *name;
    uint64_t size;
    bitmap starts;  /**< where entries begin, and, where they could not be read, everywhere */
    bitmap targets; /**< what references lead to */
};

/** What an entry says of its code. */
struct code_place {
    std::optional<uint64_t> low, high, list;
    bool is_length = false;
};

/** How many files the line table of a unit has, once that was asked. */
struct file_numbers {
    bool asked = false, known = false;
    uint64_t first = 0, count = 0;
};

class entry_checker
{
public:
    explicit entry_checker(subject *of);

    void run();

private:
    struct parent {
        uint32_t depth;
        size_t first_range, ranges; // in m_nested: ascending, apart from each other
    };

    template <typename Visit>
    bool each_entry(const korva::unit &unit, const Visit &visit);
    void walk(unit_facts *unit, entry_section *in);
    void walk_on(const korva::unit &unit, uint64_t behind);
    void visit(const krv_entry_t &entry, const krv_attr_t *attrs, size_t count);
    void check_value(const krv_entry_t &entry, const krv_attr_t &attr, code_place *code);
    void check_reference(const krv_entry_t &entry, const krv_attr_t &attr);
    void check_signature(const krv_entry_t &entry, const krv_attr_t &attr);
    void check_file(const krv_entry_t &entry, const krv_attr_t &attr);
    void check_expression(uint64_t entry, krv_fd_t bytes);
    void check_expression(uint64_t entry, const krv_attr_t &attr);
    void check_locations(uint64_t entry, uint64_t list);
    bool read_ranges(uint64_t entry, const code_place &code);
    void check_code(const krv_entry_t &entry, const code_place &code);
    void check_nesting(const krv_entry_t &entry, const parent &around);
    void check_type_units();
    void check_dangling(entry_section *in);
    void check_overlaps();

    void add(kind what, uint64_t offset, std::vector<std::string> messages)
    {
        m_of->found().add(what, {.section = m_in->name, .offset = offset, .unit = m_unit->header.offset},
                          std::move(messages));
    }
    void add(kind what, uint64_t offset, std::string message) { add(what, offset, std::vector{std::move(message)}); }
    void add_last(kind what, uint64_t offset) { add(what, offset, last_messages(m_of->handle())); }
    /** Whether a list may be read; told once when it may not. */
    bool affords(uint64_t left);

    subject *m_of;
    krv_handle_t *m_hp;
    entry_section m_info, m_types, m_alternate;
    entry_section *m_in; // of what is walked
    unit_facts *m_unit = nullptr;
    file_numbers m_files;                            // of the unit
    bool m_unit_has_ranges = false;                  // its first entry tells some
    std::vector<range> m_ranges;                     // of the entry
    std::vector<range> m_nested;                     // of the entries around it that have some
    std::vector<parent> m_parents;                   // these
    std::vector<stretch> m_functions;                // by the offsets of their entries
    std::unordered_map<uint64_t, bool> m_signatures; // whether there is a unit
    std::vector<unit_facts> m_type_units;            // of .debug_types
    uint64_t m_list_budget;                          // bytes of lists that may still be read
    bool m_told_budget = false;
};

} // namespace

entry_checker::entry_checker(subject *of)
    : m_of(of), m_hp(of->handle().get()), m_info(".debug_info", of->size_of(KRV_SEC_INFO)),
      m_types(".debug_types", of->size_of(KRV_SEC_TYPES)),
      m_alternate(".debug_info", of->size_of(KRV_SEC_EXT_ALT_INFO)), m_in(&m_info)
{
    uint64_t lists = 0;
    for (const krv_secidx_t section : {krv_secidx_t{KRV_SEC_EXT_RANGES}, krv_secidx_t{KRV_SEC_EXT_RNGLISTS},
                                       krv_secidx_t{KRV_SEC_LOC}, krv_secidx_t{KRV_SEC_EXT_LOCLISTS}})
        lists += of->size_of(section);
    m_list_budget = 2 * lists + (1 << 20); // compilers share few
}

bool entry_checker::affords(uint64_t left)
{
    if (left != 0 || m_told_budget)
        return left != 0;
    m_told_budget = true;
    m_of->found().add(kind::unchecked, {}, "lists of ranges and locations: entries share them too often");
    return false;
}

// ---------------------------------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------------------------------

static std::string name_of(krv_handle_t *hp, const krv_attr_t &attr)
{
    const char *name = korva_print_define(hp, KRV_DEF_AT, attr.attribute);
    return name == nullptr ? fmt::format("attribute 0x{:x}", attr.attribute) : name;
}

void entry_checker::check_reference(const krv_entry_t &entry, const krv_attr_t &attr)
{
    const bool is_alternate = attr.is_alternate != 0;
    entry_section *to = is_alternate ? &m_alternate : attr.form == DW_FORM_ref_addr ? &m_info : m_in;
    if (is_alternate && to->size == 0)
        return; // its file was not found, which is noted
    if (attr.number >= to->size) {
        add(kind::reference, entry.offset,
            fmt::format("{} 0x{:x} leads out of {}{}", name_of(m_hp, attr), attr.number, to->name,
                        is_alternate ? " of the alternate file" : ""));
        return;
    }
    if (is_alternate && !to->targets.has(attr.number)) { // its entries are not walked, but it has to have one there
        krv_entry_t there;
        if (korva_entry_at(m_hp, KRV_SEC_EXT_ALT_INFO, attr.number, &there) != 0)
            add_last(kind::reference, entry.offset);
    }
    to->targets.set(attr.number);
}

void entry_checker::check_signature(const krv_entry_t &entry, const krv_attr_t &attr)
{
    auto known = m_signatures.find(attr.number);
    if (known == m_signatures.end()) {
        krv_entry_t type;
        known = m_signatures.emplace(attr.number, korva_entry_follow(m_hp, &entry, &attr, &type) == 0).first;
    }
    if (!known->second)
        add(kind::type_signature, entry.offset, fmt::format("no type unit has the signature 0x{:016x}", attr.number));
}

void entry_checker::check_file(const krv_entry_t &entry, const krv_attr_t &attr)
{
    if (!m_files.asked) {
        m_files.asked = true;
        const result<krv_lnph_t *> header = m_unit->unit.line_header();
        const result<uint32_t> first = header ? m_unit->unit.first_file_number() : result<uint32_t>(header.error());
        m_files.known = first && korva_get_fields(m_hp, KRV_STRUCT_LNPH, *header, 1, KRV_FIELD_LNPH_FILES_ENTRIES,
                                                  &m_files.count) == 0;
        m_files.first = m_files.known ? *first : 0;
    }
    const bool is_none = attr.number == 0 && m_files.first == 1; // not known
    if (m_files.known && !is_none && (attr.number < m_files.first || attr.number - m_files.first >= m_files.count))
        add(kind::entry_file, entry.offset,
            fmt::format("{} is {}; files of the line table: {}", name_of(m_hp, attr), attr.number, m_files.count));
}

static int ignore_operation(krv_handle_t *, uint8_t, krv_operand_t *, unsigned, void *)
{
    return 0;
}

void entry_checker::check_expression(uint64_t entry, krv_fd_t bytes)
{
    const uint32_t flags = m_unit->header.dwarf64 != 0 ? KRV_EXPR_F_DWARF64 : 0;
    if (korva_expr_iter_instruction(m_hp, &bytes, flags, ignore_operation, nullptr) != 0)
        add_last(kind::expression, entry);
}

void entry_checker::check_expression(uint64_t entry, const krv_attr_t &attr)
{
    krv_fd_t fd = {};
    fd.sfd_hp = m_hp;
    if (attr.size != 0 &&
        korva_fd_attach(m_hp, &fd, attr.size, KRV_FD_TYPE_MEMORY, const_cast<uint8_t *>(attr.bytes)) == 0)
        check_expression(entry, fd);
}

void entry_checker::check_locations(uint64_t entry, uint64_t list)
{
    if (!affords(m_list_budget))
        return;
    uint64_t size = 0;
    std::optional<range> inverted;
    visitor each([&](const krv_location_t &location) {
        check_expression(entry, location.expression);
        if (location.start > location.end && m_of->is_code(location.start))
            inverted = range{location.start, location.end};
    });
    const int read = korva_iter_locations(
        m_hp, m_unit->unit.get(), list, 0,
        [](krv_handle_t *, const krv_location_t *location, void *arg) {
            return (*static_cast<decltype(each) *>(arg))(*location) ? 0 : 1;
        },
        &each, &size);
    if (read < 0)
        add_last(kind::location_list, entry);
    each.rethrow();
    m_list_budget -= std::min(m_list_budget, size + 1);
    if (inverted)
        add(kind::location_list, entry,
            fmt::format("a location from 0x{:x} ends at 0x{:x}, before it begins", inverted->start, inverted->end));
}

void entry_checker::check_value(const krv_entry_t &entry, const krv_attr_t &attr, code_place *code)
{
    const bool is_offset =
        attr.kind == KRV_ATTR_SECTION || (attr.kind == KRV_ATTR_CONSTANT && m_unit->header.version < 4 &&
                                          (attr.form == 0x06 || attr.form == 0x07)); // data4, data8
    switch (attr.attribute) {
    case DW_AT_low_pc:
        if (attr.kind == KRV_ATTR_ADDRESS && !code->low)
            code->low = attr.number;
        return;
    case DW_AT_high_pc:
        if (!code->high && (attr.kind == KRV_ATTR_ADDRESS || attr.kind == KRV_ATTR_CONSTANT)) {
            code->high = attr.number;
            code->is_length = attr.kind == KRV_ATTR_CONSTANT;
        }
        return;
    case DW_AT_ranges:
        if (is_offset && !code->list)
            code->list = attr.number;
        return;
    case DW_AT_stmt_list:
        if (is_offset && entry.depth == 0)
            m_unit->line_table = attr.number;
        return;
    case DW_AT_decl_file:
    case DW_AT_call_file:
        if (attr.kind == KRV_ATTR_CONSTANT)
            check_file(entry, attr);
        return;
    default:
        break;
    }
    switch (attr.kind) {
    case KRV_ATTR_REFERENCE:
        check_reference(entry, attr);
        break;
    case KRV_ATTR_SIGNATURE:
        check_signature(entry, attr);
        break;
    case KRV_ATTR_EXPRESSION:
        check_expression(entry.offset, attr);
        break;
    case KRV_ATTR_BLOCK:
        if (m_unit->header.version < 4 && is_location(attr.attribute))
            check_expression(entry.offset, attr);
        break;
    default:
        if (is_offset && is_location(attr.attribute) &&
            (attr.kind == KRV_ATTR_SECTION || attr.attribute != DW_AT_data_member_location))
            check_locations(entry.offset, attr.number);
        break;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Code
// ---------------------------------------------------------------------------------------------------------------

// Fills m_ranges, ascending, with what is code. False: there is none.
bool entry_checker::read_ranges(uint64_t entry, const code_place &code)
{
    m_ranges.clear();
    if (code.list) {
        if (!affords(m_list_budget))
            return false;
        uint64_t size = 0;
        visitor each([&](const krv_range_t &r) { m_ranges.push_back({r.start, r.end}); });
        const int read = korva_iter_ranges(
            m_hp, m_unit->unit.get(), *code.list,
            [](krv_handle_t *, const krv_range_t *r, void *arg) {
                return (*static_cast<decltype(each) *>(arg))(*r) ? 0 : 1;
            },
            &each, &size);
        if (read < 0)
            add_last(kind::range_list, entry);
        each.rethrow();
        m_list_budget -= std::min(m_list_budget, size + 1);
        std::sort(m_ranges.begin(), m_ranges.end(), [](const range &a, const range &b) { return a.start < b.start; });
    } else if (code.low && code.high && m_of->is_code(*code.low)) {
        const uint64_t end = code.is_length ? *code.low + *code.high : *code.high;
        if (end < *code.low)
            add(kind::range_list, entry,
                fmt::format("from 0x{:x} up to 0x{:x}: ends before it begins", *code.low, end));
        else if (end != *code.low && !m_of->is_code(end - 1))
            add(kind::range_list, entry,
                fmt::format("from 0x{:x} up to 0x{:x}: leads out of the file's code", *code.low, end));
        else if (end != *code.low)
            m_ranges.push_back({*code.low, end});
    }
    return !m_ranges.empty();
}

void entry_checker::check_nesting(const krv_entry_t &entry, const parent &around)
{
    const range *const first = m_nested.data() + around.first_range, *const end = first + around.ranges;
    for (const range &inner : m_ranges) {
        const range *outer =
            std::upper_bound(first, end, inner.start, [](uint64_t address, const range &r) { return address < r.end; });
        if (outer != end && outer->start <= inner.start && inner.end <= outer->end)
            continue;
        const uint64_t from = outer != end && outer->start <= inner.start ? outer->end : inner.start;
        add(kind::range_nesting, entry.offset,
            fmt::format("covers 0x{:x}, up to 0x{:x}, which the entry around it does not", from, inner.end));
        return;
    }
}

void entry_checker::check_code(const krv_entry_t &entry, const code_place &code)
{
    while (!m_parents.empty() && m_parents.back().depth >= entry.depth) {
        m_nested.resize(m_parents.back().first_range);
        m_parents.pop_back();
    }
    if (!(code.low || code.list) || !read_ranges(entry.offset, code))
        return;
    // A function that stands in another one need not be within it.
    if (!m_parents.empty() && (entry.tag != DW_TAG_subprogram || m_parents.back().depth == 0))
        check_nesting(entry, m_parents.back());
    if (m_in == &m_info) {
        const auto number = static_cast<uint64_t>(m_unit - m_of->units.data());
        if (entry.depth == 0)
            m_unit_has_ranges = true;
        for (const range &r : m_ranges) {
            if (entry.depth == 0 || (entry.tag == DW_TAG_subprogram && !m_unit_has_ranges))
                m_of->unit_ranges.push_back({r.start, r.end, number});
            if (entry.tag == DW_TAG_subprogram)
                m_functions.push_back({r.start, r.end, entry.offset});
        }
        m_unit->has_code = true;
    }
    const size_t first = m_nested.size(); // what touches is one
    for (const range &r : m_ranges)
        if (m_nested.size() != first && r.start <= m_nested.back().end)
            m_nested.back().end = std::max(m_nested.back().end, r.end);
        else
            m_nested.push_back(r);
    m_parents.push_back({entry.depth, first, m_nested.size() - first});
}

void entry_checker::check_overlaps()
{
    subject &of = *m_of;
    sort_stretches(&of.unit_ranges);
    std::vector<bool> told(of.units.size());
    each_overlap(of.unit_ranges, [&](const stretch &a, const stretch &b) {
        if (a.owner == b.owner || told[b.owner])
            return;
        told[b.owner] = true;
        const uint64_t offset = of.units[b.owner].header.offset;
        of.found().add(kind::unit_overlap, {.offset = offset, .unit = offset},
                       fmt::format("the unit at 0x{:x} covers 0x{:x} too", of.units[a.owner].header.offset, b.start));
    });
    sort_stretches(&m_functions);
    each_overlap(m_functions, [&](const stretch &a, const stretch &b) {
        if (a.owner != b.owner)
            of.found().add(kind::function_overlap, {.offset = b.owner},
                           fmt::format("the function at 0x{:x} covers 0x{:x} too", a.owner, b.start));
    });
}

// ---------------------------------------------------------------------------------------------------------------
// Walks
// ---------------------------------------------------------------------------------------------------------------

void entry_checker::visit(const krv_entry_t &entry, const krv_attr_t *attrs, size_t count)
{
    ++m_of->found().read.entries;
    m_in->starts.set(entry.offset);
    code_place code;
    for (size_t i = 0; i < count; ++i)
        check_value(entry, attrs[i], &code);
    check_code(entry, code);
}

// False, with the handle's error: not all entries could be read.
template <typename Visit>
bool entry_checker::each_entry(const korva::unit &unit, const Visit &visit_entry)
{
    visitor each(visit_entry);
    const int walked = korva_iter_entries(
        m_hp, unit.get(),
        [](krv_handle_t *, const krv_entry_t *entry, const krv_attr_t *attrs, size_t count, void *arg) {
            return (*static_cast<decltype(each) *>(arg))(*entry, attrs, count) ? 0 : 1;
        },
        &each);
    each.rethrow();
    return walked == 0;
}

void entry_checker::walk(unit_facts *unit, entry_section *in)
{
    m_unit = unit;
    m_in = in;
    m_files = {};
    m_unit_has_ranges = false;
    m_parents.clear();
    m_nested.clear();
    uint64_t last = 0; // entry that was visited
    const bool is_whole = each_entry(unit->unit, [&](const krv_entry_t &entry, const krv_attr_t *attrs, size_t count) {
        last = entry.offset;
        visit(entry, attrs, count);
    });
    if (!is_whole)
        walk_on(unit->unit, last);
}

// Behind the entry at an offset, from the one that cannot be read on: what of it can, and what follows it.
void entry_checker::walk_on(const korva::unit &unit, uint64_t behind)
{
    krv_entry_t entry;
    const uint64_t end = m_unit->header.offset + m_unit->header.size;
    if (korva_entry_first(m_hp, unit.get(), &entry) != 0) {
        add_last(kind::entry, m_unit->header.offset);
        m_in->starts.set(m_unit->header.offset, std::min(end, m_in->size));
        return;
    }
    std::vector<krv_attr_t> attrs;
    for (;;) {
        if (entry.offset > behind) {
            krv_entry_t reading = entry;
            krv_attr_t attr;
            int read;
            attrs.clear();
            while ((read = korva_entry_next_attr(m_hp, &reading, &attr)) == 1)
                attrs.push_back(attr);
            if (read < 0)
                add_last(kind::entry, entry.offset);
            visit(entry, attrs.data(), attrs.size());
        }
        const uint64_t from = entry.offset;
        if (korva_entry_next(m_hp, &entry) == 0)
            continue;
        if (korva_handle_get_errno(m_hp) == KRV_ERR_NOTFOUND)
            return;
        if (!m_of->found().has_fault_at(m_in->name, from))
            add_last(kind::entry, from);
        m_in->starts.set(from, std::min(end, m_in->size)); // who refers to what is not known is not at fault
        return;
    }
}

// Type units of DWARF 4, by their signatures: nothing else leads there.
void entry_checker::check_type_units()
{
    const section_bytes bytes(m_of->handle(), KRV_SEC_TYPES);
    krv_entry_t from = {};
    const auto readable = std::find_if(m_of->units.begin(), m_of->units.end(), [&](const unit_facts &u) {
        return u.kind.kind != 0 && korva_entry_first(m_hp, u.unit.get(), &from) == 0;
    });
    if (bytes.size() == 0 || readable == m_of->units.end())
        return;
    for (uint64_t at = 0; at < bytes.size();) {
        byte_reader header = bytes.read(at);
        unsigned width = 4;
        const uint64_t length = header.unit_length(&width);
        const uint64_t size = header.at() - at + length;
        header.limit(length);
        krv_cu_header_t facts = {};
        facts.offset = at;
        facts.size = size;
        facts.version = static_cast<uint16_t>(header.number(2));
        facts.abbrev_offset = header.number(width);
        facts.address_size = static_cast<uint8_t>(header.number(1));
        facts.dwarf64 = width == 8;
        krv_attr_t attr = {};
        attr.kind = KRV_ATTR_SIGNATURE;
        attr.number = header.number(8);
        const uint64_t type = header.number(width);
        if (header.failed() || facts.version != 4) {
            m_of->found().add(kind::unit_header, {.section = m_types.name, .offset = at, .unit = at},
                              header.failed() ? "the type unit is cut off" : "the type unit is not of version 4");
            return;
        }
        krv_entry_t there;
        ++m_of->found().read.units;
        if (korva_entry_follow(m_hp, &from, &attr, &there) != 0) {
            m_of->found().add(kind::unit_header, {.section = m_types.name, .offset = at, .unit = at},
                              last_messages(m_of->handle()));
            m_types.starts.set(at, std::min(at + size, m_types.size));
        } else {
            // Another unit may have the signature, and then is the one that is found.
            unit_facts facts_of{.unit = korva::unit(m_hp, there.unit), .header = facts, .kind = {}};
            if (there.offset == at + type)
                walk(&facts_of, &m_types);
            else
                m_types.starts.set(at, std::min(at + size, m_types.size));
            m_type_units.push_back(facts_of);
        }
        at += size;
    }
}

// Who refers to what is no entry.
void entry_checker::check_dangling(entry_section *in)
{
    if (!in->targets.has_more_than(in->starts))
        return;
    const auto look = [&](unit_facts *unit, entry_section *section) {
        m_unit = unit;
        m_in = section;
        (void)each_entry(unit->unit, [&](const krv_entry_t &entry, const krv_attr_t *attrs, size_t count) {
            for (const krv_attr_t *attr = attrs; attr != attrs + count; ++attr) {
                const entry_section *to = attr->form == DW_FORM_ref_addr ? &m_info : section;
                if (attr->kind == KRV_ATTR_REFERENCE && attr->is_alternate == 0 && to == in &&
                    attr->number < in->size && !in->starts.has(attr->number))
                    add(kind::reference, entry.offset,
                        fmt::format("{} leads to 0x{:x}, where no entry begins", name_of(m_hp, *attr), attr->number));
            }
        });
    };
    for (unit_facts &unit : m_of->units)
        if (unit.kind.kind != 0)
            look(&unit, &m_info);
    for (unit_facts &unit : m_type_units)
        look(&unit, &m_types);
}

void entry_checker::run()
{
    findings &found = m_of->found();
    progress shown(fmt::format("{}: entries", m_of->elf().path()), m_of->units.size(), progress::mode::silent);
    for (unit_facts &unit : m_of->units) {
        const krv_cu_header_t &header = unit.header;
        if (unit.kind.kind == 0)
            m_info.starts.set(header.offset, std::min(header.offset + header.size, m_info.size));
        else
            walk(&unit, &m_info);
        shown.step();
    }
    check_type_units();
    check_dangling(&m_info);
    check_dangling(&m_types);
    for (const unit_facts &unit : m_of->units) {
        const krv_cu_header_t &header = unit.header;
        const bool is_type = unit.kind.kind == KRV_UNIT_TYPE || unit.kind.kind == KRV_UNIT_SPLIT_TYPE;
        if (is_type &&
            (unit.kind.type_offset >= header.size || !m_info.starts.has(header.offset + unit.kind.type_offset)))
            found.add(kind::reference, {.offset = header.offset, .unit = header.offset},
                      fmt::format("the type of the unit is at 0x{:x}, where no entry begins",
                                  header.offset + unit.kind.type_offset));
        if (unit.has_code && unit.line_table == NOWHERE && unit.kind.kind != 0)
            found.add(kind::no_lines, {.offset = header.offset, .unit = header.offset}, "the unit has no line table");
    }
    check_overlaps();
    m_of->entry_starts = std::move(m_info.starts);
}

// ---------------------------------------------------------------------------------------------------------------
// Unit headers
// ---------------------------------------------------------------------------------------------------------------

static void read_units(subject *of)
{
    findings &found = of->found();
    const uint64_t size = of->size_of(KRV_SEC_INFO);
    std::vector<korva::unit> all;
    const auto walked = of->handle().each_unit([&](const korva::unit &u) { all.push_back(u); });
    std::vector<std::string> why = walked ? last_error(of->handle().get()).messages : walked.error().messages;
    uint64_t end = 0;
    for (const korva::unit &unit : all) {
        const krv_cu_header_t header = unit.header().value_or({});
        of->units.push_back({.unit = unit, .header = header, .kind = unit.kind().value_or({})});
        end = header.offset + header.size;
    }
    found.read.units += all.size();
    if (end == size)
        return;
    why.push_back(fmt::format("the units end at 0x{:x}, of 0x{:x} bytes", end, size));
    found.add(kind::unit_header, {.offset = end}, std::move(why));
}

// The reasons of units that were stepped over are noted.
static void tell_unread_units(subject *of)
{
    std::unordered_map<uint64_t, std::string> reasons;
    for (const krv_elf_note_t &note : of->elf().notes())
        if (note.refused != 0 && note.section == std::string_view(".debug_info"))
            reasons.emplace(note.offset, note.text);
    for (const unit_facts &unit : of->units) {
        const uint64_t offset = unit.header.offset;
        if (unit.kind.kind == 0)
            of->found().add(kind::unit_header, {.offset = offset, .unit = offset},
                            reasons.count(offset) != 0 ? reasons[offset] : "the unit cannot be read");
        const auto name = unit.kind.dwo_name;
        if (name == nullptr)
            continue;
        const auto folder = unit.unit.comp_dir();
        const std::filesystem::path path = std::filesystem::path(folder ? *folder : "") / name;
        std::error_code ignored;
        of->found().add(kind::split_unit, {.offset = offset, .unit = offset},
                        fmt::format("the rest of the unit is in {}, which is not {}", path.string(),
                                    std::filesystem::exists(path, ignored) ? "read" : "there"));
    }
}

void check_units(subject *of)
{
    read_units(of);
    tell_unread_units(of);
    entry_checker(of).run();
}

} // namespace korva::program::check
