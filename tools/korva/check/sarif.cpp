// SPDX-License-Identifier: Apache-2.0
#include "check/sarif.h"

#include <fmt/ranges.h>

namespace korva::program::check
{

// A path as a URI reference (RFC 3986).
static std::string to_uri(const std::string &path)
{
    constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
    std::string uri = path.starts_with("/") ? "file://" : "";
    for (const char c : path)
        if (PLAIN.find(c) != std::string_view::npos)
            uri += c;
        else
            uri += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    return uri;
}

static json_value artifact(const std::string &path)
{
    return {{"artifactLocation", {{"uri", to_uri(path)}}}};
}

void sarif_log::add(const std::string &path, const findings &found)
{
    constexpr uint64_t LARGEST = uint64_t{1} << 53; // that every reader of JSON takes
    for (const finding &f : found.kept()) {
        json_value physical = artifact(path);
        if (!f.where.section.empty()) {
            physical["address"] = {{"kind", "section"}, {"name", f.where.section}};
            if (f.where.offset && *f.where.offset < LARGEST)
                physical["address"]["offsetFromParent"] = *f.where.offset;
        }
        json_value location = {{"physicalLocation", physical}};
        if (f.where.unit)
            location["logicalLocations"] = {
                {{"kind", "unit"}, {"fullyQualifiedName", fmt::format("unit 0x{:x}", *f.where.unit)}}};
        m_results.push_back({{"ruleId", class_of(f.what).name},
                             {"ruleIndex", static_cast<unsigned>(f.what)},
                             {"level", class_of(f.what).how_bad == severity::fault ? "error" : "warning"},
                             {"message", {{"text", fmt::format("{}", fmt::join(f.messages, "; "))}}},
                             {"locations", json_value::array({location})}});
    }
}

void sarif_log::add_failure(const std::string &path, const std::string &why)
{
    m_notifications.push_back({{"level", "error"},
                               {"message", {{"text", why}}},
                               {"locations", json_value::array({{{"physicalLocation", artifact(path)}}})}});
}

json_value sarif_log::finish(exit_status status) const
{
    json_value rules = json_value::array();
    for (const finding_class &row : all_classes())
        rules.push_back({{"id", row.name},
                         {"shortDescription", {{"text", row.means}}},
                         {"defaultConfiguration", {{"level", row.how_bad == severity::fault ? "error" : "warning"}}}});
    const json_value driver = {{"name", "korva check"}, {"version", KORVA_VERSION}, {"rules", rules}};
    const json_value invocation = {{"executionSuccessful", m_notifications.empty()},
                                   {"exitCode", static_cast<int>(status)},
                                   {"toolExecutionNotifications", m_notifications}};
    const json_value run = {{"tool", {{"driver", driver}}},
                            {"invocations", json_value::array({invocation})},
                            {"columnKind", "unicodeCodePoints"},
                            {"results", m_results}};
    return {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
            {"version", "2.1.0"},
            {"runs", json_value::array({run})}};
}

} // namespace korva::program::check
