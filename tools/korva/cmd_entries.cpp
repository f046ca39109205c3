// SPDX-License-Identifier: Apache-2.0
//
// korva entries: the entries of a file and their attributes. Written piece by piece: neither a deep tree nor a long value is
// kept.
#include "command.h"
#include "input.h"
#include "object.h"
#include "operations.h"
#include "progress.h"
#include "visitor.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>

namespace korva::program
{

namespace
{

// Attributes whose values mean more than a number (DWARF 5, 7.5.4).
constexpr uint32_t DW_AT_name = 0x03;
constexpr uint32_t DW_AT_decl_file = 0x3a;
constexpr uint32_t DW_AT_ranges = 0x55;
constexpr uint32_t DW_AT_call_file = 0x58;

/** Attributes whose values have names, and the class of these. */
struct named_values {
    uint32_t attribute;
    krv_def_t names;
};
constexpr named_values NAMED[] = {{0x09, KRV_DEF_ORD}, {0x13, KRV_DEF_LANG}, {0x17, KRV_DEF_VIS},
                                  {0x20, KRV_DEF_INL}, {0x36, KRV_DEF_CC},   {0x3e, KRV_DEF_ATE}};

// Attributes whose blocks are expressions, which have a form of their own since DWARF 4 only: location, byte_size,
// string_length, lower_bound, return_addr, upper_bound, count, data_member_location, frame_base, segment, static_link,
// use_location, vtable_elem_location, allocated, associated, data_location, byte_stride, GNU_call_site_value, _data_value,
// _target, _target_clobbered.
constexpr uint32_t EXPRESSIONS[] = {0x02, 0x0b, 0x19, 0x22, 0x2a, 0x2f, 0x37,   0x38,   0x40,   0x46,  0x48,
                                    0x4a, 0x4d, 0x4e, 0x4f, 0x50, 0x51, 0x2111, 0x2112, 0x2113, 0x2114};

struct entries_options : common_options {
    std::string offset;
    uint32_t depth = UINT32_MAX;
};

/** Prints entries of one unit. */
class entry_printer
{
public:
    entry_printer(const object &obj, answers *out, const krv_cu_header_t &unit)
        : m_handle(obj.handle()), m_out(out), m_unit(unit), m_is_json(out->is_json())
    {
    }

    /** Fails when an attribute cannot be read, behind those that can. */
    result<void> print(const entry &e, uint64_t depth);

private:
    std::string name_of(krv_def_t names, uint32_t number) const;
    void append_value(const attr &a);
    void append_text(std::string_view text);
    void append_number(uint64_t number);
    void append_block(const attr &a);
    void append_operations(const attr &a);
    void append_meaning(const entry &e, const attr &a);
    std::string meaning_of(const entry &e, const attr &a) const;
    uint8_t kind_of(const attr &a) const; // KRV_ATTR_*

    handle_view m_handle;
    answers *m_out;
    const krv_cu_header_t &m_unit;
    bool m_is_json;
    std::string m_line;
    std::string m_cut; // why a listing of operations ends early
};

constexpr const char *VALUE_KINDS[] = {"",      "address",    "constant",  "flag",      "string",
                                       "block", "expression", "reference", "signature", "section"};

} // namespace

// The name of a constant, or its number where it has none.
std::string entry_printer::name_of(krv_def_t names, uint32_t number) const
{
    const char *name = korva_print_define(m_handle.get(), names, number);
    return name == nullptr ? fmt::format("0x{:x}", number) : name;
}

uint8_t entry_printer::kind_of(const attr &a) const
{
    const bool is_block_of_old = a.kind == KRV_ATTR_BLOCK && m_unit.version < 4;
    if (is_block_of_old &&
        std::find(std::begin(EXPRESSIONS), std::end(EXPRESSIONS), a.attribute) != std::end(EXPRESSIONS))
        return KRV_ATTR_EXPRESSION;
    return a.kind;
}

void entry_printer::append_number(uint64_t number)
{
    m_line += m_is_json ? "\"" : "";
    append_hex(&m_line, number, 1);
    m_line += m_is_json ? "\"" : "";
}

void entry_printer::append_text(std::string_view text)
{
    if (m_is_json) {
        append_json(&m_line, text);
        return;
    }
    m_line += '"';
    append_printable(&m_line, text);
    m_line += '"';
}

void entry_printer::append_block(const attr &a)
{
    const auto bytes = a.data();
    m_line += m_is_json ? "\"" : "[";
    fmt::format_to(std::back_inserter(m_line), "{:02x}", fmt::join(bytes.begin(), bytes.end(), " "));
    m_line += m_is_json ? "\"" : "]";
}

// In JSON the bytes stand before them: they are what can be evaluated.
void entry_printer::append_operations(const attr &a)
{
    if (m_is_json) {
        append_block(a);
        m_line += ",\"operations\":[";
    }
    const size_t before = m_line.size();
    const char *separator = "";
    visitor print([&](const operation &op) {
        const std::string text = operation_text(m_handle.get(), a.bytes, op);
        m_line += separator;
        if (m_is_json)
            append_json(&m_line, text);
        else
            m_line += text;
        separator = m_is_json ? "," : "; ";
    });
    const uint32_t flags = m_unit.dwarf64 != 0 ? uint32_t{KRV_EXPR_F_DWARF64} : 0;
    const auto listed = each_operation(m_handle, a.bytes, a.size, print, flags);
    print.rethrow();
    if (m_is_json) {
        m_line += "]";
    } else if (!listed || a.size == 0) {
        m_line.resize(before);
        append_block(a);
    }
    if (!listed)
        m_cut = "the listing ends early: " + listed.error().text();
}

void entry_printer::append_value(const attr &a)
{
    switch (kind_of(a)) {
    case KRV_ATTR_CONSTANT:
        m_line += a.is_signed != 0 ? fmt::format("{}", a.signed_number()) : fmt::format("{}", a.number);
        break;
    case KRV_ATTR_FLAG:
        m_line += a.number != 0 ? "true" : "false";
        break;
    case KRV_ATTR_STRING:
        append_text(a.text());
        break;
    case KRV_ATTR_BLOCK:
        append_block(a);
        break;
    case KRV_ATTR_EXPRESSION:
        append_operations(a);
        break;
    default:
        append_number(a.number);
    }
}

// What a value stands for, as far as one would have to look it up; empty when there is no more to say.
std::string entry_printer::meaning_of(const entry &e, const attr &a) const
{
    if (a.kind == KRV_ATTR_REFERENCE) {
        const auto target = e.follow(a);
        const auto name = target ? target->find(DW_AT_name) : result<attr>(target.error());
        return name ? std::string(name->text()) : std::string();
    }
    if (a.attribute == DW_AT_ranges) {
        std::string text;
        const auto all = e.each_range([&](range r) {
            text += text.empty() ? "" : ",";
            append_hex(&text, r.start, 1);
            text += '-';
            append_hex(&text, r.end, 1);
        });
        return all ? text : text + (text.empty() ? "" : " ") + all.error().text();
    }
    if (a.kind != KRV_ATTR_CONSTANT)
        return {};
    if (a.attribute == DW_AT_decl_file || a.attribute == DW_AT_call_file) {
        const auto known = file_of(m_handle, e.unit(), a.number);
        return known ? std::string(known->path) : std::string();
    }
    for (const named_values &known : NAMED)
        if (known.attribute == a.attribute && a.number <= UINT32_MAX)
            if (const char *name = korva_print_define(m_handle.get(), known.names, static_cast<uint32_t>(a.number)))
                return name;
    return {};
}

void entry_printer::append_meaning(const entry &e, const attr &a)
{
    const std::string meaning = m_cut.empty() ? meaning_of(e, a) : m_cut;
    if (meaning.empty())
        return;
    if (m_is_json) {
        m_line += ",\"meaning\":";
        append_json(&m_line, meaning);
    } else {
        m_line += "  (";
        append_printable(&m_line, meaning);
        m_line += ')';
    }
}

result<void> entry_printer::print(const entry &e, uint64_t depth)
{
    constexpr uint64_t MOST_LEVELS = 32; // that are indented: else a deep tree would be drawn mostly in blanks
    const size_t column = 2 * std::min(depth, MOST_LEVELS);
    const std::string tag = name_of(KRV_DEF_TAG, e.tag());
    if (m_is_json) {
        m_out->open_record();
        m_line.assign(1, '{');
        append_record_head(&m_line, record_status::ok, nullptr);
        m_out->write(m_line);
        m_out->print(",\"offset\":\"0x{:x}\",\"unit\":\"0x{:x}\",{}\"depth\":{},\"tag\":\"{}\",\"attributes\":[",
                     e.offset(), m_unit.offset, e.get().is_alternate != 0 ? "\"alternate\":true," : "", depth, tag);
    } else {
        m_out->print("0x{:08x} {:>3}  {:{}}{}\n", e.offset(), depth, "", column, tag);
    }
    auto attributes = e.attributes();
    bool any = false;
    for (const attr &a : attributes) {
        const std::string name = name_of(KRV_DEF_AT, a.attribute);
        m_line.clear();
        m_cut.clear();
        if (m_is_json)
            fmt::format_to(std::back_inserter(m_line),
                           "{}{{\"name\":\"{}\",\"form\":\"{}\",\"kind\":\"{}\"{},\"value\":", any ? "," : "", name,
                           name_of(KRV_DEF_FORM, a.form), VALUE_KINDS[kind_of(a)],
                           a.is_alternate != 0 ? ",\"alternate\":true" : "");
        else
            fmt::format_to(std::back_inserter(m_line), "{:{}}{:<22}  ", "", column + 18, name);
        append_value(a);
        if (!m_is_json && a.is_alternate != 0)
            m_line += " of the alternate file";
        append_meaning(e, a);
        m_line += m_is_json ? "}" : "\n";
        m_out->write(m_line);
        any = true;
    }
    if (m_is_json) {
        m_out->write("]}");
        m_out->close_record();
    }
    if (attributes.failure())
        return *attributes.failure();
    return {};
}

// Which entries are wanted.
struct extract {
    uint64_t depth = 0;   // of the first
    uint32_t levels;      // below it
    bool is_tree = false; // the first and those below it; else those behind it, too
};

// What is damaged ends it.
static result<void> print_entries(entry_printer *printer, entry at, const extract &wanted)
{
    for (bool is_first = true; is_first || at.depth() > 0 || !wanted.is_tree; is_first = false) {
        if (at.depth() <= wanted.levels)
            if (auto printed = printer->print(at, wanted.depth + at.depth()); !printed)
                return printed;
        if (wanted.levels == 0 && wanted.is_tree)
            break;
        const auto moved = at.next();
        if (!moved)
            return moved.error();
        if (!*moved)
            break;
    }
    return {};
}

// False: it ended early, which has been told.
static bool print_unit_entries(object *obj, answers *out, unit_record &u, const result<entry> &first,
                               const extract &wanted)
{
    if (!u.is_readable()) {
        obj->refuse_unread(u);
        out->record_failure(u.why);
        return false;
    }
    if (!out->is_json())
        out->print("unit 0x{:x}{}:\n", u.header.offset,
                   first && first->get().is_alternate != 0 ? " of the alternate file" : "");
    entry_printer printer(*obj, out, u.header);
    const auto printed = first                                    ? print_entries(&printer, *first, wanted)
                         : first.error().code == KRV_ERR_NOTFOUND ? result<void>()
                                                                  : result<void>(first.error());
    if (!out->is_json())
        out->write("\n");
    if (!printed)
        obj->refuse(u, fmt::format("entries of unit at offset 0x{:x} end early", u.header.offset), ".debug_info",
                    u.header.offset, printed.error());
    if (!printed)
        out->record_failure(u.why);
    return static_cast<bool>(printed);
}

namespace
{

// Where an entry is that a user names: "0x2d", or "alt:0x2d" in the alternate file.
struct named_place {
    explicit named_place(std::string_view text)
        : is_alternate(text.starts_with(ALTERNATE)),
          offset(parse_hex(is_alternate ? text.substr(ALTERNATE.size()) : text))
    {
    }

    static constexpr std::string_view ALTERNATE = "alt:";
    bool is_alternate;
    std::optional<uint64_t> offset;
};

} // namespace

// The unit of an entry that a user names, and how deep in it that stands. *alternate becomes that unit, of the alternate file.
static unit_record *find_entry(object *obj, const std::string &text, std::optional<entry> *found, uint64_t *depth,
                               std::optional<unit_record> *alternate)
{
    const named_place place(text);
    const uint64_t offset = place.offset.value_or(0);
    const auto at =
        place.is_alternate ? entry::at(obj->handle(), offset, KRV_SEC_EXT_ALT_INFO) : entry::at(obj->handle(), offset);
    if (!at && at.error().code != KRV_ERR_NOTFOUND)
        throw failure(fmt::format("{}: {}", obj->path(), at.error().text()),
                      to_record_error(at.error(), ".debug_info", offset));
    size_t above = 0;
    if (!at || korva_entry_get_ancestors(obj->handle().get(), &at->get(), nullptr, 0, &above) != 0)
        throw failure(at ? fmt::format("{}: {}", obj->path(), last_error(obj->handle().get()).text())
                         : fmt::format("{}: no entry begins at offset 0x{:x} of .debug_info{}", obj->path(), offset,
                                       place.is_alternate ? " of the alternate file" : ""));
    *found = *at;
    *depth = above;
    if (place.is_alternate) {
        const auto header = at->unit().header();
        const auto kind = at->unit().kind();
        if (!header || !kind)
            throw failure(fmt::format("{}: {}", obj->path(), (header ? kind.error() : header.error()).text()));
        return &alternate->emplace(unit_record{.unit = at->unit(), .header = *header, .kind = *kind, .lines = {}});
    }
    for (unit_record &u : obj->units())
        if (u.unit.get() == at->get().unit)
            return &u;
    throw failure(fmt::format("{}: no unit has an entry at offset 0x{:x}", obj->path(), offset),
                  {.code = "KRV_ERR_NOTFOUND", .section = ".debug_info", .offset = offset});
}

static int run_entries(const entries_options &options)
{
    object obj(options.file, options.flags(), options.search, options.bounds);
    tally done;
    if (!obj.diagnose_notes())
        done.missed();
    std::vector<unit_record> &units = obj.units();
    answers out(options.format);
    const auto print = [&](unit_record &u, const result<entry> &first, const extract &wanted) {
        if (print_unit_entries(&obj, &out, u, first, wanted))
            done.answered();
        else if (u.is_readable())
            done.partly();
        else
            done.missed();
    };
    if (!options.offset.empty()) {
        std::optional<entry> first;
        extract wanted{.levels = options.depth, .is_tree = true};
        std::optional<unit_record> alternate;
        unit_record *u = find_entry(&obj, options.offset, &first, &wanted.depth, &alternate);
        print(*u, *first, wanted);
    } else {
        if (!obj.is_complete())
            done.missed();
        progress shown(fmt::format("{}: entries", obj.path()), units.size(), progress::mode::answering);
        for (unit_record &u : units) {
            obj.begin_record();
            print(u, entry::first(obj.handle(), u.unit), {.levels = options.depth});
            shown.step();
        }
    }
    obj.record_faults(&out);
    out.finish();
    return done.status();
}

void add_entries(CLI::App &app, int *status)
{
    auto options = std::make_shared<entries_options>();
    CLI::App *verb = app.add_subcommand("entries", "Shows the entries of a file and their attributes");
    verb->add_option("FILE", options->file, "ELF file")->required();
    verb->add_option("--offset", options->offset,
                     "Only the entry at this offset of .debug_info, hexadecimal, and those below it; alt:OFFSET of the "
                     "alternate file")
        ->check([](const std::string &text) {
            return named_place(text).offset ? std::string() : "\"" + text + "\" is no hexadecimal number";
        });
    verb->add_option("--depth", options->depth, "At most so many levels below the first; 0 is that alone");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer(
        "An entry: its offset in .debug_info, its depth, its tag; then its attributes, one a line, each with its "
        "value\n"
        "and, in parentheses, what that stands for: the name of the entry that a reference leads to, the ranges of a\n"
        "list, a file. Tags and attributes without a name are shown by number. Constants are decimal, addresses and\n"
        "offsets hexadecimal; references count from the first byte of .debug_info. Indentation ends at depth 32.\n"
        "Bytes that are not UTF-8 become U+FFFD in JSON.\n"
        "Examples:\n"
        "  korva entries --depth 1 ./a.out\n"
        "  korva entries --offset 0x2d ./a.out\n"
        "  korva entries --format=jsonl ./a.out | jq -r 'select(.tag == \"DW_TAG_typedef\") | .offset'");
    verb->callback([options, status] { *status = run_entries(*options); });
}

} // namespace korva::program
