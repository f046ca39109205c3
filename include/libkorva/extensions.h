/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: extensions, which stand beside the base interface. */
#ifndef LIBKORVA_EXTENSIONS_H
#define LIBKORVA_EXTENSIONS_H

#include "activations.h"
#include "units.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Extensions
 * ------------------------------------------------------------------------------------------------------------ */

/*
 * What follows is asked for by options of a handle. Without them every call does what its own part of this header says,
 * to the bit; the sections below cannot be attached then.
 *
 * Options are set before the first query: once something has been read of a section, setting one of those marked (early)
 * fails with KRV_ERR_INVALID and a message. Their argument is a uint64_t: 0 is off, any other value on.
 */
enum {
    /**
     * (early) Units and line-number programs of DWARF 5 are read, and those of other versions than 2 to 5 are stepped
     * over and noted. Attribute forms up to DWARF 5, and those that GNU tools write for the alternate file of dwz and for
     * split units, are known: korva_decode_form gives DW_FORM_data16 as a block, and values by index as the index.
     */
    KRV_OPT_EXT_DWARF5 = 0x1000,
    /**
     * (early) Input is read as compilers and linkers write it, also where the base interface refuses it: DW_AT_ranges,
     * numbers that are padded, lines and ranges of functions that the linker dropped, partial or damaged .debug_aranges,
     * units whose first entry cannot be read, augmentations and instructions of call-frame information that need not be
     * understood. What is left out for it is noted.
     */
    KRV_OPT_EXT_AS_WRITTEN = 0x1001,
    /**
     * Any number of threads query the handle at the same time, without a lock around it: each has an error state of its own, which
     * korva_handle_get_errno and korva_handle_get_errmsgs tell it, and a position of its own in each section. Answers are
     * those of a single thread. Set before other threads have the handle. Cursors, expression stacks and activations are one
     * thread's at a time even so, and call-backs are called by all threads. Each thread costs 2 KiB of memory, and its
     * messages up to 4, until the handle is freed; one for which there is none gets KRV_ERR_NOMEM.
     */
    KRV_OPT_EXT_THREADS = 0x1004,
    KRV_OPT_EXT_NOTE_FUNC = 0x1002,     /**< krv_note_f *: called for what is left out or stepped over, as it is met */
    KRV_OPT_EXT_NOTE_FUNC_ARG = 0x1003, /**< void *: second argument of that function; NULL while unset */
    /**
     * (early) A promise of the client: call-frame information, in the target's memory and in .debug_frame, stays as it is
     * while the handle has it. Rules that were found for a program counter are then kept and used again without a look at
     * memory, and korva_frames_prefill can be asked for (stacks.h). Of the stack nothing is promised. Answers are the same.
     */
    KRV_OPT_EXT_CONSTANT_FRAMES = 0x1010,
    /*
     * What queries may cost, for input that nobody vouches for: each a uint64_t, 0 for no bound, as while unset. They may be set at
     * any time, while no other thread queries the handle, and setting one begins all four anew. From then on all queries
     * share them; one that would exceed one fails with KRV_ERR_EXT_LIMIT and a message, and so does each further one that has
     * to go over input, until one is set again. What was built before stays; of what was cut off nothing is concluded or
     * kept. Threads that query at the same time may together exceed a bound by what each takes at once. What a visitor or a
     * read call-back does is not counted, but for its time.
     */
    KRV_OPT_EXT_MAX_STEPS = 0x1020, /**< bytes of input that are gone over, or items of it */
    KRV_OPT_EXT_MAX_BYTES = 0x1021, /**< bytes of memory that are asked for, given back or not */
    KRV_OPT_EXT_MAX_ROWS = 0x1022,  /**< rows of line-number programs that are executed */
    KRV_OPT_EXT_TIMEOUT = 0x1023,   /**< milliseconds; looked at between stretches of input of some thousand steps */
    /**
     * (early) For how many program counters rules are kept, rounded up to a power of two, of 8 bytes each; 4096 while
     * unset, 2^24 at most. 0: for none but those of korva_frames_prefill.
     */
    KRV_OPT_EXT_FRAME_CACHE = 0x1011,
};

/** Error codes of extensions, beside those of handle.h. */
enum {
    KRV_ERR_EXT_LIMIT =
        0x1000 /**< a bound that the client set on what queries may cost: KRV_OPT_EXT_MAX_STEPS and others */
};

/** Whether such a bound is used up: 1, or 0. What failed since then may have failed for it. */
KORVA_API int korva_handle_is_spent(krv_handle_t *hp);

/** Sections of extensions, for korva_attach_section, once KRV_OPT_EXT_DWARF5 or KRV_OPT_EXT_AS_WRITTEN is on. */
enum {
    KRV_SEC_EXT_LINE_STR = 0x1000,     /**< .debug_line_str */
    KRV_SEC_EXT_STR_OFFSETS = 0x1001,  /**< .debug_str_offsets */
    KRV_SEC_EXT_ADDR = 0x1002,         /**< .debug_addr */
    KRV_SEC_EXT_RNGLISTS = 0x1003,     /**< .debug_rnglists */
    KRV_SEC_EXT_LOCLISTS = 0x1004,     /**< .debug_loclists */
    KRV_SEC_EXT_RANGES = 0x1005,       /**< .debug_ranges */
    KRV_SEC_EXT_ALT_INFO = 0x1006,     /**< .debug_info of the alternate (supplementary) file */
    KRV_SEC_EXT_ALT_STR = 0x1007,      /**< .debug_str of that file */
    KRV_SEC_EXT_ALT_ABBREV = 0x1008,   /**< .debug_abbrev of that file: for its entries */
    KRV_SEC_EXT_NAMES = 0x1009,        /**< .debug_names */
    KRV_SEC_EXT_GDB_INDEX = 0x100a,    /**< .gdb_index */
    KRV_SEC_EXT_GNU_PUBNAMES = 0x100b, /**< .debug_gnu_pubnames */
};

/** As korva_lookup_section_index, of the sections of extensions; those of the alternate file have no name of their own. */
KORVA_API int korva_lookup_ext_section_index(const char *name, krv_secidx_t *secp, boolean_t *compressed);

/**
 * Gives a call that reads the bytes of a section which is attached from memory; @p func gets offsets of the section. It is for
 * files that are mapped: a page that is touched first costs microseconds and stays in memory, a pread(2) less than one. Where
 * the handle needs little of much, as of large units headers, first entries and names, it then reads that by the call, some
 * 256 bytes at once, and touches no page for it. Answers are the same; what the call does not deliver in full is read from
 * memory, and counts twice where there is a budget. It is taken away by a NULL @p func, and by attaching the section again.
 *
 * @p arg is needed as long as the section. The call is made by any querying thread, by one at a time, while the handle is
 * locked; it may query, and is refused what the query around it is building.
 *
 *     static int64_t read_section(void *arg, void *buf, size_t count, uint64_t offset)
 *     {
 *         const struct place *of = arg; // the file's descriptor, and where the section begins in it
 *         return pread(of->fd, buf, count, (off_t)(of->start + offset));
 *     }
 *
 * Errors: KRV_ERR_INVALID for a section index out of range, or a section that is not attached from memory.
 */
KORVA_API int korva_attach_section_reader(krv_handle_t *hp, krv_secidx_t sec, krv_fd_cb_f *func, void *arg);

/** What was left out or stepped over. */
typedef struct krv_note_record {
    krv_secidx_t section; /**< in which */
    uint64_t offset;      /**< of the unit, set, or line-number program in it */
    int refused;          /**< 1: this part cannot be read; 0: it was read without what the text names */
    const char *text;     /**< valid during the call */
} krv_note_t;

/**
 * A note, told by the thread whose query met it, while it may hold locks of the handle: the call-back must neither query
 * the handle nor wait for a thread that does.
 */
typedef void krv_note_f(const krv_note_t *note, void *arg);

/**
 * (early) Names an executable section of the object, @p size bytes at @p address of its own address space. With
 * KRV_OPT_EXT_AS_WRITTEN, lines and ranges outside all of those that were named are of functions that the linker dropped,
 * and are left out. Without any, only addresses 0, 1, -1 and -2 tell such a function.
 *
 * Errors: KRV_ERR_INVALID for a size of 0, for one that leads past the address space, or too late; KRV_ERR_NOMEM.
 */
KORVA_API int korva_handle_add_code(krv_handle_t *hp, uint64_t address, uint64_t size);

/** Flags of korva_find_location. */
enum {
    KRV_LOCATION_F_INDEX = 0x1 /**< the list is named by its index (DW_FORM_loclistx); else by its offset */
};

/**
 * Finds where an object is while the program is at @p pc, an address of the unit's own address space: the expression that
 * a location list has for it. @p list is the value of the attribute: an offset in .debug_loc, for units of DWARF 5 in
 * .debug_loclists, or an index. *@p exprp becomes a cursor on the expression in its section, ready for
 * korva_expr_execute_expression; nothing is copied. An empty expression says that the object is nowhere.
 *
 * Errors: KRV_ERR_NOTFOUND (no message) when no expression holds there; KRV_ERR_CORRUPT for a list that is damaged or leads
 * out of its section.
 */
KORVA_API int korva_find_location(krv_handle_t *hp, krv_ctu_t *cup, uint64_t list, uint32_t flags, uint64_t pc,
                                  krv_fd_t *exprp);

/*
 * Line numbers with these options.
 *
 * With KRV_OPT_EXT_DWARF5 headers of version 5 are read. Their tables count from 0: of KRV_FIELD_LNPH_FILES, element n is
 * file n of the rows (KRV_FIELD_LNS_FILE), of KRV_FIELD_LNPH_ID element n is directory n of a file
 * (KRV_FIELD_LNFE_DIRIDX); directory 0 is the compilation directory, which some producers leave out of the table. Time and
 * size of a file are 0 where they are not recorded. Composed paths begin with the unit's DW_AT_comp_dir where the
 * directory is relative, or with directory 0 where the unit has none. Headers of other versions than 2 to 5 fail with
 * KRV_ERR_UNSUPPORTED. What korva_lns_get_filep answers needs no knowledge of versions. The bound on what is kept (see
 * korva_line_get_cu_lnph) counts the bytes of .debug_line_str as well.
 *
 * With KRV_OPT_EXT_AS_WRITTEN the matrix has the sequences that describe code of the object (see korva_handle_add_code),
 * and of those that overlap the one that came first; what is left out is noted once for a matrix. Rows that descend within
 * a sequence are put in order; a sequence that the program leaves open ends at its last address. korva_iter_line_entry
 * shows every opcode all the same: one that the library does not know with its number alone, one of no bytes as extended
 * opcode 0. Programs begin where header_length says, opcodes end where their length says; file numbers that the table does
 * not have give rows without file, numbers beyond a row's field the largest that it can have, and directories that the
 * table does not have count as 0. A header or program that fails is read once for all units that name it. Memory for the
 * canonical addresses of a matrix is taken when they are first asked for: KRV_FIELD_LNS_C_ADDRESS of a matrix may fail with
 * KRV_ERR_NOMEM.
 */

/** Kinds of units, DW_UT_* of DWARF 5; units of earlier versions are compile units, or, where an extension is on,
 * partial ones by their tag. */
enum {
    KRV_UNIT_COMPILE = 1,
    KRV_UNIT_TYPE = 2,
    KRV_UNIT_PARTIAL = 3,
    KRV_UNIT_SKELETON = 4,
    KRV_UNIT_SPLIT_COMPILE = 5,
    KRV_UNIT_SPLIT_TYPE = 6,
};

/** What kind of unit it is, as korva_cu_get_kind stores it. */
typedef struct krv_cu_kind {
    uint8_t kind;            /**< KRV_UNIT_*; 0: the unit was stepped over, and has no entries */
    uint8_t has_dwo_id;      /**< 1: dwo_id is known */
    uint64_t dwo_id;         /**< what a skeleton unit and its split unit have in common */
    uint64_t type_signature; /**< of a type unit, else 0 */
    uint64_t type_offset;    /**< of its type's entry, from the unit's first byte */
    const char *dwo_name;    /**< file that has the split unit of a skeleton, or NULL; valid as the unit is */
} krv_cu_kind_t;

/** Stores the kind of a unit. Errors: as korva_cu_get_header. */
KORVA_API int korva_cu_get_kind(krv_handle_t *hp, krv_ctu_t *cup, krv_cu_kind_t *kindp);

/** The header of a unit, as korva_cu_get_header stores it. */
typedef struct krv_cu_header {
    uint64_t offset;        /**< of the unit's first byte in .debug_info */
    uint64_t size;          /**< bytes of the whole unit, its length field included */
    uint64_t abbrev_offset; /**< of its abbreviation table in .debug_abbrev */
    uint16_t version;       /**< as written; not checked unless an extension is on */
    uint8_t address_size;   /**< as written; addresses are read with the handle's size */
    uint8_t dwarf64;        /**< 1 when the unit uses the 64-bit DWARF format, else 0 */
} krv_cu_header_t;

/**
 * Stores the header of a unit. The unit table ended early when the last unit's offset and size do not add up to the
 * size of .debug_info.
 */
KORVA_API int korva_cu_get_header(krv_handle_t *hp, krv_ctu_t *cup, krv_cu_header_t *headerp);

/**
 * The unit that covers @p address: the first in section order for which korva_cu_contains_addr with the same @p flags
 * is B_TRUE. The first call makes an index of the units' ranges (without KRV_LOOKUP_F_FAST it looks into the entries
 * of every unit that needs it); later calls take time logarithmic in the number of ranges.
 *
 * With KRV_OPT_EXT_AS_WRITTEN, the sets of .debug_aranges come first: an address that they cover reads them, once, and the
 * one unit that they name, and no other unit, whether or not another one claims it too. For other addresses all units are asked
 * for their ranges: a unit has those of its sets, which may leave some out, and those of DW_AT_ranges, else DW_AT_low_pc and
 * DW_AT_high_pc; one without any of these has those of its functions, wherever they stand. korva_cu_contains_addr knows the
 * same ranges. KRV_LOOKUP_F_FAST does without the functions. Ranges that
 * are no code (korva_handle_add_code) are left out; a list of ranges that is damaged counts as far as it can be read.
 *
 * Errors: KRV_ERR_NOTFOUND (no unit covers it, or no .debug_info); KRV_ERR_NONE when no unit is known to cover it but
 * KRV_LOOKUP_F_FAST left some unit's ranges unknown; otherwise as korva_cu_contains_addr.
 */
KORVA_API krv_ctu_t *korva_lookup_ctu_by_addr(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags);

/**
 * Where units overlap: the next unit in section order, behind @p cup (NULL: of all), for which korva_cu_contains_addr with
 * the same @p flags is B_TRUE. The first call makes an index beside that of korva_lookup_ctu_by_addr, of at most as many
 * entries as there are ranges times the logarithm of their number; an answer takes time in the square of that logarithm.
 *
 * Errors: as korva_lookup_ctu_by_addr.
 */
KORVA_API krv_ctu_t *korva_lookup_next_ctu_by_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t address,
                                                   krv_lookup_flag_t flags);

/** A row of a line-number matrix as a value, as korva_lookup_row stores it. */
typedef struct krv_row {
    uint64_t address;       /**< first that it describes, with the bias of KRV_OPT_BASE_ADDR */
    krv_lnfe_t *file;       /**< lives as long as the unit; NULL when the row names no file of the table */
    uint32_t number;        /**< of the row in its matrix: the element of what KRV_FIELD_LNS_* of a matrix store */
    uint32_t line;          /**< counted from 1; 0 where the program knows none */
    uint16_t column;        /**< counted from 1; 0 where the program knows none */
    uint16_t discriminator; /**< 0 where there is none */
    uint8_t is_stmt;        /**< 1: a recommended place for a breakpoint */
} krv_row_t;

/**
 * As korva_lookup_source_by_cu_and_addr, but stores what the row says. Nothing is made or kept for it beyond the unit's
 * matrix: the way for many addresses. Other threads may ask at the same time, as there.
 *
 * Errors, and then nothing is stored: those of korva_lookup_source_by_cu_and_addr; KRV_ERR_INVALID for a NULL argument.
 */
KORVA_API int korva_lookup_row(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size, uint64_t addr,
                               krv_row_t *rowp);

/**
 * The path of a row's file: with @p absolute, what KRV_FIELD_LNFE_ABSOLUTE_PATH gives, which is composed when it is first
 * asked for; else the name as it is written. It lives as long as the file; nothing is copied. NULL on failure.
 *
 * Errors: KRV_ERR_INVALID for a NULL argument; with @p absolute those of composing it.
 */
KORVA_API const char *korva_lnfe_path(krv_handle_t *hp, krv_lnfe_t *lnfep, boolean_t absolute);

/** krv_row_t.number where there is no row. */
#define KRV_ROW_NONE UINT32_MAX

/**
 * The rows of many addresses, for callers who have no functions to go with them: element i of @p rows becomes what
 * korva_lookup_row stores for @p addrs [i] in a range of that address alone, in the unit that korva_lookup_ctu_by_addr
 * finds for it with these @p flags, and element i of @p units, unless NULL, that unit. Without a unit that is NULL; without
 * a row, also where the unit's line numbers cannot be read, number is KRV_ROW_NONE and everything else 0. All three are
 * arrays of @p count. Addresses are as korva_lookup_row takes them, with the bias of KRV_OPT_BASE_ADDR, which the unit is
 * looked up without; the order is the caller's, and several may be the same.
 *
 * Addresses that ascend are answered by one walk over the rows; others are sorted for it first, in 16 bytes of memory an
 * address, or 32 where they span 4 GiB, which are freed before the call returns. One address at a time takes less time than
 * by the two functions, too. Other threads may ask at the same time.
 *
 * Errors, and then what is stored is not defined: KRV_ERR_INVALID for a NULL handle or array, if @p count is not 0;
 * KRV_ERR_NOMEM; KRV_ERR_IO where a section cannot be read; those of korva_lookup_ctu_by_addr that speak of all addresses.
 */
KORVA_API int korva_lookup_rows(krv_handle_t *hp, const uint64_t *addrs, size_t count, krv_lookup_flag_t flags,
                                krv_ctu_t **units, krv_row_t *rows);

/** What call-frame information covers a frame, as korva_activation_get_frame_info stores it. */
typedef struct krv_frame_info {
    uint64_t start; /**< first address that it covers */
    uint64_t size;  /**< bytes from there */
    int is_signal;  /**< 1: with KRV_OPT_EXT_AS_WRITTEN, the trampoline to which a signal handler returns */
} krv_frame_info_t;

/**
 * Stores what covers the current frame's program counter, and whether its caller was interrupted there, and did not call.
 * The caller's frame is computed when it was not yet; nothing is read twice.
 *
 * Errors: KRV_ERR_NOTFOUND when nothing covers it; those of reading call-frame information. That a register of the caller
 * could not be computed is none here.
 */
KORVA_API int korva_activation_get_frame_info(krv_handle_t *hp, krv_activation_t *ap, krv_frame_info_t *infop);

/**
 * Bounds the time of a walk over a stack whose call-frame information nobody vouches for. @p instructions tells how many
 * instructions the expressions of @p ap may still execute, in all frames and arguments that are computed from now on, and
 * is counted down by them; at 0 an expression fails with KRV_ERR_EVAL. Activations, also of several handles, may share
 * one count, which a walk may add to as it goes on. It stays the client's, and must outlive the activation or its own
 * replacement. One expression executes at most a million instructions, whatever the count.
 *
 * NULL, as in a new activation: the expressions of each frame share a million, and each argument has a million.
 */
KORVA_API int korva_activation_set_budget(krv_handle_t *hp, krv_activation_t *ap, uint64_t *instructions);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_EXTENSIONS_H */
