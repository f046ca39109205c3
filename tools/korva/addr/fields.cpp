// SPDX-License-Identifier: Apache-2.0
#include "addr/fields.h"

#include "locate.h"

namespace korva::program
{

void count(answer a, tally *done)
{
    if (a.empty())
        done->missed();
    else if (a[0].has_row != 0 && a[0].file[0] != '\0' && a[0].line != 0)
        done->answered();
    else
        done->partly();
}

void append_text(std::string *line, const char *key, std::optional<std::string_view> value)
{
    *line += key;
    value ? append_json(line, *value) : void(*line += "null");
}

static void append_number(std::string *line, const char *key, uint64_t value, bool is_known)
{
    *line += key;
    is_known ? append_decimal(line, value) : void(*line += "null");
}

static std::optional<std::string_view> known(std::string_view text)
{
    return text.empty() ? std::nullopt : std::optional(text);
}

std::string_view address_fields::path_of(const krv_elf_frame_t &frame) const
{
    std::string_view path(frame.file);
    if (m_basenames)
        path.remove_prefix(path.rfind('/') + 1); // npos + 1 is 0
    return path;
}

std::optional<std::string_view> address_fields::unit_name(answer a)
{
    if (a.empty() || a[0].has_row == 0 || a[0].unit == nullptr)
        return {};
    if (m_named != a[0].unit) {
        m_named = a[0].unit;
        m_unit_name = unit(m_object.handle().get(), m_named).name();
    }
    return m_unit_name ? std::optional<std::string_view>(*m_unit_name) : std::nullopt;
}

void address_fields::append_frame(std::string *line, const krv_elf_frame_t &frame) const
{
    append_text(line, "{\"function\":", known(frame.function));
    append_text(line, ",\"linkage_name\":", known(frame.linkage_name));
    append_text(line, ",\"from\":",
                frame.origin == KRV_ELF_FRAME_ENTRIES   ? "entries"
                : frame.origin == KRV_ELF_FRAME_SYMBOLS ? std::optional("symbols")
                                                        : std::nullopt);
    *line += frame.is_inlined != 0 ? ",\"inlined\":true" : ",\"inlined\":false";
    append_text(line, ",\"file\":", known(path_of(frame)));
    append_number(line, ",\"line\":", frame.line, frame.line != 0);
    append_number(line, ",\"column\":", frame.column, frame.column != 0);
    append_number(line, ",\"discriminator\":", frame.discriminator, frame.line != 0);
    *line += '}';
}

void address_fields::append(std::string *line, std::optional<uint64_t> address, answer a)
{
    const krv_elf_frame_t first = a.empty() ? nothing_known() : a[0];
    *line += ",\"address\":";
    if (address) {
        *line += '"';
        append_hex(line, *address, 1);
        *line += '"';
    } else {
        *line += "null";
    }
    append_text(line, ",\"function\":", known(first.function));
    append_text(line, ",\"file\":", known(path_of(first)));
    append_number(line, ",\"line\":", first.line, first.line != 0);
    append_number(line, ",\"column\":", first.column, first.column != 0);
    append_number(line, ",\"discriminator\":", first.discriminator, first.has_row != 0);
    append_text(line, ",\"unit\":", unit_name(a));
    *line += ",\"frames\":[";
    for (const krv_elf_frame_t &frame : a) {
        *line += &frame == a.data() ? "" : ",";
        append_frame(line, frame);
    }
    *line += ']';
}

} // namespace korva::program
