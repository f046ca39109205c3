// SPDX-License-Identifier: Apache-2.0
//
// Debugging information that stands in a file of its own: found by build-id (.note.gnu.build-id), by name and CRC
// (.gnu_debuglink), and, for what several files share, by .gnu_debugaltlink or .debug_sup. And any file by its build-id.
#ifndef KRV_ELF_DEBUG_FILE_H
#define KRV_ELF_DEBUG_FILE_H

#include "elf/file.h"
#include "elf/search.h"

#include <memory>

namespace krv_elf_loader
{

// A place where it was looked for.
struct tried_file {
    std::string path;   // or a URL
    const char *by;     // what led there: "build-id", ".gnu_debuglink", "debuginfod", ...
    int outcome;        // KRV_ELF_TRIED_*
    std::string reason; // why it is refused
};

// What a search came to. Without a file, `refused` says why each candidate was none; empty when there was no candidate.
struct debug_file {
    std::unique_ptr<elf_file> file;
    std::vector<std::string> refused;
    std::vector<tried_file> tried{}; // in their order
};

// The separate debug file of a file, looked for beside it, in the folders that are arranged as /usr/lib/debug, in the cache of
// debuginfod, and at servers.
debug_file find_debug_file(elf_file &of, const search_settings &where);

// The file that .gnu_debugaltlink or .debug_sup of a file names.
debug_file find_alternate_file(elf_file &of, const search_settings &where);

// The file with a build-id, of which two bytes at least are needed.
debug_file find_by_build_id(byte_span id, file_kind kind, const search_settings &where);

// The section that names it; NULL: none does.
const char *alternate_link_of(elf_file &of);

} // namespace krv_elf_loader

#endif
