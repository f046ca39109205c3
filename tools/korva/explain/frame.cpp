// SPDX-License-Identifier: Apache-2.0
//
// How a frame at the address is left: FDE and CIE, the row of rules, and, where a thread's frame is there, their values.
#include "explain/expression.h"
#include "explain/step.h"

#include <algorithm>

namespace korva::program::explanation
{

namespace
{

/** Whom to ask for call-frame information, and at which address. */
struct frame_source {
    krv_handle_t *hp;
    uint64_t pc;
    krv_activation_t *ap = nullptr; // with the registers of the frame
};

struct frame_facts {
    krv_frame_why_t why = {};
    std::vector<krv_rule_record_t> rules{};
    error failed{}; // code KRV_ERR_NONE: it did not
};

} // namespace

static bool has_section(const trail &t, std::string_view name)
{
    return std::any_of(t.sections.begin(), t.sections.end(),
                       [=](const krv_elf_section_t &section) { return section.name == name; });
}

// In the order in which walks ask: .eh_frame as it is loaded, then the file's .debug_frame.
static std::vector<frame_source> sources_of(const trail &t)
{
    std::vector<frame_source> all;
    if (const krv_proc_frame_t *frame = t.frame(); frame != nullptr && frame->activation != nullptr) {
        const activation_view registers(frame->handle, frame->activation);
        if (const auto pc = registers.reg(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC))
            return {{frame->handle, *pc, frame->activation}};
    }
    if (t.loaded) {
        if (const auto handle = t.loaded->proc->handle(*t.loaded->module))
            all.push_back({handle->get(), t.address + t.loaded->module->bias});
    } else if (krv_handle_t *hp = korva_elf_get_frame_handle(t.file->elf().get(), nullptr)) {
        all.push_back({hp, t.address});
    }
    if (has_section(t, ".debug_frame") || has_section(t, ".zdebug_frame"))
        all.push_back({t.handle().get(), t.address});
    return all;
}

static frame_facts ask(const frame_source &from)
{
    frame_facts facts;
    facts.rules.resize(128);
    size_t count = 0;
    if (korva_explain_frame(from.hp, from.pc, &facts.why, facts.rules.data(), facts.rules.size(), &count) != 0)
        facts.failed = last_error(from.hp);
    facts.rules.resize(std::min(count, facts.rules.size()));
    return facts;
}

static const char *section_name(krv_secidx_t section)
{
    return section == KRV_SEC_FRAME ? ".debug_frame" : ".eh_frame";
}

static std::string sum_text(const std::string &base, int64_t offset)
{
    if (offset == 0)
        return base;
    return fmt::format("{} {} {}", base, offset < 0 ? '-' : '+',
                       offset < 0 ? 0 - static_cast<uint64_t>(offset) : static_cast<uint64_t>(offset));
}

static std::string rule_text(const krv_rule_record_t &rule)
{
    switch (rule.kind) {
    case KRV_RULE_UNDEFINED:
        return "undefined";
    case KRV_RULE_SAME_VALUE:
        return "unchanged";
    case KRV_RULE_OFFSET:
        return "saved at " + sum_text("CFA", rule.offset);
    case KRV_RULE_VAL_OFFSET:
        return sum_text("CFA", rule.offset);
    case KRV_RULE_REGISTER:
        return std::string("in ") + rule.base_name;
    case KRV_RULE_REG_OFFSET:
        return sum_text(rule.base_name, rule.offset);
    case KRV_RULE_EXPRESSION:
        return rule.reg == KRV_RULE_CFA ? "an expression" : "saved at an expression";
    default:
        return "an expression";
    }
}

static const char *rule_kind(uint32_t kind)
{
    static constexpr const char *NAMES[] = {"undefined", "same_value", "offset",         "val_offset",
                                            "register",  "expression", "val_expression", "register_offset"};
    return kind < std::size(NAMES) ? NAMES[kind] : "unknown";
}

// The value that a rule gives, where there is a frame.
static std::optional<uint64_t> value_of(const frame_source &from, const krv_rule_record_t &rule)
{
    if (from.ap == nullptr)
        return {};
    const activation_view frame(from.hp, from.ap);
    const bool is_cfa = rule.reg == KRV_RULE_CFA;
    if (is_cfa)
        static_cast<void>(frame.regs(KRV_ACTIVATION_FRAME_CALLER)); // on the way to the caller the CFA becomes known
    const auto value = is_cfa ? frame.reg(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_CFA)
                              : frame.reg(KRV_ACTIVATION_REG_DWARF, rule.reg, KRV_ACTIVATION_FRAME_CALLER);
    return value ? std::optional<uint64_t>(*value) : std::nullopt;
}

static std::string stack_text(const std::vector<uint64_t> &stack)
{
    std::string text;
    for (const uint64_t value : stack)
        text += fmt::format("{}0x{:x}", text.empty() ? "" : " ", value);
    return text.empty() ? "empty" : text;
}

static void explain_expression(const frame_source &from, const krv_rule_record_t &rule, std::optional<uint64_t> cfa,
                               step *s, json_value *record)
{
    const bool is_executed = from.ap != nullptr && (rule.reg == KRV_RULE_CFA || cfa);
    const explained_expression e = is_executed ? execute_expression(from.hp, from.ap, rule.expression,
                                                                    rule.reg == KRV_RULE_CFA ? std::nullopt : cfa)
                                               : list_expression(from.hp, rule.expression);
    (*record)["expression"] = json_value::array();
    for (const expression_step &op : e.steps) {
        if (op.stack)
            s->say("         {:<28}  stack: {}", op.operation, stack_text(*op.stack));
        else
            s->say("         {}", op.operation);
        json_value stack;
        if (op.stack)
            stack = json_value::array();
        for (const uint64_t value : op.stack.value_or(std::vector<uint64_t>()))
            stack.push_back(hex(value));
        (*record)["expression"].push_back({{"operation", op.operation}, {"stack", stack}});
    }
    if (!e.failure.empty())
        s->say("         {}", e.failure);
}

static void explain_rules(const frame_source &from, const frame_facts &facts, step *s)
{
    json_value rules = json_value::array();
    std::optional<uint64_t> cfa;
    std::string kept;
    for (const krv_rule_record_t &rule : facts.rules) {
        const bool is_return = rule.reg != KRV_RULE_CFA && rule.reg == facts.why.return_register;
        const std::optional<uint64_t> value = value_of(from, rule);
        if (rule.reg == KRV_RULE_CFA)
            cfa = value;
        json_value record = {{"register", rule.name},
                             {"number", rule.reg == KRV_RULE_CFA ? json_value(nullptr) : json_value(rule.reg)},
                             {"rule", rule_kind(rule.kind)},
                             {"base", rule.base_name == nullptr ? json_value(nullptr) : json_value(rule.base_name)},
                             {"offset", rule.offset},
                             {"default", rule.is_default != 0},
                             {"return_address", is_return},
                             {"text", rule_text(rule)},
                             {"value", value ? hex(*value) : json_value(nullptr)},
                             {"expression", nullptr}};
        if (rule.is_default != 0 && rule.kind == KRV_RULE_SAME_VALUE) {
            kept += (kept.empty() ? "" : ", ") + std::string(rule.name);
        } else {
            const std::string text = rule_text(rule);
            s->say("  {:<5}  {:<{}}{}{}", is_return ? "RA" : rule.name, text, value ? 24 : 0,
                   value ? fmt::format("= 0x{:x}", *value) : "",
                   is_return && rule.kind == KRV_RULE_UNDEFINED ? ": the outermost frame" : "");
        }
        if (rule.kind == KRV_RULE_EXPRESSION || rule.kind == KRV_RULE_VAL_EXPRESSION)
            explain_expression(from, rule, cfa, s, &record);
        rules.push_back(std::move(record));
    }
    if (!kept.empty())
        s->say("  {} {} not spoken of: unchanged", kept, kept.find(',') == std::string::npos ? "is" : "are");
    s->fields["rules"] = std::move(rules);
}

static void explain_records(const frame_facts &facts, uint64_t shift, step *s)
{
    const krv_frame_why_t &why = facts.why;
    const char *section = section_name(why.section);
    const std::string range = range_text(why.range.start - shift, why.range.end - shift);
    const std::string how = why.by_table != 0
                                ? fmt::format("the search table of .eh_frame_hdr, of {} entries", why.table_entries)
                                : fmt::format("a scan of all {} FDEs", why.table_entries);
    s->say("FDE at 0x{:x} of {}  {}, found by {}", why.fde, section, range, how);
    s->say("CIE at 0x{:x}, version {}, augmentation \"{}\", alignment of code {}, of data {}{}", why.cie, why.version,
           why.augmentation, why.code_alignment, why.data_alignment,
           why.is_signal != 0 ? ", of a signal handler's return" : "");
    s->fields = {{"section", section},
                 {"found_by", why.by_table != 0 ? "table" : "scan"},
                 {"table_entries", number(why.table_entries)},
                 {"fde", hex(why.fde)},
                 {"range", range_record(why.range.start - shift, why.range.end - shift)},
                 {"cie", hex(why.cie)},
                 {"version", why.version},
                 {"augmentation", why.augmentation},
                 {"code_alignment", number(why.code_alignment)},
                 {"data_alignment", why.data_alignment},
                 {"return_register", number(why.return_register)},
                 {"signal", why.is_signal != 0}};
    s->fields["row"] = nullptr;
    s->fields["rules"] = nullptr;
}

static void explain_no_fde(trail &t, const frame_facts &facts, uint64_t shift, step *s)
{
    const krv_frame_why_t &why = facts.why;
    std::string nearest;
    if (why.near_end != 0)
        nearest =
            fmt::format(": the one below it, {}, ends 0x{:x} before",
                        range_text(why.near_start - shift, why.near_end - shift), t.address - (why.near_end - shift));
    s->say("no FDE of {} covers it{}", section_name(why.section), nearest);
    if (!t.is_plain_code())
        return;
    if (t.frames.empty() && !t.between.empty()) // which is why no unit covers it
        t.stopped.insert(t.stopped.begin(), "it is padding, or code that nothing describes: " + t.between);
    else
        t.stopped.push_back(s->lines.back() + "; a walk ends here");
}

step explain_frame(trail &t)
{
    step s{.name = "frame", .key = "frame"};
    frame_facts facts;
    frame_source from = {};
    bool any = false;
    for (const frame_source &source : sources_of(t)) {
        frame_facts asked = ask(source);
        if (asked.why.section == KRV_SEC_NONE)
            continue;
        if (!any || asked.failed.code == KRV_ERR_NONE) {
            facts = std::move(asked);
            from = source;
            any = true;
        }
        if (facts.failed.code != KRV_ERR_NOTFOUND)
            break;
    }
    if (!any) {
        s.say("the file has no call-frame information");
        return s;
    }
    const uint64_t shift = from.pc - t.address;
    if (facts.why.has_fde == 0 && facts.failed.code == KRV_ERR_NOTFOUND) {
        explain_no_fde(t, facts, shift, &s);
        return s;
    }
    if (facts.why.has_fde == 0) {
        s.say("{} cannot be read: {}", section_name(facts.why.section), facts.failed.text());
        t.stop("{} fails: {}", section_name(facts.why.section), facts.failed.text());
        return s;
    }
    explain_records(facts, shift, &s);
    if (t.frames.empty() && !t.between.empty() && t.is_plain_code())
        t.stop("it is code of a function without a symbol: {}", t.between);
    if (facts.failed.code != KRV_ERR_NONE) {
        s.say("its rules cannot be read: {}", facts.failed.text());
        t.stop("the rules of the FDE at 0x{:x} of {} fail: {}", facts.why.fde, section_name(facts.why.section),
               facts.failed.text());
        return s;
    }
    const uint64_t row_end = facts.why.row.end == 0 ? 0 : facts.why.row.end - shift;
    if (row_end != 0)
        s.say("row {}{}", range_text(facts.why.row.start - shift, row_end),
              from.ap != nullptr ? ", with the values that it gives the caller" : "");
    else
        s.say("row from 0x{:x} on; what follows it cannot be read", facts.why.row.start - shift);
    s.fields["row"] = {{"start", hex(facts.why.row.start - shift)},
                       {"end", row_end == 0 ? json_value(nullptr) : hex(row_end)}};
    explain_rules(from, facts, &s);
    return s;
}

} // namespace korva::program::explanation
