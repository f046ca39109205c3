// SPDX-License-Identifier: Apache-2.0
#include "elf/debug_file.h"

#include "elf/build_id.h"
#include "elf/debuginfod.h"
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

// FOLDER/.build-id/ab/cdef.debug; of an executable without the ending
fs::path build_id_path(const std::string &folder, byte_span id, file_kind kind)
{
    const char *ending = kind == file_kind::debug ? ".debug" : "";
    return fs::path(folder) / ".build-id" / hex(id.first(1)) / (hex(id.subspan(1)) + ending);
}

// The file's own folder, with links resolved: that is what the paths under /usr/lib/debug mirror. Of a file below the sysroot
// it is the path there, and so are the paths beside it.
class home_folder
{
public:
    home_folder(const elf_file &of, const search_settings &from) : where(from)
    {
        std::error_code ignored;
        const std::string inside = where.path_inside(of.path());
        is_inside = !inside.empty();
        const fs::path real =
            is_inside ? fs::path(where.path_inside(where.below_sysroot(inside))) : fs::canonical(of.path(), ignored);
        folder = (real.empty() ? fs::path(of.path()) : real).parent_path();
    }

    // A file beside it, or of an absolute name.
    fs::path file(const fs::path &name) const
    {
        return is_inside ? fs::path(where.below_sysroot((folder / name).string())) : folder / name;
    }
    fs::path relative() const { return folder.relative_path(); }

private:
    const search_settings &where;
    bool is_inside;
    fs::path folder;
};

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
    // `of`: the file that others are looked for; NULL: none.
    explicit search(const search_settings &from, const elf_file *of = nullptr) : where(from), own(of) {}

    // `reason` says why a file is not the one wanted, and is empty for the right one.
    template <typename F>
    void candidate(const char *by, const fs::path &path, const F &reason)
    {
        if (found.file == nullptr)
            try_file(by, path.string(), path, reason);
    }

    // Below each folder, and in the cache.
    template <typename F>
    void by_build_id(byte_span id, file_kind kind, const F &reason)
    {
        for (const std::string &folder : where.folders())
            candidate(BUILD_ID.name, build_id_path(folder, id, kind), reason);
        for (const std::string &path : cached_paths(id, kind))
            if (found.file == nullptr && is_miss(path))
                found.tried.push_back({path, CACHE, KRV_ELF_TRIED_ABSENT, "servers did not have it lately"});
            else if (found.file == nullptr && try_file(CACHE, path, path, reason) == verdict::wrong)
                wrong.push_back(path);
    }

    template <typename F>
    void by_server(byte_span id, file_kind kind, const F &reason)
    {
        if (found.file != nullptr || !where.asks_servers())
            return;
        ask_servers(id, kind, where, wrong, [&](const server_answer &a) {
            if (!a.path.empty())
                return try_file(SERVER, a.url, a.path, reason);
            found.tried.push_back(
                {a.url, SERVER, a.is_failure ? KRV_ELF_TRIED_FAILED : KRV_ELF_TRIED_ABSENT, a.reason});
            if (a.is_failure && !a.is_known && where.fetch == nullptr) // whom it was told
                found.refused.push_back(fmt::format("{}: {}", a.url, a.reason));
            return verdict::unusable;
        });
    }

    debug_file result() { return std::move(found); }

private:
    static constexpr char CACHE[] = "debuginfod-cache", SERVER[] = "debuginfod";

    template <typename F>
    verdict try_file(const char *by, const std::string &shown, const fs::path &path, const F &reason)
    {
        std::error_code ignored;
        found.tried.push_back({shown, by, KRV_ELF_TRIED_ABSENT, {}});
        if (!fs::is_regular_file(path, ignored))
            return verdict::unusable;
        if (own != nullptr && fs::equivalent(path, own->path(), ignored)) {
            found.tried.back().outcome = KRV_ELF_TRIED_ITSELF;
            return verdict::unusable;
        }
        try {
            auto file = std::make_unique<elf_file>(path.string(), where.flags);
            const bool is_other = own != nullptr && file->machine() != own->machine();
            const std::string why = is_other ? "it is of another machine" : reason(*file);
            if (!why.empty())
                return refuse(why, verdict::wrong);
            found.tried.back().outcome = KRV_ELF_TRIED_TAKEN;
            found.file = std::move(file);
            return verdict::taken;
        } catch (const failure &f) {
            return refuse(f.what(), f.code == KRV_ELF_ERR_FORMAT ? verdict::wrong : verdict::unusable);
        }
    }

    verdict refuse(const std::string &why, verdict is)
    {
        tried_file &last = found.tried.back();
        last.outcome = KRV_ELF_TRIED_REFUSED;
        last.reason = why;
        found.refused.push_back(fmt::format("debug file {} is refused: {}", last.path, why));
        return is;
    }

    const search_settings &where;
    const elf_file *own;
    debug_file found;
    std::vector<std::string> wrong; // of the cache
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

debug_file find_by_build_id(byte_span id, file_kind kind, const search_settings &where)
{
    search s(where);
    const auto right = has_id(BUILD_ID, id);
    s.by_build_id(id, kind, right);
    s.by_server(id, kind, right);
    return s.result();
}

// By .gnu_debuglink.
static void find_linked(elf_file &of, const search_settings &where, search *s)
{
    constexpr size_t CRC_SIZE = 4, ALIGNMENT = 4;
    const byte_span bytes = contents_of(of, DEBUG_LINK);
    const std::optional<link> named = read_link(bytes);
    const size_t crc_at = !named ? 0 : (named->name.size() + 1 + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    if (!named || named->name.find('/') != std::string::npos || bytes.size() < crc_at + CRC_SIZE)
        return;
    uint32_t crc = 0;
    std::memcpy(&crc, bytes.data() + crc_at, CRC_SIZE);
    const auto has_crc = [crc](const elf_file &file) {
        const uint32_t actual = crc_of(file.image());
        return actual == crc ? std::string() : fmt::format("its CRC is {:#010x}, not {:#010x}", actual, crc);
    };
    const home_folder home(of, where);
    s->candidate(DEBUG_LINK, home.file(named->name), has_crc);
    s->candidate(DEBUG_LINK, home.file(fs::path(".debug") / named->name), has_crc);
    for (const std::string &folder : where.folders())
        s->candidate(DEBUG_LINK, fs::path(folder) / home.relative() / named->name, has_crc);
}

debug_file find_debug_file(elf_file &of, const search_settings &where)
{
    search s(where, &of);
    const byte_span id = of.build_id();
    const auto right = has_id(BUILD_ID, id);
    if (is_usable_id(id))
        s.by_build_id(id, file_kind::debug, right);
    find_linked(of, where, &s);
    if (is_usable_id(id))
        s.by_server(id, file_kind::debug, right);
    return s.result();
}

const char *alternate_link_of(elf_file &of)
{
    const std::optional<alternate_link> named = read_alternate_link(of);
    return named ? named->section : nullptr;
}

debug_file find_alternate_file(elf_file &of, const search_settings &where)
{
    search s(where, &of);
    const std::optional<alternate_link> named = read_alternate_link(of);
    if (!named || !is_usable_id(named->id))
        return s.result();
    const auto right = has_id(named->kind, named->id);
    s.candidate(named->section, home_folder(of, where).file(named->name), right); // an absolute name stays as it is
    s.by_build_id(named->id, file_kind::debug, right);
    s.by_server(named->id, file_kind::debug, right);
    return s.result();
}

} // namespace krv_elf_loader
