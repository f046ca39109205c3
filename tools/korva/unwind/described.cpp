// SPDX-License-Identifier: Apache-2.0
#include "unwind/described.h"

#include "base64.h"
#include "output.h"
#include "register_names.h"
#include "text_input.h"

#include <algorithm>

namespace korva::program
{

using json_part = nlohmann::json;

static constexpr size_t MOST_MEMBERS =
    60000; // of modules, and of pieces of memory: as many as a process can have mappings

static constexpr size_t MOST_MEMORY = size_t{1} << 30;

[[noreturn]] static void refuse_record(const std::string &text)
{
    throw failure(text, {.code = "KRV_ERR_INVALID"});
}

static std::optional<uint64_t> find_number(const json_part &of, const char *name)
{
    const auto at = of.find(name);
    if (at == of.end() || at->is_null())
        return {};
    const auto value = at->is_string()            ? parse_hex(at->get_ref<const std::string &>())
                       : at->is_number_unsigned() ? std::optional(at->get<uint64_t>())
                                                  : std::nullopt;
    if (!value)
        refuse_record(fmt::format("{} is no number: of JSON, or a string of hexadecimal digits", name));
    return value;
}

static uint64_t get_number(const json_part &of, const char *name, const char *whose)
{
    const auto value = find_number(of, name);
    if (!value)
        refuse_record(fmt::format("{} has no {}", whose, name));
    return *value;
}

static std::string find_text(const json_part &of, const char *name)
{
    const auto at = of.find(name);
    if (at == of.end() || at->is_null())
        return {};
    if (!at->is_string())
        refuse_record(fmt::format("{} is no string", name));
    return at->get<std::string>();
}

/** Calls func with each object of a list; one that is not there is empty. */
template <typename F>
static void each_of(const json_part &of, const char *name, F func)
{
    const auto at = of.find(name);
    if (at == of.end() || at->is_null())
        return;
    if (!at->is_array())
        refuse_record(fmt::format("{} is no list", name));
    if (at->size() > MOST_MEMBERS)
        refuse_record(fmt::format("{}: more than {}", name, MOST_MEMBERS));
    for (const json_part &each : *at) {
        if (!each.is_object())
            refuse_record(fmt::format("{}: a member is no object", name));
        func(each);
    }
}

static krv_activation_type_t read_target(const json_part &of)
{
    const std::string name = find_text(of, "target");
    if (!name.empty() && name != "amd64" && name != "i386")
        refuse_record(fmt::format("target is {}, not amd64 or i386", name));
    return name == "i386" ? KRV_ACTIVATION_I386 : KRV_ACTIVATION_AMD64;
}

static described_module read_module(const json_part &of)
{
    constexpr std::string_view MARK = " (deleted)";
    described_module m = {find_text(of, "path"),
                          find_text(of, "build_id"),
                          get_number(of, "start", "a module"),
                          get_number(of, "end", "a module"),
                          find_number(of, "bias"),
                          find_number(of, "offset").value_or(0)};
    if (m.path.find('\0') != std::string::npos)
        refuse_record(fmt::format("the path of a module has a NUL: {}", m.path));
    if (m.path.ends_with(MARK)) // as the system shows it
        m.path.resize(m.path.size() - MARK.size());
    if (!m.build_id.empty() && !is_build_id(m.build_id))
        refuse_record(fmt::format("build_id {} is none", m.build_id));
    if (m.start >= m.end)
        refuse_record(fmt::format("a module ends at {:#x}, and starts at {:#x}", m.end, m.start));
    return m;
}

static void read_registers(const json_part &of, described_process *made)
{
    const auto at = of.find("registers");
    if (at == of.end() || !at->is_object())
        refuse_record("no registers");
    const bool is_amd64 = made->target == KRV_ACTIVATION_AMD64;
    for (const register_name &known : register_names()) {
        const char *const name = is_amd64 ? known.amd64 : known.i386;
        const auto value = name == nullptr ? std::nullopt : find_number(*at, name);
        if (value && !is_amd64 && *value > UINT32_MAX)
            refuse_record(fmt::format("{} is {:#x}, which has more than 32 bits", name, *value));
        if (value)
            made->registers[known.host] = *value;
    }
    for (const unsigned int host : {KRV_HOST_RIP, KRV_HOST_RSP})
        if (!made->registers.contains(host))
            refuse_record(fmt::format("registers have no {}", is_amd64 ? host == KRV_HOST_RIP ? "rip" : "rsp"
                                                              : host == KRV_HOST_RIP ? "eip"
                                                                                     : "esp"));
}

described_process read_described(std::string_view line)
{
    const json_part whole = json_part::parse(line, nullptr, false);
    if (!whole.is_object())
        refuse_record("no JSON object");
    described_process made;
    made.target = read_target(whole);
    read_registers(whole, &made);
    each_of(whole, "modules", [&](const json_part &each) { made.modules.push_back(read_module(each)); });
    std::stable_sort(made.modules.begin(), made.modules.end(),
                     [](const described_module &a, const described_module &b) { return a.start < b.start; });
    const uint64_t last = made.target == KRV_ACTIVATION_AMD64 ? UINT64_MAX : UINT32_MAX;
    size_t taken = 0;
    each_of(whole, "stack", [&](const json_part &each) {
        auto bytes = from_base64(find_text(each, "bytes"));
        const uint64_t address = get_number(each, "address", "a piece of the stack");
        if (!bytes)
            refuse_record(fmt::format("stack at {:#x}: its bytes are no base64", address));
        if (address > last || bytes->size() > last - address)
            refuse_record(
                fmt::format("stack at {:#x}: its {} bytes end beyond the last address", address, bytes->size()));
        taken += bytes->size();
        if (taken > MOST_MEMORY)
            refuse_record(fmt::format("stack: more than {} bytes", MOST_MEMORY));
        made.memory.push_back({address, std::move(*bytes)});
    });
    return made;
}

} // namespace korva::program
