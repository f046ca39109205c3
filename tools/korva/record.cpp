// SPDX-License-Identifier: Apache-2.0
#include "record.h"

#include "output.h"

#include <libkorva-elf.h>

namespace korva::program
{

namespace
{

struct named_code {
    int code;
    const char *name;
};

#define NAMED(code)                                                                                                    \
    {                                                                                                                  \
        code, #code                                                                                                    \
    }
constexpr named_code LIBRARY_CODES[] = {
    NAMED(KRV_ERR_IO),          NAMED(KRV_ERR_CORRUPT),   NAMED(KRV_ERR_EXISTS), NAMED(KRV_ERR_INVALID),
    NAMED(KRV_ERR_EVAL),        NAMED(KRV_ERR_NOTFOUND),  NAMED(KRV_ERR_NOMEM),  NAMED(KRV_ERR_NOSPACE),
    NAMED(KRV_ERR_UNSUPPORTED), NAMED(KRV_ERR_EXT_LIMIT),
};
constexpr named_code LOADER_CODES[] = {
    NAMED(KRV_ELF_ERR_SYSTEM), NAMED(KRV_ELF_ERR_FORMAT),   NAMED(KRV_ELF_ERR_UNSUPPORTED),
    NAMED(KRV_ELF_ERR_NOMEM),  NAMED(KRV_ELF_ERR_NOTFOUND), NAMED(KRV_ELF_ERR_LIMIT),
};
#undef NAMED

constexpr const char *STATUS_NAMES[] = {"ok", "not_found", "error", "limit"};

template <size_t N>
const char *find_name(const named_code (&codes)[N], int code)
{
    for (const named_code &known : codes)
        if (known.code == code)
            return known.name;
    return "";
}

} // namespace

record_error to_record_error(const error &why, std::string_view section, std::optional<uint64_t> offset,
                             std::optional<uint64_t> unit)
{
    record_error made = {.code = why.layer == layer::library ? find_name(LIBRARY_CODES, why.code)
                                                             : find_name(LOADER_CODES, why.code),
                         .section = std::string(section),
                         .offset = offset,
                         .unit = unit};
    for (const std::string &message : why.messages)
        made.messages.push_back(message.substr(0, message.find_last_not_of(" \n") + 1));
    if (made.messages.empty())
        made.messages.push_back(why.text());
    return made;
}

record_status status_of(const record_error *why)
{
    if (why == nullptr)
        return record_status::ok;
    if (why->code == "KRV_ERR_NOTFOUND" || why->code == "KRV_ELF_ERR_NOTFOUND")
        return record_status::not_found;
    return why->code == "KRV_ERR_EXT_LIMIT" ? record_status::limit : record_status::error;
}

const char *name_of(record_status status)
{
    return STATUS_NAMES[static_cast<size_t>(status)];
}

static json_value text_or_null(const std::string &text)
{
    return text.empty() ? json_value(nullptr) : json_value(text);
}

void append_record_head(std::string *line, record_status status, const record_error *why)
{
    line->append("\"v\":1,\"status\":\"").append(name_of(status)).append("\",\"error\":");
    if (why == nullptr) {
        line->append("null");
        return;
    }
    line->append(to_text({{"code", text_or_null(why->code)},
                          {"section", text_or_null(why->section)},
                          {"offset", why->offset ? hex(*why->offset) : json_value(nullptr)},
                          {"unit", why->unit ? hex(*why->unit) : json_value(nullptr)},
                          {"messages", why->messages}}));
}

} // namespace korva::program
