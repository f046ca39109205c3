// SPDX-License-Identifier: Apache-2.0
//
// The functions around the address with their entries, ranges and names; and the symbol.
#include "explain/step.h"

#include <algorithm>

namespace korva::program::explanation
{

constexpr uint32_t DW_AT_SPECIFICATION = 0x47;
constexpr size_t MOST_FUNCTIONS = 256, MOST_RANGES = 3;

static std::vector<krv_call_t> calls_of(const trail &t)
{
    std::vector<krv_call_t> calls(MOST_FUNCTIONS);
    size_t count = 0;
    if (korva_lookup_calls(t.handle().get(), t.address, calls.data(), calls.size(), &count) != 0)
        count = 0;
    calls.resize(std::min(count, calls.size()));
    return calls;
}

static std::vector<krv_range_t> ranges_of(krv_handle_t *hp, const krv_entry_t &entry)
{
    std::vector<krv_range_t> ranges;
    korva_entry_iter_ranges(
        hp, &entry,
        [](krv_handle_t *, const krv_range_t *range, void *arg) noexcept {
            auto *all = static_cast<std::vector<krv_range_t> *>(arg);
            all->push_back(*range);
            return all->size() > 64 ? 1 : 0;
        },
        &ranges);
    return ranges;
}

static std::string ranges_text(const std::vector<krv_range_t> &ranges)
{
    std::string text;
    for (size_t i = 0; i < std::min(ranges.size(), MOST_RANGES); ++i)
        text += (i == 0 ? "" : ", ") + range_text(ranges[i].start, ranges[i].end);
    if (ranges.size() > MOST_RANGES)
        text += fmt::format(" and {} more", ranges.size() - MOST_RANGES);
    return text;
}

// Where the name that is shown was read.
static std::string name_source(krv_handle_t *hp, const krv_call_t &call, const krv_elf_frame_t &frame,
                               json_value *record)
{
    krv_name_why_t why;
    *record = nullptr;
    if (korva_explain_name(hp, &call.entry, &why) != 0)
        return "unknown";
    const std::string_view linkage(frame.linkage_name);
    const bool by_symbol = !linkage.empty() && why.linkage_entry == 0;
    const bool by_linkage = !linkage.empty() && !by_symbol;
    const uint64_t entry = by_linkage ? why.linkage_entry : why.name_entry;
    const bool is_alternate = (by_linkage ? why.linkage_is_alternate : why.name_is_alternate) != 0;
    const char *attribute = by_linkage ? "DW_AT_linkage_name" : "DW_AT_name";
    if (by_symbol || entry == 0) {
        *record = {{"from", frame.function[0] == '\0' ? json_value(nullptr) : json_value("symbol")},
                   {"entry", nullptr}};
        return frame.function[0] == '\0' ? "it has no name" : "name of the symbol table";
    }
    *record = {{"from", attribute}, {"entry", hex(entry)}, {"alternate", is_alternate}};
    if (entry == call.entry.offset && !is_alternate)
        return fmt::format("name by {} of that entry", attribute);
    krv_attr_t attr;
    const bool specifies = korva_entry_get_attr(hp, &call.entry, DW_AT_SPECIFICATION, &attr) == 0;
    const char *reference = specifies ? "DW_AT_specification" : "DW_AT_abstract_origin";
    const std::string first =
        why.path[0].offset == entry ? ":" : fmt::format(" 0x{:x}, which leads on to", why.path[0].offset);
    return fmt::format("name by {}{} {} of the entry at 0x{:x}{}", reference, first, attribute, entry,
                       is_alternate ? " of the alternate file" : "");
}

static void explain_call(const trail &t, const krv_call_t &call, const krv_elf_frame_t &frame,
                         const krv_elf_frame_t *caller, step *s)
{
    krv_handle_t *hp = t.handle().get();
    const std::vector<krv_range_t> ranges = ranges_of(hp, call.entry);
    const std::string name = frame.function[0] == '\0' ? "??" : frame.function;
    json_value origin;
    const std::string source = name_source(hp, call, frame, &origin);
    json_value record = {{"function", frame.function[0] == '\0' ? json_value(nullptr) : json_value(frame.function)},
                         {"inlined", call.is_inlined != 0},
                         {"entry", hex(call.entry.offset)},
                         {"alternate", call.entry.is_alternate != 0},
                         {"ranges", json_value::array()},
                         {"name", origin},
                         {"call_file", nullptr},
                         {"call_line", nullptr}};
    for (const krv_range_t &range : ranges)
        record["ranges"].push_back(range_record(range.start, range.end));
    if (caller != nullptr && call.is_inlined != 0) {
        record["call_file"] = caller->file[0] == '\0' ? json_value(nullptr) : json_value(caller->file);
        record["call_line"] = or_null(uint64_t{caller->line});
        s->say("{}  inlined, called at {}:{}", name, caller->file[0] == '\0' ? "??" : caller->file, caller->line);
    } else {
        s->say("{}", name);
    }
    s->say("  entry at 0x{:x} of .debug_info{}, {}", call.entry.offset,
           call.entry.is_alternate != 0 ? " of the alternate file" : "", ranges_text(ranges));
    s->say("  {}", source);
    s->fields.push_back(std::move(record));
}

step explain_functions(trail &t)
{
    step s{.name = "function", .key = "functions"};
    if (!t.file->has_debug_info())
        return s;
    s.fields = json_value::array();
    const std::vector<krv_call_t> calls = calls_of(t);
    const bool match = calls.size() == t.frames.size();
    for (size_t i = 0; i < calls.size(); ++i) {
        krv_elf_frame_t frame = match ? t.frames[i] : nothing_known();
        if (!match && calls[i].name != nullptr)
            frame.function = calls[i].name;
        explain_call(t, calls[i], frame, match && i + 1 < calls.size() ? &t.frames[i + 1] : nullptr, &s);
    }
    if (calls.empty() && t.unit && t.unit->unit != nullptr) {
        s.say("no entry of a function covers it");
        if (t.frames.empty() || t.frames[0].function[0] == '\0')
            t.stop("no function's entry covers it");
    }
    return s;
}

// What a range of addresses that no symbol covers lies between.
static void explain_padding(trail &t, step *s)
{
    const auto symbols = t.file->elf().symbols();
    const auto above = std::upper_bound(symbols.begin(), symbols.end(), t.address,
                                        [](uint64_t a, const krv_elf_symbol_t &symbol) { return a < symbol.address; });
    std::vector<std::string> sides;
    if (above != symbols.begin()) {
        const krv_elf_symbol_t &below = *(above - 1);
        sides.push_back(fmt::format("behind {} (ends 0x{:x})", below.name, below.address + below.size));
    }
    if (above != symbols.end())
        sides.push_back(fmt::format("before {} (begins 0x{:x})", above->name, above->address));
    const std::string where = fmt::format("{}", fmt::join(sides, ", "));
    s->say("none covers it{}{}", where.empty() ? "" : ": ", where);
    t.between = where;
}

step explain_symbol(trail &t)
{
    step s{.name = "symbol", .key = "symbol"};
    const krv_elf_symbol_t *symbol = t.file->elf().symbol(t.address);
    const char *table = t.file->elf().info().has_symtab != 0 ? ".symtab" : ".dynsym";
    if (t.file->elf().symbols().size() == 0) {
        s.say("the file has no function symbols");
        return s;
    }
    if (symbol == nullptr) {
        explain_padding(t, &s);
        return s;
    }
    s.say("{}+0x{:x}  {} of {}", symbol->name, t.address - symbol->address,
          range_text(symbol->address, symbol->address + symbol->size), table);
    s.fields = {{"name", symbol->name},
                {"range", range_record(symbol->address, symbol->address + symbol->size)},
                {"offset", hex(t.address - symbol->address)},
                {"table", table}};
    return s;
}

} // namespace korva::program::explanation
