// SPDX-License-Identifier: Apache-2.0
#include "explain/package.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

namespace korva::program::explanation
{

namespace fs = std::filesystem;

// The paths under which packages may list it: with links resolved, and as it was before /bin and /lib were links into /usr.
static std::vector<std::string> listed_as(const std::string &path)
{
    constexpr std::string_view USR = "/usr";
    std::error_code failed;
    const std::string real = fs::canonical(path, failed).string();
    std::vector<std::string> names;
    if (failed)
        return names;
    names.push_back(real);
    if (real.starts_with("/usr/"))
        names.push_back(real.substr(USR.size()));
    return names;
}

std::string debian_package_of(const std::string &path)
{
    const std::vector<std::string> names = listed_as(path);
    std::error_code failed;
    if (names.empty())
        return {};
    for (const fs::directory_entry &entry : fs::directory_iterator("/var/lib/dpkg/info", failed)) {
        if (entry.path().extension() != ".list")
            continue;
        std::ifstream list(entry.path());
        for (std::string line; std::getline(list, line);)
            if (std::find(names.begin(), names.end(), line) != names.end()) {
                const std::string stem = entry.path().stem().string();
                return stem.substr(0, stem.find(':'));
            }
    }
    return {};
}

} // namespace korva::program::explanation
