/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * libkorva: a reader of DWARF 2 to 4 debugging information.
 *
 * The library answers questions about bytes that its client hands over; it opens no files. A client
 *
 *  1. creates a handle for one target (korva_handle_alloc),
 *  2. attaches the debugging sections of one object to it (korva_attach_section), and, for whatever reads the
 *     stopped program's memory, that memory (korva_attach_as),
 *  3. sets options (korva_handle_set_opt), and then
 *  4. asks.
 *
 * Targets are little-endian 32-bit x86 (KRV_ACTIVATION_I386, 4-byte addresses) and AMD64 (KRV_ACTIVATION_AMD64,
 * 8-byte addresses), read on a little-endian host; both the 32-bit and the 64-bit DWARF format are read.
 *
 * Conventions, valid for every function below unless its own text says otherwise
 *
 *  1. Results. A function returns 0 or -1, a pointer or NULL, or B_TRUE or B_FALSE.
 *  2. Errors. A failure leaves a code (korva_handle_get_errno) and up to 16 messages (korva_handle_get_errmsgs) in
 *     the handle. Messages stand from the cause outwards: the failing step first, then each caller's summary. A
 *     NULL handle gives the failure value and records nothing anywhere. With a valid handle any other NULL argument
 *     sets KRV_ERR_INVALID without a message. Every function that takes a handle, or a cursor that leads to one,
 *     first clears the handle's error state, so code and messages always speak of the last call. A successful call
 *     may leave messages of steps that it recovered from; only a failure value means failure.
 *  3. Ownership. Buffers, call-back arguments and cursors that a client hands over stay the client's and must
 *     outlive their use. Records handed out (units, entries, line headers, rows, files, matrices) belong to the
 *     handle and live until it is freed; never free them. What a client allocates against a handle (cursors,
 *     stacks, activations) it frees itself, before the handle.
 *  4. Threads. A handle serves one querying thread at a time: its section cursors have one position each, and its
 *     error state is one. korva_handle_hold and korva_handle_release may be called from any thread. Different
 *     handles are independent, also when they share the bytes of their sections. Records handed out are read-only
 *     and may be read from any thread. The library starts no thread.
 *  5. Call-backs of walks return 0 to continue; any other value stops the walk and is what the walk returns. A
 *     call-back may query the handle it was given; it must not free that handle, throw, or jump out.
 */
#ifndef LIBKORVA_H
#define LIBKORVA_H

#include <stddef.h>
#include <stdint.h>

#define KORVA_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Types
 * ------------------------------------------------------------------------------------------------------------ */

/* Selectors and flags are plain integers with named values, not enumerated types: a client may pass any int, and
 * each function says what it does with a value that has no name. */

/** The library handle: one target object, its sections, options, error state and caches. */
typedef struct krv_handle krv_handle_t;
/** A compilation unit of .debug_info. Owned by the handle. */
typedef struct krv_ctu krv_ctu_t;
/** A debugging information entry. */
typedef struct krv_die krv_die_t;
/** A line-number program header. Owned by its unit. */
typedef struct krv_lnph krv_lnph_t;
/** An entry of a line-number header's file table. Owned by its header. */
typedef struct krv_lnfe krv_lnfe_t;
/** A row of a line-number matrix, or the registers of the line-number state machine. */
typedef struct krv_lns krv_lns_t;
/** A line-number matrix: the rows of one unit. Owned by its header. */
typedef struct krv_lnp krv_lnp_t;
/** An activation: a stopped thread's frame and its caller's. Allocated and freed by the client. */
typedef struct krv_activation krv_activation_t;

/** A truth value: B_FALSE or B_TRUE. */
typedef int boolean_t;
enum { B_FALSE = 0, B_TRUE = 1 };

/** Code of a DWARF attribute form (DW_FORM_*); forms above 0xff do not exist for the library. */
typedef uint8_t krv_form_t;
/** Offset into a section, in bytes. */
typedef uint64_t krv_offset_t;
/** DW_TAG_* code of an entry. */
typedef uint16_t krv_tag_t;
/** DW_AT_* code of an attribute. */
typedef uint16_t krv_attribute_t;

/** Target instruction set. Only the two named values are accepted. */
typedef int krv_activation_type_t;
enum {
    KRV_ACTIVATION_I386 = 2,  /**< 32-bit x86: addresses of 4 bytes */
    KRV_ACTIVATION_AMD64 = 3, /**< AMD64: addresses of 8 bytes */
    KRV_ACTIVATION_MAX = 4
};

/** Section index: under which slot of the handle a section is attached. */
typedef int krv_secidx_t;
enum {
    KRV_SEC_ABBREV = 0,
    KRV_SEC_ARANGES = 1,
    KRV_SEC_FRAME = 2,
    KRV_SEC_INFO = 3,
    KRV_SEC_LINE = 4,
    KRV_SEC_LOC = 5,
    KRV_SEC_PUBNAMES = 6,
    KRV_SEC_PUBTYPES = 7,
    KRV_SEC_STR = 8,
    KRV_SEC_TYPES = 9,
    KRV_SEC_EH_FRAME_HDR = 10,
    KRV_SEC_EH_FRAME = 11,
    KRV_SEC_AS = 12, /**< an ordinary slot; the address space itself is attached with korva_attach_as */
    KRV_SEC_NONE = 13,
    KRV_MAX_SEC = 14
};

/** What a cursor reads. */
typedef int krv_fd_type_t;
enum {
    KRV_FD_TYPE_MEMORY = 0, /**< a buffer; further argument: uint8_t *buffer */
    KRV_FD_TYPE_CB = 1,     /**< a read call-back; further arguments: krv_fd_cb_f *func, void *arg */
    KRV_FD_TYPE_MAX = 2
};

/** How korva_fd_seek counts. */
enum {
    KRV_FD_SEEK_SET = 0, /**< from the start of the extent */
    KRV_FD_SEEK_CUR = 1  /**< from the current position, forwards */
};

/** Error codes, as korva_handle_get_errno gives them. The value 9 is never used. */
enum {
    KRV_ERR_NONE = 0,         /**< no error */
    KRV_ERR_IO = 1,           /**< a read call-back failed or delivered fewer bytes than asked */
    KRV_ERR_CORRUPT = 2,      /**< the debugging data are malformed */
    KRV_ERR_EXISTS = 3,       /**< a key that must be unique appears twice */
    KRV_ERR_INVALID = 4,      /**< an argument, or a request beyond a cursor's bounds */
    KRV_ERR_EVAL = 5,         /**< an expression cannot be evaluated */
    KRV_ERR_NOTFOUND = 6,     /**< what was asked for is not there */
    KRV_ERR_NOMEM = 7,        /**< memory ran out; never with a message of its own */
    KRV_ERR_NOSPACE = 8,      /**< the caller's storage, a cursor's room or a stack is too small */
    KRV_ERR_UNSUPPORTED = 10, /**< valid DWARF that the library does not handle */
};

/** Options of a handle, and the type of the argument that korva_handle_set_opt takes for each. */
typedef int krv_opt_idx_t;
enum {
    KRV_OPT_DEBUG_FUNC = 0,        /**< krv_debug_f *: called for every message as it is stored */
    KRV_OPT_DEBUG_FUNC_ARG = 1,    /**< void *: third argument of the debug function; NULL while unset */
    KRV_OPT_BASE_ADDR = 2,         /**< unsigned long: load bias of line-table addresses; 0 while unset */
    KRV_OPT_EH_FRAME_HDR_ADDR = 3, /**< uint64_t: target address of .eh_frame_hdr; while unset it is not used */
    KRV_OPT_EH_FRAME_HDR_SIZE = 4, /**< uint64_t: stored, read by nothing */
    KRV_OPT_EH_FRAME_ADDR = 5,     /**< uint64_t: target address of .eh_frame; while unset it is not read */
    KRV_OPT_EH_FRAME_SIZE = 6,     /**< uint64_t: stored, read by nothing */
    KRV_OPT_EXPR_STACK_SIZE = 7,   /**< unsigned long: entries of stacks allocated afterwards; 256 while unset */
    KRV_MAX_OPT = 8
};

/** Flags of korva_decode_form and korva_encode_form. */
enum {
    KRV_FORM_F_DWARF64 = 0x1, /**< 64-bit DWARF format: DW_FORM_strp and DW_FORM_sec_offset take 8 bytes, not 4 */
    KRV_FORM_F_SIGNED = 0x2   /**< extend a fixed-size datum into wider storage by its sign, not by zeros */
};

/** Flags of korva_cu_contains_addr and korva_lookup_ctu_by_addr. */
typedef unsigned int krv_lookup_flag_t;
enum {
    KRV_LOOKUP_F_NONE = 0,
    KRV_LOOKUP_F_FAST = 1 /**< answer from .debug_aranges and the unit's own bounds alone; never scan its entries */
};

/** Class of constant for korva_print_define. */
typedef int krv_def_t;
enum {
    KRV_DEF_AT = 0,       /**< attributes, DW_AT_* */
    KRV_DEF_ATE = 1,      /**< base-type encodings, DW_ATE_* */
    KRV_DEF_CC = 2,       /**< calling conventions, DW_CC_* */
    KRV_DEF_CFA = 3,      /**< call-frame instructions, DW_CFA_*; primary opcodes with their operand bits cleared */
    KRV_DEF_CHILDREN = 4, /**< DW_CHILDREN_* */
    KRV_DEF_EH = 5,       /**< pointer encodings, DW_EH_PE_*; no combined encodings */
    KRV_DEF_FORM = 6,     /**< forms, DW_FORM_* */
    KRV_DEF_INL = 7,      /**< inline codes, DW_INL_* */
    KRV_DEF_LANG = 8,     /**< languages, DW_LANG_* */
    KRV_DEF_LNE = 9,      /**< extended line opcodes, DW_LNE_* */
    KRV_DEF_LNS = 10,     /**< standard line opcodes, DW_LNS_* */
    KRV_DEF_OP = 11,      /**< expression opcodes, DW_OP_* */
    KRV_DEF_ORD = 12,     /**< array orderings, DW_ORD_* */
    KRV_DEF_TAG = 13,     /**< tags, DW_TAG_* */
    KRV_DEF_VIS = 14,     /**< visibilities, DW_VIS_* */
    KRV_DEF_MAX = 15
};

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
 * A read call-back: delivers @p count bytes at @p offset into @p buf.
 *
 * @p offset is a section offset for a section's cursor and a target address for the address space. Returns the
 * number of bytes delivered, -1 for failure. It is called in the querying thread, with any offset and count that
 * lie within the size given when it was attached.
 */
typedef int64_t krv_fd_cb_f(void *arg, void *buf, size_t count, uint64_t offset);

/** A debug call-back: @p position of the message in its failure, counted from 1; the text; KRV_OPT_DEBUG_FUNC_ARG. */
typedef void krv_debug_f(unsigned int position, const char *message, void *arg);

/**
 * A cursor: a bounded extent of a buffer or of a read call-back, with a position.
 *
 * A plain value: a copy is an independent position over the same bytes. It owns nothing. Always
 * sfd_offset + sfd_remaining <= sfd_size. Use the functions below; the fields are public so that cursors can be
 * copied and placed.
 */
typedef struct krv_fd {
    krv_handle_t *sfd_hp;   /**< where errors are reported */
    uint64_t sfd_size;      /**< bytes of the extent; 0 when never attached */
    uint64_t sfd_offset;    /**< position, from the start of the extent */
    uint64_t sfd_remaining; /**< bytes that may still be read or written */
    uint32_t sfd_flags;     /**< KRV_FD_TYPE_MEMORY or KRV_FD_TYPE_CB */
    union {
        uint8_t *buf; /**< memory cursor: start of the extent */
        struct {
            krv_fd_cb_f *func;
            void *arg;
        } cb; /**< call-back cursor */
    } sfd_u;
} krv_fd_t;

/** A decoded value. Which member holds it follows from where the value comes from. */
typedef struct krv_value {
    union {
        void *su_addr;
        uint64_t su_unsigned;
        int64_t su_signed;
    } sa_u;
    krv_form_t sa_form;   /**< the form it was decoded from; 0 when it did not come from an attribute */
    krv_form_t sa_actual; /**< for DW_FORM_indirect the form found in the data, else the same as sa_form */
} krv_value_t;

/** Visitor of korva_iter_cu: one unit. */
typedef int krv_iter_cu_f(krv_handle_t *hp, krv_ctu_t *cup, void *arg);

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

/* ------------------------------------------------------------------------------------------------------------
 * Handle, options, sections
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Creates a handle for @p type with one reference.
 *
 * Reads the environment variable LIBKORVA_OPTIONS, a comma-separated list: "debug" makes every message go to
 * standard error as well, "disable" makes this function fail, and "help" (also any unknown word, a word with a value,
 * and an empty variable) prints the words to standard error, once per process.
 *
 * Returns NULL when the library is disabled, memory ran out, or @p type is neither KRV_ACTIVATION_I386 nor
 * KRV_ACTIVATION_AMD64; there is no code to read then. Free it with korva_handle_release or korva_handle_free.
 * Any thread.
 */
KORVA_API krv_handle_t *korva_handle_alloc(krv_activation_type_t type);

/** Destroys a handle at once, whatever its reference count, with every record it owns. NULL is ignored. */
KORVA_API void korva_handle_free(krv_handle_t *hp);

/** Adds a reference. NULL is ignored. Any thread; touches no error state. */
KORVA_API void korva_handle_hold(krv_handle_t *hp);

/** Drops a reference; the last one frees the handle. NULL is ignored. Any thread; touches no error state. */
KORVA_API void korva_handle_release(krv_handle_t *hp);

/**
 * Sets an option; the one further argument has the type given beside the option's name. A later call replaces the
 * value; an option cannot be unset. What was already built from an earlier value stays as it was.
 *
 * Errors: KRV_ERR_INVALID (no message) for an unknown option.
 */
KORVA_API int korva_handle_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, ...);

/**
 * Attaches the bytes of a section, @p size of them, as a buffer or a read call-back (see krv_fd_type_t for the
 * further arguments). Attaching again replaces the cursor; caches already built from the earlier bytes stay, so
 * attach before the first query. A NULL buffer is the caller's error and is not detected.
 *
 * Errors, KRV_ERR_INVALID each: a section index out of range, size 0, an unknown @p type, a NULL call-back.
 */
KORVA_API int korva_attach_section(krv_handle_t *hp, krv_secidx_t sec, uint64_t size, krv_fd_type_t type, ...);

/**
 * Attaches the target's memory: @p func is called with target addresses as offsets. Replaces an earlier one and
 * discards what was cached of call-frame information.
 *
 * Errors: KRV_ERR_INVALID for a NULL @p func.
 */
KORVA_API int korva_attach_as(krv_handle_t *hp, krv_fd_cb_f *func, void *arg);

/**
 * Maps an object file's section name to a section index: ".debug_NAME", ".zdebug_NAME", ".eh_frame" or
 * ".eh_frame_hdr". @p compressed tells a ".zdebug_" name, whose contents the client inflates before it attaches
 * them.
 *
 * Returns -1 for any other name or a NULL argument, and then stores nothing. Takes no handle; any thread.
 */
KORVA_API int korva_lookup_section_index(const char *name, krv_secidx_t *secp, boolean_t *compressed);

/* ------------------------------------------------------------------------------------------------------------
 * Errors
 * ------------------------------------------------------------------------------------------------------------ */

/** The code of the last call's failure, KRV_ERR_*. @p hp must not be NULL. */
KORVA_API int korva_handle_get_errno(krv_handle_t *hp);

/**
 * The messages of the last call: stores their number, at most 16, and returns the handle's array of them, cause
 * first. Each has at most 255 characters. Array and texts belong to the handle and are valid until the next call on
 * it; elements at and beyond the count are stale. Neither argument may be NULL.
 */
KORVA_API char **korva_handle_get_errmsgs(krv_handle_t *hp, unsigned int *count);

/* ------------------------------------------------------------------------------------------------------------
 * Cursors
 *
 * A NULL cursor gives -1. Every failure leaves position, remaining count and contents as they were (a call-back may
 * have written into the destination before it failed). A cursor has no lock; copies are independent.
 * ------------------------------------------------------------------------------------------------------------ */

/** A new, unattached cursor of size 0 that reports into @p hp. NULL: KRV_ERR_NOMEM. Free with korva_fd_free. */
KORVA_API krv_fd_t *korva_fd_alloc(krv_handle_t *hp);

/** Frees a cursor, not its bytes. NULL is ignored. */
KORVA_API void korva_fd_free(krv_fd_t *fdp);

/**
 * Attaches any cursor to a buffer or a read call-back, as korva_attach_section does.
 *
 * Errors, KRV_ERR_INVALID each: size 0 (no message), an unknown @p type, a NULL call-back.
 */
KORVA_API int korva_fd_attach(krv_handle_t *hp, krv_fd_t *fdp, uint64_t size, krv_fd_type_t type, ...);

/** Stores the bytes of the extent. */
KORVA_API int korva_fd_get_size(krv_fd_t *fdp, uint64_t *sizep);
/** Stores the bytes that may still be read or written. */
KORVA_API int korva_fd_get_remaining(krv_fd_t *fdp, uint64_t *remainingp);
/** Stores the position, from the start of the extent. */
KORVA_API int korva_fd_get_offset(krv_fd_t *fdp, uint64_t *offsetp);

/**
 * Moves the position. KRV_FD_SEEK_SET takes any position up to and including the size and undoes a truncation;
 * KRV_FD_SEEK_CUR moves forward by at most the remaining bytes and keeps a truncation.
 *
 * Errors: KRV_ERR_INVALID for an unattached cursor ("section is empty", which joins the messages already in the
 * handle), a position out of bounds, an unknown @p directive.
 */
KORVA_API int korva_fd_seek(krv_fd_t *fdp, uint64_t offset, uint32_t directive);

/**
 * Limits the bytes that may be read from the position to @p length. The limit is the end of the extent, so an
 * earlier truncation can be widened.
 *
 * Errors: KRV_ERR_INVALID when fewer than @p length bytes lie between the position and the end.
 */
KORVA_API int korva_fd_truncate(krv_fd_t *fdp, uint64_t length);

/**
 * Copies @p count bytes from @p src to the memory cursor @p dst and advances both. Errors go to the handle of
 * @p dst. A call-back source counts as failed only when it returns -1: a shorter delivery is
 * taken as @p count bytes.
 *
 * Errors: KRV_ERR_INVALID (@p dst is no memory cursor; too few bytes in @p src), KRV_ERR_NOSPACE (too little room
 * in @p dst), KRV_ERR_IO.
 */
KORVA_API int korva_fd_cpy(krv_fd_t *dst, krv_fd_t *src, size_t count);

/**
 * Reads @p count bytes into @p dst and advances.
 *
 * Errors: KRV_ERR_INVALID (too few bytes remain), KRV_ERR_IO (the call-back delivered another count).
 */
KORVA_API int korva_fd_to_mem(krv_fd_t *fdp, void *dst, size_t count);

/**
 * Writes @p count bytes from @p src into a memory cursor and advances.
 *
 * Errors: KRV_ERR_INVALID (no memory cursor), KRV_ERR_NOSPACE (too little room).
 */
KORVA_API int korva_fd_from_mem(krv_fd_t *fdp, const void *src, size_t count);

/** Fills @p count bytes of a memory cursor with the low 8 bits of @p byte and advances. Errors as korva_fd_from_mem. */
KORVA_API int korva_fd_set(krv_fd_t *fdp, int byte, size_t count);

/* ------------------------------------------------------------------------------------------------------------
 * Forms and values
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Decodes one datum of @p form at the cursor's position.
 *
 *  - Decode: @p dst given, @p sizep NULL. @p dst has room for @p size bytes.
 *      - fixed-size forms and LEB128 numbers: the value in the host's byte order, extended to @p size bytes by zeros,
 *        or by its sign (DW_FORM_sdata always, fixed-size forms with KRV_FORM_F_SIGNED);
 *      - DW_FORM_string and DW_FORM_strp: the bytes of the string with its NUL;
 *      - blocks and DW_FORM_exprloc: @p dst is a krv_fd_t *, a memory cursor whose buffer has room for @p size bytes;
 *        it is re-pointed at exactly the block, position 0, and the block is copied into its buffer;
 *      - DW_FORM_flag_present: nothing is read or stored;
 *      - DW_FORM_indirect: as the form found in the data, so @p dst must suit whatever that may be. Clients that
 *        cannot know use the library's own entries, which store each value by the form found.
 *  - Size query: @p dst NULL, @p sizep given; for strings, DW_FORM_strp and blocks. Stores the bytes that decoding
 *    would need; the cursor does not move.
 *
 * On success a decode leaves the cursor just behind the datum (DW_FORM_strp: behind the offset); any failure leaves
 * it where it was. Addresses have the handle's address size; DW_FORM_strp reads the handle's .debug_str.
 *
 * Errors: KRV_ERR_CORRUPT (data end too early), KRV_ERR_NOSPACE (storage too small, a number beyond 64 bits),
 * KRV_ERR_IO, KRV_ERR_INVALID (DW_FORM_ref_addr or an unknown form; both or neither of @p dst and @p sizep where
 * one is needed; an offset outside .debug_str), KRV_ERR_UNSUPPORTED (a block into a call-back cursor).
 */
KORVA_API int korva_decode_form(krv_fd_t *fdp, krv_form_t form, uint32_t flags, void *dst, size_t size, size_t *sizep);

/**
 * Writes @p value in @p form at a memory cursor's position: fixed-size forms (the low bytes of @p value, unchecked)
 * and LEB128 numbers. Nothing is written on failure.
 *
 * Errors: KRV_ERR_INVALID (another form, or a call-back cursor), KRV_ERR_NOSPACE (too little room).
 */
KORVA_API int korva_encode_form(krv_fd_t *fdp, krv_form_t form, uint32_t flags, uint64_t value);

/** The value as an unsigned number, unconverted. @p value must not be NULL. */
KORVA_API uint64_t korva_value_unsigned(krv_value_t *value);
/** The value as a signed number, unconverted. @p value must not be NULL. */
KORVA_API int64_t korva_value_signed(krv_value_t *value);

/* ------------------------------------------------------------------------------------------------------------
 * Units and entries
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Calls @p fn for every unit of .debug_info in section order. The first call reads every unit header and first
 * entry; a header that cannot be read ends the table there, with the reader's messages left in the handle (see
 * korva_cu_get_header for telling a table that ended early).
 *
 * Returns 0, the call-back's non-zero result, or -1.
 * Errors: KRV_ERR_UNSUPPORTED for KRV_SEC_TYPES, KRV_ERR_INVALID for any other @p sec than KRV_SEC_INFO; with no
 * readable unit at all, the reader's.
 */
KORVA_API int korva_iter_cu(krv_handle_t *hp, krv_secidx_t sec, krv_iter_cu_f *fn, void *arg);

/**
 * The unit whose header starts exactly at @p offset of .debug_info, or NULL.
 *
 * Errors: KRV_ERR_NOTFOUND when none starts there; @p sec as for korva_iter_cu.
 */
KORVA_API krv_ctu_t *korva_lookup_ctu_by_start_offset(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset);

/**
 * Whether one of the unit's address ranges covers @p address (an address as the debugging information has it, no
 * load bias). The ranges come from .debug_aranges, else from the unit entry's own DW_AT_low_pc and DW_AT_high_pc
 * (which win over .debug_aranges where an entry has both), else, unless @p flags has KRV_LOOKUP_F_FAST, from a scan
 * of the subprograms and variables directly below the unit entry.
 *
 * B_FALSE answers "no" with KRV_ERR_NOTFOUND, "not known yet" (KRV_LOOKUP_F_FAST) with KRV_ERR_NONE, and a failure
 * with any other code.
 */
KORVA_API boolean_t korva_cu_contains_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t address, krv_lookup_flag_t flags);

/** Stores the unit's first entry, which belongs to the unit. */
KORVA_API int korva_get_cu_cudie(krv_handle_t *hp, krv_ctu_t *cup, krv_die_t **diep);

/**
 * Copies a string attribute of an entry into @p buf, cut to @p size - 1 characters and always terminated.
 *
 * Errors: KRV_ERR_NOTFOUND (the entry has no such attribute), KRV_ERR_INVALID (it is not a string; @p size is 0).
 */
KORVA_API int korva_get_die_at_producer(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);
/** DW_AT_comp_dir, as korva_get_die_at_producer. */
KORVA_API int korva_get_die_at_comp_dir(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);
/** DW_AT_name, as korva_get_die_at_producer. */
KORVA_API int korva_get_die_at_name(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);
/** DW_AT_ZEPH_original_name (0x2222), as korva_get_die_at_producer. */
KORVA_API int korva_get_die_at_ZEPH_original_name(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size);

/* ------------------------------------------------------------------------------------------------------------
 * Line numbers
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * The line-number header of a unit, read on first use.
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
 * Errors: KRV_ERR_NOTFOUND without a message (no row applies, or the unit has no line numbers), KRV_ERR_INVALID
 * (@p addr outside its range), KRV_ERR_CORRUPT, and those of korva_line_get_cu_lnph and korva_iter_line_entry.
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
 * Copies a file's path as strncpy does: at most @p len bytes, padded with zeros, and without a terminating NUL when
 * the path has @p len bytes or more. @p absolute B_TRUE gives the path composed of compilation directory, include
 * directory and name (at most 1023 characters); any other value gives the name as written.
 */
KORVA_API int korva_lnfe_get_path(krv_handle_t *hp, krv_lnfe_t *lnfep, char *buf, size_t len, boolean_t absolute);

/* ------------------------------------------------------------------------------------------------------------
 * Expressions
 * ------------------------------------------------------------------------------------------------------------ */

/** The stack on which expressions are evaluated: 64-bit values, a fixed capacity. One evaluation uses it at a time. */
typedef struct krv_exprstack krv_exprstack_t;

/** A decoded operand, as korva_expr_iter_instruction shows it. */
typedef struct krv_operand {
    uint64_t sopt_operand; /**< the value, sign-extended where the operand is signed */
    uint64_t sopt_size;    /**< bytes of the value: 1, 2, 4 or 8, not of its encoding; LEB128 numbers have 8 */
    int32_t sopt_encoding; /**< DW_ATE_signed (5) or DW_ATE_unsigned (7) */
} krv_operand_t;

/**
 * A decoded instruction: of an expression, as a krv_expr_cb_f sees it, or of call-frame information. Only the value
 * member of an operand is filled. The operand of DW_OP_implicit_value is a pointer (su_addr) to a memory krv_fd_t over
 * the block, of at most 256 bytes, valid until the instruction has been executed.
 */
typedef struct krv_operation {
    uint8_t opcode;
    krv_value_t operand[2]; /**< in stream order */
} krv_operation_t;

/** Flags of korva_expr_execute_expression (all but the fourth) and korva_expr_iter_instruction (the fourth). */
enum {
    KRV_EXPR_F_LOCATION = 0x1, /**< a location description: its pieces go to the output cursors */
    KRV_EXPR_F_CFI = 0x2,      /**< from call-frame information: DW_OP_call_frame_cfa is refused */
    KRV_EXPR_F_NOBRANCH = 0x4, /**< DW_OP_skip and DW_OP_bra are refused */
    KRV_EXPR_F_DWARF64 = 0x10, /**< from a unit of the 64-bit DWARF format */
    KRV_EXPR_F_CALLER = 0x20   /**< registers are the caller frame's, not the current frame's */
};

/**
 * Visitor of korva_expr_iter_instruction: one instruction with @p noperands (0, 1 or 2) decoded operands; what
 * stands beyond them means nothing.
 */
typedef int krv_iter_exprloc_f(krv_handle_t *hp, uint8_t opcode, krv_operand_t *operands, unsigned int noperands,
                               void *arg);

/**
 * Call-back of korva_expr_execute_expression: one instruction, decoded but not yet validated or executed; it may
 * change opcode and operands in place; to make it DW_OP_implicit_value it supplies the cursor that operand points to.
 * Non-zero fails the evaluation with KRV_ERR_IO.
 */
typedef int krv_expr_cb_f(krv_handle_t *hp, krv_exprstack_t *esp, krv_activation_t *ap, uint32_t flags,
                          krv_fd_t **outputs, krv_operation_t *op, void *arg);

/**
 * A new, empty stack of KRV_OPT_EXPR_STACK_SIZE entries (256 while unset). NULL: KRV_ERR_NOMEM. Free it with
 * korva_expr_free_stack, before its handle.
 */
KORVA_API krv_exprstack_t *korva_expr_alloc_stack(krv_handle_t *hp);

/** Frees a stack. NULL is ignored. */
KORVA_API void korva_expr_free_stack(krv_exprstack_t *esp);

/** Stores the number of entries in use. */
KORVA_API int korva_expr_get_stack_depth(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t *depthp);

/** Pushes a value, cut to 32 bits on a target with 4-byte addresses. Errors: KRV_ERR_NOSPACE when the stack is full. */
KORVA_API int korva_expr_stack_push(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t value);

/** Removes the top entry and stores it. Errors: KRV_ERR_INVALID when the stack is empty. */
KORVA_API int korva_expr_stack_pop(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t *valuep);

/** Stores the entry @p index places below the top, which is 0. Errors: KRV_ERR_INVALID when there is none. */
KORVA_API int korva_expr_stack_peek(krv_handle_t *hp, krv_exprstack_t *esp, uint64_t index, uint64_t *valuep);

/** Empties a stack. */
KORVA_API int korva_expr_reset_stack(krv_handle_t *hp, krv_exprstack_t *esp);

/**
 * Calls @p func for every instruction of the expression that the cursor holds from its position on; @p flags is 0 or
 * KRV_EXPR_F_DWARF64. The cursor is left behind the last byte consumed. DW_OP_xderef_size, DW_OP_call2, DW_OP_call4,
 * DW_OP_call_ref and DW_OP_bit_piece are shown without operands and the walk goes on at their operand bytes;
 * DW_OP_implicit_value ends it with KRV_ERR_UNSUPPORTED.
 *
 * Returns 0, the call-back's non-zero result, or -1.
 * Errors: KRV_ERR_UNSUPPORTED (an operation that DWARF 4 does not define, or above 0x9f), and the decoder's.
 */
KORVA_API int korva_expr_iter_instruction(krv_handle_t *hp, krv_fd_t *fdp, uint32_t flags, krv_iter_exprloc_f *func,
                                          void *arg);

/**
 * Evaluates the expression that the cursor holds from its position to its end on a stack that may hold initial
 * values, in the context of an activation. The handle must have an address space (korva_attach_as).
 *
 * Without KRV_EXPR_F_LOCATION the result is what the stack holds afterwards, and @p outputs is not used (may be NULL).
 * With it, the described object is written to the cursors in @p outputs, an array of three: [0], a memory cursor, its
 * bytes in target order; [1], or NULL, one byte each, 0xff where the byte is known and 0x00 where it is not; [2], or
 * NULL, one byte each, 0xff where the byte came from a register, else 0x00. The offset of [0] is then the number of
 * bytes produced, also after KRV_ERR_NOSPACE. A description that ends with an address fills all the room of [0].
 *
 * @p func, or NULL, is called before each instruction. At most one million instructions are executed. DW_OP_div of the
 * most negative value by -1 wraps. A description that begins with DW_OP_piece begins with unavailable bytes. Nothing is
 * rolled back on failure.
 *
 * Errors: KRV_ERR_EVAL (not allowed in this kind of expression, branch out of it, division by zero, a dereference
 * wider than an address, too many instructions), KRV_ERR_CORRUPT (stack underflow; pieces that make no sense),
 * KRV_ERR_NOSPACE (stack overflow, too little room in an output cursor), KRV_ERR_UNSUPPORTED (an operation that is
 * not evaluated; no address space), KRV_ERR_IO (target memory, or @p func), KRV_ERR_INVALID (arguments; a piece longer
 * than its register), and those of the decoder and of korva_activation_get_reg.
 */
KORVA_API int korva_expr_execute_expression(krv_handle_t *hp, krv_exprstack_t *esp, krv_activation_t *ap, krv_fd_t *fdp,
                                            uint32_t flags, krv_fd_t **outputs, krv_expr_cb_f *func, void *arg);

/* ------------------------------------------------------------------------------------------------------------
 * Activations
 *
 * An activation is the library's picture of one stack frame: the registers of the current frame, which the client
 * loads, and those of its caller, which the library computes from the call-frame information (.debug_frame, else
 * .eh_frame) when they are first asked for. A walk over a stack:
 *
 *     load the stopped thread's registers: korva_activation_set_regs, then the program counter (KRV_REG_PC)
 *     do read what is wanted (korva_activation_get_greg, ...)
 *     while korva_activation_unwind returns 0
 *
 * The outcome of computing the caller's frame, success or failure, is remembered until the current frame changes:
 * after a failure, caller reads fail at once, without messages and with KRV_ERR_NONE.
 *
 * An activation belongs to one handle, is freed before it, and serves one thread at a time.
 * ------------------------------------------------------------------------------------------------------------ */

/** A general register's value. Not the platform's greg_t: <sys/ucontext.h> orders its registers differently. */
typedef int64_t krv_greg_t;

/** Host register numbers: indices into krv_gregset_t. A 32-bit target's registers use the slots of the wider ones. */
enum {
    KRV_HOST_R15 = 0,
    KRV_HOST_R14 = 1,
    KRV_HOST_R13 = 2,
    KRV_HOST_R12 = 3,
    KRV_HOST_R11 = 4,
    KRV_HOST_R10 = 5,
    KRV_HOST_R9 = 6,
    KRV_HOST_R8 = 7,
    KRV_HOST_RDI = 8,
    KRV_HOST_RSI = 9,
    KRV_HOST_RBP = 10,
    KRV_HOST_RBX = 11,
    KRV_HOST_RDX = 12,
    KRV_HOST_RCX = 13,
    KRV_HOST_RAX = 14,
    KRV_HOST_TRAPNO = 15,
    KRV_HOST_ERR = 16,
    KRV_HOST_RIP = 17,
    KRV_HOST_CS = 18,
    KRV_HOST_RFLAGS = 19,
    KRV_HOST_RSP = 20,
    KRV_HOST_SS = 21,
    KRV_HOST_FS = 22,
    KRV_HOST_GS = 23,
    KRV_HOST_ES = 24,
    KRV_HOST_DS = 25,
    KRV_HOST_FSBASE = 26,
    KRV_HOST_GSBASE = 27,
    KRV_HOST_MAX = 28
};

/** The general registers of one frame. On a 32-bit target a register is the low 4 bytes of its slot. */
typedef krv_greg_t krv_gregset_t[KRV_HOST_MAX];

/** The floating-point registers of one frame: the FXSAVE image and two status words. */
typedef struct krv_fpregset {
    uint16_t cw;
    uint16_t sw;
    uint8_t fctw; /**< abridged tag word */
    uint8_t reserved1;
    uint16_t fop;
    uint64_t rip;
    uint64_t rdp;
    uint32_t mxcsr;
    uint32_t mxcsr_mask;
    uint8_t st[8][16]; /**< x87 registers, of each the first 10 bytes; an MMX register is the first 8 */
    uint8_t xmm[16][16];
    uint8_t reserved2[96];
    uint32_t status;
    uint32_t xstatus;
    uint8_t reserved3[8];
} krv_fpregset_t;

/** Numbering in which a register is named. */
typedef int krv_reg_type_t;
enum {
    KRV_ACTIVATION_REG_DWARF = 0,   /**< DWARF register numbers of the target's psABI */
    KRV_ACTIVATION_REG_HOST = 1,    /**< KRV_HOST_*; KRV_HOST_RIP is the program counter, KRV_REG_PC */
    KRV_ACTIVATION_REG_LIBRARY = 2, /**< KRV_REG_* */
    KRV_ACTIVATION_REG_MAX = 3
};

/** The library's own registers, as wide as a target address. */
enum {
    KRV_REG_CFA = 0, /**< canonical frame address; of the current frame, present once its caller has been computed */
    KRV_REG_PC = 1,  /**< program counter: a slot of its own, not that of the DWARF return-address column */
    KRV_REG_MAX = 2
};

/** Frame of an activation. */
typedef int krv_frame_type_t;
enum {
    KRV_ACTIVATION_FRAME_CURRENT = 0,
    KRV_ACTIVATION_FRAME_CALLER = 1, /**< computes the caller's frame first */
    KRV_ACTIVATION_FRAME_MAX = 2
};

/**
 * A new activation without any register value. Its expression stack has the capacity of KRV_OPT_EXPR_STACK_SIZE at
 * this moment. NULL: KRV_ERR_NOMEM. Free it with korva_activation_free.
 */
KORVA_API krv_activation_t *korva_activation_alloc(krv_handle_t *hp);

/** Frees an activation, before its handle. NULL is ignored. Touches no error state. */
KORVA_API void korva_activation_free(krv_activation_t *ap);

/** Forgets every register value of the current frame, the program counter included. */
KORVA_API int korva_activation_reset(krv_handle_t *hp, krv_activation_t *ap);

/**
 * Copies the value of a register, in target byte order, into @p buf: @p size bytes of it or as many as it is wide
 * (AMD64: 8, %xmm 16, %st 10, %mm 16 shared with %st; 32-bit x86: general registers 4; library registers an address).
 * A smaller buffer gets the low-order bytes; of a larger one the rest is left alone.
 *
 * Errors: KRV_ERR_INVALID (no such register, numbering or frame); KRV_ERR_NOTFOUND (the register has no known
 * value); for the caller's frame those of korva_activation_unwind.
 */
KORVA_API int korva_activation_get_reg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type,
                                       krv_frame_type_t frame, unsigned int reg, void *buf, size_t size);

/** As korva_activation_get_reg: stores the low 8 bytes, those of a narrower register extended by zeros. */
KORVA_API int korva_activation_get_greg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type,
                                        krv_frame_type_t frame, unsigned int reg, krv_greg_t *valuep);

/**
 * Sets a register of the current frame from @p buf, which holds as many bytes as the register is wide (see
 * korva_activation_get_reg). Only the current frame can be written.
 *
 * Errors: KRV_ERR_INVALID (no such register or numbering).
 */
KORVA_API int korva_activation_set_reg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                                       const void *buf);

/** As korva_activation_set_reg: a narrower register gets the low bytes of @p value, a wider one zeros above it. */
KORVA_API int korva_activation_set_greg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                                        krv_greg_t value);

/**
 * Loads the current frame: 28 general registers (@p gregs, indexed by KRV_HOST_*) and the floating-point registers.
 * Either may be NULL; its registers then have no value afterwards. Bit n of @p mask says that @p gregs[n] holds a
 * value; bit 63 stands for %mxcsr, %fcw and %fsw of AMD64, whose values come with @p fpregs all the same.
 *
 * The library registers stay as they were: set the program counter (KRV_REG_PC) as well.
 */
KORVA_API int korva_activation_set_regs(krv_handle_t *hp, krv_activation_t *ap, const krv_greg_t *gregs, uint64_t mask,
                                        const krv_fpregset_t *fpregs);

/**
 * Stores a frame's 28 general registers and a mask whose bit n says that (*@p gregsp)[n] holds a value. On 32-bit
 * x86 bit 0 speaks of the floating-point registers.
 *
 * Errors: KRV_ERR_INVALID (no such frame); for the caller's frame those of korva_activation_unwind.
 */
KORVA_API int korva_activation_get_gregs(krv_handle_t *hp, krv_activation_t *ap, krv_frame_type_t frame,
                                         krv_gregset_t *gregsp, uint64_t *maskp);

/**
 * Makes the caller's frame the current one. Its program counter is the return address; a register that the call-frame
 * information cannot recover has no value.
 *
 * A failure leaves the current frame as it was and is remembered until it changes. Errors: KRV_ERR_UNSUPPORTED (no
 * address space attached; an instruction or rule that the library does not know); KRV_ERR_NOTFOUND (the program
 * counter is not known; no call-frame information covers it, which is how a walk normally ends); KRV_ERR_IO (target
 * memory cannot be read); KRV_ERR_CORRUPT and others of the readers and of korva_expr_execute_expression. Call-frame
 * instructions that name a register out of range, restore a register in a CIE, or change part of a CFA that is not
 * register plus offset, fail with messages and KRV_ERR_NONE.
 */
KORVA_API int korva_activation_unwind(krv_handle_t *hp, krv_activation_t *ap);

/**
 * Stores how many arguments the call-frame information of the current frame's function describes: the highest number
 * described, 0 to 128.
 *
 * Errors: those of korva_activation_unwind.
 */
KORVA_API int korva_activation_get_argc(krv_handle_t *hp, krv_activation_t *ap, unsigned int *argcp);

/**
 * Copies the bytes of argument @p n, counted from 1, into @p value, which has room for @p size bytes, and their number
 * into @p countp. @p valid and @p inreg, as long each, get one byte for every byte of the value: 0xff or 0x00, whether
 * the byte is known, and whether it came from a register. Locations are not typed: an argument in memory fills all of
 * @p size, so ask for as many bytes as it has.
 *
 * Errors: KRV_ERR_INVALID (no such argument); KRV_ERR_NOSPACE (the buffers are too small; the bytes that fit are stored
 * and counted); KRV_ERR_IO (target memory cannot be read; or the location is relative to a frame pointer without
 * value); those of korva_activation_unwind and korva_expr_execute_expression.
 */
KORVA_API int korva_activation_get_argv(krv_handle_t *hp, krv_activation_t *ap, unsigned int n, uint8_t *value,
                                        uint8_t *valid, uint8_t *inreg, uint64_t size, uint64_t *countp);

/* ------------------------------------------------------------------------------------------------------------
 * Names and fields
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * The name of a DWARF constant, e.g. class KRV_DEF_AT and key 3 give "DW_AT_name". The text is static: never free
 * or change it.
 *
 * Errors: KRV_ERR_INVALID for an unknown class or key.
 */
KORVA_API char *korva_print_define(krv_handle_t *hp, krv_def_t index, unsigned int key);

/**
 * Reads fields of a line-number record: @p nfields pairs follow, each an int KRV_FIELD_* and a pointer to the
 * destination type given there. A NULL destination skips its field; of a field named twice the later destination
 * counts. Addresses are never biased. Pointers stored refer to the record's own storage.
 *
 * A table and its number of entries (KRV_FIELD_LNPH_FILES and its ENTRIES) belong together when asked for in one
 * call; a table once handed out stays valid for as long as its header does.
 *
 * Errors, and then nothing is stored: KRV_ERR_INVALID for an unknown @p struct_type (KRV_STRUCT_*) or a field of
 * another record (one message each); for KRV_FIELD_LNPH_LNP those of korva_iter_line_entry.
 */
KORVA_API int korva_get_fields(krv_handle_t *hp, unsigned int struct_type, void *structp, unsigned int nfields, ...);

/* ------------------------------------------------------------------------------------------------------------
 * Extensions
 * ------------------------------------------------------------------------------------------------------------ */

/** The header of a unit, as korva_cu_get_header stores it. */
typedef struct krv_cu_header {
    uint64_t offset;        /**< of the unit's first byte in .debug_info */
    uint64_t size;          /**< bytes of the whole unit, its length field included */
    uint64_t abbrev_offset; /**< of its abbreviation table in .debug_abbrev */
    uint16_t version;       /**< as written; the library reads 2 to 4 and does not check it */
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
 * Errors: KRV_ERR_NOTFOUND (no unit covers it, or no .debug_info); KRV_ERR_NONE when no unit is known to cover it but
 * KRV_LOOKUP_F_FAST left some unit's ranges unknown; otherwise as korva_cu_contains_addr.
 */
KORVA_API krv_ctu_t *korva_lookup_ctu_by_addr(krv_handle_t *hp, uint64_t address, krv_lookup_flag_t flags);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_H */
