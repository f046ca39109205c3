// SPDX-License-Identifier: Apache-2.0
#include "frame_record.h"

namespace korva::program
{

std::string bytes_text(const argument &bytes)
{
    if (bytes.empty())
        return "??";
    std::string text;
    for (const std::optional<uint8_t> &byte : bytes)
        text += fmt::format("{}{}", text.empty() ? "" : " ", byte ? fmt::format("{:02x}", *byte) : "??");
    return text;
}

static json_value unless_empty(const std::string &text)
{
    return text.empty() ? json_value(nullptr) : json_value(text);
}

static json_value call_record(const krv_elf_frame_t &call, const place_request &wanted)
{
    json_value record = {{"function", unless_empty(call.function)},
                         {"linkage_name", unless_empty(call.linkage_name)},
                         {"from", call.origin == KRV_ELF_FRAME_ENTRIES   ? json_value("entries")
                                  : call.origin == KRV_ELF_FRAME_SYMBOLS ? json_value("symbols")
                                                                         : json_value(nullptr)},
                         {"inlined", call.is_inlined != 0},
                         {"file", unless_empty(path_of(call, wanted))}};
    record["line"] = wanted.no_source ? json_value(nullptr) : or_null(call.line);
    record["column"] = wanted.no_source ? json_value(nullptr) : or_null(call.column);
    return record;
}

static json_value variables_record(const call_variables &variables)
{
    json_value all = json_value::array();
    for (const shown_variable &v : variables)
        all.push_back({{"name", v.name}, {"type", v.type}, {"value", v.value}, {"parameter", v.is_parameter}});
    return all;
}

json_value frame_record(const process &proc, size_t index, const stack_frame &f, const frame_place &at,
                        const place_request &wanted)
{
    json_value record = {{"index", index},
                         {"pc", hex(f.pc)},
                         {"lookup_pc", hex(f.lookup_pc)},
                         {"module", f.module == nullptr ? json_value(nullptr) : unless_empty(f.module->path)},
                         {"function", unless_empty(at.function)},
                         {"offset", at.function.empty() ? json_value(nullptr) : number(at.offset)},
                         {"file", unless_empty(at.path)},
                         {"line", or_null(at.line)},
                         {"signal_frame", f.is_signal_frame}};
    if (f.module != nullptr) {
        const auto offset = proc.file_offset(f.lookup_pc);
        record["build_id"] = unless_empty(build_id_of(*f.module));
        record["deleted"] = (f.module->flags & KRV_PROC_MODULE_F_DELETED) != 0;
        record["address"] = hex(f.lookup_pc - f.module->bias);
        record["file_offset"] = offset ? hex(*offset) : json_value(nullptr);
    }
    for (const krv_elf_frame_t &call : at.calls)
        record["calls"].push_back(call_record(call, wanted));
    for (size_t i = 0; i < at.calls.size() && i < f.variables.size(); ++i)
        record["calls"][i]["variables"] = variables_record(f.variables[i]);
    if (!f.variables.empty())
        record["variables"] = variables_record(f.variables.back());
    if (f.arguments.empty())
        return record;
    json_value arguments = json_value::array();
    for (const argument &bytes : f.arguments)
        arguments.push_back(bytes.empty() ? json_value(nullptr) : json_value(bytes_text(bytes)));
    record["arguments"] = arguments;
    return record;
}

} // namespace korva::program
