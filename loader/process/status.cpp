// SPDX-License-Identifier: Apache-2.0
#include "process/status.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace krv_elf_loader
{

namespace
{

// The system writes a newline within a path as \012, and nothing else differently.
std::string unescape(std::string path)
{
    constexpr std::string_view NEWLINE = "\\012";
    for (size_t at = path.find(NEWLINE); at != std::string::npos; at = path.find(NEWLINE, at + 1))
        path.replace(at, NEWLINE.size(), "\n");
    return path;
}

// Takes a number and the character behind it off the front of a line.
bool take_number(const char *&at, int base, char behind, uint64_t *valuep)
{
    char *end = nullptr;
    *valuep = std::strtoull(at, &end, base);
    if (end == at || *end != behind)
        return false;
    at = end + 1;
    return true;
}

// A line of maps: "start-end perms offset major:minor inode   path".
bool parse_mapping(const std::string &line, mapping *m)
{
    constexpr size_t PERMISSIONS = 5; // "r-xp "
    const char *at = line.c_str();
    uint64_t major = 0, minor = 0;
    if (!take_number(at, 16, '-', &m->start) || !take_number(at, 16, ' ', &m->end) || m->start >= m->end ||
        std::strlen(at) < PERMISSIONS)
        return false;
    m->executable = at[2] == 'x';
    at += PERMISSIONS;
    if (!take_number(at, 16, ' ', &m->offset) || !take_number(at, 16, ':', &major) ||
        !take_number(at, 16, ' ', &minor) || !take_number(at, 10, ' ', &m->inode))
        return false;
    m->path = unescape(at + std::strspn(at, " "));
    m->deleted = take_deleted(&m->path);
    return true;
}

} // namespace

std::string read_text(const std::string &path)
{
    const input_file file(path);
    std::string text;
    char piece[4096];
    ssize_t got = 0;
    while (file.is_open() && ((got = ::read(file.fd(), piece, sizeof(piece))) > 0 || (got < 0 && errno == EINTR)))
        if (got > 0)
            text.append(piece, static_cast<size_t>(got));
    return text;
}

bool take_deleted(std::string *path)
{
    constexpr std::string_view DELETED = " (deleted)";
    if (!path->ends_with(DELETED))
        return false;
    path->resize(path->size() - DELETED.size());
    return true;
}

int read_status_number(int id, const char *field)
{
    const std::string text = "\n" + read_text(fmt::format("/proc/{}/status", id));
    const std::string key = fmt::format("\n{}:", field);
    const size_t at = text.find(key);
    return at == std::string::npos ? -1 : static_cast<int>(std::strtol(text.c_str() + at + key.size(), nullptr, 10));
}

char read_state(int id)
{
    // "pid (name) S ...": the name may hold anything, so count from its last parenthesis.
    const std::string text = read_text(fmt::format("/proc/{}/stat", id));
    const size_t at = text.rfind(')');
    return at == std::string::npos || at + 2 >= text.size() ? '\0' : text[at + 2];
}

std::string read_name(int pid, int tid)
{
    std::string name = read_text(fmt::format("/proc/{}/task/{}/comm", pid, tid));
    if (name.ends_with('\n'))
        name.pop_back();
    return name;
}

std::vector<mapping> read_maps(int pid)
{
    const std::string text = read_text(fmt::format("/proc/{}/maps", pid));
    std::vector<mapping> maps;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        mapping m = {};
        if (parse_mapping(text.substr(at, end - at), &m))
            maps.push_back(std::move(m));
        at = end + 1;
    }
    return maps;
}

} // namespace krv_elf_loader
