// SPDX-License-Identifier: Apache-2.0
//
// korva: asks libkorva about ELF files from a shell. Each verb lives in cmd_NAME.cpp; this file joins them, and turns
// what ends a verb early into diagnostics and exit statuses.
#include "command.h"
#include "fetches.h"
#include "object.h"

#include "libkorva-elf.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <iterator>
#include <new>
#include <numeric>
#include <unistd.h>
#include <utility>

// The verbs, in the order of the help. A new one needs its file and its line here.
#define KORVA_VERBS(VERB)                                                                                              \
    VERB(addr)                                                                                                         \
    VERB(explain)                                                                                                      \
    VERB(filter)                                                                                                       \
    VERB(units)                                                                                                        \
    VERB(lines)                                                                                                        \
    VERB(funcs)                                                                                                        \
    VERB(entries)                                                                                                      \
    VERB(sections)                                                                                                     \
    VERB(check)                                                                                                        \
    VERB(record)                                                                                                       \
    VERB(stack)                                                                                                        \
    VERB(merge)                                                                                                        \
    VERB(unwind)                                                                                                       \
    VERB(report)                                                                                                       \
    VERB(expr)

namespace korva::program
{

#define DECLARE(name) void add_##name(CLI::App &app, int *status);
KORVA_VERBS(DECLARE)
#undef DECLARE

#define NAME(name) #name,
static constexpr std::string_view VERBS[] = {KORVA_VERBS(NAME) "help"};
#undef NAME

// CLI::Range takes "nan", which is neither below nor above anything.
CLI::Validator number_within(double least, double most)
{
    char range[64]; // not by fmt, of which one such number touches 400 KB of the program whenever it starts
    (void)std::snprintf(range, sizeof(range), "%g to %g", least, most);
    return {[least, most, range = std::string(range)](const std::string &text) {
                double value = 0;
                const bool is_within = CLI::detail::lexical_cast(text, value) && value >= least && value <= most;
                return is_within ? "" : fmt::format("{} is no number from {}", printable(text), range);
            },
            range};
}

void add_format_option(CLI::App *verb, common_options *options, const format_names &formats)
{
    std::vector<std::string> names;
    for (const auto &[name, format] : formats)
        names.push_back(name);
    verb->add_option_function<std::string>(
            "--format",
            [=](const std::string &name) {
                options->format = formats.at(name);
                set_output_format(options->format);
            },
            "How answers are written; text when not given")
        ->check(CLI::IsMember(names));
}

void add_file_options(CLI::App *verb, common_options *options)
{
    verb->add_flag("--inflate-any", options->inflate_any,
                   "Also inflate sections that claim far more than the file holds");
    verb->add_option("--debug-dir", options->search.debug_dirs,
                     "Look for separate debug files here too; may be repeated")
        ->allow_extra_args(false)
        ->type_name("DIR");
    verb->add_option("--sysroot", options->search.sysroot,
                     "Where absolute paths begin that processes, core files, logs and other files name")
        ->type_name("DIR");
    verb->add_flag("--debuginfod", options->debuginfod, "Ask the servers in DEBUGINFOD_URLS for what is not here")
        ->envname("KORVA_DEBUGINFOD");
    options->search.on_fetch = watch_fetch;
    const CLI::AsSizeValue size(false);
    verb->add_option("--max-steps", options->bounds.steps,
                     "Bytes of input that may be gone over for one record; 0 is any number")
        ->transform(size);
    verb->add_option("--max-bytes", options->bounds.bytes, "Bytes of memory that may be asked for, likewise")
        ->transform(size);
    verb->add_option("--max-rows", options->bounds.rows, "Line-number rows that may be made, likewise");
    verb->add_option_function<double>(
            "--timeout", [=](double seconds) { options->bounds.milliseconds = static_cast<uint64_t>(seconds * 1000); },
            "Time that one record may take")
        ->check(number_within(0.001, 1e6))
        ->type_name("SECONDS");
}

void add_common_options(CLI::App *verb, common_options *options, const format_names &formats)
{
    add_format_option(verb, options, formats);
    verb->add_flag("--raw", options->raw, "Read every section as it stands in the file, uncorrected");
    add_file_options(verb, options);
}

// What a wrong word was meant to be: the verb that takes the fewest changes of a letter to get to.
static std::string nearest_verb(const std::string &word)
{
    std::string best;
    size_t fewest = 3; // more changes than these are another word
    for (const std::string_view name : VERBS) {
        std::vector<size_t> row(name.size() + 1); // changes from what is read of word to each beginning of name
        std::iota(row.begin(), row.end(), 0);
        for (size_t i = 1; i <= word.size(); ++i)
            for (size_t j = 1, diagonal = std::exchange(row[0], i); j <= name.size(); ++j)
                diagonal = std::exchange(
                    row[j], std::min({row[j] + 1, row[j - 1] + 1, diagonal + (word[i - 1] == name[j - 1] ? 0 : 1)}));
        if (row.back() < fewest) {
            fewest = row.back();
            best = name;
        }
    }
    return best;
}

// Help and version are answers.
static int print_answer(const std::string &text)
{
    answers out(output_format::text);
    out.write(text);
    out.finish();
    return ANSWERED;
}

static int usage_error(std::string_view text)
{
    write_error(fmt::format("korva: {}\nTry `korva --help` or `korva VERB --help`.\n", printable(text)));
    return USAGE;
}

static int run(int argc, char **argv)
{
    CLI::App app("Reads DWARF 2 to 5 debugging information of ELF files for x86 and AMD64.", "korva");
    app.set_version_flag("-V,--version", "korva " KORVA_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 every input was answered, 1 some could not be, 2 nothing could be, 3 check found faults,\n"
        "64 usage.\n"
        "`korva VERB --help` and `korva help VERB` show a verb's options and examples. Columns of text may hold\n"
        "spaces: --format=jsonl is the one to parse.");
    int status = ANSWERED;
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "help") { // help [VERB] is [VERB] --help
        words.erase(words.begin());
        words.resize(std::min<size_t>(words.size(), 1));
        words.emplace_back("--help");
    }
    if (!words.empty() && !words[0].starts_with("-") &&
        std::find(std::begin(VERBS), std::end(VERBS), words[0]) == std::end(VERBS)) {
        const std::string meant = nearest_verb(words[0]);
        return usage_error(fmt::format("there is no verb \"{}\"{}", words[0],
                                       meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant)));
    }
    const bool is_verb = !words.empty() && !words[0].starts_with("-"); // then no other has to be known
#define ADD(name)                                                                                                      \
    if (!is_verb || words[0] == #name)                                                                                 \
        add_##name(app, &status);
    KORVA_VERBS(ADD)
#undef ADD
    std::reverse(words.begin(), words.end()); // as CLI11 takes them
    try {
        app.parse(std::move(words));
    } catch (const CLI::CallForVersion &version) {
        return print_answer(fmt::format("{}\n", version.what()));
    } catch (const CLI::Success &) { // --help
        return print_answer(app.help());
    } catch (const CLI::ParseError &error) {
        return usage_error(error.what());
    }
    return status;
}

// A file that is opened must not take the place of a stream that is closed: what is written there would go into it.
static void occupy_streams()
{
    for (int fd = 0; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            (void)open("/dev/null", O_RDONLY | O_CLOEXEC); // the lowest number that is free
}

// A file that becomes shorter while it is read costs the answers that stood in what is missing, not the program.
static void on_bus_error(int number, siginfo_t *info, void *)
{
    if (korva_elf_handle_bus_error(info->si_addr) != 0)
        file_was_cut = 1;
    else
        std::signal(number, SIG_DFL);
}

static void handle_bus_errors()
{
    struct sigaction action = {};
    action.sa_sigaction = on_bus_error;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGBUS, &action, nullptr);
}

} // namespace korva::program

int main(int argc, char **argv)
{
    using namespace korva::program;
    occupy_streams();
    std::signal(SIGPIPE, SIG_IGN); // a closed standard output is noticed as a failed write
    handle_bus_errors();
    try {
        const int status = run(argc, argv);
        if (file_was_cut == 0)
            return status;
        if (!object::has_named_cut_file())
            diagnose("a file became shorter while it was read; nothing is known of what is missing");
        return status == ANSWERED ? PARTLY : status;
    } catch (const broken_pipe &) {
        return ANSWERED;
    } catch (const failure &f) {
        diagnose(f.what());
        answers::finish_with(f.why);
    } catch (const std::bad_alloc &) {
        diagnose("out of memory");
    } catch (const std::exception &e) {
        diagnose(e.what());
        answers::finish_with({.messages = {e.what()}});
    }
    return NOTHING;
}
