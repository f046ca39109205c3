/* SPDX-License-Identifier: Apache-2.0 */
/* What every client of the installed libraries does: opens a program of DWARF 4 and finds the line of its answer(). */
#include <libkorva-proc.h>
#include <stdio.h>

static int visit(krv_handle_t *hp, krv_ctu_t *cup, void *arg)
{
    const krv_elf_symbol_t *symbol = (const krv_elf_symbol_t *)arg;
    krv_lns_t *row;
    uint32_t line = 0;
    if (!korva_cu_contains_addr(hp, cup, symbol->address, KRV_LOOKUP_F_NONE))
        return 0;
    row = korva_lookup_source_by_cu_and_addr(hp, cup, symbol->address, symbol->size, symbol->address, 0);
    if (row == NULL || korva_lns_get_line(hp, row, &line) != 0)
        return 0;
    return printf("%u\n", line);
}

static int client(const char *path)
{
    krv_elf_error_t error;
    krv_elf_t *elf = korva_elf_open(path, KRV_ELF_F_NONE, &error);
    const krv_elf_symbol_t *found = elf == NULL ? NULL : korva_elf_lookup_symbol_by_name(elf, "answer");
    krv_elf_symbol_t symbol;
    int rc = 1;
    if (found != NULL) {
        symbol = *found;
        rc = korva_iter_cu(korva_elf_get_handle(elf), KRV_SEC_INFO, visit, &symbol) > 0 ? 0 : 1;
    }
    korva_elf_close(elf);
    return rc;
}
