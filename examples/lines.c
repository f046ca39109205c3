/* SPDX-License-Identifier: Apache-2.0 */
/* lines FILE [UNIT]: the line tables of an ELF file, or of the unit of that name alone. */
#include <inttypes.h>
#include <libkorva-elf.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* A matrix is read by columns: one array for each field that is wanted. */
static int print_matrix(krv_handle_t *hp, krv_lnp_t *matrix)
{
    unsigned int count = 0;
    if (korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, &count) != 0)
        return -1;
    uint64_t *addresses = calloc(count + 1u, sizeof(*addresses));
    uint32_t *lines = calloc(count + 1u, sizeof(*lines));
    boolean_t *ends = calloc(count + 1u, sizeof(*ends));
    int rc = -1;
    if (addresses != NULL && lines != NULL && ends != NULL &&
        korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 3, KRV_FIELD_LNS_ADDRESS, addresses, KRV_FIELD_LNS_LINE, lines,
                         KRV_FIELD_LNS_ES, ends) == 0) {
        for (unsigned int i = 0; i < count; ++i)
            printf("0x%" PRIx64 " %" PRIu32 "%s\n", addresses[i], lines[i], ends[i] ? " end" : "");
        rc = 0;
    }
    free(addresses);
    free(lines);
    free(ends);
    return rc;
}

/* What the loader could not present: the reason of an answer that is not there. */
static int print_refused(krv_elf_t *elf, const krv_elf_note_t *note, void *arg)
{
    (void)elf;
    (void)arg;
    if (note->refused)
        fprintf(stderr, "%s\n", note->text);
    return 0;
}

/* What is asked of the units. */
struct request {
    const char *name; /* of the unit that is wanted, or NULL */
    int tables;       /* printed */
};

static int visit(krv_handle_t *hp, krv_ctu_t *unit, void *arg)
{
    struct request *request = arg;
    char name[1024] = "";
    krv_die_t *die = NULL;
    if (korva_get_cu_cudie(hp, unit, &die) == 0)
        korva_get_die_at_name(hp, die, name, sizeof(name)); /* a unit need not have one */
    if (request->name != NULL && strcmp(name, request->name) != 0)
        return 0;

    krv_lnph_t *header = korva_line_get_cu_lnph(hp, unit);
    if (header == NULL && korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND)
        return 0; /* a unit without line numbers */
    krv_lnp_t *matrix = NULL;
    printf("%s\n", name);
    ++request->tables;
    if (header == NULL || korva_get_fields(hp, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_LNP, &matrix) != 0)
        return -1;
    return print_matrix(hp, matrix);
}

int main(int argc, char **argv)
{
    if (argc < 2)
        return 64;
    krv_elf_error_t error;
    krv_elf_t *elf = korva_elf_open(argv[1], KRV_ELF_F_NONE, &error);
    if (elf == NULL) {
        fprintf(stderr, "%s\n", error.message);
        return 1;
    }
    krv_handle_t *hp = korva_elf_get_handle(elf);
    struct request request = {argv[2], 0};
    int rc = korva_iter_cu(hp, KRV_SEC_INFO, visit, &request);
    if (rc != 0) {
        unsigned int count = 0;
        char **messages = korva_handle_get_errmsgs(hp, &count);
        fprintf(stderr, "error %d\n", korva_handle_get_errno(hp));
        for (unsigned int i = 0; i < count; ++i)
            fprintf(stderr, "  %s\n", messages[i]); /* cause first */
    }
    if (request.tables == 0)
        korva_elf_iter_notes(elf, print_refused, NULL);
    korva_elf_close(elf);
    return rc != 0;
}
