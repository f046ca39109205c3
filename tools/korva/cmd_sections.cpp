// SPDX-License-Identifier: Apache-2.0
//
// korva sections: what of a file is read, and what the loader corrected in it, pass by pass.
#include "command.h"
#include "object.h"

#include <memory>

namespace korva::program
{

namespace
{

struct note_record {
    std::string pass;
    std::string section;
    uint64_t offset;
    bool refused;
    std::string text;
};

struct section_record {
    std::string name;
    uint64_t size;
    uint64_t file_size;
    bool compressed;
    bool copied;
    std::vector<note_record> notes;
};

} // namespace

static std::vector<note_record> read_notes(krv_elf_t *elf)
{
    std::vector<note_record> notes;
    korva_elf_iter_notes(
        elf,
        [](krv_elf_t *, const krv_elf_note_t *note, void *arg) -> int {
            static_cast<std::vector<note_record> *>(arg)->push_back(
                {note->pass, note->section, note->offset, note->refused != 0, note->text});
            return 0;
        },
        &notes);
    return notes;
}

// The sections that the library reads, and those that something is to be said of.
static std::vector<section_record> read_sections(krv_elf_t *elf, const std::vector<note_record> &notes)
{
    struct state {
        const std::vector<note_record> &notes;
        std::vector<section_record> all;
    } s = {notes, {}};
    korva_elf_iter_sections(
        elf,
        [](krv_elf_t *, const krv_elf_section_t *section, void *arg) -> int {
            auto *st = static_cast<state *>(arg);
            section_record record = {
                section->name, section->size, section->file_size, section->compressed != 0, section->copied != 0, {}};
            for (const note_record &note : st->notes)
                if (note.section == record.name)
                    record.notes.push_back(note);
            if (section->index != KRV_SEC_NONE || section->copied != 0 || !record.notes.empty())
                st->all.push_back(std::move(record));
            return 0;
        },
        &s);
    return std::move(s.all);
}

static const char *how(const section_record &section)
{
    if (section.copied)
        return section.file_size == 0 ? "made" : "corrected";
    return section.compressed ? "inflated" : "as it is";
}

static json_value note_json(const note_record &note)
{
    return {{"pass", note.pass}, {"offset", hex(note.offset)}, {"refused", note.refused}, {"text", note.text}};
}

static void print_notes(answers &out, const std::vector<note_record> &notes)
{
    for (const note_record &note : notes)
        out.print("    {}: {}{}\n", note.pass, note.refused ? "not read: " : "", printable(note.text));
}

static int run_sections(const common_options &options)
{
    const object obj(options.file, options.raw, options.debug_dirs);
    const std::vector<note_record> notes = read_notes(obj.elf());
    answers out(options.format);
    const char *debug_path = korva_elf_get_debug_path(obj.elf());
    if (debug_path != nullptr && !out.is_json())
        out.print("debugging information: {}\n", printable(debug_path));
    bool all_read = true;
    for (const section_record &section : read_sections(obj.elf(), notes)) {
        if (!out.is_json()) {
            out.print("{:<18}  {:>10}  {}\n", printable(section.name), section.size, how(section));
            print_notes(out, section.notes);
            continue;
        }
        json_value list = json_value::array();
        for (const note_record &note : section.notes)
            list.push_back(note_json(note));
        out.record({{"section", section.name},
                    {"size", section.size},
                    {"file_size", section.file_size},
                    {"state", how(section)},
                    {"debug_file", or_null(debug_path)},
                    {"notes", list}});
    }
    for (const note_record &note : notes) {
        all_read = all_read && !note.refused;
        if (note.section.empty())
            obj.diagnose(note.text);
    }
    out.finish();
    return all_read ? ANSWERED : PARTLY;
}

void add_sections(CLI::App &app, int *status)
{
    auto options = std::make_shared<common_options>();
    CLI::App *verb = app.add_subcommand("sections", "Shows which sections are read, and what was corrected in them");
    add_common_options(verb, options.get(),
                       {{"text", output_format::text}, {"json", output_format::json}, {"jsonl", output_format::jsonl}});
    verb->add_option("FILE", options->file, "ELF file")->required();
    verb->footer(
        "A section is read as it is, inflated, corrected in a copy, or made by the loader. --raw corrects nothing.\n"
        "Exit status: 0 everything is read, 1 some parts are not (the lines with `not read`), 2 nothing.\n"
        "Examples:\n"
        "  korva sections /usr/bin/ls\n"
        "  korva sections --format=jsonl a.out | jq '.notes[].text'");
    verb->callback([options, status] { *status = run_sections(*options); });
}

} // namespace korva::program
