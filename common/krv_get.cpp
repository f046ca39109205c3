// SPDX-License-Identifier: Apache-2.0
//
// One table says for each field which record has it and where it lies; short readers copy from it. Rows do not lie
// anywhere as they are described: their fields are cases of a switch, for one of them and for a column alike.
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
    size_t offset;    // in the record
    size_t size;      // bytes; 0 for a field that is computed
};

// offsetof and sizeof of one member, by the record that owns it.
#define KRV_MEMBER(records, type, member)                                                                              \
    {                                                                                                                  \
        (records), offsetof(type, member), sizeof(type::member)                                                        \
    }
#define KRV_COMPUTED(records)                                                                                          \
    {                                                                                                                  \
        (records), 0, 0                                                                                                \
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
    for (unsigned field = KRV_FIELD_LNS_ADDRESS; field <= KRV_FIELD_LNS_C_ADDRESS; ++field)
        t[field] = KRV_COMPUTED(LNS | LNP); // see write_rows
    t[KRV_FIELD_LNP_ENTRIES] = KRV_MEMBER(LNP, krv_lnp_t, slnp_lnsp_entries);
    return t;
}

#undef KRV_MEMBER
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
        forget(field);
    }
    void forget(unsigned field) { wanted &= ~(uint64_t{1} << field); }
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
            code = krv_errno(hp);
            result = krv_note(hp, "unable to generate line number matrix");
        }
        for (unsigned int k = nillegal; k > 0; --k)
            krv_restore_error(hp, "illegal field %d specified", illegal[k - 1]);
    }
    krv_errno(hp) = code;
    return result;
}

static void write_field(const destinations *dst, unsigned field, const void *record)
{
    const field_row *row = &field_table[field];
    std::memcpy(dst->of[field], static_cast<const uint8_t *>(record) + row->offset, row->size);
}

namespace
{

// Where the fields of one row come from, and those of all rows of a matrix: each calls func(number, state).
struct one_row {
    krv_lns_t *row;

    template <typename F>
    void each(F func) const
    {
        func(0, krv_lns_get(row));
    }
};

struct all_rows {
    krv_lnp_t *matrix;

    template <typename F>
    void each(F func) const
    {
        matrix->slnp_rows.in_form([&](const auto &rows) {
            for (uint32_t i = 0; i < matrix->slnp_lnsp_entries; ++i)
                func(i, rows.get(i, matrix->slnp_rows.base));
        });
    }
};

} // namespace

template <auto MEMBER, typename T, typename Rows>
static void write_member(const Rows &rows, T *to)
{
    rows.each([to](uint32_t i, const krv_line_state_t &row) { to[i] = row.*MEMBER; });
}

template <uint32_t FLAG, typename Rows>
static void write_flag(const Rows &rows, boolean_t *to)
{
    rows.each(
        [to](uint32_t i, const krv_line_state_t &row) { to[i] = (row.slns_flags & FLAG) != 0 ? B_TRUE : B_FALSE; });
}

// Writes a field of rows, but for the canonical address, to consecutive elements of its destination type.
template <typename Rows>
static void write_rows(unsigned field, const Rows &rows, void *to)
{
    using state = krv_line_state_t;
    switch (field) {
    case KRV_FIELD_LNS_ADDRESS:
        return write_member<&state::slns_address>(rows, static_cast<uint64_t *>(to));
    case KRV_FIELD_LNS_OP_INDEX:
        return write_member<&state::slns_op_index>(rows, static_cast<uint32_t *>(to));
    case KRV_FIELD_LNS_FILE:
        return write_member<&state::slns_file>(rows, static_cast<uint32_t *>(to));
    case KRV_FIELD_LNS_LINE:
        return write_member<&state::slns_line>(rows, static_cast<uint32_t *>(to));
    case KRV_FIELD_LNS_COLUMN:
        return write_member<&state::slns_column>(rows, static_cast<uint16_t *>(to));
    case KRV_FIELD_LNS_ISA:
        return write_member<&state::slns_isa>(rows, static_cast<uint16_t *>(to));
    case KRV_FIELD_LNS_DISCRIMINATOR:
        return write_member<&state::slns_discriminator>(rows, static_cast<uint16_t *>(to));
    case KRV_FIELD_LNS_IS:
        return write_flag<KRV_LNS_FLAG_IS>(rows, static_cast<boolean_t *>(to));
    case KRV_FIELD_LNS_BB:
        return write_flag<KRV_LNS_FLAG_BB>(rows, static_cast<boolean_t *>(to));
    case KRV_FIELD_LNS_ES:
        return write_flag<KRV_LNS_FLAG_ES>(rows, static_cast<boolean_t *>(to));
    case KRV_FIELD_LNS_PE:
        return write_flag<KRV_LNS_FLAG_PE>(rows, static_cast<boolean_t *>(to));
    default: // KRV_FIELD_LNS_EB
        return write_flag<KRV_LNS_FLAG_EB>(rows, static_cast<boolean_t *>(to));
    }
}

static void write_record(const destinations *dst, const void *structp)
{
    for_each_field(dst->wanted, [&](unsigned field) { write_field(dst, field, structp); });
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
    if (dst.find(KRV_FIELD_LNS_C_ADDRESS) != nullptr) {
        const uint64_t address = krv_lns_canonical_address(hp, structp);
        dst.take(KRV_FIELD_LNS_C_ADDRESS, &address, sizeof(address));
    }
    for_each_field(dst.wanted, [&](unsigned field) { write_rows(field, one_row{structp}, dst.of[field]); });
    return 0;
}

int krv_get_fields_lnp(krv_handle_t *hp, krv_lnp_t *structp, unsigned int nfields, va_list ap)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(structp != NULL);
    destinations dst;
    if (scan_fields(hp, LNP, nfields, ap, &dst) != 0)
        return -1;
    if (auto *addresses = static_cast<uint64_t *>(dst.find(KRV_FIELD_LNS_C_ADDRESS))) {
        if (krv_lnp_canonical_addresses(hp, structp, addresses) != 0)
            return -1;
        dst.forget(KRV_FIELD_LNS_C_ADDRESS);
    }
    for_each_field(dst.wanted, [&](unsigned field) {
        if (is_row_field(field))
            write_rows(field, all_rows{structp}, dst.of[field]);
        else // KRV_FIELD_LNP_ENTRIES
            write_field(&dst, field, structp);
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
