// SPDX-License-Identifier: Apache-2.0
//
// Where files are looked for, as a client says it.
#ifndef KRV_ELF_SEARCH_H
#define KRV_ELF_SEARCH_H

#include "libkorva-elf.h"

#include <string>
#include <string_view>
#include <vector>

namespace krv_elf_loader
{

// What a file with a build-id is wanted for.
enum class file_kind { debug, executable };

struct search_settings {
    unsigned int flags = KRV_ELF_F_NONE;
    std::vector<std::string> debug_dirs{}; // those that the client names
    std::string sysroot{};                 // where the files lie that others than the client name; "": /
    unsigned int seconds = 0;              // that servers may take for one file; 0: as long as is usual
    krv_elf_fetch_f *fetch = nullptr;
    void *fetch_arg = nullptr;

    search_settings() = default;
    search_settings(unsigned int open_flags, const krv_elf_search_t *search); // NULL: nothing is said

    bool asks_servers() const { return (flags & KRV_ELF_F_DEBUGINFOD) != 0; }

    // The folders that are arranged as /usr/lib/debug is, in their order.
    std::vector<std::string> folders() const;

    // Where the file is that has this absolute path below the sysroot. Links are followed as for a process whose root it
    // is: none leads out of it. Without a sysroot the path itself.
    std::string below_sysroot(const std::string &path) const;

    // The path below the sysroot of a file that lies there, as seen from it; "": it does not.
    std::string path_inside(const std::string &path) const;
};

} // namespace krv_elf_loader

#endif
