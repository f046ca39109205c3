/* SPDX-License-Identifier: Apache-2.0 */
/* symbolise FILE ADDRESS...: function, file and line of addresses of an ELF file. */
#include <inttypes.h>
#include <libkorva-elf.h>
#include <stdio.h>
#include <stdlib.h>

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
        uint64_t address = strtoull(argv[i], NULL, 16);
        krv_elf_source_t at; /* what is known of it, also when that is not all */
        if (korva_elf_lookup_source(elf, address, &at, &error) != 0)
            fprintf(stderr, "%s\n", error.message);
        printf("0x%" PRIx64 " %s %s:%" PRIu32 "\n", address, at.function[0] != '\0' ? at.function : "??",
               at.file[0] != '\0' ? at.file : "??", at.line);
    }
    korva_elf_close(elf);
    return 0;
}
