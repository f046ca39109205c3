// SPDX-License-Identifier: Apache-2.0
//
// korva funcs: the functions of a file, where their code is, and where they are declared.
#include "command.h"
#include "demangle.h"
#include "object.h"
#include "progress.h"
#include "visitor.h"

#include <memory>
#include <unordered_set>

namespace korva::program
{

namespace
{

// DWARF 5, 7.5.3, 7.5.4 and 7.20
constexpr uint32_t DW_TAG_subprogram = 0x2e;
constexpr uint32_t DW_AT_inline = 0x20;
constexpr uint32_t DW_AT_abstract_origin = 0x31;
constexpr uint64_t DW_INL_inlined = 1;
constexpr uint64_t DW_INL_declared_inlined = 3;

struct funcs_options : common_options {
    std::string name;
    bool demangle = false;
    bool basenames = false;
    bool indexed = false;
};

/** Prints functions, and counts them. */
class function_printer
{
public:
    function_printer(const funcs_options &options, object *obj, answers *out)
        : m_options(options), m_object(obj), m_out(out)
    {
    }

    /** Prints the function of an entry, if it has code. False: not all is known of it, which has been told. */
    bool print(const entry &e);
    size_t count() const { return m_count; }

private:
    bool refuse(const entry &e, const error &why);
    void write(const entry &e, const krv_call_t &known, const std::vector<range> &ranges, std::string_view path);

    const funcs_options &m_options;
    object *m_object;
    answers *m_out;
    size_t m_count = 0;
    std::unordered_set<const krv_ctu_t *> m_refused; // units of which something was told
};

} // namespace

// Whether the compiler inlined the function somewhere, which its abstract instance says.
static bool is_inlined(entry e)
{
    constexpr int MOST_ORIGINS = 32;
    for (int i = 0; i < MOST_ORIGINS; ++i) {
        if (const auto how = e.find(DW_AT_inline))
            return how->number == DW_INL_inlined || how->number == DW_INL_declared_inlined;
        const auto origin = e.find(DW_AT_abstract_origin);
        const auto next = origin ? e.follow(*origin) : result<entry>(origin.error());
        if (!next)
            break;
        e = *next;
    }
    return false;
}

// Told once of a unit.
bool function_printer::refuse(const entry &e, const error &why)
{
    if (m_refused.insert(e.get().unit).second)
        m_object->diagnose(fmt::format("function at offset 0x{:x} of .debug_info: {}", e.offset(), why.text()));
    const auto header = e.unit().header();
    m_out->record_failure(
        to_record_error(why, ".debug_info", e.offset(), header ? std::optional(header->offset) : std::nullopt));
    return false;
}

bool function_printer::print(const entry &e)
{
    std::vector<range> ranges;
    const auto all = e.each_range([&](range r) { ranges.push_back(r); });
    bool is_complete = all || all.error().code == KRV_ERR_NOTFOUND || refuse(e, all.error());
    if (ranges.empty()) // a declaration, or the linker dropped it
        return is_complete;
    const auto known = e.call();
    if (!known)
        return refuse(e, known.error());
    std::string_view path;
    if (known->decl_unit != nullptr) {
        const handle_view handle = m_object->handle();
        const auto declared = file_of(handle, unit(handle.get(), known->decl_unit), known->decl_file);
        if (declared)
            path = declared->path;
        else if (declared.error().code != KRV_ERR_NOTFOUND)
            is_complete = refuse(e, declared.error());
    }
    if (m_options.basenames && path.data() != nullptr)
        path.remove_prefix(path.rfind('/') + 1); // npos + 1 is 0
    write(e, *known, ranges, path);
    return is_complete;
}

void function_printer::write(const entry &e, const krv_call_t &known, const std::vector<range> &ranges,
                             std::string_view path)
{
    ++m_count;
    const char *symbol = known.linkage_name != nullptr ? known.linkage_name : known.name;
    const std::string shown = symbol == nullptr ? "" : function_name(symbol, m_options.demangle);
    if (m_out->is_json()) {
        const auto header = e.unit().header();
        json_value spans = json_value::array();
        for (const range &r : ranges)
            spans.push_back({{"start", hex(r.start)}, {"end", hex(r.end)}});
        m_out->record({{"offset", hex(e.offset())},
                       {"unit", header ? hex(header->offset) : json_value(nullptr)},
                       {"function", symbol == nullptr ? json_value(nullptr) : json_value(shown)},
                       {"name", or_null(known.name)},
                       {"linkage_name", or_null(known.linkage_name)},
                       {"file", path.data() == nullptr ? json_value(nullptr) : json_value(path)},
                       {"line", or_null(known.decl_line)},
                       {"ranges", spans},
                       {"inlined", is_inlined(e)}});
        return;
    }
    const int width = m_object->address_digits();
    for (size_t i = 0; i < ranges.size(); ++i)
        m_out->print("{}0x{:0{}x}-0x{:0{}x}", i == 0 ? "" : ",", ranges[i].start, width, ranges[i].end, width);
    m_out->print("  {}  {}:{}{}\n", symbol == nullptr ? "??" : printable(shown),
                 path.data() == nullptr ? "??" : printable(path), known.decl_line, is_inlined(e) ? "  inlined" : "");
}

// The functions of a unit. False: not all are known, which has been told.
static bool print_unit_functions(object *obj, unit_record &u, function_printer &printer)
{
    if (!u.is_readable()) {
        obj->refuse_unread(u);
        return false;
    }
    bool is_complete = true;
    const std::string what = fmt::format("functions of unit at offset 0x{:x}", u.header.offset);
    const auto first = entry::first(obj->handle(), u.unit);
    if (first) {
        auto below = first->descendants();
        for (const entry &e : below)
            if (e.tag() == DW_TAG_subprogram)
                is_complete = printer.print(e) && is_complete;
        if (!below.failure())
            return is_complete;
        obj->refuse(u, what, ".debug_info", u.header.offset, *below.failure());
    } else if (first.error().code != KRV_ERR_NOTFOUND) {
        obj->refuse(u, what, ".debug_info", u.header.offset, first.error());
    }
    return !u.refused && is_complete;
}

// The functions of a name. False: not all is known of them, which has been told.
static bool print_named(object *obj, const std::string &name, bool indexed, function_printer &printer)
{
    bool is_complete = true;
    visitor print([&](const entry &e) { is_complete = printer.print(e) && is_complete; });
    unsigned int flags = KRV_NAMED_FUNCTIONS;
    if (indexed)
        flags |= KRV_NAMED_INDEXED;
    const auto found = each_named_entry(obj->handle(), name.c_str(), flags, print);
    print.rethrow();
    if (!found)
        throw failure(fmt::format("{}: functions by name: {}", obj->path(), found.error().text()),
                      to_record_error(found.error(), ".debug_info"));
    if (printer.count() == 0)
        throw failure(fmt::format("{}: no function \"{}\" has code here", obj->path(), name),
                      {.code = "KRV_ERR_NOTFOUND"});
    return is_complete;
}

static int run_funcs(const funcs_options &options)
{
    object obj(options.file, options.flags(), options.search, options.bounds);
    tally done;
    if (!obj.diagnose_notes())
        done.missed();
    std::vector<unit_record> &units = obj.units();
    if (!obj.is_complete())
        done.missed();
    answers out(options.format);
    function_printer printer(options, &obj, &out);
    if (!options.name.empty()) {
        if (!print_named(&obj, options.name, options.indexed, printer))
            done.missed();
    } else {
        const progress shown(fmt::format("{}: functions", obj.path()), units.size(), progress::mode::answering);
        for (unit_record &u : units) {
            obj.begin_record();
            const bool is_complete = print_unit_functions(&obj, u, printer);
            is_complete ? done.answered() : done.missed();
            if (u.refused)
                out.record_failure(u.why);
        }
    }
    if (printer.count() != 0)
        done.answered();
    obj.record_faults(&out);
    out.finish();
    return done.status();
}

void add_funcs(CLI::App &app, int *status)
{
    auto options = std::make_shared<funcs_options>();
    CLI::App *verb = app.add_subcommand("funcs", "Lists the functions of a file");
    verb->add_option("FILE", options->file, "ELF file")->required();
    verb->add_option("NAME", options->name, "Only functions of this name, or this linkage name");
    verb->add_flag("-C,--demangle", options->demangle, "Show names of C++, Rust and D as these write them");
    verb->add_flag("-s,--basenames", options->basenames, "Show file names without folders");
    verb->add_flag("--indexed", options->indexed, "What an index of names in the file lists of NAME is enough");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer(
        "A line for each function that has code, in the order of .debug_info: its ranges of addresses, the end\n"
        "behind the last byte; its linkage name, or name; file and line of its declaration; inlined when some\n"
        "of its calls were inlined, whose code is not in the ranges. What is not known is ?? or line 0 (JSON:\n"
        "null). Bytes that are not UTF-8 become U+FFFD in JSON.\n"
        "Examples:\n"
        "  korva funcs ./a.out\n"
        "  korva funcs -C ./a.out main\n"
        "  korva funcs --format=jsonl ./a.out | jq -r 'select(.inlined) | .function'");
    verb->callback([options, status] { *status = run_funcs(*options); });
}

} // namespace korva::program
