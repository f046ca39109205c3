// SPDX-License-Identifier: Apache-2.0
#include "elf/debug_file.h"

#include "elf/dwarf_cursor.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <zlib.h>

namespace krv_elf_loader
{

namespace
{

namespace fs = std::filesystem;

std::string hex(byte_span bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += fmt::format("{:02x}", byte);
    return text;
}

// FOLDER/.build-id/ab/cdef.debug
fs::path build_id_path(const std::string &folder, byte_span id)
{
    return fs::path(folder) / ".build-id" / hex(id.first(1)) / (hex(id.subspan(1)) + ".debug");
}

// The file's own folder, with links resolved: that is what the paths under /usr/lib/debug mirror.
fs::path folder_of(const elf_file &of)
{
    std::error_code ignored;
    const fs::path real = fs::canonical(of.path(), ignored);
    return (real.empty() ? fs::path(of.path()) : real).parent_path();
}

// The contents of the first section of that name; empty when there is none.
byte_span contents_of(elf_file &file, const char *name)
{
    for (const raw_section &section : file.sections())
        if (section.name == name && section.in_file)
            return file.contents(section);
    return {};
}

// Text up to its NUL, and what follows it. Nothing when there is no NUL or no text.
struct link {
    std::string name;
    byte_span rest;
};

std::optional<link> read_link(byte_span bytes)
{
    const auto end = std::find(bytes.begin(), bytes.end(), uint8_t{0});
    const auto length = static_cast<size_t>(end - bytes.begin());
    if (end == bytes.end() || length == 0)
        return std::nullopt;
    return link{std::string(bytes.begin(), end), bytes.subspan(length + 1)};
}

// What .debug_sup says (DWARF 5, 7.3.6): of the file that it names, or, where is_supplementary, of the file that it is in.
struct supplement {
    bool is_supplementary;
    std::string name;
    byte_span checksum;
};

std::optional<supplement> read_supplement(elf_file &of)
{
    constexpr uint64_t VERSION = 5;
    const byte_span bytes = contents_of(of, ".debug_sup");
    cursor c(bytes);
    const uint64_t version = c.number(2);
    const uint8_t is_supplementary = c.byte();
    const std::string_view name = c.string();
    const uint64_t length = c.uleb();
    if (!c.ok() || version != VERSION || length > c.left())
        return std::nullopt;
    return supplement{is_supplementary != 0, std::string(name), bytes.subspan(c.at(), length)};
}

// What tells a file from others.
struct id_kind {
    const char *name;
    byte_span (*of)(elf_file &file); // empty where a file has none
};

const id_kind BUILD_ID = {"build-id", [](elf_file &file) { return file.build_id(); }};
const id_kind CHECKSUM = {"checksum in .debug_sup", [](elf_file &file) {
                              const std::optional<supplement> own = read_supplement(file);
                              return own && own->is_supplementary ? own->checksum : byte_span();
                          }};

// The link of a file to the one that several share.
struct alternate_link {
    const char *section;
    std::string name;
    id_kind kind;
    byte_span id;
};

std::optional<alternate_link> read_alternate_link(elf_file &of)
{
    if (const std::optional<link> named = read_link(contents_of(of, ".gnu_debugaltlink")))
        return alternate_link{".gnu_debugaltlink", named->name, BUILD_ID, named->rest};
    const std::optional<supplement> named = read_supplement(of);
    if (!named || named->is_supplementary || named->name.empty())
        return std::nullopt;
    return alternate_link{".debug_sup", named->name, CHECKSUM, named->checksum};
}

constexpr char DEBUG_LINK[] = ".gnu_debuglink";

uint32_t crc_of(byte_span bytes)
{
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

bool same_bytes(byte_span a, byte_span b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// Tries candidates until one is taken.
class search
{
public:
    explicit search(const elf_file &of) : own(of) {}

    // `reason` says why a file is not the one wanted, and is empty for the right one.
    template <typename F>
    void candidate(const char *by, const fs::path &path, const F &reason)
    {
        std::error_code ignored;
        if (found.file != nullptr)
            return;
        found.tried.push_back({path.string(), by, KRV_ELF_TRIED_ABSENT, {}});
        if (!fs::is_regular_file(path, ignored))
            return;
        if (fs::equivalent(path, own.path(), ignored)) {
            found.tried.back().outcome = KRV_ELF_TRIED_ITSELF;
            return;
        }
        try {
            auto file = std::make_unique<elf_file>(path.string(), own.any_inflation());
            const std::string why = file->machine() != own.machine() ? "it is of another machine" : reason(*file);
            if (!why.empty())
                return refuse(why);
            found.tried.back().outcome = KRV_ELF_TRIED_TAKEN;
            found.file = std::move(file);
        } catch (const failure &f) {
            refuse(f.what());
        }
    }

    debug_file result() { return std::move(found); }

private:
    void refuse(const std::string &why)
    {
        tried_file &last = found.tried.back();
        last.outcome = KRV_ELF_TRIED_REFUSED;
        last.reason = why;
        found.refused.push_back(fmt::format("debug file {} is refused: {}", last.path, why));
    }

    const elf_file &own;
    debug_file found;
};

auto has_id(const id_kind &kind, byte_span wanted)
{
    return [kind, wanted](elf_file &file) {
        const byte_span actual = kind.of(file);
        return same_bytes(actual, wanted) ? std::string()
                                          : fmt::format("its {} is {}, not {}", kind.name,
                                                        actual.empty() ? "missing" : hex(actual), hex(wanted));
    };
}

} // namespace

debug_file find_debug_file(elf_file &of, const std::vector<std::string> &folders)
{
    search s(of);
    const byte_span id = of.build_id();
    if (id.size() > 1)
        for (const std::string &folder : folders)
            s.candidate(BUILD_ID.name, build_id_path(folder, id), has_id(BUILD_ID, id));

    constexpr size_t CRC_SIZE = 4, ALIGNMENT = 4;
    const byte_span bytes = contents_of(of, DEBUG_LINK);
    const std::optional<link> named = read_link(bytes);
    const size_t crc_at = !named ? 0 : (named->name.size() + 1 + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    if (!named || named->name.find('/') != std::string::npos || bytes.size() < crc_at + CRC_SIZE)
        return s.result();
    uint32_t crc = 0;
    std::memcpy(&crc, bytes.data() + crc_at, CRC_SIZE);
    const auto has_crc = [crc](const elf_file &file) {
        const uint32_t actual = crc_of(file.image());
        return actual == crc ? std::string() : fmt::format("its CRC is {:#010x}, not {:#010x}", actual, crc);
    };
    const fs::path home = folder_of(of);
    s.candidate(DEBUG_LINK, home / named->name, has_crc);
    s.candidate(DEBUG_LINK, home / ".debug" / named->name, has_crc);
    for (const std::string &folder : folders)
        s.candidate(DEBUG_LINK, fs::path(folder) / home.relative_path() / named->name, has_crc);
    return s.result();
}

const char *alternate_link_of(elf_file &of)
{
    const std::optional<alternate_link> named = read_alternate_link(of);
    return named ? named->section : nullptr;
}

debug_file find_alternate_file(elf_file &of, const std::vector<std::string> &folders)
{
    search s(of);
    const std::optional<alternate_link> named = read_alternate_link(of);
    if (!named || named->id.size() < 2)
        return s.result();
    const auto right = has_id(named->kind, named->id);
    s.candidate(named->section, folder_of(of) / named->name, right); // an absolute name stays as it is
    for (const std::string &folder : folders)
        s.candidate(BUILD_ID.name, build_id_path(folder, named->id), right);
    return s.result();
}

} // namespace krv_elf_loader
