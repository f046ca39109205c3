// SPDX-License-Identifier: Apache-2.0
//
// One table says for each field which record has it and where it lies; four short readers copy from it.
#include "krv_get.h"

#include "krv_error.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace
{

enum record_bit : unsigned { LNFE = 1, LNPH = 2, LNS = 4, LNP = 8 };

constexpr unsigned NFIELDS = 34;
static_assert(NFIELDS <= 64); // a set of them is a word

struct field_row {
    unsigned records; // which records have the field
    size_t offset;    // in the record (in a row, for a matrix)
    size_t size;      // bytes; 0 for a field that is computed
    uint32_t flag;    // rows: the bit of slns_flags that a boolean field shows
};

// offsetof and sizeof of one member, by the record that owns it.
#define KRV_MEMBER(records, type, member)                                                                              \
    {                                                                                                                  \
        (records), offsetof(type, member), sizeof(type::member), 0                                                     \
    }
#define KRV_ROW_FLAG(flag)                                                                                             \
    {                                                                                                                  \
        LNS | LNP, offsetof(krv_lns_t, slns_flags), 0, (flag)                                                          \
    }
#define KRV_COMPUTED(records)                                                                                          \
    {                                                                                                                  \
        (records), 0, 0, 0                                                                                             \
    }

consteval std::array<field_row, NFIELDS> make_field_table()
{
    std::array<field_row, NFIELDS> t{};
    t[KRV_FIELD_LNPH_UNIT_LENGTH] = KRV_MEMBER(LNPH, krv_lnph_t, sln_unit_length);
    t[KRV_FIELD_LNPH_VERSION] = KRV_MEMBER(LNPH, krv_lnph_t, sln_version);
    t[KRV_FIELD_LNPH_HEADER_LENGTH] = KRV_MEMBER(LNPH, krv_lnph_t, sln_header_length);
    t[KRV_FIELD_LNPH_MIL] = KRV_MEMBER(LNPH, krv_lnph_t, sln_mil);
    t[KRV_FIELD_LNPH_MOPI] = KRV_MEMBER(LNPH, krv_lnph_t, sln_mopi);
    t[KRV_FIELD_LNPH_DEFAULT_IS_STMT] = KRV_MEMBER(LNPH, krv_lnph_t, sln_default_is_stmt);
    t[KRV_FIELD_LNPH_LINE_BASE] = KRV_MEMBER(LNPH, krv_lnph_t, sln_line_base);
    t[KRV_FIELD_LNPH_LINE_RANGE] = KRV_MEMBER(LNPH, krv_lnph_t, sln_line_range);
    t[KRV_FIELD_LNPH_OPCODE_BASE] = KRV_MEMBER(LNPH, krv_lnph_t, sln_opcode_base);
    t[KRV_FIELD_LNPH_SOL] = KRV_MEMBER(LNPH, krv_lnph_t, sln_sol);
    t[KRV_FIELD_LNPH_ID] = KRV_MEMBER(LNPH, krv_lnph_t, sln_id);
    t[KRV_FIELD_LNPH_ID_ENTRIES] = KRV_MEMBER(LNPH, krv_lnph_t, sln_id_entries);
    t[KRV_FIELD_LNPH_FILES] = KRV_COMPUTED(LNPH);         // may grow meanwhile: krv_lnph_files
    t[KRV_FIELD_LNPH_FILES_ENTRIES] = KRV_COMPUTED(LNPH); // likewise
    t[KRV_FIELD_LNPH_LNP] = KRV_COMPUTED(LNPH);           // built on demand
    t[KRV_FIELD_LNFE_ABSOLUTE_PATH] = KRV_COMPUTED(LNFE); // composed on demand
    t[KRV_FIELD_LNFE_PATH] = KRV_MEMBER(LNFE, krv_lnfe_t, slnfe_path);
    t[KRV_FIELD_LNFE_DIRIDX] = KRV_MEMBER(LNFE, krv_lnfe_t, slnfe_diridx);
    t[KRV_FIELD_LNFE_MTIME] = KRV_MEMBER(LNFE, krv_lnfe_t, slnfe_mtime);
    t[KRV_FIELD_LNFE_SIZE] = KRV_MEMBER(LNFE, krv_lnfe_t, slnfe_size);
    t[KRV_FIELD_LNS_ADDRESS] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_address);
    t[KRV_FIELD_LNS_OP_INDEX] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_op_index);
    t[KRV_FIELD_LNS_FILE] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_file);
    t[KRV_FIELD_LNS_LINE] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_line);
    t[KRV_FIELD_LNS_COLUMN] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_column);
    t[KRV_FIELD_LNS_ISA] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_isa);
    t[KRV_FIELD_LNS_DISCRIMINATOR] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_discriminator);
    t[KRV_FIELD_LNS_IS] = KRV_ROW_FLAG(KRV_LNS_FLAG_IS);
    t[KRV_FIELD_LNS_BB] = KRV_ROW_FLAG(KRV_LNS_FLAG_BB);
    t[KRV_FIELD_LNS_ES] = KRV_ROW_FLAG(KRV_LNS_FLAG_ES);
    t[KRV_FIELD_LNS_PE] = KRV_ROW_FLAG(KRV_LNS_FLAG_PE);
    t[KRV_FIELD_LNS_EB] = KRV_ROW_FLAG(KRV_LNS_FLAG_EB);
    t[KRV_FIELD_LNS_C_ADDRESS] = KRV_MEMBER(LNS | LNP, krv_lns_t, slns_u.slnsu_c_address);
    t[KRV_FIELD_LNP_ENTRIES] = KRV_MEMBER(LNP, krv_lnp_t, slnp_lnsp_entries);
    return t;
}

#undef KRV_MEMBER
#undef KRV_ROW_FLAG
#undef KRV_COMPUTED

constexpr auto field_table = make_field_table();

constexpr bool is_row_field(unsigned field)
{
    return (field_table[field].records & LNS) != 0;
}

// Where each field that is wanted goes, and the matrix of a header that was asked for it.
struct destinations {
    void *of[NFIELDS];   // uninitialised where nothing is wanted
    uint64_t wanted = 0; // bit n for field n
    krv_lnph_t *header = nullptr;
    krv_lnp_t *matrix = nullptr;

    void *find(unsigned field) const { return (wanted >> field & 1) != 0 ? of[field] : nullptr; }

    // Writes a computed field, if it is wanted, which it is no longer then.
    void take(unsigned field, const void *value, size_t size)
    {
        if (void *where = find(field))
            std::memcpy(where, value, size);
        wanted &= ~(uint64_t{1} << field);
    }
};

// The fields of a set of them, ascending.
template <typename Visit>
void for_each_field(uint64_t fields, Visit visit)
{
    for (; fields != 0; fields &= fields - 1)
        visit(static_cast<unsigned>(__builtin_ctzll(fields)));
}

} // namespace

// Scans all pairs, so that every bad field is reported. 0, or -1 when any field does not belong to the record, or when a
// matrix that was asked for cannot be built; building one clears what was reported before.
static int scan_fields(krv_handle_t *hp, unsigned record, unsigned int nfields, va_list ap, destinations *dst)
{
    int result = 0, code = KRV_ERR_NONE;
    int illegal[KRV_MAX_ERRORS];
    unsigned int nillegal = 0;
    for (unsigned int i = 0; i < nfields; ++i) {
        const int field = va_arg(ap, int);
        void *where = va_arg(ap, void *);
        if (field < 0 || field >= static_cast<int>(NFIELDS) ||
            (field_table[static_cast<unsigned>(field)].records & record) == 0) {
            code = KRV_ERR_INVALID;
            result = krv_fail(hp, code, "illegal field %d specified", field);
            if (nillegal < KRV_MAX_ERRORS)
                illegal[nillegal++] = field;
            continue;
        }
        dst->of[field] = where;
        const uint64_t bit = uint64_t{1} << field;
        dst->wanted = where == nullptr ? dst->wanted & ~bit : dst->wanted | bit;
        if (field != KRV_FIELD_LNPH_LNP)
            continue;
        krv_clear_error(hp);
        dst->matrix = krv_line_get_matrix(hp, dst->header);
        if (dst->matrix == nullptr) {
            code = hp->sh_errno;
            result = krv_note(hp, "unable to generate line number matrix");
        }
        for (unsigned int k = nillegal; k > 0; --k)
            krv_restore_error(hp, "illegal field %d specified", illegal[k - 1]);
    }
    hp->sh_errno = code;
    return result;
}

// Writes one plain field of a record, or element i of a matrix's column.
static void write_field(const destinations *dst, unsigned field, const void *record, size_t i)
{
    const field_row *row = &field_table[field];
    const auto *from = static_cast<const uint8_t *>(record) + row->offset;
    if (row->flag == 0) {
        std::memcpy(static_cast<uint8_t *>(dst->of[field]) + i * row->size, from, row->size);
        return;
    }
    uint32_t flags;
    std::memcpy(&flags, from, sizeof(flags));
    static_cast<boolean_t *>(dst->of[field])[i] = (flags & row->flag) != 0 ? B_TRUE : B_FALSE;
}

// As write_field, for every row: plain fields by their width.
template <typename T>
static void copy_column(const krv_lnp_t *matrix, size_t offset, void *to)
{
    for (unsigned int i = 0; i < matrix->slnp_lnsp_entries; ++i)
        std::memcpy(static_cast<T *>(to) + i, reinterpret_cast<const uint8_t *>(&matrix->slnp_lnsp[i]) + offset,
                    sizeof(T));
}

static void write_column(const destinations *dst, unsigned field, const krv_lnp_t *matrix)
{
    const field_row *row = &field_table[field];
    if (row->size == sizeof(uint64_t))
        copy_column<uint64_t>(matrix, row->offset, dst->of[field]);
    else if (row->size == sizeof(uint32_t))
        copy_column<uint32_t>(matrix, row->offset, dst->of[field]);
    else
        for (unsigned int i = 0; i < matrix->slnp_lnsp_entries; ++i)
            write_field(dst, field, &matrix->slnp_lnsp[i], i);
}

static void write_record(const destinations *dst, const void *structp)
{
    for_each_field(dst->wanted, [&](unsigned field) { write_field(dst, field, structp, 0); });
}

int krv_get_fields_lnfe(krv_handle_t *hp, krv_lnfe_t *structp, unsigned int nfields, va_list ap)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(structp != NULL);
    destinations dst;
    if (scan_fields(hp, LNFE, nfields, ap, &dst) != 0)
        return -1;
    if (dst.find(KRV_FIELD_LNFE_ABSOLUTE_PATH) != nullptr) {
        char *path = krv_lnfe_absolute_path(hp, structp);
        if (path == nullptr)
            return -1;
        dst.take(KRV_FIELD_LNFE_ABSOLUTE_PATH, &path, sizeof(path));
    }
    write_record(&dst, structp);
    return 0;
}

int krv_get_fields_lnph(krv_handle_t *hp, krv_lnph_t *structp, unsigned int nfields, va_list ap)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(structp != NULL);
    destinations dst;
    dst.header = structp;
    if (scan_fields(hp, LNPH, nfields, ap, &dst) != 0)
        return -1;
    uint64_t nfiles;
    krv_lnfe_t **files = krv_lnph_files(structp, &nfiles);
    dst.take(KRV_FIELD_LNPH_FILES, &files, sizeof(files));
    dst.take(KRV_FIELD_LNPH_FILES_ENTRIES, &nfiles, sizeof(nfiles));
    dst.take(KRV_FIELD_LNPH_LNP, &dst.matrix, sizeof(dst.matrix));
    write_record(&dst, structp);
    return 0;
}

int krv_get_fields_lns(krv_handle_t *hp, krv_lns_t *structp, unsigned int nfields, va_list ap)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(structp != NULL);
    destinations dst;
    if (scan_fields(hp, LNS, nfields, ap, &dst) != 0)
        return -1;
    write_record(&dst, structp);
    return 0;
}

int krv_get_fields_lnp(krv_handle_t *hp, krv_lnp_t *structp, unsigned int nfields, va_list ap)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(structp != NULL);
    destinations dst;
    if (scan_fields(hp, LNP, nfields, ap, &dst) != 0)
        return -1;
    for_each_field(dst.wanted, [&](unsigned field) {
        if (is_row_field(field))
            write_column(&dst, field, structp);
        else // KRV_FIELD_LNP_ENTRIES
            write_field(&dst, field, structp, 0);
    });
    return 0;
}

int korva_get_fields(krv_handle_t *hp, unsigned int struct_type, void *structp, unsigned int nfields, ...)
{
    if (hp == nullptr)
        return -1;
    if (structp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    va_list ap;
    va_start(ap, nfields);
    int result;
    switch (struct_type) {
    case KRV_STRUCT_LNFE:
        result = krv_get_fields_lnfe(hp, static_cast<krv_lnfe_t *>(structp), nfields, ap);
        break;
    case KRV_STRUCT_LNPH:
        result = krv_get_fields_lnph(hp, static_cast<krv_lnph_t *>(structp), nfields, ap);
        break;
    case KRV_STRUCT_LNS:
        result = krv_get_fields_lns(hp, static_cast<krv_lns_t *>(structp), nfields, ap);
        break;
    case KRV_STRUCT_LNP:
        result = krv_get_fields_lnp(hp, static_cast<krv_lnp_t *>(structp), nfields, ap);
        break;
    default:
        result = krv_fail(hp, KRV_ERR_INVALID, "illegal struct %d specified", static_cast<int>(struct_type));
        break;
    }
    va_end(ap);
    return result;
}
