// SPDX-License-Identifier: Apache-2.0
//
// korva: asks libkorva about ELF files from a shell. Each verb lives in cmd_NAME.cpp; this file joins them, and turns
// what ends a verb early into diagnostics and exit statuses.
#include "command.h"

#include "libkorva-elf.h"

#include <csignal>
#include <exception>
#include <new>

// The verbs, in the order of the help. A new one needs its file and its line here.
#define KORVA_VERBS(VERB)                                                                                              \
    VERB(addr)                                                                                                         \
    VERB(units)                                                                                                        \
    VERB(lines)                                                                                                        \
    VERB(sections)                                                                                                     \
    VERB(stack)                                                                                                        \
    VERB(expr)

namespace korva::program
{

#define DECLARE(name) void add_##name(CLI::App &app, int *status);
KORVA_VERBS(DECLARE)
#undef DECLARE

void add_format_option(CLI::App *verb, common_options *options, const format_names &formats)
{
    std::vector<std::string> names;
    for (const auto &[name, format] : formats)
        names.push_back(name);
    verb->add_option_function<std::string>(
            "--format", [=](const std::string &name) { options->format = formats.at(name); },
            "How answers are written; text when not given")
        ->check(CLI::IsMember(names));
}

void add_common_options(CLI::App *verb, common_options *options, const format_names &formats)
{
    add_format_option(verb, options, formats);
    verb->add_flag("--raw", options->raw, "Read every section as it stands in the file, uncorrected");
    verb->add_option("--debug-dir", options->debug_dirs, "Look for separate debug files here too; may be repeated")
        ->allow_extra_args(false)
        ->type_name("DIR");
}

static int run(int argc, char **argv)
{
    CLI::App app("Reads DWARF 2 to 4 debugging information of ELF files for x86 and AMD64.", "korva");
    app.set_version_flag("--version", "korva " KORVA_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 every input was answered, 1 some could not be, 2 nothing could be, 64 usage.\n"
               "`korva VERB --help` shows a verb's options and examples.");
    int status = ANSWERED;
#define ADD(name) add_##name(app, &status);
    KORVA_VERBS(ADD)
#undef ADD

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &success) { // --help, --version
        return app.exit(success);
    } catch (const CLI::ParseError &error) {
        fmt::print(stderr, "korva: {}\nTry `korva --help` or `korva VERB --help`.\n", error.what());
        return USAGE;
    }
    return status;
}

static volatile std::sig_atomic_t file_was_cut;

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
    std::signal(SIGPIPE, SIG_IGN); // a closed standard output is noticed as a failed write
    handle_bus_errors();
    try {
        const int status = run(argc, argv);
        if (file_was_cut == 0)
            return status;
        diagnose("a file became shorter while it was read; nothing is known of what is missing");
        return status == ANSWERED ? PARTLY : status;
    } catch (const broken_pipe &) {
        return ANSWERED;
    } catch (const failure &f) {
        diagnose(f.what());
    } catch (const std::bad_alloc &) {
        diagnose("out of memory");
    } catch (const std::exception &e) {
        diagnose(e.what());
    }
    return NOTHING;
}
