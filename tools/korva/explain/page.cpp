// SPDX-License-Identifier: Apache-2.0
#include "explain/page.h"

#include <algorithm>

namespace korva::program::explanation
{

constexpr size_t MOST_NOTES = 8;

std::vector<step> take_steps(trail &t, std::vector<std::string> *notes)
{
    const kept_diagnostics kept; // what the answer would have told on its way
    const auto frames = t.lines->frames(t.address, t.frame_flags, SIZE_MAX);
    t.frames.assign(frames.begin(), frames.end());
    t.refusal = t.lines->refusal();
    t.file->begin_record(); // what the steps read once more is not the answer's
    std::vector<step> steps;
    for (step (*take)(trail &) : {explain_place, explain_debug_file, explain_unit, explain_line, explain_functions,
                                  explain_symbol, explain_frame})
        steps.push_back(take(t));
    if (t.file->has_debug_info()) // else that is all they say
        *notes = kept.texts;
    for (const krv_elf_note_t &note : t.file->elf().notes())
        if (note.refused != 0 && note.pass != std::string_view("reading") && notes->size() < MOST_NOTES)
            notes->emplace_back(note.text);
    return steps;
}

static std::string place_text(const krv_elf_frame_t &frame)
{
    std::string text = frame.file[0] == '\0' ? "??" : frame.file;
    text += frame.line == 0 ? ":?" : fmt::format(":{}", frame.line);
    return text;
}

static void append(std::string *page, const char *name, const std::vector<std::string> &lines)
{
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string line = lines[i].empty() ? "" : fmt::format("  {:<9}", i == 0 ? name : "");
        append_printable(&line, lines[i]);
        *page += line + '\n';
    }
}

std::string make_page(const std::string &input, const trail &t, const std::vector<step> &steps,
                      const std::vector<std::string> &notes)
{
    std::string page = fmt::format("0x{:0{}x}  {}", t.loaded ? t.loaded->pc : t.address, t.file->address_digits(),
                                   printable(t.file->path()));
    page += input.empty() ? "\n" : fmt::format("  ({})\n", printable(input));
    std::vector<std::string> answer;
    for (const krv_elf_frame_t &frame : t.frames)
        answer.push_back(fmt::format("{}  {}{}", frame.function[0] == '\0' ? "??" : frame.function, place_text(frame),
                                     frame.is_inlined != 0 ? "  (inlined)" : ""));
    if (answer.empty())
        answer.emplace_back("nothing is known of it");
    append(&page, "answer", answer);
    page += '\n';
    for (const step &s : steps)
        append(&page, s.name, s.lines);
    if (!t.stopped.empty() || !t.help.empty() || !notes.empty())
        page += '\n';
    append(&page, "stopped", t.stopped);
    append(&page, "helps", t.help);
    append(&page, "notes", notes);
    return page;
}

static json_value frame_record(const krv_elf_frame_t &frame)
{
    const auto known = [](const char *text) { return text[0] == '\0' ? json_value(nullptr) : json_value(text); };
    return {{"function", known(frame.function)},
            {"linkage_name", known(frame.linkage_name)},
            {"from", frame.origin == KRV_ELF_FRAME_ENTRIES   ? json_value("entries")
                     : frame.origin == KRV_ELF_FRAME_SYMBOLS ? json_value("symbols")
                                                             : json_value(nullptr)},
            {"inlined", frame.is_inlined != 0},
            {"file", known(frame.file)},
            {"line", or_null(uint64_t{frame.line})},
            {"column", or_null(uint64_t{frame.column})},
            {"discriminator", frame.line == 0 ? json_value(nullptr) : json_value(frame.discriminator)}};
}

json_value make_record(const std::string &input, const trail &t, const std::vector<step> &steps,
                       const std::vector<std::string> &notes)
{
    json_value record = {{"input", input.empty() ? json_value(nullptr) : json_value(input)},
                         {"address", hex(t.address)},
                         {"pc", t.loaded ? hex(t.loaded->pc) : json_value(nullptr)},
                         {"file", t.file->path()},
                         {"frames", json_value::array()}};
    for (const krv_elf_frame_t &frame : t.frames)
        record["frames"].push_back(frame_record(frame));
    for (const step &s : steps)
        record[s.key] = s.fields;
    record["stopped"] = t.stopped;
    record["help"] = t.help;
    record["notes"] = notes;
    return record;
}

} // namespace korva::program::explanation
