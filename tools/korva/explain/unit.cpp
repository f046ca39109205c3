// SPDX-License-Identifier: Apache-2.0
//
// Which unit answers, and what named it.
#include "explain/step.h"

namespace korva::program::explanation
{

static std::string name_of(const unit &u)
{
    const result<std::string> name = u.name();
    return name ? *name : "??";
}

static std::string entry_text(uint64_t offset)
{
    return fmt::format("the entry at 0x{:x} of .debug_info", offset);
}

// What says that the unit covers the address.
static void explain_reason(const krv_unit_why_t &why, step *s)
{
    static constexpr const char *NAMES[] = {"nothing", "set", "list", "bounds", "function"};
    const std::string range = range_text(why.range.start, why.range.end);
    const char *list = why.section == KRV_SEC_EXT_RNGLISTS ? ".debug_rnglists" : ".debug_ranges";
    switch (why.reason) {
    case KRV_WHY_SET:
        s->say("named by the set at 0x{:x} of .debug_aranges: its tuple at 0x{:x} covers {}", why.offset, why.tuple,
               range);
        break;
    case KRV_WHY_LIST:
        s->say("named by DW_AT_ranges of {}: the list at 0x{:x} of {} covers {}", entry_text(why.entry), why.offset,
               list, range);
        break;
    case KRV_WHY_BOUNDS:
        s->say("named by DW_AT_low_pc and DW_AT_high_pc of {}: {}", entry_text(why.entry), range);
        break;
    case KRV_WHY_FUNCTION:
        s->say("named by a scan of its functions: {} covers {}", entry_text(why.entry), range);
        break;
    default:
        s->say("named by its line table alone: no range of a unit covers the address");
    }
    s->fields["named_by"] = {
        {"what", NAMES[why.reason]},
        {"section", why.reason == KRV_WHY_SET       ? json_value(".debug_aranges")
                    : why.section == KRV_SEC_INFO   ? json_value(".debug_info")
                    : why.reason == KRV_WHY_NOTHING ? json_value(nullptr)
                                                    : json_value(list)},
        {"offset", why.reason == KRV_WHY_NOTHING ? json_value(nullptr) : hex(why.offset)},
        {"tuple", why.reason == KRV_WHY_SET ? hex(why.tuple) : json_value(nullptr)},
        {"entry", why.entry == 0 ? json_value(nullptr) : hex(why.entry)},
        {"range", why.range.end == 0 ? json_value(nullptr) : range_record(why.range.start, why.range.end)}};
}

// What the reader noted of a unit that it stepped over.
static std::string note_of(const trail &t, uint64_t offset)
{
    for (const krv_elf_note_t &note : t.file->elf().notes())
        if (note.refused != 0 && note.offset == offset && note.section == std::string_view(".debug_info"))
            return note.text;
    return fmt::format("the unit at offset 0x{:x} of .debug_info cannot be read", offset);
}

static void explain_kind(trail &t, const unit &u, const krv_cu_header_t &header, step *s)
{
    const krv_cu_kind_t kind = u.kind().value_or({});
    if (kind.kind == 0)
        t.stop("{}", note_of(t, header.offset));
    static constexpr const char *KINDS[] = {nullptr,    "compile",       "type",      "partial",
                                            "skeleton", "split_compile", "split_type"};
    s->fields["kind"] = or_null(kind.kind < std::size(KINDS) ? KINDS[kind.kind] : nullptr);
    s->fields["dwo"] = or_null(kind.dwo_name);
    if (kind.dwo_name == nullptr && kind.kind != KRV_UNIT_SKELETON)
        return;
    const std::string dwo = kind.dwo_name == nullptr ? "a .dwo file" : kind.dwo_name;
    s->say("a skeleton: its functions are in {}", dwo);
    t.stop("split: the functions of the unit are in {}, which is not read", dwo);
    t.help.emplace_back("compiled without -gsplit-dwarf, functions and inlined calls are known too");
}

static void explain_header(trail &t, const unit &u, step *s)
{
    const krv_cu_header_t header = u.header().value_or({});
    s->fields["offset"] = hex(header.offset);
    s->fields["version"] = header.version;
    s->fields["size"] = number(header.size);
    const result<std::string> name = u.name(), folder = u.comp_dir(), producer = u.producer();
    s->fields["name"] = name ? json_value(*name) : json_value(nullptr);
    s->fields["comp_dir"] = folder ? json_value(*folder) : json_value(nullptr);
    s->fields["producer"] = producer ? json_value(*producer) : json_value(nullptr);
    s->say("{}  at 0x{:x} of .debug_info, DWARF {}, {} bytes", name ? *name : "??", header.offset, header.version,
           header.size);
    if (folder)
        s->say("compiled in {}", *folder);
    if (producer)
        s->say("by {}", *producer);
    explain_kind(t, u, header, s);
}

// One that cannot be read may be that which covers the address.
static void tell_unread(trail &t)
{
    size_t count = 0;
    const char *first = nullptr;
    for (const krv_elf_note_t &note : t.file->elf().notes())
        if (note.refused != 0 && note.section == std::string_view(".debug_info") && count++ == 0)
            first = note.text;
    if (t.section != nullptr && t.section->executable != 0 && first != nullptr)
        t.stop("{}; it may cover the address{}", first, count == 1 ? "" : fmt::format(", as {} others may", count - 1));
}

// Without a unit: how far the nearest are.
static void explain_neighbours(trail &t, const krv_unit_why_t &why, step *s)
{
    std::vector<std::string> sides;
    const auto unit_at = [&](krv_ctu_t *cup) { return name_of(unit(t.handle().get(), cup)); };
    s->fields["before"] = s->fields["after"] = nullptr;
    if (why.before != nullptr) {
        const std::string name = unit_at(why.before);
        sides.push_back(
            fmt::format("{} ends 0x{:x} before, at 0x{:x}", name, t.address - why.before_end, why.before_end));
        s->fields["before"] = {{"name", name}, {"end", hex(why.before_end)}};
    }
    if (why.after != nullptr) {
        const std::string name = unit_at(why.after);
        sides.push_back(
            fmt::format("{} begins 0x{:x} behind, at 0x{:x}", name, why.after_start - t.address, why.after_start));
        s->fields["after"] = {{"name", name}, {"start", hex(why.after_start)}};
    }
    if (why.reason == KRV_WHY_SET) {
        explain_reason(why, s);
        t.stopped.push_back(note_of(t, why.named));
    } else {
        tell_unread(t);
    }
    const std::string nearest = fmt::format("{}", fmt::join(sides, "; "));
    s->say("no unit covers it{}{}", nearest.empty() ? "" : ": ", nearest);
    if (t.stopped.empty()) // else it is told why none could
        t.stopped.push_back(s->lines.back());
}

step explain_unit(trail &t)
{
    step s{.name = "unit", .key = "unit"};
    if (!t.file->has_debug_info())
        return s;
    s.fields = json_value::object();
    krv_handle_t *hp = t.handle().get();
    krv_unit_why_t why;
    const bool is_told = korva_explain_unit(hp, t.address, &why) == 0;
    if (is_told)
        t.unit = why;
    else
        t.stop("it cannot be told what named the unit: {}", last_error(hp).text());
    krv_ctu_t *answering = !t.frames.empty() && t.frames[0].unit != nullptr ? t.frames[0].unit : why.unit;
    if (answering == nullptr) {
        if (is_told)
            explain_neighbours(t, why, &s);
        return s;
    }
    explain_header(t, unit(hp, answering), &s);
    if (!is_told)
        return s;
    if (answering == why.unit || why.unit == nullptr) {
        explain_reason(why, &s);
    } else {
        const unit first(hp, why.unit);
        s.say("units overlap: the first that covers it, {} at 0x{:x}, knows no line there", name_of(first),
              first.header().value_or({}).offset);
        explain_reason(why, &s);
        s.lines.back() = "that one is " + s.lines.back();
    }
    return s;
}

} // namespace korva::program::explanation
