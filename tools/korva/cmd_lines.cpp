// SPDX-License-Identifier: Apache-2.0
//
// korva lines: the line tables of a file, decoded into rows or opcode by opcode.
#include "command.h"
#include "input.h"
#include "object.h"
#include "progress.h"
#include "visitor.h"

#include <memory>
#include <vector>

namespace korva::program
{

namespace
{

// Line opcodes whose operands are not plain unsigned numbers (DWARF 4, 6.2.5.2 and 6.2.5.3).
constexpr unsigned DW_LNS_advance_line = 3;
constexpr unsigned DW_LNE_set_address = 2;
constexpr unsigned DW_LNE_define_file = 3;

struct lines_options : common_options {
    std::string unit;
    bool program = false;
};

/** The flags of a row. */
struct flag {
    const char *name;
    bool row::*value;
};
constexpr flag FLAGS[] = {{"is_stmt", &row::is_stmt},
                          {"basic_block", &row::basic_block},
                          {"end_sequence", &row::end_sequence},
                          {"prologue_end", &row::prologue_end},
                          {"epilogue_begin", &row::epilogue_begin}};

/** Prints the line table of one unit. */
class table_printer
{
public:
    table_printer(object *obj, answers *out, unit_record *u) : m_object(obj), m_out(out), m_unit(u) {}

    /** False when the table is refused, which has been told. A unit without line numbers has nothing to print. */
    bool print(bool program);

private:
    result<void> print_rows();
    result<void> print_program(krv_lnph_t *header);
    void print_row(const row &r);
    void print_operation(const line_operation &op);
    json_value opcode_name(const line_operation &op);
    result<void> read_files();
    std::string_view path(uint32_t file) const
    {
        const uint32_t index = file - m_first_file; // below the first: none
        return index < m_files.size() ? m_files[index].path : std::string_view();
    }
    json_value registers(const row &r) const;

    object *m_object;
    answers *m_out;
    unit_record *m_unit;
    std::vector<file> m_files;
    uint32_t m_first_file = 1;
    uint8_t m_opcode_base = 0;
};

} // namespace

static std::string flag_words(const row &r)
{
    std::string words;
    for (const flag &f : FLAGS)
        if (r.*f.value)
            words += fmt::format("{}{}", words.empty() ? "" : " ", f.name);
    return words;
}

static std::string number_or_dash(uint64_t number)
{
    return number == 0 ? "-" : fmt::format("{}", number);
}

static json_value path_or_null(std::string_view path)
{
    return path.data() == nullptr ? json_value(nullptr) : json_value(path);
}

json_value table_printer::registers(const row &r) const
{
    json_value j = {{"address", hex(r.address)},          {"op_index", r.op_index},
                    {"file", path_or_null(path(r.file))}, {"line", or_null(r.line)},
                    {"column", or_null(r.column)},        {"isa", r.isa},
                    {"discriminator", r.discriminator}};
    for (const flag &f : FLAGS)
        j[f.name] = r.*f.value;
    return j;
}

void table_printer::print_row(const row &r)
{
    if (m_out->is_json()) {
        json_value record = {{"unit", hex(m_unit->header.offset)}};
        record.update(registers(r));
        record["canonical_address"] = hex(r.canonical_address);
        m_out->record(record);
        return;
    }
    const int width = m_object->address_digits();
    const std::string_view name = path(r.file);
    m_out->print("0x{:0{}x}  {:>6}  {:>4}  {:>4}  0x{:0{}x}  {}  {}\n", r.address, width, number_or_dash(r.line),
                 number_or_dash(r.column), number_or_dash(r.discriminator), r.canonical_address, width,
                 name.data() == nullptr ? "-" : printable(name), flag_words(r));
}

result<void> table_printer::print_rows()
{
    const result<std::vector<row>> rows = m_unit->unit.rows();
    if (!rows)
        return rows.error();
    if (auto files = read_files(); !files)
        return files;
    if (!m_out->is_json()) {
        const int width = m_object->address_digits() + 2;
        m_out->print("{:<{}}  {:>6}  {:>4}  {:>4}  {:<{}}  {}\n", "address", width, "line", "col", "disc", "canonical",
                     width, "file and flags");
    }
    for (const row &r : *rows)
        print_row(r);
    return {};
}

json_value table_printer::opcode_name(const line_operation &op)
{
    if (op.opcode >= m_opcode_base)
        return "special";
    return or_null(op.opcode == 0 ? korva_print_define(op.hp, KRV_DEF_LNE,
                                                       static_cast<unsigned>(korva_value_unsigned(op.operands[0])))
                                  : korva_print_define(op.hp, KRV_DEF_LNS, op.opcode));
}

// The operands of an opcode. The first value of an extended opcode is its own number, which is no operand.
static json_value get_operands(const line_operation &op)
{
    json_value list = json_value::array();
    const uint64_t extended = op.opcode == 0 ? korva_value_unsigned(op.operands[0]) : 0;
    for (size_t i = op.opcode == 0 ? 1 : 0; i < op.operands.size(); ++i) {
        krv_value_t *value = op.operands[i];
        if (op.opcode == DW_LNS_advance_line)
            list.push_back(korva_value_signed(value));
        else if (extended == DW_LNE_set_address)
            list.push_back(hex(korva_value_unsigned(value)));
        else if (extended == DW_LNE_define_file && i == 1)
            list.push_back(static_cast<const char *>(value->sa_u.su_addr));
        else
            list.push_back(korva_value_unsigned(value));
    }
    return list;
}

void table_printer::print_operation(const line_operation &op)
{
    const row state = op.registers();
    const json_value name = opcode_name(op);
    const json_value operands = get_operands(op);
    if (m_out->is_json()) {
        m_out->record({{"unit", hex(m_unit->header.offset)},
                       {"offset", hex(op.offset)},
                       {"opcode", op.opcode},
                       {"name", name},
                       {"operands", operands},
                       {"registers", registers(state)}});
        return;
    }
    std::string text = name.is_null() ? "-" : name.get<std::string>();
    if (op.opcode >= m_opcode_base)
        text += fmt::format(" {}", op.opcode);
    for (const json_value &operand : operands)
        text += " " + (operand.is_string() ? printable(operand.get_ref<const std::string &>()) : operand.dump());
    m_out->print("0x{:08x}  {:<36}  0x{:0{}x}  file {} line {} column {} disc {}  {}\n", op.offset, text, state.address,
                 m_object->address_digits(), state.file, state.line, state.column, state.discriminator,
                 flag_words(state));
}

result<void> table_printer::print_program(krv_lnph_t *header)
{
    if (auto files = read_files(); !files)
        return files;
    krv_handle_t *hp = m_object->handle().get();
    if (korva_get_fields(hp, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_OPCODE_BASE, &m_opcode_base) != 0)
        return last_error(hp);
    visitor print([this](const line_operation &op) { print_operation(op); });
    const result<bool> done = m_unit->unit.each_line_operation(print);
    print.rethrow();
    if (!done)
        return done.error();
    return {};
}

result<void> table_printer::read_files()
{
    result<std::vector<file>> files = m_unit->unit.files();
    if (!files)
        return files.error();
    m_files = std::move(*files);
    const result<uint32_t> first = m_unit->unit.first_file_number();
    if (!first)
        return first.error();
    m_first_file = *first;
    return {};
}

bool table_printer::print(bool program)
{
    if (!m_unit->is_readable()) {
        m_object->refuse_unread(*m_unit);
        m_out->record_failure(m_unit->why);
        return false;
    }
    const uint64_t offset = m_unit->header.offset;
    const result<krv_lnph_t *> header = m_unit->unit.line_header();
    if (!header && header.error().code == KRV_ERR_NOTFOUND) {
        if (!m_out->is_json())
            m_out->print("unit 0x{:x}: no line numbers\n\n", offset);
        return true;
    }
    if (header && !m_out->is_json())
        m_out->print("unit 0x{:x}:\n", offset);
    const result<void> printed = !header   ? result<void>(header.error())
                                 : program ? print_program(*header)
                                           : print_rows();
    if (!printed) {
        m_object->refuse_lines(*m_unit, printed.error());
        m_out->record_failure(m_unit->why);
        return false;
    }
    if (!m_out->is_json())
        m_out->write("\n");
    return true;
}

static int run_lines(const lines_options &options)
{
    object obj(options.file, options.flags(), options.search, options.bounds);
    tally done;
    if (!obj.diagnose_notes())
        done.missed();
    std::vector<unit_record> &units = obj.units();
    if (!obj.is_complete())
        done.missed();

    std::vector<unit_record *> wanted;
    const auto offset = parse_hex(options.unit);
    for (unit_record &u : units)
        if (!offset || u.header.offset == *offset)
            wanted.push_back(&u);
    if (wanted.empty())
        throw failure(fmt::format("{}: no unit starts at offset {} of .debug_info", obj.path(), options.unit),
                      {.code = "KRV_ERR_NOTFOUND", .section = ".debug_info", .offset = offset});

    answers out(options.format);
    progress shown(fmt::format("{}: line tables", obj.path()), wanted.size(), progress::mode::answering);
    for (unit_record *u : wanted) {
        obj.begin_record();
        done.add(table_printer(&obj, &out, u).print(options.program));
        shown.step();
    }
    obj.record_faults(&out);
    out.finish();
    return done.status();
}

void add_lines(CLI::App &app, int *status)
{
    auto options = std::make_shared<lines_options>();
    CLI::App *verb = app.add_subcommand("lines", "Shows the line tables of a file");
    verb->add_option("FILE", options->file, "ELF file")->required();
    verb->add_option("--unit", options->unit, "Only the unit at this offset, hexadecimal, as `korva units` shows it")
        ->check([](const std::string &text) {
            return parse_hex(text) ? std::string() : "\"" + text + "\" is no hexadecimal number";
        });
    verb->add_flag("--program", options->program, "The opcodes one by one, each with the registers after it");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer(
        "A row: address, line, column, discriminator, canonical address (the lowest of its file and line), file,\n"
        "flags; - is not known or none (JSON: null). Rows stand in the order of the program.\n"
        "Bytes that are not UTF-8 become U+FFFD in JSON.\n"
        "Examples:\n"
        "  korva lines ./a.out\n"
        "  korva lines --unit 0x2a --program ./a.out\n"
        "  korva lines --format=jsonl ./a.out | jq -r 'select(.is_stmt) | .address'");
    verb->callback([options, status] { *status = run_lines(*options); });
}

} // namespace korva::program
