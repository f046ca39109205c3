// SPDX-License-Identifier: Apache-2.0
//
// The loader on an ELF file, as it stands and corrected, with its symbols and the units and lines that it presents.
#include "file.h"
#include "libkorva-elf.h"

static int count_section(krv_elf_t *, const krv_elf_section_t *section, void *arg)
{
    *static_cast<uint64_t *>(arg) += std::strlen(section->name) + section->size;
    return 0;
}

static int count_note(krv_elf_t *, const krv_elf_note_t *note, void *arg)
{
    *static_cast<uint64_t *>(arg) += std::strlen(note->text);
    return 0;
}

static int ask(krv_handle_t *hp, krv_ctu_t *cu, void *)
{
    krv_lnph_t *lnph = korva_line_get_cu_lnph(hp, cu);
    if (lnph != nullptr)
        korva_iter_line_entry(hp, lnph, nullptr, nullptr);
    korva_cu_contains_addr(hp, cu, 0x1000, KRV_LOOKUP_F_NONE);
    korva_lookup_source_by_cu_and_addr(hp, cu, 0, UINT64_MAX, 0x1000, 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const krv_fuzz::file file(data, size);
    for (const unsigned flags : {KRV_ELF_F_NONE, KRV_ELF_F_RAW}) {
        krv_elf_error_t error;
        krv_elf_t *elf = korva_elf_open(file.path().c_str(), flags, &error);
        if (elf == nullptr)
            continue;
        uint64_t sum = 0, bias;
        size_t count = 0;
        korva_elf_iter_sections(elf, count_section, &sum);
        korva_elf_iter_notes(elf, count_note, &sum);
        const krv_elf_symbol_t *symbols = korva_elf_get_symbols(elf, &count);
        for (size_t i = 0; i < count; ++i)
            if (korva_elf_lookup_symbol_by_name(elf, symbols[i].name) == nullptr ||
                (korva_elf_lookup_symbol(elf, symbols[i].address) == nullptr && symbols[i].size != 0))
                __builtin_trap(); // a symbol that is listed is found
        korva_elf_load_bias(elf, 0x7f0000001000, 0x1000, &bias, &error);
        korva_iter_cu(korva_elf_get_handle(elf), KRV_SEC_INFO, ask, nullptr);
        korva_elf_close(elf);
    }
    return 0;
}
