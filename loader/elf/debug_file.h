// SPDX-License-Identifier: Apache-2.0
//
// Debugging information that stands in a file of its own: found by build-id (.note.gnu.build-id), by name and CRC
// (.gnu_debuglink), and, for what several files share, by .gnu_debugaltlink or .debug_sup.
#ifndef KRV_ELF_DEBUG_FILE_H
#define KRV_ELF_DEBUG_FILE_H

#include "elf/file.h"

#include <memory>

namespace krv_elf_loader
{

// A place where it was looked for.
struct tried_file {
    std::string path;
    const char *by;     // what led there: "build-id", ".gnu_debuglink", ...
    int outcome;        // KRV_ELF_TRIED_*
    std::string reason; // why it is refused
};

// What a search came to. Without a file, `refused` says why each candidate was none; empty when there was no candidate.
struct debug_file {
    std::unique_ptr<elf_file> file;
    std::vector<std::string> refused;
    std::vector<tried_file> tried{}; // in their order
};

// The separate debug file of a file, looked for beside it and under the folders of `folders` (as /usr/lib/debug).
debug_file find_debug_file(elf_file &of, const std::vector<std::string> &folders);

// The file that .gnu_debugaltlink or .debug_sup of a file names.
debug_file find_alternate_file(elf_file &of, const std::vector<std::string> &folders);

// The section that names it; NULL: none does.
const char *alternate_link_of(elf_file &of);

} // namespace krv_elf_loader

#endif
