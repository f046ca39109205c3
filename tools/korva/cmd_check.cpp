// SPDX-License-Identifier: Apache-2.0
//
// korva check: reads all of a file's debugging information, and tells what is wrong with it. check/ has what is checked.
#include "check/sarif.h"
#include "check/subject.h"
#include "command.h"
#include "object.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <memory>

namespace korva::program::check
{

namespace
{

struct check_options : common_options {
    std::vector<std::string> files;
    uint64_t most = 20;
    std::vector<std::string> ignored;
    bool strict = false;
};

constexpr const char *CUT = "the budget is used up: not everything was checked";

/** Writes what is found, in the format that is wanted. */
class reporter
{
public:
    explicit reporter(const check_options &options) : m_options(options), m_out(options.format) {}

    void tell(const std::string &path, const findings &found);
    void tell_failure(const std::string &path, const failure &why);
    void finish(exit_status status);

private:
    void print(const std::string &path, const findings &found);
    void record(const std::string &path, const findings &found);

    const check_options &m_options;
    answers m_out;
    sarif_log m_log;
};

} // namespace

static const char *word_of(severity how_bad)
{
    return how_bad == severity::fault ? "fault" : "warning";
}

// "2 faults (reference 1, line-file 1)"
static std::string count_words(const findings &found, severity how_bad)
{
    const uint64_t all = found.count(how_bad);
    std::vector<std::string> classes;
    for (size_t i = 0; i < all_classes().size(); ++i)
        if (const uint64_t count = found.count(static_cast<kind>(i)); count != 0 && all_classes()[i].how_bad == how_bad)
            classes.push_back(fmt::format("{} {}", all_classes()[i].name, count));
    return fmt::format("{} {}{}{}", all == 0 ? "no" : fmt::format("{}", all), word_of(how_bad), all == 1 ? "" : "s",
                       classes.empty() ? "" : fmt::format(" ({})", fmt::join(classes, ", ")));
}

void reporter::print(const std::string &path, const findings &found)
{
    const std::string file = printable(path);
    for (const finding &f : found.kept()) {
        const finding_class &row = class_of(f.what);
        std::string where = printable(f.where.section);
        if (f.where.offset && !where.empty())
            where += fmt::format(" at 0x{:x}", *f.where.offset);
        if (f.where.unit)
            where += fmt::format(" (unit 0x{:x})", *f.where.unit);
        m_out.print("{}: {}: {}{}{} [{}]\n", file, word_of(row.how_bad), where, where.empty() ? "" : ": ",
                    printable(fmt::format("{}", fmt::join(f.messages, "; "))), row.name);
    }
    for (size_t i = 0; i < all_classes().size(); ++i)
        if (const uint64_t count = found.count(static_cast<kind>(i)); count > m_options.most)
            m_out.print("{}: {} more of [{}]\n", file, count - m_options.most, all_classes()[i].name);
    const auto many = [](uint64_t count, const char *one) {
        return fmt::format("{} {}{}", count, one, count == 1 ? "" : "s");
    };
    m_out.print("{}: {}, {}; read {}, {} entries, {} with {}, {} of call frames\n", file,
                count_words(found, severity::fault), count_words(found, severity::warning),
                many(found.read.units, "unit"), found.read.entries, many(found.read.line_tables, "line table"),
                many(found.read.rows, "row"), many(found.read.frame_records, "record"));
}

void reporter::record(const std::string &path, const findings &found)
{
    const auto hex_or_null = [](const std::optional<uint64_t> &number) {
        return number ? hex(*number) : json_value(nullptr);
    };
    for (const finding &f : found.kept())
        m_out.record({{"file", path},
                      {"record", "finding"},
                      {"class", class_of(f.what).name},
                      {"severity", word_of(class_of(f.what).how_bad)},
                      {"section", f.where.section.empty() ? json_value(nullptr) : json_value(f.where.section)},
                      {"offset", hex_or_null(f.where.offset)},
                      {"unit", hex_or_null(f.where.unit)},
                      {"messages", f.messages}});
    json_value classes = json_value::object();
    for (size_t i = 0; i < all_classes().size(); ++i)
        if (const uint64_t count = found.count(static_cast<kind>(i)))
            classes[all_classes()[i].name] = number(count);
    const record_error cut = {.code = "KRV_ERR_EXT_LIMIT", .messages = {CUT}};
    const record_error *why = found.are_cut() ? &cut : nullptr;
    m_out.record({{"file", path},
                  {"record", "summary"},
                  {"faults", number(found.count(severity::fault))},
                  {"warnings", number(found.count(severity::warning))},
                  {"classes", classes},
                  {"read",
                   {{"units", number(found.read.units)},
                    {"entries", number(found.read.entries)},
                    {"line_tables", number(found.read.line_tables)},
                    {"rows", number(found.read.rows)},
                    {"frame_records", number(found.read.frame_records)}}}},
                 status_of(why), why);
}

void reporter::tell(const std::string &path, const findings &found)
{
    if (found.are_cut()) {
        diagnose(fmt::format("{}: {}", path, CUT));
        m_log.add_failure(path, CUT);
    }
    if (m_out.is_json())
        record(path, found);
    else if (m_options.format == output_format::sarif)
        m_log.add(path, found);
    else
        print(path, found);
}

void reporter::tell_failure(const std::string &path, const failure &why)
{
    diagnose(why.what());
    if (m_out.is_json())
        m_out.record({{"file", path}}, status_of(&why.why), &why.why);
    m_log.add_failure(path, why.what());
}

void reporter::finish(exit_status status)
{
    if (m_options.format == output_format::sarif)
        m_out.write(to_text(m_log.finish(status)) + "\n");
    m_out.finish();
}

static void check_file(const check_options &options, const std::string &path, reporter *out, exit_status *status)
{
    const object obj(path, options.flags(), options.search, options.bounds);
    std::vector<std::string> folders = options.search.debug_dirs;
    if (!options.search.sysroot.empty())
        folders.push_back(options.search.sysroot + "/usr/lib/debug");
    folders.emplace_back("/usr/lib/debug");
    findings found(options.most, options.ignored, obj.handle());
    subject of(obj.elf(), folders, &found);
    if (of.size_of(KRV_SEC_INFO) != 0) {
        check_units(&of);
        check_abbreviations(&of);
        check_lines(&of);
        check_aranges(&of);
        check_names(&of);
    }
    check_frames(&of);
    check_coverage(&of);
    check_notes(&of);
    out->tell(path, found);
    const bool is_bad = found.count(severity::fault) != 0 || (options.strict && found.count(severity::warning) != 0);
    if (found.are_cut())
        *status = NOTHING;
    else if (is_bad && *status == ANSWERED)
        *status = FAULTY;
}

static int run_check(const check_options &options)
{
    reporter out(options);
    exit_status status = ANSWERED;
    for (const std::string &path : options.files) {
        try {
            check_file(options, path, &out, &status);
        } catch (const failure &f) {
            out.tell_failure(path, f);
            status = NOTHING;
        }
    }
    out.finish(status);
    return status;
}

} // namespace korva::program::check

namespace korva::program
{

void add_check(CLI::App &app, int *status)
{
    auto options = std::make_shared<check::check_options>();
    CLI::App *verb =
        app.add_subcommand("check", "Reads all debugging information of files, and tells what is wrong with it");
    verb->add_option("FILE", options->files, "ELF files")->required();
    verb->add_option("--most", options->most,
                     "Shows so many findings of each class of a file, 20 when not given; all are counted");
    std::vector<std::string> names;
    for (const check::finding_class &row : check::all_classes())
        names.push_back(row.name);
    verb->add_option("--ignore", options->ignored, "Leaves out findings of this class; may be repeated")
        ->allow_extra_args(false)
        ->type_name("CLASS")
        ->check([names](const std::string &name) {
            return std::find(names.begin(), names.end(), name) != names.end() ? std::string()
                                                                              : "there is no class " + name;
        });
    verb->add_flag("--strict", options->strict, "Warnings count as faults do for the exit status");
    add_format_option(verb, options.get(),
                      {{"text", output_format::text},
                       {"json", output_format::json},
                       {"jsonl", output_format::jsonl},
                       {"sarif", output_format::sarif}});
    add_file_options(verb, options.get());
    verb->footer(
        "A fault misleads readers, or is left out by them; a warning is legal, and costs time or answers. Each line: "
        "file,\n"
        "fault or warning, section, offset in it, unit, what is wrong, and in brackets the class, which "
        "docs/checks.md\n"
        "explains. Last comes a summary of each file.\n"
        "Exit status: 0 no faults, 2 a file cannot be opened, or cost too much, 3 faults were found.\n"
        "Examples:\n"
        "  korva check ./a.out\n"
        "  korva check --format=sarif build/*.so >korva.sarif\n"
        "  korva check --format=jsonl ./a.out | jq -r 'select(.severity == \"fault\") | .class' | sort | uniq -c");
    verb->callback([options, status] { *status = check::run_check(*options); });
}

} // namespace korva::program
