// SPDX-License-Identifier: Apache-2.0
//
// What servers are asked for while the program runs.
#pragma once

#include <libkorva-elf.h>

namespace korva::program
{

/**
 * Shows what a server is doing, tells why one failed, and gives the rest up when servers were asked for more, or took longer,
 * than a run may cause: a search's on_fetch. $KORVA_DEBUGINFOD_SECONDS is how long they may take altogether.
 */
bool watch_fetch(const krv_elf_fetch_t &fetch);

} // namespace korva::program
