/* SPDX-License-Identifier: Apache-2.0 */
/* functions FILE: every function of an ELF file that has code, with its ranges of addresses. */
#include <inttypes.h>
#include <libkorva-elf.h>
#include <stdio.h>

enum { DW_TAG_subprogram = 0x2e };

static int print_range(krv_handle_t *hp, const krv_range_t *range, void *arg)
{
    int *count = arg;
    (void)hp;
    printf("%s0x%" PRIx64 "-0x%" PRIx64, (*count)++ == 0 ? "" : ",", range->start, range->end);
    return 0;
}

static int print_function(krv_handle_t *hp, const krv_entry_t *entry)
{
    int ranges = 0;
    krv_call_t function;
    if (korva_entry_iter_ranges(hp, entry, print_range, &ranges) != 0 && korva_handle_get_errno(hp) != KRV_ERR_NOTFOUND)
        return -1;
    if (ranges == 0) /* a declaration, or one that is inlined wherever it is called */
        return 0;
    if (korva_entry_get_call(hp, entry, &function) != 0)
        return -1;
    printf(" %s\n", function.name != NULL ? function.name : "??");
    return 0;
}

static int visit(krv_handle_t *hp, krv_ctu_t *unit, void *arg)
{
    krv_entry_t entry;
    int rc = korva_entry_first(hp, unit, &entry);
    (void)arg;
    for (; rc == 0; rc = korva_entry_next(hp, &entry))
        if (entry.tag == DW_TAG_subprogram && print_function(hp, &entry) != 0)
            return -1;
    return korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND ? 0 : -1; /* the end of the unit, or of what can be read */
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return 64;
    krv_elf_error_t error;
    krv_elf_t *elf = korva_elf_open(argv[1], KRV_ELF_F_NONE, &error);
    if (elf == NULL) {
        fprintf(stderr, "%s\n", error.message);
        return 1;
    }
    krv_handle_t *hp = korva_elf_get_handle(elf);
    int rc = korva_iter_cu(hp, KRV_SEC_INFO, visit, NULL);
    if (rc != 0) {
        unsigned int count = 0;
        char **messages = korva_handle_get_errmsgs(hp, &count);
        fprintf(stderr, "%s: %s\n", argv[1], count > 0 ? messages[0] : "no debugging information");
    }
    korva_elf_close(elf);
    return rc != 0;
}
