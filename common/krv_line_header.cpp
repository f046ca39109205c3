// SPDX-License-Identifier: Apache-2.0
//
// The line-number program header: fixed fields, include directories, files (DWARF 4, 6.2.4; those of version 5 are read by
// krv_line_header_v5.cpp). Reads through a copy of the handle's .debug_line cursor, which never moves.
#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_line.h"
#include "krv_mem.h"

namespace
{

struct lnph_deleter {
    void operator()(krv_lnph_t *lnphp) const { krv_lnph_free(lnphp); }
};
using lnph_owner = std::unique_ptr<krv_lnph_t, lnph_deleter>;

} // namespace

void krv_lnph_free(krv_lnph_t *lnphp)
{
    KRV_ASSERT(lnphp != NULL);
    krv_line_common *common = lnphp->sln_common;
    if (lnphp->sln_lnp != nullptr && (common == nullptr || lnphp->sln_lnp != common->slc_matrix))
        krv_line_free_program(lnphp->sln_lnp);
    krv_lnph_free_files(lnphp);
    if (common != nullptr) {
        krv_line_release(common);
    } else {
        for (uint64_t i = 0; i < lnphp->sln_id_entries; ++i)
            krv_free(lnphp->sln_id[i]);
        krv_free(lnphp->sln_id);
        krv_free(lnphp->sln_sol);
    }
    krv_rwlock_destroy(&lnphp->sln_files_lock);
    krv_free(lnphp);
}

void krv_line_release(krv_line_common *common)
{
    if (krv_refcnt_dec(&common->slc_refcnt) != 0)
        return;
    if (common->slc_matrix != nullptr)
        krv_line_free_program(common->slc_matrix);
    if (common->slc_header != nullptr)
        krv_lnph_free(common->slc_header);
    krv_free(common->slc_failure);
    krv_free(common);
}

int krv_lnph_add_directory(krv_handle_t *hp, krv_lnph_t *lnphp, const char *directoryp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(directoryp != NULL);
    if (!krv_table_grow(hp, &lnphp->sln_id, &lnphp->sln_id_size, lnphp->sln_id_entries, uint64_t{1}))
        return -1;
    char *copy = krv_strdup(hp, directoryp);
    if (copy == nullptr)
        return -1;
    lnphp->sln_id[lnphp->sln_id_entries++] = copy;
    lnphp->sln_bytes += sizeof(char *) + std::strlen(copy) + 1;
    return 0;
}

static bool read_unit_length(krv_handle_t *hp, krv_lnph_t *lnphp, krv_fd_t *fdp, uint64_t offset)
{
    krv_unit_length_t ul;
    if (!krv_read_unit_length(fdp, KRV_UNIT_LENGTH_TEXTS, &ul))
        return false;
    if (!krv_extent_fits(fdp->sfd_size, offset, ul.field_size(), ul.length)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "unit_length (0x%llx) too large for existing section size",
                 static_cast<unsigned long long>(ul.length));
        return false;
    }
    lnphp->sln_unit_length = ul.length;
    lnphp->sln_flags = ul.is_dwarf64 ? KRV_FORM_F_DWARF64 : 0;
    return korva_fd_truncate(fdp, ul.length) == 0; // every later read stops at the unit's end
}

// What only extensions know of a version. False: messages pushed.
static bool read_version_fields(krv_handle_t *hp, krv_lnph_t *lnphp, krv_fd_t *fdp)
{
    if ((hp->sh_ext & KRV_EXT_DWARF5) != 0 && (lnphp->sln_version < 2 || lnphp->sln_version > 5)) {
        krv_fail(hp, KRV_ERR_UNSUPPORTED, "line-number program of version %u", lnphp->sln_version);
        return false;
    }
    lnphp->sln_first = krv_lnph_is_v5(hp, lnphp) ? 0 : 1;
    return lnphp->sln_first != 0 || krv_lnph_read_sizes_v5(fdp);
}

// *endp: where the header says that it ends, in the section; not checked beyond unit_length.
static bool read_fixed_fields(krv_handle_t *hp, krv_lnph_t *lnphp, krv_fd_t *fdp, uint64_t *endp)
{
    if (!krv_read_field(fdp, DW_FORM_data2, &lnphp->sln_version, "failed to read version") ||
        !read_version_fields(hp, lnphp, fdp) ||
        !krv_read_field(fdp, DW_FORM_sec_offset, krv_encoding(hp, lnphp->sln_flags), &lnphp->sln_header_length,
                        "failed to read header_length"))
        return false;
    *endp = fdp->sfd_offset + lnphp->sln_header_length;
    if (lnphp->sln_header_length > lnphp->sln_unit_length) {
        krv_fail(hp, KRV_ERR_CORRUPT, "header_length (%lld) exceeds unit_length (%lld)",
                 static_cast<long long>(lnphp->sln_header_length), static_cast<long long>(lnphp->sln_unit_length));
        return false;
    }
    lnphp->sln_mopi = 1;
    if (!krv_read_field(fdp, DW_FORM_data1, &lnphp->sln_mil, "failed to read minimum_instruction_length") ||
        ((lnphp->sln_version == 4 || lnphp->sln_first == 0) &&
         !krv_read_field(fdp, DW_FORM_data1, &lnphp->sln_mopi, "failed to read maximum_operations_per_instruction")) ||
        !krv_read_field(fdp, DW_FORM_data1, &lnphp->sln_default_is_stmt, "failed to read default_is_stmt") ||
        !krv_read_field(fdp, DW_FORM_data1, &lnphp->sln_line_base, "failed to read line_base") ||
        !krv_read_field(fdp, DW_FORM_data1, &lnphp->sln_line_range, "failed to read line_range") ||
        !krv_read_field(fdp, DW_FORM_data1, &lnphp->sln_opcode_base, "failed to read opcode_base"))
        return false;
    lnphp->sln_sol = static_cast<uint8_t *>(krv_zalloc(hp, lnphp->sln_opcode_base));
    if (lnphp->sln_sol == nullptr)
        return false;
    // An opcode_base of 0 asks for more bytes than any unit has, and so fails here.
    if (korva_fd_to_mem(fdp, lnphp->sln_sol, size_t{lnphp->sln_opcode_base} - 1) != 0) {
        krv_note(hp, "failed to read standard_opcode_length[]");
        return false;
    }
    return true;
}

static bool read_string(krv_fd_t *fdp, char (&buf)[KRV_STRING_BUFSZ], const char *message)
{
    if (krv_decode_text(fdp, DW_FORM_string, {}, buf, sizeof(buf)) == 0)
        return true;
    krv_note(fdp->sfd_hp, "%s", message);
    return false;
}

bool krv_lnph_forgive_directory(krv_handle_t *hp, uint64_t *diridx)
{
    if (!krv_reads_as_written(hp)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "file_names index (%lu) is out of range", static_cast<unsigned long>(*diridx));
        return false;
    }
    *diridx = 0;
    return true;
}

// A table ends at its empty string, or where the unit's bytes run out between two entries.
static bool read_directories(krv_handle_t *hp, krv_lnph_t *lnphp, krv_fd_t *fdp)
{
    if (!krv_spend(hp, fdp->sfd_remaining)) // files are of these bytes, too
        return false;
    while (fdp->sfd_remaining > 0) {
        char directory[KRV_STRING_BUFSZ];
        if (!read_string(fdp, directory, "failed to read include_directories entry"))
            return false;
        if (directory[0] == '\0')
            break;
        if (krv_lnph_add_directory(hp, lnphp, directory) != 0) {
            krv_note(hp, "couldn't add directory %s", directory);
            return false;
        }
    }
    return true;
}

static bool read_files(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, krv_fd_t *fdp)
{
    while (fdp->sfd_remaining > 0) {
        char path[KRV_STRING_BUFSZ];
        uint64_t diridx = 0, mtime = 0, size = 0;
        if (!read_string(fdp, path, "failed to read file_names path"))
            return false;
        if (path[0] == '\0')
            break;
        if (!krv_read_field(fdp, DW_FORM_udata, &diridx, "failed to read file_names index"))
            return false;
        if (diridx > lnphp->sln_id_entries && !krv_lnph_forgive_directory(hp, &diridx))
            return false;
        if (!krv_read_field(fdp, DW_FORM_udata, &mtime, "failed to read file_names mtime") ||
            !krv_read_field(fdp, DW_FORM_udata, &size, "failed to read file_names size"))
            return false;
        if (krv_lnph_add_file(hp, lnphp, cup, path, diridx, mtime, size) != 0) {
            krv_note(hp, "couldn't add file %s", path);
            return false;
        }
    }
    return true;
}

// Leaves the cursor at the first opcode: behind the tables, or where the header ends, which is believed in input as it is
// written and from version 5 on.
static bool read_tables(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, krv_fd_t *fdp, uint64_t header_end)
{
    if (lnphp->sln_first != 0) {
        if (!read_directories(hp, lnphp, fdp) || !read_files(hp, lnphp, cup, fdp))
            return false;
        if (!krv_reads_as_written(hp) || header_end < fdp->sfd_offset)
            return true;
    }
    const uint64_t rest = header_end - fdp->sfd_offset;
    if (header_end < fdp->sfd_offset || rest > fdp->sfd_remaining) {
        krv_fail(hp, KRV_ERR_CORRUPT, "header_length (%lld) does not lead to the program",
                 static_cast<long long>(lnphp->sln_header_length));
        return false;
    }
    krv_fd_t tables = *fdp;
    tables.sfd_remaining = rest;
    krv_fd_advance(fdp, rest);
    return lnphp->sln_first != 0 || krv_lnph_read_tables_v5(hp, lnphp, cup, tables);
}

static bool read_header(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, krv_fd_t *fdp, uint64_t offset)
{
    if (korva_fd_seek(fdp, offset, KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "couldn't seek to %lld in .debug_line", static_cast<long long>(offset));
        return false;
    }
    uint64_t end;
    return read_unit_length(hp, lnphp, fdp, offset) && read_fixed_fields(hp, lnphp, fdp, &end) &&
           read_tables(hp, lnphp, cup, fdp, end);
}

krv_lnph_t *krv_lnph_alloc(krv_handle_t *hp, krv_ctu_t *cup, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    lnph_owner lnphp(krv_new<krv_lnph_t>(hp));
    if (lnphp == nullptr)
        return nullptr;
    krv_rwlock_init(&lnphp->sln_files_lock);
    lnphp->sln_comp_dir = cup == nullptr ? nullptr : cup->dcu_comp_dir;
    krv_fd_t fd = hp->sh_sec[KRV_SEC_LINE];
    if (!read_header(hp, lnphp.get(), cup, &fd, offset)) {
        krv_note(hp, "failed to read .debug_line header at offset %lld", static_cast<long long>(offset));
        return nullptr;
    }
    lnphp->sln_offset = offset;
    lnphp->sln_program_offset = fd.sfd_offset;
    lnphp->sln_program_size = fd.sfd_remaining;
    return lnphp.release();
}
