// SPDX-License-Identifier: Apache-2.0
//
// Where the debugging information is: in the file, in one of its own, or nowhere, and where it was looked for.
#include "explain/package.h"
#include "explain/step.h"

namespace korva::program::explanation
{

static std::string build_id_of(const krv_elf_info_t &info)
{
    std::string digits;
    for (size_t i = 0; i < info.build_id_size; ++i)
        digits += fmt::format("{:02x}", info.build_id[i]);
    return digits;
}

static const char *outcome_text(int outcome)
{
    switch (outcome) {
    case KRV_ELF_TRIED_ITSELF:
        return "the file itself";
    case KRV_ELF_TRIED_REFUSED:
        return "refused";
    case KRV_ELF_TRIED_TAKEN:
        return "taken";
    case KRV_ELF_TRIED_FAILED:
        return "no answer";
    default:
        return "not there";
    }
}

static void explain_search(const trail &t, step *s)
{
    s->fields["looked_for"] = json_value::array();
    for (const krv_elf_tried_t &place : t.file->elf().tried()) {
        s->say("looked for by {}: {}  {}{}{}", place.by, place.path, outcome_text(place.outcome),
               place.reason[0] == '\0' ? "" : ": ", place.reason);
        s->fields["looked_for"].push_back({{"path", place.path},
                                           {"by", place.by},
                                           {"outcome", outcome_text(place.outcome)},
                                           {"reason", place.reason[0] == '\0' ? json_value(nullptr) : place.reason},
                                           {"alternate", place.is_alternate != 0}});
    }
}

static void tell_help(trail &t, const std::string &build_id)
{
    const std::vector<krv_elf_tried_t> tried = t.file->elf().tried();
    const bool has_asked = std::any_of(tried.begin(), tried.end(), [](const krv_elf_tried_t &place) {
        return place.by == std::string_view("debuginfod");
    });
    if (!build_id.empty() && !has_asked)
        t.help.emplace_back("the servers in DEBUGINFOD_URLS, where it is set: --debuginfod");
    if (!build_id.empty())
        t.help.push_back(fmt::format("a debug file with build-id {0}, as DIR/.build-id/{1}/{2}.debug: --debug-dir DIR",
                                     build_id, build_id.substr(0, 2),
                                     build_id.substr(std::min<size_t>(2, build_id.size()))));
    else
        t.help.emplace_back(
            "the file has no build-id: a debug file is found by .gnu_debuglink alone, or compile with -g");
    const std::string package = debian_package_of(t.file->path());
    if (!package.empty())
        t.help.push_back(
            fmt::format("the file is of Debian's package {0}: its debug files are in {0}-dbgsym by custom{1}", package,
                        package == "libc6" ? ", of this one in libc6-dbg" : ""));
}

step explain_debug_file(trail &t)
{
    step s{.name = "debug", .key = "debug_file"};
    const krv_elf_info_t info = t.file->elf().info();
    const std::string build_id = build_id_of(info);
    const char *separate = t.file->elf().debug_path();
    const bool known = t.file->has_debug_info();
    s.fields = {{"file", separate != nullptr ? json_value(separate)
                         : known             ? json_value(t.file->path())
                                             : json_value(nullptr)},
                {"separate", separate != nullptr},
                {"build_id", build_id.empty() ? json_value(nullptr) : json_value(build_id)}};
    const std::string id = build_id.empty() ? "no build-id" : "build-id " + build_id;
    if (separate != nullptr)
        s.say("{}, {}", separate, id);
    else if (known)
        s.say("in the file itself, {}", id);
    else
        s.say("none, {}", id);
    explain_search(t, &s);
    if (!known) {
        t.stop("the file has no debugging information (.debug_info)");
        tell_help(t, build_id);
    }
    return s;
}

} // namespace korva::program::explanation
