// SPDX-License-Identifier: Apache-2.0
//
// How the rest of the loader opens files: with settings that it has already.
#ifndef KRV_ELF_OPEN_H
#define KRV_ELF_OPEN_H

#include "elf/search.h"

#include <string>

namespace krv_elf_loader
{

// Throws failure. korva_elf_close ends it.
krv_elf_t *open_elf(const std::string &path, const search_settings &where);

} // namespace krv_elf_loader

#endif
