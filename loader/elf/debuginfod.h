// SPDX-License-Identifier: Apache-2.0
//
// debuginfod: the cache that its clients share, which is looked at without a network, and the servers, which are asked
// through elfutils' libdebuginfod.
#ifndef KRV_ELF_DEBUGINFOD_H
#define KRV_ELF_DEBUGINFOD_H

#include "bytes.h"
#include "elf/search.h"

#include <functional>
#include <string>
#include <vector>

namespace krv_elf_loader
{

// Where the cache would have the file, in the order in which to look.
std::vector<std::string> cached_paths(byte_span build_id, file_kind kind);

// Whether a path of the cache says that no server had the file, not long ago.
bool is_miss(const std::string &path);

// What came of asking a server.
struct server_answer {
    std::string url;  // of the file
    std::string path; // where it is now; "": it is not to be had there
    bool is_failure;  // without a path: not since the server does not have the file
    bool is_known;    // the failure was told before
    std::string reason;
};

// What whoever asked says of an answer with a path.
enum class verdict {
    taken,    // it is the file
    unusable, // it may be, but cannot be read
    wrong     // it is another one
};

// Asks the servers that DEBUGINFOD_URLS names, one after the other, until a file is taken. One that is wrong is removed, and its
// server not asked again. `wrong` are files of the cache that have to go first: they would be the answer of every server.
void ask_servers(byte_span build_id, file_kind kind, const search_settings &where,
                 const std::vector<std::string> &wrong, const std::function<verdict(const server_answer &)> &judge);

} // namespace krv_elf_loader

#endif
