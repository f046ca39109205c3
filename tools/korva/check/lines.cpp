// SPDX-License-Identifier: Apache-2.0
//
// The line tables that units name: headers, files, and every opcode of their programs.
#include "check/subject.h"
#include "progress.h"
#include "visitor.h"

#include <fmt/format.h>

#include <algorithm>

namespace korva::program::check
{

namespace
{

constexpr uint8_t DW_LNS_copy = 1;
constexpr uint64_t DW_LNE_end_sequence = 1;

/** What was asked of a header. */
struct line_facts {
    uint64_t length = 0, files = 0;
    uint16_t version = 0;
    uint8_t opcode_base = 0;
    krv_lnfe_t **entries = nullptr;

    uint64_t first() const { return version < 5 ? 1 : 0; }
};

class table_checker
{
public:
    table_checker(subject *of, const section_bytes &lines, const unit_facts &unit, std::vector<stretch> *sequences)
        : m_of(of), m_lines(lines), m_unit(unit), m_sequences(sequences)
    {
    }

    /** The bytes that it has read, as the header tells them. */
    uint64_t run();

private:
    void check_directories();
    void check_files(krv_handle_t *hp);
    void visit(const line_operation &op);
    void visit_row(uint64_t offset, uint64_t address, uint32_t file);
    void end_sequence(uint64_t offset, uint64_t address);

    void add(kind what, uint64_t offset, std::vector<std::string> messages)
    {
        m_of->found().add(what, {.offset = offset, .unit = m_unit.header.offset}, std::move(messages));
    }
    void add(kind what, uint64_t offset, std::string message) { add(what, offset, std::vector{std::move(message)}); }

    subject *m_of;
    const section_bytes &m_lines;
    const unit_facts &m_unit;
    std::vector<stretch> *m_sequences;
    line_facts m_facts;
    uint64_t m_offset = 0;           // of the opcode that was executed last
    uint64_t m_address = 0;          // the register behind it
    std::optional<uint64_t> m_start; // of the sequence in hand
    uint64_t m_row = 0;              // address of its last row
    uint64_t m_end = 0;              // and the highest
    uint64_t m_backwards = 0, m_told_file = 0;
};

} // namespace

// A value of an entry of a header of version 5; 0 where it is no number, or of an unknown form, which fails.
static uint64_t read_value(byte_reader *from, uint64_t form, unsigned width)
{
    switch (form) {
    case 0x08: // DW_FORM_string
        from->string();
        return 0;
    case 0x0b: // data1, strx1
    case 0x25:
        return from->number(1);
    case 0x05: // data2, strx2
    case 0x26:
        return from->number(2);
    case 0x27: // strx3
        return from->number(3);
    case 0x06: // data4, strx4
    case 0x28:
        return from->number(4);
    case 0x07: // data8
        return from->number(8);
    case 0x0f: // udata, strx
    case 0x1a:
        return from->leb128();
    case 0x0e: // strp, line_strp, strp_sup, sec_offset
    case 0x1f:
    case 0x1d:
    case 0x17:
        return from->number(width);
    case 0x1e: // data16
        from->skip(16);
        return 0;
    case 0x09: // block, block1
        from->skip(from->leb128());
        return 0;
    case 0x0a:
        from->skip(from->number(1));
        return 0;
    default:
        from->skip(UINT64_MAX);
        return 0;
    }
}

// Reads a table of directories or files of version 5, and calls visit(number, directory, offset) for each; returns how many
// there are.
template <typename Visit>
static uint64_t read_entries(byte_reader *from, unsigned width, const Visit &visit)
{
    constexpr uint64_t DW_LNCT_directory_index = 2;
    std::vector<std::pair<uint64_t, uint64_t>> formats(from->number(1));
    for (auto &[content, form] : formats) {
        content = from->leb128();
        form = from->leb128();
    }
    const uint64_t count = from->leb128();
    for (uint64_t i = 0; i < count && from->left() != 0 && !formats.empty(); ++i) {
        uint64_t directory = 0;
        const uint64_t at = from->at();
        for (const auto &[content, form] : formats) {
            const uint64_t value = read_value(from, form, width);
            directory = content == DW_LNCT_directory_index ? value : directory;
        }
        if (!from->failed())
            visit(i, directory, at);
    }
    return count;
}

// Directories as the header has them: the library takes one that is not there for directory 0. The header can be read.
void table_checker::check_directories()
{
    const auto check = [this](uint64_t file, uint64_t directory, uint64_t end, uint64_t at) {
        if (directory >= std::max<uint64_t>(end, 1)) // 0 is that of the compilation, in the table or not
            add(kind::line_directory, at,
                fmt::format("file {} is in directory {}, which the table does not have", file, directory));
    };
    byte_reader header(m_lines.data(), m_lines.size(), m_unit.line_table);
    unsigned width = 4;
    header.limit(header.unit_length(&width));
    header.skip(m_facts.version >= 5 ? 4 : 2); // with the sizes of addresses and segments
    header.skip(width);                        // header_length
    header.skip(m_facts.version >= 4 ? 5 : 4); // up to line_range
    header.skip(m_facts.opcode_base == 0 ? 1 : m_facts.opcode_base);
    if (m_facts.version >= 5) {
        const uint64_t directories = read_entries(&header, width, [](uint64_t, uint64_t, uint64_t) {});
        read_entries(&header, width,
                     [&](uint64_t file, uint64_t directory, uint64_t at) { check(file, directory, directories, at); });
        return;
    }
    uint64_t directories = 0;
    for (; header.string() != 0; ++directories) {
    }
    for (uint64_t file = 1;; ++file) {
        const uint64_t at = header.at();
        if (header.string() == 0)
            return;
        const uint64_t directory = header.leb128();
        header.leb128(); // time and size
        header.leb128();
        if (!header.failed())
            check(file, directory, directories + 1, at);
    }
}

void table_checker::check_files(krv_handle_t *hp)
{
    check_directories();
    for (uint64_t i = 0; i < m_facts.files; ++i) {
        char path[1024]; // the longest
        if (korva_lnfe_get_path(hp, m_facts.entries[i], path, sizeof(path), B_TRUE) != 0)
            add(kind::line_header, m_unit.line_table, last_messages(m_of->handle()));
    }
}

void table_checker::visit_row(uint64_t offset, uint64_t address, uint32_t file)
{
    ++m_of->found().read.rows;
    if (!m_start) {
        m_start = m_row = m_end = address;
    } else if (address < m_row && m_backwards++ == 0 && m_of->is_code(*m_start)) {
        add(kind::line_order, offset, fmt::format("a row of 0x{:x} is behind one of 0x{:x}", address, m_row));
    }
    m_row = address;
    m_end = std::max(m_end, address);
    // DWARF 5 counts from 0. A file that the program defines itself is in the table when it is used.
    const uint64_t number = uint64_t{file} - m_facts.first();
    if (number < m_facts.files || m_told_file == uint64_t{file} + 1)
        return;
    m_told_file = uint64_t{file} + 1;
    add(kind::line_file, offset, fmt::format("a row of file {}; files of the table: {}", file, m_facts.files));
}

void table_checker::end_sequence(uint64_t offset, uint64_t address)
{
    const uint64_t start = m_start.value_or(address), end = std::max(m_end, address);
    if (m_start && address < m_row && m_backwards == 0 && m_of->is_code(start))
        add(kind::line_order, offset,
            fmt::format("the sequence ends at 0x{:x}, behind a row of 0x{:x}", address, m_row));
    if (m_start && start < end && m_of->is_code(start) && m_of->end_of_code(start) < end)
        add(kind::line_address, offset,
            fmt::format("a sequence from 0x{:x} up to 0x{:x}, where code ends at 0x{:x}", start, end,
                        m_of->end_of_code(start)));
    else if (m_start && start < end && m_of->is_code(start))
        m_sequences->push_back({std::min(start, address), end, m_unit.line_table});
    m_start.reset();
    m_end = m_backwards = 0;
}

void table_checker::visit(const line_operation &op)
{
    constexpr uint8_t DW_LNE_define_file = 3;
    uint64_t address = 0;
    uint32_t file = 0;
    korva_get_fields(op.hp, KRV_STRUCT_LNS, op.state, 2, KRV_FIELD_LNS_ADDRESS, &address, KRV_FIELD_LNS_FILE, &file);
    m_offset = op.offset;
    const uint64_t extended = op.opcode == 0 && !op.operands.empty() ? korva_value_unsigned(op.operands[0]) : 0;
    if (op.opcode >= m_facts.opcode_base || op.opcode == DW_LNS_copy)
        visit_row(op.offset, address, file);
    else if (extended == DW_LNE_end_sequence)
        end_sequence(op.offset, m_address); // the registers are those of a new one
    else if (extended == DW_LNE_define_file)
        ++m_facts.files;
    m_address = address;
}

uint64_t table_checker::run()
{
    krv_handle_t *hp = m_of->handle().get();
    const result<krv_lnph_t *> header = m_unit.unit.line_header();
    if (!header ||
        korva_get_fields(hp, KRV_STRUCT_LNPH, *header, 5, KRV_FIELD_LNPH_UNIT_LENGTH, &m_facts.length,
                         KRV_FIELD_LNPH_VERSION, &m_facts.version, KRV_FIELD_LNPH_OPCODE_BASE, &m_facts.opcode_base,
                         KRV_FIELD_LNPH_FILES, &m_facts.entries, KRV_FIELD_LNPH_FILES_ENTRIES, &m_facts.files) != 0) {
        add(kind::line_header, m_unit.line_table, last_messages(m_of->handle()));
        return 1;
    }
    ++m_of->found().read.line_tables;
    check_files(hp);
    m_offset = m_unit.line_table;
    visitor each([this](const line_operation &op) { visit(op); });
    const result<bool> done = m_unit.unit.each_line_operation(each);
    each.rethrow();
    if (!done)
        add(kind::line_program, m_offset, done.error().messages);
    else if (m_start)
        add(kind::line_program, m_offset, "the program ends within a sequence");
    return m_facts.length;
}

void check_lines(subject *of)
{
    std::vector<const unit_facts *> tables; // each by the first unit that names it
    for (const unit_facts &unit : of->units)
        if (unit.line_table != NOWHERE)
            tables.push_back(&unit);
    std::stable_sort(tables.begin(), tables.end(),
                     [](const unit_facts *a, const unit_facts *b) { return a->line_table < b->line_table; });
    std::vector<stretch> sequences;
    const section_bytes lines(of->handle(), KRV_SEC_LINE);
    progress shown(fmt::format("{}: line tables", of->elf().path()), tables.size(), progress::mode::silent);
    uint64_t budget = 2 * of->size_of(KRV_SEC_LINE) + (1 << 20), last = NOWHERE;
    for (const unit_facts *unit : tables) {
        shown.step();
        if (unit->line_table == last)
            continue;
        last = unit->line_table;
        if (budget == 0) {
            of->found().add(kind::unchecked, {.section = ".debug_line", .offset = last},
                            "line tables overlap too often");
            break;
        }
        const uint64_t size = table_checker(of, lines, *unit, &sequences).run();
        budget -= std::min(budget, size);
    }
    sort_stretches(&sequences);
    each_overlap(sequences, [&](const stretch &a, const stretch &b) {
        of->found().add(kind::line_overlap, {.offset = b.owner},
                        fmt::format("a sequence of the table at 0x{:x} covers 0x{:x} too", a.owner, b.start));
    });
}

} // namespace korva::program::check
