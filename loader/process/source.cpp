// SPDX-License-Identifier: Apache-2.0
#include "process/source.h"

#include <algorithm>
#include <cstring>
#include <elf.h>

namespace krv_elf_loader
{

namespace
{

template <typename word>
auxiliary parse_words(const uint8_t *bytes, size_t size)
{
    auxiliary aux;
    word pair[2];
    for (; size >= sizeof(pair); bytes += sizeof(pair), size -= sizeof(pair)) {
        std::memcpy(pair, bytes, sizeof(pair));
        switch (pair[0]) {
        case AT_NULL:
            return aux;
        case AT_PHDR:
            aux.program_headers = pair[1];
            break;
        case AT_ENTRY:
            aux.entry = pair[1];
            break;
        case AT_SYSINFO_EHDR:
            aux.vdso = pair[1];
            break;
        default:
            break;
        }
    }
    return aux;
}

} // namespace

auxiliary parse_auxv(const uint8_t *bytes, size_t size, krv_activation_type_t target)
{
    return target == KRV_ACTIVATION_AMD64 ? parse_words<uint64_t>(bytes, size) : parse_words<uint32_t>(bytes, size);
}

const mapping *find_mapping(const std::vector<mapping> &mappings, uint64_t address)
{
    const auto next = std::upper_bound(mappings.begin(), mappings.end(), address,
                                       [](uint64_t a, const mapping &m) { return a < m.start; });
    return next != mappings.begin() && address < std::prev(next)->end ? &*std::prev(next) : nullptr;
}

} // namespace krv_elf_loader
