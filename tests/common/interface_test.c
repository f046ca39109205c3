/* SPDX-License-Identifier: Apache-2.0
 *
 * The whole life of a handle, as a C client with nothing but the public header and the shared library lives it: one
 * unit with its line table, typed in below, is attached, asked and freed. */
#include <libkorva.h>

#include <stdio.h>
#include <string.h>

#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            printf("%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);                                             \
            return 1;                                                                                                  \
        }                                                                                                              \
    } while (0)

/* One abbreviation: a compilation unit with name, directory, bounds and line numbers. */
static uint8_t abbrev[] = {1, 0x11, 0, 0x03, 0x08, 0x1b, 0x08, 0x11, 0x01, 0x12, 0x06, 0x10, 0x17, 0, 0, 0};

/* unit_length 35, version 4, address size 8: "m.c" in "/b", [0x1000, 0x1000 + 16), line numbers at 0 */
static uint8_t info[] = {35,   0, 0, 0, 4, 0, 0, 0,  0, 0, 8, 1, 'm', '.', 'c', 0, '/', 'b', 0, 0,
                         0x10, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 0, 0,   0,   0,   0, 0,   0,   0};

/* Header with the file m.c; line 1 at 0x1000, line 3 at 0x1004, end at 0x1010. */
static uint8_t line[] = {54,   0, 0, 0, 2, 0, 26, 0, 0,   0,   1,   1, 0xfb, 14, 13, 0, 1, 1, 1, 1,
                         0,    0, 0, 1, 0, 0, 1,  0, 'm', '.', 'c', 0, 0,    0,  0,  0, 0, 9, 2, 0,
                         0x10, 0, 0, 0, 0, 0, 0,  1, 3,   2,   2,   4, 1,    2,  12, 0, 1, 1};

static int64_t read_line_section(void *arg, void *buf, size_t count, uint64_t offset)
{
    *(unsigned int *)arg += 1;
    memcpy(buf, line + offset, count);
    return (int64_t)count;
}

static int remember_unit(krv_handle_t *hp, krv_ctu_t *cup, void *arg)
{
    (void)hp;
    *(krv_ctu_t **)arg = cup;
    return 0;
}

static int count_opcodes(krv_handle_t *hp, unsigned long offset, unsigned char opcode, krv_value_t **values,
                         unsigned int nvalues, krv_lns_t *state, void *arg)
{
    uint32_t number = 0;
    (void)offset, (void)values, (void)nvalues, (void)opcode;
    *(unsigned int *)arg += 1;
    return korva_lns_get_line(hp, state, &number);
}

int main(void)
{
    krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    CHECK(hp != NULL);
    unsigned int reads = 0, opcodes = 0, count = 0, nrows = 0;
    CHECK(korva_handle_set_opt(hp, KRV_OPT_BASE_ADDR, 0x400000UL) == 0);
    CHECK(korva_attach_section(hp, KRV_SEC_ABBREV, sizeof(abbrev), KRV_FD_TYPE_MEMORY, abbrev) == 0);
    CHECK(korva_attach_section(hp, KRV_SEC_INFO, sizeof(info), KRV_FD_TYPE_MEMORY, info) == 0);
    CHECK(korva_attach_section(hp, KRV_SEC_LINE, sizeof(line), KRV_FD_TYPE_CB, read_line_section, &reads) == 0);

    krv_ctu_t *cup = NULL;
    krv_die_t *die = NULL;
    char name[8], path[16];
    CHECK(korva_iter_cu(hp, KRV_SEC_INFO, remember_unit, &cup) == 0 && cup != NULL);
    CHECK(cup == korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, 0));
    CHECK(korva_get_cu_cudie(hp, cup, &die) == 0);
    CHECK(korva_get_die_at_name(hp, die, name, sizeof(name)) == 0 && strcmp(name, "m.c") == 0);
    CHECK(korva_cu_contains_addr(hp, cup, 0x100f, KRV_LOOKUP_F_NONE) == B_TRUE);
    CHECK(korva_cu_contains_addr(hp, cup, 0x1010, KRV_LOOKUP_F_NONE) == B_FALSE);
    CHECK(korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND);

    uint32_t number = 0, lines[3] = {0, 0, 0};
    uint64_t address = 0;
    krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cup, 0x401000, 0x10, 0x401007, 0);
    CHECK(row != NULL && korva_lns_get_line(hp, row, &number) == 0 && number == 3);
    CHECK(korva_lns_get_canonical_address(hp, row, &address) == 0 && address == 0x401004);
    CHECK(korva_lnfe_get_path(hp, korva_lns_get_filep(hp, row), path, sizeof(path), B_TRUE) == 0);
    CHECK(strcmp(path, "/b/m.c") == 0 && reads > 0);

    krv_lnph_t *lnph = korva_line_get_cu_lnph(hp, cup);
    krv_lnp_t *matrix = NULL;
    CHECK(korva_iter_line_entry(hp, lnph, count_opcodes, &opcodes) == 0 && opcodes == 7);
    CHECK(korva_get_fields(hp, KRV_STRUCT_LNPH, lnph, 1, KRV_FIELD_LNPH_LNP, &matrix) == 0);
    CHECK(korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 2, KRV_FIELD_LNP_ENTRIES, &nrows, KRV_FIELD_LNS_LINE, lines) ==
          0);
    CHECK(nrows == 3 && lines[0] == 1 && lines[1] == 3);

    CHECK(korva_attach_section(hp, 99, 1, KRV_FD_TYPE_MEMORY, info) == -1);
    CHECK(korva_handle_get_errno(hp) == KRV_ERR_INVALID);
    CHECK(strcmp(korva_handle_get_errmsgs(hp, &count)[0], "section index 99 too large") == 0 && count == 1);
    CHECK(strcmp(korva_print_define(hp, KRV_DEF_TAG, 0x11), "DW_TAG_compile_unit") == 0);

    krv_fd_t *fdp = korva_fd_alloc(hp);
    uint64_t value = 0;
    CHECK(fdp != NULL && korva_fd_attach(hp, fdp, sizeof(info), KRV_FD_TYPE_MEMORY, info) == 0);
    CHECK(korva_decode_form(fdp, 0x06, 0, &value, sizeof(value), NULL) == 0 && value == 35); /* DW_FORM_data4 */
    korva_fd_free(fdp);
    korva_handle_hold(hp);
    korva_handle_release(hp);
    korva_handle_release(hp);
    return 0;
}
