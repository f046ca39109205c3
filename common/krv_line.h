// SPDX-License-Identifier: Apache-2.0
//
// Line numbers: the header of a unit's line-number program (krv_line_header.cpp, krv_line_header_v5.cpp) with its files
// (krv_line_files.cpp), its execution (krv_line_program.cpp) into the draft of a matrix (krv_line_draft.h) whose sequences may
// need a choice (krv_line_sequences.cpp), what units have in common of these (krv_line_share.cpp), and the client's view of it
// all (krv_line.cpp).
#ifndef KRV_LINE_H
#define KRV_LINE_H

#include "krv_info.h"
#include "krv_line_rows.h"
#include "krv_synch.h"
#include "krv_types.h"

struct krv_line_common;
struct krv_line_failure;

// One file of a header's table. Allocated by itself, so that it stays where it is while the table grows.
struct krv_lnfe {
    char *slnfe_absolute_path;  // owned: see krv_lnfe_absolute_path; NULL until it is asked for
    char *slnfe_path;           // the name as written; behind the record, in its allocation
    uint64_t slnfe_diridx;      // as recorded: see krv_lnph_directory; never above sln_id_entries
    uint64_t slnfe_mtime;       // as recorded
    uint64_t slnfe_size;        // as recorded
    const char *slnfe_comp_dir; // what the absolute path begins with, or NULL; the unit's
    const char *slnfe_dir;      // the include directory, or NULL; the header's
};

// The line-number program header of one unit. Fixed once published, but for the file table, which a program's own
// files extend: see krv_lnph_add_file. What units share is read once: the tables, and the matrix when it is the same for
// all of them, belong to sln_common then.
struct krv_lnph {
    uint64_t sln_unit_length;
    uint16_t sln_version;
    uint64_t sln_header_length;
    uint8_t sln_mil;  // minimum_instruction_length
    uint8_t sln_mopi; // maximum_operations_per_instruction; 1 before version 4
    uint8_t sln_default_is_stmt;
    int8_t sln_line_base;
    uint8_t sln_line_range;
    uint8_t sln_opcode_base;
    uint8_t *sln_sol; // owned: operand counts, byte i for opcode i + 1; opcode_base bytes
    char **sln_id;    // owned: include directories, owned strings
    uint64_t sln_id_size;
    uint64_t sln_id_entries;
    krv_lnfe_t **sln_files; // owned: files, owned entries; see krv_lnph_file
    uint64_t sln_files_size;
    uint64_t sln_files_entries;
    uint64_t sln_offset;         // of the header in .debug_line
    unsigned int sln_flags;      // KRV_FORM_F_DWARF64 or 0
    krv_lnp_t *sln_lnp;          // owned: the matrix; NULL until first built
    uint64_t sln_program_offset; // of the first opcode in .debug_line
    uint64_t sln_program_size;   // bytes from there to the end of the unit
    krv_rwlock_t sln_files_lock; // serialises additions to the file table
    krv_line_common *sln_common; // held: whose tables this header borrows, or NULL
    const char *sln_comp_dir;    // the unit's compilation directory, or NULL
    uint64_t sln_bytes;          // of memory in its tables while it is read
    uint32_t sln_first;          // number of the first file and directory of its tables: 1, or 0 in version 5
    krv_ctu_t *sln_string_unit;  // by whose table of string offsets names were read, or NULL: then no other unit's
};

// What units of one program and one compilation directory have in common. Counted: by their headers and the handle.
struct krv_line_common {
    krv_refcnt_t slc_refcnt;
    krv_fd_t slc_section;    // .debug_line as it was attached when the header was read
    krv_offset_t slc_offset; // of the header in it
    krv_lnph_t *slc_header;  // owned: as it was read; never executed; NULL where that failed
    krv_lnp_t *slc_matrix; // owned: of that section, where the program defines no files; NULL until a unit has built it
    krv_line_failure *slc_failure; // owned: of the header, or of such a program, where it is kept; else NULL
};

// Reads the header at `offset` of .debug_line. cup gives the compilation directory, which is to live as long, and may be
// NULL. NULL on failure.
krv_lnph_t *krv_lnph_alloc(krv_handle_t *hp, krv_ctu_t *cup, uint64_t offset);
void krv_lnph_free(krv_lnph_t *lnphp);
void krv_lnph_free_files(krv_lnph_t *lnphp); // those that are its own
void krv_line_release(krv_line_common *common);

// The header at `offset` as a record of the unit's own. Units of one program and one compilation directory share what is
// read for the first of them. NULL on failure.
krv_lnph_t *krv_line_share_header(krv_handle_t *hp, krv_ctu_t *cup, uint64_t offset);
void krv_line_destroy_caches(krv_handle_t *hp);

// Accounts for memory that will be kept until the handle is freed; 0 asks whether any more may be. A sound section needs
// a fraction of what is granted: programs that overlap, or that many units read in ways of their own, end here. False:
// KRV_ERR_CORRUPT. The second function only asks, and leaves no error.
bool krv_line_may_keep(krv_handle_t *hp, uint64_t bytes);
bool krv_line_has_room(krv_handle_t *hp, uint64_t bytes);

// Headers of version 5, where they are read: the fields between version and header_length, and the tables, which are all
// that the cursor holds. False: messages pushed.
bool krv_lnph_is_v5(const krv_handle_t *hp, const krv_lnph_t *lnphp);
bool krv_lnph_read_sizes_v5(krv_fd_t *fdp);
bool krv_lnph_read_tables_v5(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, krv_fd_t fd);

// A file's directory that the table does not have: refused with false, or 0 in its place for input as it is written.
bool krv_lnph_forgive_directory(krv_handle_t *hp, uint64_t *diridx);

// Append a directory, or a file (diridx <= sln_id_entries; cup may be NULL). 0, or -1 with KRV_ERR_NOMEM. Files may be
// added while other threads read the table or add to it: entries never move, and a pointer array once published stays
// valid and unchanged in the elements it had until the header is freed. A reader loads the count before the array.
int krv_lnph_add_directory(krv_handle_t *hp, krv_lnph_t *lnphp, const char *directoryp);
int krv_lnph_add_file(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, const char *pathp, uint64_t diridx,
                      uint64_t mtime, uint64_t size);

// The file table as any thread may read it: the array, with at least *countp elements.
inline krv_lnfe_t **krv_lnph_files(krv_lnph_t *lnphp, uint64_t *countp)
{
    *countp = krv_load(&lnphp->sln_files_entries); // before the array, which so has room for that many
    return krv_load(&lnphp->sln_files);
}

// Whether it is still that of the header whose tables it borrows.
bool krv_lnph_has_borrowed_files(const krv_lnph_t *lnphp);

// The file that a file register's value names, and the directory that a file's index names: both are numbered from
// sln_first. NULL where the table has none of that number, as directory 0 before version 5, which is the unit's.
inline krv_lnfe_t *krv_lnph_file(krv_lnph_t *lnphp, uint64_t number)
{
    uint64_t count;
    krv_lnfe_t **files = krv_lnph_files(lnphp, &count);
    const uint64_t index = number - lnphp->sln_first; // below the first: none
    return index >= count ? nullptr : files[index];
}
const char *krv_lnph_directory(const krv_lnph_t *lnphp, uint64_t number);

// A file's path: compilation directory, include directory and name, without what an absolute one behind makes void; cut
// to fit. Its length. krv_lnfe_absolute_path keeps it with the file, where it is the same each time; NULL on failure.
size_t krv_lnfe_compose_path(const krv_lnfe_t *file, char (&path)[KRV_STRING_BUFSZ]);
char *krv_lnfe_absolute_path(krv_handle_t *hp, krv_lnfe_t *file);

// Executes the program, calling func (may be NULL) after every opcode. 0 with the new matrix in *lnppp; -1 or func's
// non-zero result (code KRV_ERR_IO) with *lnppp untouched.
int krv_line_build_program(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t **lnppp, krv_iter_lne_f *func, void *arg);

// The header's matrix, built and published on first use, for all who share the program if it can be. NULL on failure.
krv_lnp_t *krv_line_get_matrix(krv_handle_t *hp, krv_lnph_t *lnphp);

// What the client adds to addresses of the unit's own address space: KRV_OPT_BASE_ADDR.
inline uint64_t krv_line_bias(const krv_handle_t *hp)
{
    const krv_opt_t *opt = &hp->sh_opts[KRV_OPT_BASE_ADDR];
    return opt->sopt_set == B_TRUE ? opt->sopt_u.o_ulong : 0;
}

void krv_lns_init(const krv_lnph_t *lnphp, krv_line_state_t *registers);

int krv_subrange_compare(const void *a, const void *b); // krv_lnb_t by start address

// Accessors of the same shape as the exported ones, for the library itself.
int korva_lns_get_address(krv_handle_t *hp, krv_lns_t *lnsp, uint64_t *addrp);
int korva_lns_get_op_index(krv_handle_t *hp, krv_lns_t *lnsp, uint32_t *op_indexp);
int korva_lns_get_file(krv_handle_t *hp, krv_lns_t *lnsp, uint32_t *filep);
int korva_lns_get_column(krv_handle_t *hp, krv_lns_t *lnsp, uint16_t *columnp);
int korva_lns_get_is(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *isp);
int korva_lns_get_bb(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *bbp);
int korva_lns_get_es(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *esp);
int korva_lns_get_pe(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *pep);
int korva_lns_get_eb(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *ebp);
int korva_lns_get_isa(krv_handle_t *hp, krv_lns_t *lnsp, uint16_t *isap);
int korva_lns_get_discriminator(krv_handle_t *hp, krv_lns_t *lnsp, uint16_t *discriminatorp);
int korva_lnfe_get_mtime(krv_handle_t *hp, krv_lnfe_t *lnfep, uint64_t *mtimep);
int korva_lnfe_get_size(krv_handle_t *hp, krv_lnfe_t *lnfep, uint64_t *sizep);

#endif
