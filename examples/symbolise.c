/* SPDX-License-Identifier: Apache-2.0 */
/* symbolise FILE ADDRESS...: function, file and line of addresses of an ELF file. */
#include <inttypes.h>
#include <libkorva-elf.h>
#include <stdio.h>
#include <stdlib.h>

struct question {
    uint64_t address;
    const krv_elf_symbol_t *function;
};

/* Called for each unit; 0 goes on to the next. */
static int visit(krv_handle_t *hp, krv_ctu_t *unit, void *arg)
{
    const struct question *q = arg;
    if (!korva_cu_contains_addr(hp, unit, q->address, KRV_LOOKUP_F_NONE))
        return 0;

    /* The function's extent tells the rows that may answer; without a symbol the address alone. */
    uint64_t start = q->function != NULL ? q->function->address : q->address;
    uint64_t size = q->function != NULL ? q->function->size : 1;
    krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, unit, start, size, q->address, 0);
    if (row == NULL)
        return 0;
    krv_lnfe_t *file = korva_lns_get_filep(hp, row);
    char path[1024] = "??";
    uint32_t line = 0;
    if (file != NULL)
        korva_lnfe_get_path(hp, file, path, sizeof(path), B_TRUE);
    korva_lns_get_line(hp, row, &line);
    printf(" %s:%" PRIu32 "\n", path, line);
    return 1;
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
    for (int i = 2; i < argc; ++i) {
        struct question q = {strtoull(argv[i], NULL, 16), NULL};
        q.function = korva_elf_lookup_symbol(elf, q.address);
        printf("0x%" PRIx64 " %s", q.address, q.function != NULL ? q.function->name : "??");
        if (korva_iter_cu(korva_elf_get_handle(elf), KRV_SEC_INFO, visit, &q) != 1)
            printf(" ??:0\n");
    }
    korva_elf_close(elf);
    return 0;
}
