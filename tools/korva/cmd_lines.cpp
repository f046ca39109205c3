// SPDX-License-Identifier: Apache-2.0
//
// korva lines: the line tables of a file, decoded into rows or opcode by opcode.
#include "command.h"
#include "input.h"
#include "object.h"
#include "progress.h"

#include <array>
#include <exception>
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

constexpr std::array<const char *, 5> FLAG_NAMES = {"is_stmt", "basic_block", "end_sequence", "prologue_end",
                                                    "epilogue_begin"};

/** The rows of a matrix, or, as one row, the registers of the line machine: a column for each field. */
struct rows {
    explicit rows(size_t count)
        : address(count), canonical(count), op_index(count), file(count), line(count), column(count), isa(count),
          discriminator(count)
    {
        for (auto &f : flags)
            f.resize(count);
    }

    bool read(krv_handle_t *hp, unsigned int kind, void *from);

    std::vector<uint64_t> address, canonical;
    std::vector<uint32_t> op_index, file, line;
    std::vector<uint16_t> column, isa, discriminator;
    std::array<std::vector<boolean_t>, FLAG_NAMES.size()> flags;
};

/** Prints the line table of one unit. */
class table_printer
{
public:
    table_printer(object *obj, answers *out, unit *u) : m_object(obj), m_out(out), m_unit(u) {}

    /** False when the table is refused, which has been told. A unit without line numbers has nothing to print. */
    bool print(bool program);

private:
    bool print_rows(krv_lnph_t *header);
    bool print_program(krv_lnph_t *header);
    void print_row(const rows &r, size_t i);
    void print_opcode(uint64_t offset, unsigned int opcode, krv_value_t **values, unsigned int nvalues,
                      krv_lns_t *state);
    json_value opcode_name(unsigned int opcode, krv_value_t **values);
    bool read_files(krv_lnph_t *header);
    const char *path(uint32_t file) const { return file - 1 < m_paths.size() ? m_paths[file - 1] : nullptr; }
    json_value registers(const rows &r, size_t i) const;

    object *m_object;
    answers *m_out;
    unit *m_unit;
    std::vector<const char *> m_paths; // of file n + 1
    uint8_t m_opcode_base = 0;
    rows m_state{1};
    std::exception_ptr m_thrown; // by the call-back: exceptions do not pass through the library
};

} // namespace

bool rows::read(krv_handle_t *hp, unsigned int kind, void *from)
{
    return korva_get_fields(hp, kind, from, 13, KRV_FIELD_LNS_ADDRESS, address.data(), KRV_FIELD_LNS_C_ADDRESS,
                            canonical.data(), KRV_FIELD_LNS_OP_INDEX, op_index.data(), KRV_FIELD_LNS_FILE, file.data(),
                            KRV_FIELD_LNS_LINE, line.data(), KRV_FIELD_LNS_COLUMN, column.data(), KRV_FIELD_LNS_ISA,
                            isa.data(), KRV_FIELD_LNS_DISCRIMINATOR, discriminator.data(), KRV_FIELD_LNS_IS,
                            flags[0].data(), KRV_FIELD_LNS_BB, flags[1].data(), KRV_FIELD_LNS_ES, flags[2].data(),
                            KRV_FIELD_LNS_PE, flags[3].data(), KRV_FIELD_LNS_EB, flags[4].data()) == 0;
}

static std::string flag_words(const rows &r, size_t i)
{
    std::string words;
    for (size_t f = 0; f < FLAG_NAMES.size(); ++f)
        if (r.flags[f][i] != B_FALSE)
            words += fmt::format("{}{}", words.empty() ? "" : " ", FLAG_NAMES[f]);
    return words;
}

static std::string number_or_dash(uint64_t number)
{
    return number == 0 ? "-" : fmt::format("{}", number);
}

json_value table_printer::registers(const rows &r, size_t i) const
{
    json_value j = {{"address", hex(r.address[i])},       {"op_index", r.op_index[i]},
                    {"file", or_null(path(r.file[i]))},   {"line", or_null(r.line[i])},
                    {"column", or_null(r.column[i])},     {"isa", r.isa[i]},
                    {"discriminator", r.discriminator[i]}};
    for (size_t f = 0; f < FLAG_NAMES.size(); ++f)
        j[FLAG_NAMES[f]] = r.flags[f][i] != B_FALSE;
    return j;
}

void table_printer::print_row(const rows &r, size_t i)
{
    if (m_out->is_json()) {
        json_value record = {{"unit", hex(m_unit->header.offset)}};
        record.update(registers(r, i));
        record["canonical_address"] = hex(r.canonical[i]);
        m_out->record(record);
        return;
    }
    const int width = m_object->address_digits();
    const char *name = path(r.file[i]);
    m_out->print("0x{:0{}x}  {:>6}  {:>4}  {:>4}  0x{:0{}x}  {}  {}\n", r.address[i], width, number_or_dash(r.line[i]),
                 number_or_dash(r.column[i]), number_or_dash(r.discriminator[i]), r.canonical[i], width,
                 name == nullptr ? "-" : printable(name), flag_words(r, i));
}

bool table_printer::print_rows(krv_lnph_t *header)
{
    krv_handle_t *hp = m_object->handle();
    krv_lnp_t *matrix = nullptr;
    unsigned int count = 0;
    if (korva_get_fields(hp, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_LNP, &matrix) != 0 ||
        korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, &count) != 0)
        return false;
    rows r(count);
    if (!r.read(hp, KRV_STRUCT_LNP, matrix) || !read_files(header))
        return false;
    if (!m_out->is_json()) {
        const int width = m_object->address_digits() + 2;
        m_out->print("{:<{}}  {:>6}  {:>4}  {:>4}  {:<{}}  {}\n", "address", width, "line", "col", "disc", "canonical",
                     width, "file and flags");
    }
    for (size_t i = 0; i < count; ++i)
        print_row(r, i);
    return true;
}

json_value table_printer::opcode_name(unsigned int opcode, krv_value_t **values)
{
    if (opcode >= m_opcode_base)
        return "special";
    krv_handle_t *hp = m_object->handle();
    return or_null(opcode == 0
                       ? korva_print_define(hp, KRV_DEF_LNE, static_cast<unsigned>(korva_value_unsigned(values[0])))
                       : korva_print_define(hp, KRV_DEF_LNS, opcode));
}

// The operands of an opcode. The first value of an extended opcode is its own number, which is no operand.
static json_value get_operands(unsigned int opcode, krv_value_t **values, unsigned int nvalues)
{
    json_value list = json_value::array();
    const uint64_t extended = opcode == 0 ? korva_value_unsigned(values[0]) : 0;
    for (unsigned int i = opcode == 0 ? 1 : 0; i < nvalues; ++i) {
        if (opcode == DW_LNS_advance_line)
            list.push_back(korva_value_signed(values[i]));
        else if (extended == DW_LNE_set_address)
            list.push_back(hex(korva_value_unsigned(values[i])));
        else if (extended == DW_LNE_define_file && i == 1)
            list.push_back(static_cast<const char *>(values[i]->sa_u.su_addr));
        else
            list.push_back(korva_value_unsigned(values[i]));
    }
    return list;
}

void table_printer::print_opcode(uint64_t offset, unsigned int opcode, krv_value_t **values, unsigned int nvalues,
                                 krv_lns_t *state)
{
    if (!m_state.read(m_object->handle(), KRV_STRUCT_LNS, state))
        throw failure(m_object->failed("registers"));
    const json_value name = opcode_name(opcode, values);
    const json_value operands = get_operands(opcode, values, nvalues);
    if (m_out->is_json()) {
        m_out->record({{"unit", hex(m_unit->header.offset)},
                       {"offset", hex(offset)},
                       {"opcode", opcode},
                       {"name", name},
                       {"operands", operands},
                       {"registers", registers(m_state, 0)}});
        return;
    }
    std::string text = name.is_null() ? "-" : name.get<std::string>();
    if (opcode >= m_opcode_base)
        text += fmt::format(" {}", opcode);
    for (const json_value &operand : operands)
        text += " " + (operand.is_string() ? printable(operand.get_ref<const std::string &>()) : operand.dump());
    m_out->print("0x{:08x}  {:<36}  0x{:0{}x}  file {} line {} column {} disc {}  {}\n", offset, text,
                 m_state.address[0], m_object->address_digits(), m_state.file[0], m_state.line[0], m_state.column[0],
                 m_state.discriminator[0], flag_words(m_state, 0));
}

bool table_printer::print_program(krv_lnph_t *header)
{
    if (!read_files(header) || korva_get_fields(m_object->handle(), KRV_STRUCT_LNPH, header, 1,
                                                KRV_FIELD_LNPH_OPCODE_BASE, &m_opcode_base) != 0)
        return false;
    const auto visit = [](krv_handle_t *, unsigned long offset, unsigned char opcode, krv_value_t **values,
                          unsigned int nvalues, krv_lns_t *state, void *arg) -> int {
        auto *self = static_cast<table_printer *>(arg);
        try {
            self->print_opcode(offset, opcode, values, nvalues, state);
            return 0;
        } catch (...) {
            self->m_thrown = std::current_exception();
            return 1;
        }
    };
    const int result = korva_iter_line_entry(m_object->handle(), header, visit, this);
    if (m_thrown)
        std::rethrow_exception(m_thrown);
    return result == 0;
}

bool table_printer::read_files(krv_lnph_t *header)
{
    krv_handle_t *hp = m_object->handle();
    krv_lnfe_t **files = nullptr;
    uint64_t count = 0;
    if (korva_get_fields(hp, KRV_STRUCT_LNPH, header, 2, KRV_FIELD_LNPH_FILES, &files, KRV_FIELD_LNPH_FILES_ENTRIES,
                         &count) != 0)
        return false;
    for (uint64_t i = 0; i < count; ++i) {
        char *absolute = nullptr;
        if (korva_get_fields(hp, KRV_STRUCT_LNFE, files[i], 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &absolute) != 0)
            return false;
        m_paths.push_back(absolute);
    }
    return true;
}

bool table_printer::print(bool program)
{
    if (!m_unit->is_readable()) {
        m_object->refuse_version(*m_unit);
        return false;
    }
    krv_lnph_t *header = korva_line_get_cu_lnph(m_object->handle(), m_unit->cu);
    if (header == nullptr && korva_handle_get_errno(m_object->handle()) == KRV_ERR_NOTFOUND) {
        if (!m_out->is_json())
            m_out->print("unit 0x{:x}: no line numbers\n\n", m_unit->header.offset);
        return true;
    }
    if (header != nullptr && !m_out->is_json())
        m_out->print("unit 0x{:x}:\n", m_unit->header.offset);
    if (header == nullptr || !(program ? print_program(header) : print_rows(header))) {
        m_object->refuse(*m_unit,
                         m_object->failed(fmt::format("line table of unit at offset 0x{:x}", m_unit->header.offset)));
        return false;
    }
    if (!m_out->is_json())
        m_out->write("\n");
    return true;
}

static int run_lines(const lines_options &options)
{
    object obj(options.file, options.raw, options.debug_dirs);
    bool all = obj.diagnose_notes();
    std::vector<unit> &units = obj.units();
    all = all && obj.is_complete();

    std::vector<unit *> wanted;
    const auto offset = parse_hex(options.unit);
    for (unit &u : units)
        if (!offset || u.header.offset == *offset)
            wanted.push_back(&u);
    if (wanted.empty())
        throw failure(fmt::format("{}: no unit starts at offset {} of .debug_info", obj.path(), options.unit));

    answers out(options.format);
    progress shown(fmt::format("{}: line tables", obj.path()), wanted.size(), progress::mode::answering);
    for (unit *u : wanted) {
        if (!table_printer(&obj, &out, u).print(options.program))
            all = false;
        shown.step();
    }
    out.finish();
    return all ? ANSWERED : PARTLY;
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
