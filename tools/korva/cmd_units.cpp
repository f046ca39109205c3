// SPDX-License-Identifier: Apache-2.0
//
// korva units: one line for every compilation unit.
#include "command.h"
#include "object.h"

#include <memory>

namespace korva::program
{

static json_value or_null(const result<std::string> &text)
{
    return text ? json_value(*text) : json_value(nullptr);
}

// Kinds of units, by their number.
static constexpr const char *KINDS[] = {"not read", "compile", "type", "partial", "skeleton", "split", "split type"};

static void print_unit(answers &out, const json_value &record, const record_error *why)
{
    if (out.is_json()) {
        out.record(record, status_of(why), why);
        return;
    }
    const auto text = [&](const char *key) {
        return record[key].is_null() ? "-" : printable(record[key].get_ref<const std::string &>());
    };
    out.print("{:<10}  {}  {:<8}  {:>8}  {}  {}  {}{}\n", text("offset"), record["version"].get<int>(), text("type"),
              record["size"].dump(), text("name"), text("comp_dir"), text("producer"),
              record["split_file"].is_null() ? "" : fmt::format("  (the rest is in {})", text("split_file")));
}

static int run_units(const common_options &options)
{
    object obj(options.file, options.flags(), options.search, options.bounds);
    tally done;
    if (!obj.diagnose_notes())
        done.missed();
    std::vector<unit_record> &units = obj.units();
    answers out(options.format);
    for (unit_record &u : units) {
        obj.begin_record();
        json_value record = {{"offset", hex(u.header.offset)},
                             {"version", u.header.version},
                             {"type", KINDS[u.kind.kind]},
                             {"size", number(u.header.size)},
                             {"dwarf64", u.header.dwarf64 != 0},
                             {"name", nullptr},
                             {"comp_dir", nullptr},
                             {"producer", nullptr},
                             {"split_file", or_null(u.kind.dwo_name)}};
        if (!u.is_readable()) {
            obj.refuse_unread(u);
        } else if (const auto entry = u.unit.entry(); !entry) {
            obj.refuse(u, fmt::format("entry of unit at offset 0x{:x}", u.header.offset), ".debug_info",
                       u.header.offset, entry.error());
        } else {
            record["name"] = or_null(u.unit.name());
            record["comp_dir"] = or_null(u.unit.comp_dir());
            record["producer"] = or_null(u.unit.producer());
        }
        done.add(!u.refused);
        print_unit(out, record, u.refused ? &u.why : nullptr);
    }
    obj.record_faults(&out);
    out.finish();
    if (!obj.is_complete())
        done.missed();
    return done.status();
}

void add_units(CLI::App &app, int *status)
{
    auto options = std::make_shared<common_options>();
    CLI::App *verb = app.add_subcommand("units", "Lists the compilation units of a file");
    verb->add_option("FILE", options->file, "ELF file")->required();
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->footer("Each line: offset in .debug_info, DWARF version, type of the unit, size in bytes, name, compilation "
                 "directory,\n"
                 "producer; of a skeleton unit also the file that has the rest, which is not read;\n"
                 "- is not known (JSON: null). Bytes that are not UTF-8 become U+FFFD in JSON.\n"
                 "Examples:\n"
                 "  korva units ./a.out\n"
                 "  korva units --format=jsonl ./a.out | jq -r .name");
    verb->callback([options, status] { *status = run_units(*options); });
}

} // namespace korva::program
