/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: line-number programs, their rows and files. */
#ifndef LIBKORVA_LINES_H
#define LIBKORVA_LINES_H

#include "forms.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Line numbers
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Visitor of korva_iter_line_entry: one opcode, after it took effect.
 *
 * @p offset is the position in .debug_line of its first byte; @p opcode that byte, 0 for every extended opcode.
 * @p values points to ten pointers, of which the first @p nvalues are meaningful and valid during the call:
 *
 * | opcode | values |
 * |---|---|
 * | special, DW_LNS_copy, _negate_stmt, _set_basic_block, _const_add_pc, _set_prologue_end, _set_epilogue_begin | none |
 * | DW_LNS_advance_pc, _fixed_advance_pc | unsigned operand |
 * | DW_LNS_advance_line | signed operand |
 * | DW_LNS_set_file, _set_column, _set_isa | the new value |
 * | DW_LNE_end_sequence | 1 |
 * | DW_LNE_set_address | 2, the new address |
 * | DW_LNE_define_file | 3, pointer to the name, directory index, modification time, length |
 * | DW_LNE_set_discriminator | 4, the new discriminator |
 *
 * @p state is the registers: a row without file entry and canonical address.
 */
typedef int krv_iter_lne_f(krv_handle_t *hp, unsigned long offset, unsigned char opcode, krv_value_t **values,
                           unsigned int nvalues, krv_lns_t *state, void *arg);

/**
 * The line-number header of a unit, read on first use. Units of one header and one compilation directory share its
 * tables and rows in memory.
 *
 * Headers, files, rows, and the paths that KRV_FIELD_LNFE_ABSOLUTE_PATH has given out, are kept up to 64 bytes of memory
 * a byte of .debug_line, and 1 MiB. Sound sections need a fraction of that. Beyond it, where programs overlap or many
 * units read one in ways of their own, these queries fail with KRV_ERR_CORRUPT.
 *
 * Errors: KRV_ERR_NOTFOUND without a message when the unit has no line numbers (no DW_AT_stmt_list);
 * KRV_ERR_INVALID for a unit outside .debug_info; KRV_ERR_CORRUPT and the decoder's for a damaged header.
 */
KORVA_API krv_lnph_t *korva_line_get_cu_lnph(krv_handle_t *hp, krv_ctu_t *cup);

/**
 * Executes the unit's line-number program afresh, calling @p func (which may be NULL) after every opcode. Each
 * execution adds the files that the program itself defines (DW_LNE_define_file) to the header's file table again.
 *
 * Returns 0, -1, or the call-back's non-zero result (the code is then KRV_ERR_IO).
 * Errors: KRV_ERR_CORRUPT (malformed program; inverted or overlapping sequences), KRV_ERR_UNSUPPORTED (an opcode that
 * the library does not know), and the decoder's. A header with line_range 0, or with
 * maximum_operations_per_instruction 0, is refused with KRV_ERR_CORRUPT at the first opcode that divides by it.
 */
KORVA_API int korva_iter_line_entry(krv_handle_t *hp, krv_lnph_t *lnphp, krv_iter_lne_f *func, void *arg);

/**
 * The row that describes @p addr, which must lie in [@p start, @p start + @p size): normally the function that
 * contains it. Addresses carry the bias of KRV_OPT_BASE_ADDR. An address in a gap between sequences gets the last row
 * before or the first row behind the gap when the caller's range allows only one of them. @p flags has no effect.
 *
 * Errors: KRV_ERR_NOTFOUND without a message (no row applies) or with one (the unit has no line numbers),
 * KRV_ERR_INVALID (@p addr outside its range), KRV_ERR_CORRUPT, and those of korva_line_get_cu_lnph and
 * korva_iter_line_entry.
 */
KORVA_API krv_lns_t *korva_lookup_source_by_cu_and_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size,
                                                        uint64_t addr, unsigned int flags);

/** Stores a row's line, counted from 1; 0 where the program knows none. */
KORVA_API int korva_lns_get_line(krv_handle_t *hp, krv_lns_t *lnsp, uint32_t *linep);

/** Stores a row's canonical address (the lowest address of its file and line), with the bias of KRV_OPT_BASE_ADDR. */
KORVA_API int korva_lns_get_canonical_address(krv_handle_t *hp, krv_lns_t *lnsp, uint64_t *addrp);

/** A row's file; NULL with KRV_ERR_NONE when the row names no file of the table. */
KORVA_API krv_lnfe_t *korva_lns_get_filep(krv_handle_t *hp, krv_lns_t *lnsp);

/**
 * Copies a file's path as strncpy does. A path shorter than @p len bytes is followed by zeros up to @p len. A path of
 * @p len bytes or more fills the buffer, which then has NO terminating NUL; that is no error. 1024 bytes hold any path;
 * for a smaller buffer pass a @p len one below its size and set its last byte to 0. @p absolute B_TRUE gives the path
 * composed of compilation directory, include directory and name; any other value gives the name as written.
 */
KORVA_API int korva_lnfe_get_path(krv_handle_t *hp, krv_lnfe_t *lnfep, char *buf, size_t len, boolean_t absolute);

/* ------------------------------------------------------------------------------------------------------------
 * Fields of line-number records
 * ------------------------------------------------------------------------------------------------------------ */

/** Record selector of korva_get_fields. */
enum {
    KRV_STRUCT_LNFE = 0, /**< krv_lnfe_t: a file */
    KRV_STRUCT_LNPH = 1, /**< krv_lnph_t: a line-number header */
    KRV_STRUCT_LNS = 2,  /**< krv_lns_t: a row */
    KRV_STRUCT_LNP = 3   /**< krv_lnp_t: a matrix */
};

/**
 * Fields of korva_get_fields, with what the destination pointer points to.
 *
 * KRV_FIELD_LNS_* are fields of a row and of a matrix: for a row the destination is one such element, for a matrix
 * the first of KRV_FIELD_LNP_ENTRIES of them.
 */
enum {
    KRV_FIELD_LNPH_UNIT_LENGTH = 0,     /**< uint64_t: bytes of the unit after its length field */
    KRV_FIELD_LNPH_VERSION = 1,         /**< uint16_t */
    KRV_FIELD_LNPH_HEADER_LENGTH = 2,   /**< uint64_t */
    KRV_FIELD_LNPH_MIL = 3,             /**< uint8_t: minimum_instruction_length */
    KRV_FIELD_LNPH_MOPI = 4,            /**< uint8_t: maximum_operations_per_instruction; 1 before version 4 */
    KRV_FIELD_LNPH_DEFAULT_IS_STMT = 5, /**< uint8_t */
    KRV_FIELD_LNPH_LINE_BASE = 6,       /**< int8_t */
    KRV_FIELD_LNPH_LINE_RANGE = 7,      /**< uint8_t */
    KRV_FIELD_LNPH_OPCODE_BASE = 8,     /**< uint8_t */
    KRV_FIELD_LNPH_SOL = 9, /**< uint8_t *: operand counts of standard opcodes 1 and upward, opcode_base - 1 of them */
    KRV_FIELD_LNPH_ID = 10, /**< char **: include directories; directory n of a file is element n - 1 */
    KRV_FIELD_LNPH_ID_ENTRIES = 11,    /**< uint64_t: their number */
    KRV_FIELD_LNPH_FILES = 12,         /**< krv_lnfe_t **: files; file register value n is element n - 1 */
    KRV_FIELD_LNPH_FILES_ENTRIES = 13, /**< uint64_t: their number */
    KRV_FIELD_LNFE_ABSOLUTE_PATH = 14, /**< char *: composed path */
    KRV_FIELD_LNFE_PATH = 15,          /**< char *: the name as the program gives it */
    KRV_FIELD_LNFE_DIRIDX = 16,        /**< uint64_t: 0 is the compilation directory, n is include directory n */
    KRV_FIELD_LNFE_MTIME = 17,         /**< uint64_t: modification time as recorded */
    KRV_FIELD_LNFE_SIZE = 18,          /**< uint64_t: length in bytes as recorded */
    KRV_FIELD_LNS_ADDRESS = 19,        /**< uint64_t: without the bias of KRV_OPT_BASE_ADDR */
    KRV_FIELD_LNS_OP_INDEX = 20,       /**< uint32_t */
    KRV_FIELD_LNS_FILE = 21,           /**< uint32_t: counted from 1 */
    KRV_FIELD_LNS_LINE = 22,           /**< uint32_t */
    KRV_FIELD_LNS_COLUMN = 23,         /**< uint16_t */
    KRV_FIELD_LNS_ISA = 24,            /**< uint16_t */
    KRV_FIELD_LNS_DISCRIMINATOR = 25,  /**< uint16_t */
    KRV_FIELD_LNS_IS = 26,             /**< boolean_t: is_stmt */
    KRV_FIELD_LNS_BB = 27,             /**< boolean_t: basic_block */
    KRV_FIELD_LNS_ES = 28,             /**< boolean_t: end_sequence */
    KRV_FIELD_LNS_PE = 29,             /**< boolean_t: prologue_end */
    KRV_FIELD_LNS_EB = 30,             /**< boolean_t: epilogue_begin */
    KRV_FIELD_LNS_C_ADDRESS = 31,      /**< uint64_t: canonical address, without the bias */
    KRV_FIELD_LNP_ENTRIES = 32,        /**< unsigned int: number of rows of a matrix */
    KRV_FIELD_LNPH_LNP = 33            /**< krv_lnp_t *: the header's matrix, built when first asked for */
};

/**
 * Reads fields of a line-number record: @p nfields pairs follow, each an int KRV_FIELD_* and a pointer to the
 * destination type given there. A NULL destination skips its field; of a field named twice the later destination
 * counts. Addresses are never biased. Pointers stored refer to the record's own storage.
 *
 * A table and its number of entries (KRV_FIELD_LNPH_FILES and its ENTRIES) belong together when asked for in one
 * call; a table once handed out stays valid for as long as its header does.
 *
 * Errors, and then nothing is stored: KRV_ERR_INVALID for an unknown @p struct_type (KRV_STRUCT_*) or a field of
 * another record (one message each); for KRV_FIELD_LNPH_LNP those of korva_iter_line_entry; for
 * KRV_FIELD_LNFE_ABSOLUTE_PATH KRV_ERR_CORRUPT at the bound of korva_line_get_cu_lnph (korva_lnfe_get_path keeps nothing).
 */
KORVA_API int korva_get_fields(krv_handle_t *hp, unsigned int struct_type, void *structp, unsigned int nfields, ...);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_LINES_H */
