// SPDX-License-Identifier: Apache-2.0
#include "elf/search.h"

#include <deque>
#include <filesystem>

namespace krv_elf_loader
{

namespace
{

namespace fs = std::filesystem;

constexpr char SYSTEM_DEBUG_FOLDER[] = "/usr/lib/debug";
constexpr int MOST_LINKS = 40; // as the system follows for one path

} // namespace

search_settings::search_settings(unsigned int open_flags, const krv_elf_search_t *search) : flags(open_flags)
{
    if (search == nullptr)
        return;
    debug_dirs.assign(search->dirs, search->dirs + search->dir_count);
    sysroot = search->sysroot == nullptr ? "" : search->sysroot;
    while (sysroot.ends_with('/'))
        sysroot.pop_back(); // "/" is none
    seconds = search->seconds;
    fetch = search->fetch;
    fetch_arg = search->fetch_arg;
}

std::vector<std::string> search_settings::folders() const
{
    std::vector<std::string> all = debug_dirs;
    if (!sysroot.empty())
        all.push_back(below_sysroot(SYSTEM_DEBUG_FOLDER));
    all.emplace_back(SYSTEM_DEBUG_FOLDER);
    return all;
}

std::string search_settings::below_sysroot(const std::string &path) const
{
    if (sysroot.empty())
        return path;
    const fs::path asked(path);
    std::deque<fs::path> left(asked.begin(), asked.end());
    fs::path done;
    for (int links = 0; !left.empty();) {
        const fs::path part = left.front();
        left.pop_front();
        if (part.empty() || part == "." || part == "/")
            continue;
        if (part == "..") {
            done = done.parent_path();
            continue;
        }
        std::error_code no_link;
        const fs::path target = fs::read_symlink(fs::path(sysroot) / done / part, no_link);
        if (no_link) {
            done /= part;
            continue;
        }
        if (++links > MOST_LINKS)
            return sysroot; // no file
        if (target.is_absolute())
            done.clear();
        left.insert(left.begin(), target.begin(), target.end());
    }
    return (fs::path(sysroot) / done).string();
}

std::string search_settings::path_inside(const std::string &path) const
{
    if (sysroot.empty())
        return {};
    std::error_code ignored;
    const std::string root = fs::absolute(sysroot, ignored).lexically_normal().string() + "/";
    const std::string file = fs::absolute(path, ignored).lexically_normal().string();
    return file.starts_with(root) ? file.substr(root.size() - 1) : std::string();
}

} // namespace krv_elf_loader
