// SPDX-License-Identifier: Apache-2.0
#include "object.h"

#include "output.h"
#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <elf.h>

namespace korva::program
{

// The library gives a code without a message where the code says it all.
static std::string_view describe_code(int code)
{
    switch (code) {
    case KRV_ERR_IO:
        return "reading failed";
    case KRV_ERR_CORRUPT:
        return "malformed debugging information";
    case KRV_ERR_EXISTS:
        return "a key appears twice";
    case KRV_ERR_INVALID:
        return "invalid request";
    case KRV_ERR_EVAL:
        return "an expression cannot be evaluated";
    case KRV_ERR_NOTFOUND:
        return "not there";
    case KRV_ERR_NOMEM:
        return "out of memory";
    case KRV_ERR_NOSPACE:
        return "a value is too large";
    case KRV_ERR_UNSUPPORTED:
        return "not supported";
    default:
        return "unknown error";
    }
}

// Some of the library's messages end in a newline.
static std::string_view trim_end(std::string_view text)
{
    const size_t last = text.find_last_not_of(" \n");
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

std::string failure_text(krv_handle_t *hp, std::string_view context)
{
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    std::string text = fmt::format("{}: ", context);
    if (count == 0)
        text += describe_code(korva_handle_get_errno(hp));
    for (unsigned int i = 0; i < count; ++i)
        text += fmt::format("{}{}", i == 0 ? "" : "; ", trim_end(messages[i]));
    return text;
}

static bool is_unit_version(const krv_elf_note_t *note)
{
    return note->pass == std::string_view("unit-versions");
}

// The bytes of .debug_info, 0 when the file has none.
static uint64_t get_info_size(krv_elf_t *elf)
{
    uint64_t size = 0;
    korva_elf_iter_sections(
        elf,
        [](krv_elf_t *, const krv_elf_section_t *section, void *arg) -> int {
            if (section->index == KRV_SEC_INFO)
                *static_cast<uint64_t *>(arg) = section->size;
            return 0;
        },
        &size);
    return size;
}

object::object(const std::string &path, bool raw, const std::vector<std::string> &debug_dirs) : m_path(path)
{
    krv_elf_error_t error = {};
    std::vector<const char *> dirs(debug_dirs.size());
    std::transform(debug_dirs.begin(), debug_dirs.end(), dirs.begin(),
                   [](const std::string &dir) { return dir.c_str(); });
    m_elf.reset(korva_elf_open_with_debug_dirs(path.c_str(), raw ? KRV_ELF_F_RAW : KRV_ELF_F_NONE, dirs.data(),
                                               dirs.size(), &error));
    if (m_elf == nullptr)
        throw failure(error.message); // names the file
    korva_elf_get_info(m_elf.get(), &m_info);
}

object::object(krv_elf_t *elf, const std::string &path) : m_path(path), m_elf(elf, closer{.borrowed = true})
{
    korva_elf_get_info(elf, &m_info);
}

bool object::has_debug_info() const
{
    return get_info_size(m_elf.get()) != 0;
}

bool object::is_linked() const
{
    return m_info.type != ET_REL;
}

void object::diagnose(std::string_view text) const
{
    program::diagnose(fmt::format("{}: {}", m_path, text));
}

void object::refuse(unit &u, std::string_view text) const
{
    if (!u.refused)
        diagnose(text);
    u.refused = true;
}

void object::refuse_version(unit &u)
{
    if (!m_version_refused) {
        const auto others =
            std::count_if(m_units.begin(), m_units.end(), [](const unit &other) { return !other.is_readable(); }) - 1;
        diagnose(fmt::format("unit at offset 0x{:x} of .debug_info is DWARF {}: DWARF 2 to 4 is read; compile it with "
                             "-gdwarf-4 (Go: with GOEXPERIMENT=nodwarf5){}",
                             u.header.offset, u.header.version,
                             others == 0 ? "" : fmt::format("; so are {} other units", others)));
    }
    m_version_refused = true;
    u.refused = true;
}

bool object::diagnose_notes() const
{
    struct state {
        const object *self;
        bool any;
    } s = {this, false};
    korva_elf_iter_notes(
        m_elf.get(),
        [](krv_elf_t *, const krv_elf_note_t *note, void *arg) -> int {
            auto *st = static_cast<state *>(arg);
            if (note->refused != 0 && !is_unit_version(note)) {
                st->self->diagnose(note->text);
                st->any = true;
            }
            return 0;
        },
        &s);
    return !s.any;
}

std::optional<extent> object::find_section(const std::string &name) const
{
    struct state {
        const std::string &name;
        std::optional<extent> found;
    } s = {name, {}};
    korva_elf_iter_sections(
        m_elf.get(),
        [](krv_elf_t *, const krv_elf_section_t *section, void *arg) -> int {
            auto *st = static_cast<state *>(arg);
            if (section->name != st->name)
                return 0;
            st->found = {section->address, section->size};
            return 1;
        },
        &s);
    return s.found;
}

void object::read_units()
{
    const uint64_t info_size = get_info_size(m_elf.get());
    if (info_size == 0)
        throw failure(fmt::format("{}: no debugging information (.debug_info)", m_path));

    std::vector<krv_ctu_t *> found;
    const progress shown(fmt::format("{}: reading units", m_path), 0, progress::mode::silent);
    // The call-back asks the handle nothing: what the reader said about the end of the table must stay in it.
    if (korva_iter_cu(
            handle(), KRV_SEC_INFO,
            [](krv_handle_t *, krv_ctu_t *cu, void *arg) -> int {
                static_cast<std::vector<krv_ctu_t *> *>(arg)->push_back(cu);
                return 0;
            },
            &found) != 0)
        throw failure(fmt::format("{}: {}", m_path, failed("no unit can be read")));
    const std::string end = failed("the units behind it cannot be read");

    for (krv_ctu_t *cu : found) {
        m_units.push_back({.cu = cu, .header = {}});
        if (korva_cu_get_header(handle(), cu, &m_units.back().header) != 0)
            throw failure(fmt::format("{}: {}", m_path, failed("no unit header")));
    }
    const krv_cu_header_t &last = m_units.back().header;
    m_complete = last.offset + last.size == info_size;
    if (!m_complete)
        diagnose(fmt::format("unit table ends early, at offset 0x{:x} of 0x{:x} of .debug_info: {}",
                             last.offset + last.size, info_size, end));
}

std::vector<unit> &object::units()
{
    if (m_units.empty())
        read_units();
    return m_units;
}

} // namespace korva::program
