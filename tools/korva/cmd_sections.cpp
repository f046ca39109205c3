// SPDX-License-Identifier: Apache-2.0
//
// korva sections: what of a file is read, and what is corrected, left out or refused in it.
#include "command.h"
#include "object.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string_view>

namespace korva::program
{

using note_list = std::vector<krv_elf_note_t>;

static std::map<std::string_view, note_list> notes_by_section(const note_list &all)
{
    std::map<std::string_view, note_list> sorted;
    for (const krv_elf_note_t &note : all)
        sorted[note.section].push_back(note);
    return sorted;
}

static const char *how(const krv_elf_section_t &section)
{
    if (section.copied != 0)
        return "relocated";
    return section.compressed != 0 ? "inflated" : "as it is";
}

static json_value note_json(const krv_elf_note_t &note)
{
    return {{"pass", note.pass}, {"offset", hex(note.offset)}, {"refused", note.refused != 0}, {"text", note.text}};
}

static void print_notes(answers &out, const note_list &notes)
{
    for (const krv_elf_note_t &note : notes)
        out.print("    {}: {}{}\n", note.pass, note.refused != 0 ? "not read: " : "", printable(note.text));
}

// What is left out is noted where it is met: units, their ranges and their lines.
static void read_everything(const object &obj)
{
    const handle_view handle = obj.handle();
    (void)handle.lookup_unit(0);
    for (const unit &u : handle.units())
        (void)u.sequences();
}

static bool is_of_alternate_file(const krv_elf_section_t &section)
{
    return section.index >= KRV_SEC_EXT_ALT_INFO && section.index <= KRV_SEC_EXT_ALT_ABBREV;
}

static int run_sections(const common_options &options)
{
    const object obj(options.file, options.flags(), options.search, options.bounds);
    if (!options.raw)
        read_everything(obj);
    const note_list all = obj.elf().notes();
    std::map<std::string_view, note_list> by_section = notes_by_section(all);
    answers out(options.format);
    const char *debug_path = obj.elf().debug_path();
    if (debug_path != nullptr && !out.is_json())
        out.print("debugging information: {}\n", printable(debug_path));
    tally done;
    const note_list no_notes;
    for (const krv_elf_section_t &section : obj.elf().sections()) {
        const bool is_alternate = is_of_alternate_file(section);
        const note_list &notes = is_alternate ? no_notes : by_section[section.name];
        if (section.index == KRV_SEC_NONE && section.copied == 0 && notes.empty())
            continue;
        done.answered();
        if (!out.is_json()) {
            out.print("{:<18}  {:>10}  {}{}\n", printable(section.name), section.size, how(section),
                      is_alternate ? ", in the alternate file" : "");
            print_notes(out, notes);
            continue;
        }
        json_value list = json_value::array();
        for (const krv_elf_note_t &note : notes)
            list.push_back(note_json(note));
        const auto fault = std::find_if(notes.begin(), notes.end(), [](const auto &n) { return n.refused != 0; });
        const record_error why =
            fault == notes.end()
                ? record_error()
                : record_error{.section = section.name, .offset = fault->offset, .messages = {fault->text}};
        const record_error *whyp = fault == notes.end() ? nullptr : &why;
        const json_value record = {{"section", section.name},
                                   {"size", number(section.size)},
                                   {"file_size", number(section.file_size)},
                                   {"state", how(section)},
                                   {"debug_file", or_null(debug_path)},
                                   {"alternate", is_alternate},
                                   {"notes", list}};
        out.record(record, status_of(whyp), whyp);
    }
    for (const krv_elf_note_t &note : all) {
        if (note.refused != 0)
            done.missed();
        if (*note.section != '\0')
            continue;
        obj.diagnose(note.text);
        if (note.refused != 0)
            out.record_failure({.messages = {note.text}});
    }
    out.finish();
    return done.status();
}

void add_sections(CLI::App &app, int *status)
{
    auto options = std::make_shared<common_options>();
    CLI::App *verb = app.add_subcommand("sections", "Shows which sections are read, and what of them is not");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->add_option("FILE", options->file, "ELF file")->required();
    verb->footer("A section is read as it is, inflated, or, of an object file, relocated in a copy. Below it stands "
                 "what is left out\n"
                 "of it or not read; to know that, all units and line tables are read. --raw: only the sections, as "
                 "they stand.\n"
                 "Exit status: 0 everything is read, 1 some parts are not (the lines with `not read`), 2 nothing.\n"
                 "Examples:\n"
                 "  korva sections /usr/bin/ls\n"
                 "  korva sections --format=jsonl a.out | jq '.notes[].text'");
    verb->callback([options, status] { *status = run_sections(*options); });
}

} // namespace korva::program
