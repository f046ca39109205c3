/* SPDX-License-Identifier: Apache-2.0 */
/* symbolise FILE ADDRESS...: function, file and line of addresses of an ELF file. */
#include <inttypes.h>
#include <libkorva-elf.h>
#include <stdio.h>
#include <stdlib.h>

/* What the loader could not present: the reason of an answer that is not there. */
static int print_refused(krv_elf_t *elf, const krv_elf_note_t *note, void *arg)
{
    (void)elf;
    (void)arg;
    if (note->refused)
        fprintf(stderr, "%s\n", note->text);
    return 0;
}

static int print_source(krv_handle_t *hp, uint64_t address, const krv_elf_symbol_t *function)
{
    krv_ctu_t *unit = korva_lookup_ctu_by_addr(hp, address, KRV_LOOKUP_F_NONE);
    /* The function's extent tells the rows that may answer; without a symbol the address alone. */
    uint64_t start = function != NULL ? function->address : address;
    uint64_t size = function != NULL ? function->size : 1;
    krv_lns_t *row = unit == NULL ? NULL : korva_lookup_source_by_cu_and_addr(hp, unit, start, size, address, 0);
    krv_lnfe_t *file = row == NULL ? NULL : korva_lns_get_filep(hp, row);
    char path[1024] = "??";
    uint32_t line = 0;
    if (file != NULL)
        korva_lnfe_get_path(hp, file, path, sizeof(path), B_TRUE);
    if (row != NULL)
        korva_lns_get_line(hp, row, &line);
    printf("%s:%" PRIu32 "\n", path, line);
    return row != NULL;
}

int main(int argc, char **argv)
{
    if (argc < 3)
        return 64;
    krv_elf_error_t error;
    krv_elf_t *elf = korva_elf_open(argv[1], KRV_ELF_F_NONE, &error);
    if (elf == NULL) {
        fprintf(stderr, "%s\n", error.message);
        return 1;
    }
    int answers = 0;
    for (int i = 2; i < argc; ++i) {
        uint64_t address = strtoull(argv[i], NULL, 16);
        const krv_elf_symbol_t *function = korva_elf_lookup_symbol(elf, address);
        printf("0x%" PRIx64 " %s ", address, function != NULL ? function->name : "??");
        answers += print_source(korva_elf_get_handle(elf), address, function);
    }
    if (answers == 0)
        korva_elf_iter_notes(elf, print_refused, NULL);
    korva_elf_close(elf);
    return 0;
}
