// SPDX-License-Identifier: Apache-2.0
//
// Which row of which line table answers, with its neighbours and the source.
#include "explain/source_text.h"
#include "explain/step.h"

namespace korva::program::explanation
{

static std::string path_of(krv_handle_t *hp, const krv_row_t &row)
{
    const char *path = row.file == nullptr ? nullptr : korva_lnfe_path(hp, row.file, B_TRUE);
    return path == nullptr ? "??" : path;
}

static std::string base_of(const std::string &path)
{
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

static std::string row_text(krv_handle_t *hp, const krv_row_t &row)
{
    std::string text = fmt::format("{}:{}", base_of(path_of(hp, row)), row.line);
    if (row.column != 0)
        text += fmt::format(":{}", row.column);
    if (row.is_stmt == 0)
        text += ", not a statement";
    if (row.discriminator != 0)
        text += fmt::format(", discriminator {}", row.discriminator);
    return text;
}

static json_value row_record(krv_handle_t *hp, const krv_row_t &row)
{
    if (row.number == KRV_ROW_NONE)
        return nullptr;
    return {{"address", hex(row.address)},
            {"file", row.file == nullptr ? json_value(nullptr) : json_value(path_of(hp, row))},
            {"line", or_null(uint64_t{row.line})},
            {"column", or_null(uint64_t{row.column})},
            {"discriminator", row.discriminator},
            {"is_stmt", row.is_stmt != 0},
            {"number", row.number}};
}

static void explain_rows(const trail &t, const krv_row_why_t &why, step *s)
{
    krv_handle_t *hp = t.handle().get();
    if (why.is_gap != 0)
        s->say("no sequence covers it: its function reaches into this one alone, whose nearest row answers");
    s->say("sequence {}, one of {}", range_text(why.sequence.start, why.sequence.end), why.sequences);
    if (why.before.number != KRV_ROW_NONE)
        s->say("  0x{:x}  {}", why.before.address, row_text(hp, why.before));
    s->say("> 0x{:x}  {}", why.row.address, row_text(hp, why.row));
    if (why.after.number != KRV_ROW_NONE)
        s->say("  0x{:x}  {}", why.after.address,
               why.after_ends != 0 ? "the end of the sequence" : row_text(hp, why.after));
    if (why.before.number != KRV_ROW_NONE && why.before.address == why.row.address)
        s->say("of several rows at one address the last answers");
    s->fields["sequence"] = range_record(why.sequence.start, why.sequence.end);
    s->fields["gap"] = why.is_gap != 0;
    s->fields["before"] = row_record(hp, why.before);
    s->fields["row"] = row_record(hp, why.row);
    s->fields["after"] = row_record(hp, why.after);
    s->fields["after_ends"] = why.after_ends != 0;
    if (why.row.line == 0) {
        s->say("line 0: the compiler names no line for this code");
    }
}

static void explain_source(const trail &t, const krv_row_why_t &why, step *s)
{
    if (t.context == 0 || why.row.line == 0 || why.row.file == nullptr)
        return;
    const source_text text = read_source(path_of(t.handle().get(), why.row), why.row.line, t.context, t.file->path());
    if (!text.lines.empty())
        s->lines.emplace_back();
    for (const auto &[number, line] : text.lines)
        s->say("{} {:>4} | {}", number == why.row.line ? '>' : ' ', number, line);
    if (text.is_newer)
        s->say("  (the source is newer than the program: lines may have moved)");
    if (text.lines.empty())
        s->say("  (the source cannot be read here: {})", text.why_not);
    s->fields["source"] = json_value::array();
    for (const auto &[number, line] : text.lines)
        s->fields["source"].push_back({{"line", number}, {"text", line}});
    s->fields["source_is_newer"] = text.is_newer;
}

// Why the line table has no row.
static void explain_no_row(trail &t, const krv_row_why_t &why, const error &failed, step *s)
{
    if (failed.code != KRV_ERR_NOTFOUND) {
        s->say("it cannot be read: {}", failed.text());
        t.stop("the line table at 0x{:x} fails: {}", why.offset, failed.text());
        return;
    }
    if (why.version == 0) {
        t.stop("the unit has no line table (no DW_AT_stmt_list)");
        return;
    }
    std::vector<std::string> sides;
    if (why.before_end != 0)
        sides.push_back(fmt::format("one ends 0x{:x} before, at 0x{:x}", t.address - why.before_end, why.before_end));
    if (why.after_start != UINT64_MAX)
        sides.push_back(
            fmt::format("one begins 0x{:x} behind, at 0x{:x}", why.after_start - t.address, why.after_start));
    s->say("none of its {} sequences covers it{}{}", why.sequences, sides.empty() ? "" : ": ", fmt::join(sides, "; "));
    t.stop("no sequence of the line table at 0x{:x} covers it{}{}", why.offset, sides.empty() ? "" : ": ",
           fmt::join(sides, "; "));
}

// Asks in the range in which the answer was found: of the address alone, else of its function.
static int ask(const trail &t, krv_ctu_t *cup, krv_row_why_t *why)
{
    krv_handle_t *hp = t.handle().get();
    const krv_elf_symbol_t *function = t.file->elf().symbol(t.address);
    const int alone = korva_explain_row(hp, cup, t.address, 1, t.address, why);
    if (alone == 0 || korva_handle_get_errno(hp) != KRV_ERR_NOTFOUND || function == nullptr)
        return alone;
    return korva_explain_row(hp, cup, function->address, function->size, t.address, why);
}

step explain_line(trail &t)
{
    step s{.name = "line", .key = "line"};
    krv_ctu_t *cup = !t.frames.empty() && t.frames[0].unit != nullptr ? t.frames[0].unit
                     : t.unit                                         ? t.unit->unit
                                                                      : nullptr;
    if (cup == nullptr)
        return s;
    krv_row_why_t why;
    const int result = ask(t, cup, &why);
    const error failed = result == 0 ? error() : last_error(t.handle().get());
    s.fields = {{"offset", why.version == 0 ? json_value(nullptr) : hex(why.offset)},
                {"version", or_null(uint64_t{why.version})},
                {"sequences", why.sequences},
                {"rows", why.rows}};
    if (why.version != 0)
        s.say("table at 0x{:x} of .debug_line, version {}, {} rows", why.offset, why.version, why.rows);
    if (result != 0) {
        explain_no_row(t, why, failed, &s);
        return s;
    }
    explain_rows(t, why, &s);
    explain_source(t, why, &s);
    return s;
}

} // namespace korva::program::explanation
