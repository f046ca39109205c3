/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: an extension, entries as they stand in their section, and the calls around an address. */
#ifndef LIBKORVA_ENTRIES_H
#define LIBKORVA_ENTRIES_H

#include "extensions.h"
#include "lines.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Entries
 * ------------------------------------------------------------------------------------------------------------ */

/*
 * Extension. Needs no option; which forms are known is what KRV_OPT_EXT_DWARF5 says. Nothing here is copied or allocated
 * unless a function says so: values point into the sections, which have to be in memory: where .debug_info or a section
 * that a value lies in is behind a call-back, these functions fail with KRV_ERR_UNSUPPORTED. Any number of threads may
 * walk the entries of one handle. Entries of more than 256 attributes are refused with KRV_ERR_CORRUPT.
 */

/**
 * A cursor on one entry. It is a value: a copy is another cursor, and nothing is to be freed. It is valid until the handle
 * is freed or .debug_info or .debug_abbrev is attached anew.
 */
typedef struct krv_entry {
    krv_ctu_t *unit;        /**< which it belongs to */
    uint64_t offset;        /**< of its first byte in .debug_info, in that of the alternate file, or, of types that were
                                   found by signature, in .debug_types */
    uint32_t tag;           /**< DW_TAG_* */
    uint32_t depth;         /**< levels below the entry that the walk began with */
    uint8_t has_children;   /**< 1: they follow it */
    uint8_t is_alternate;   /**< 1: it is of the alternate file (KRV_SEC_EXT_ALT_INFO) */
    uint16_t attrs_read;    /**< the library's: attributes that korva_entry_next_attr has passed */
    uint32_t implicit_read; /**< the library's: of these, those whose value stands in the abbreviation */
    uint64_t at;            /**< the library's: offset of what follows these */
    const void *abbreviation; /**< the library's */
} krv_entry_t;

/** What the value of an attribute is. */
enum {
    KRV_ATTR_ADDRESS = 1,    /**< number: of the unit's own address space */
    KRV_ATTR_CONSTANT = 2,   /**< number; is_signed tells how the form extends it: 1 by its sign */
    KRV_ATTR_FLAG = 3,       /**< number: 0 or not */
    KRV_ATTR_STRING = 4,     /**< bytes and size: characters, with a NUL behind them, which is not counted */
    KRV_ATTR_BLOCK = 5,      /**< bytes and size */
    KRV_ATTR_EXPRESSION = 6, /**< likewise */
    KRV_ATTR_REFERENCE = 7,  /**< number: offset of an entry in .debug_info, or in that of the alternate file */
    KRV_ATTR_SIGNATURE = 8,  /**< number: of the type unit that has the type */
    KRV_ATTR_SECTION = 9,    /**< number: offset in another section, which the attribute tells; also of lists by index,
                                  whose list begins there. Before DWARF 4 such offsets are written as constants. */
};

/** One attribute of an entry. */
typedef struct krv_attr {
    uint32_t attribute;   /**< DW_AT_* */
    uint16_t form;        /**< DW_FORM_* as written; behind DW_FORM_indirect the one that it leads to */
    uint8_t kind;         /**< KRV_ATTR_* */
    uint8_t is_signed;    /**< see KRV_ATTR_CONSTANT */
    uint8_t is_alternate; /**< of references: 1 when they lead into the alternate file */
    uint8_t reserved[7];  /**< 0 */
    uint64_t number;      /**< by the kind; else 0 */
    const uint8_t *bytes; /**< by the kind, in a section or abbreviation table of the handle; else NULL */
    uint64_t size;        /**< bytes there */
} krv_attr_t;

/** Puts a cursor on the first entry of a unit, whose depth is 0. Errors: KRV_ERR_NOTFOUND for a unit that was stepped
 * over. */
KORVA_API int korva_entry_first(krv_handle_t *hp, krv_ctu_t *cup, krv_entry_t *entryp);

/**
 * Puts a cursor on the entry at an offset of .debug_info (KRV_SEC_INFO) or of that of the alternate file
 * (KRV_SEC_EXT_ALT_INFO); its depth is 0. That an entry begins there is for the caller to know: other bytes are read as if
 * they were one. Errors: KRV_ERR_NOTFOUND when no unit has entries there, or a null entry stands there.
 */
KORVA_API int korva_entry_at(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, krv_entry_t *entryp);

/**
 * Moves to the entry that follows in the section: the first child, else the next sibling, else that of the nearest
 * ancestor that has one. All entries below one are those whose depth is larger, up to the next that is not.
 *
 * These three return 0, or -1 with the cursor where it was: KRV_ERR_NOTFOUND, without a message, where there is none:
 * at the unit's end, and behind the last sibling of the entry that the walk began with.
 */
KORVA_API int korva_entry_next(krv_handle_t *hp, krv_entry_t *entryp);
/** Moves to the first child. */
KORVA_API int korva_entry_child(krv_handle_t *hp, krv_entry_t *entryp);
/** Moves to the next sibling: by DW_AT_sibling where the entry has it, else past all entries below this one. */
KORVA_API int korva_entry_sibling(krv_handle_t *hp, krv_entry_t *entryp);

/**
 * The ancestors of an entry, from the unit's first entry on: stores the first @p room of them, and how many there are.
 * Entries do not know their parent: this walks the unit up to the entry, past what does not contain it.
 */
KORVA_API int korva_entry_get_ancestors(krv_handle_t *hp, const krv_entry_t *entryp, krv_entry_t *ancestors,
                                        size_t room, size_t *countp);

/**
 * The entry's attributes, one a call, in their order. Returns 1 with *@p attrp filled, 0 behind the last one, or -1. Moving
 * to the next entry need not read again what was read so.
 */
KORVA_API int korva_entry_next_attr(krv_handle_t *hp, krv_entry_t *entryp, krv_attr_t *attrp);

/**
 * All of them at once, from the first: stores at most @p room, in their order, and in *@p countp how many the entry has.
 * Returns 0, or -1 when one of these cannot be read.
 */
KORVA_API int korva_entry_get_attrs(krv_handle_t *hp, krv_entry_t *entryp, krv_attr_t *attrs, size_t room,
                                    size_t *countp);

/** Visitor of korva_iter_entries: an entry with all its attributes, none of which lives on. Non-zero stops it and is returned. */
typedef int krv_iter_entry_attrs_f(krv_handle_t *hp, const krv_entry_t *entryp, const krv_attr_t *attrs, size_t count,
                                   void *arg);

/**
 * Visits the entries of a unit in section order, the first one included: as korva_entry_first, korva_entry_get_attrs and
 * korva_entry_next have them, in less time. A unit without entries has none to visit. Returns 0, @p fn's result, or -1
 * with the errors of those and KRV_ERR_NOMEM: it takes 10 KiB while it runs.
 */
KORVA_API int korva_iter_entries(krv_handle_t *hp, krv_ctu_t *cup, krv_iter_entry_attrs_f *fn, void *arg);

/** The first attribute of that name. 0, or -1 with KRV_ERR_NOTFOUND without a message when the entry has none. */
KORVA_API int korva_entry_get_attr(krv_handle_t *hp, const krv_entry_t *entryp, uint32_t attribute, krv_attr_t *attrp);

/**
 * Puts a cursor on the entry that an attribute of @p entryp of the kind KRV_ATTR_REFERENCE leads to, or, of the kind
 * KRV_ATTR_SIGNATURE, on that of the type in its unit of .debug_info or .debug_types; its depth is 0. @p top
 * may be @p entryp. Errors: those of korva_entry_at; KRV_ERR_NOTFOUND with a message when no unit has the signature;
 * KRV_ERR_INVALID for another kind.
 */
KORVA_API int korva_entry_follow(krv_handle_t *hp, const krv_entry_t *entryp, const krv_attr_t *attrp,
                                 krv_entry_t *top);

/** A range of addresses, of the unit's own address space. */
typedef struct krv_range {
    uint64_t start; /**< first address */
    uint64_t end;   /**< first address behind it */
} krv_range_t;

/** Visitor of korva_entry_iter_ranges; non-zero stops it and is returned. */
typedef int krv_iter_range_f(krv_handle_t *hp, const krv_range_t *range, void *arg);

/**
 * Visits the ranges that an entry covers: those of DW_AT_ranges, else from DW_AT_low_pc to DW_AT_high_pc. Empty ones, and
 * those that are no code (korva_handle_add_code), are left out. Returns 0, @p fn's result, or -1: KRV_ERR_NOTFOUND without
 * a message when the entry does not say what it covers, KRV_ERR_CORRUPT for a list that is damaged, behind what could be
 * read of it.
 */
KORVA_API int korva_entry_iter_ranges(krv_handle_t *hp, const krv_entry_t *entryp, krv_iter_range_f *fn, void *arg);

/* ------------------------------------------------------------------------------------------------------------
 * Calls around an address
 * ------------------------------------------------------------------------------------------------------------ */

/** One function around an address: that which has the code, or a call that was inlined into it. */
typedef struct krv_call {
    krv_entry_t entry;        /**< DW_TAG_subprogram, or DW_TAG_inlined_subroutine */
    const char *name;         /**< DW_AT_name of the function; NULL when it has none */
    const char *linkage_name; /**< DW_AT_linkage_name; NULL likewise */
    krv_ctu_t *decl_unit;     /**< whose file table decl_file counts in; NULL when the declaration is not known */
    uint32_t decl_file;       /**< where the function is declared; from DWARF 5 on 0 is a file like others */
    uint32_t decl_line;       /**< likewise; 0 when it is not known */
    krv_ctu_t
        *call_unit; /**< of an inlined call: whose file table call_file counts in; NULL when the file is not known */
    uint32_t call_file;     /**< the place of the call, in the next element's function */
    uint32_t call_line;     /**< likewise; 0 when it is not known */
    uint32_t call_column;   /**< likewise */
    uint32_t discriminator; /**< of the call; 0 when it has none */
    uint32_t is_inlined;    /**< 1: an inlined call; 0: the function that has the code */
    uint32_t language;      /**< DW_LANG_* of the unit; 0 when it is not known */
    uint64_t start;         /**< where the first range of the function that has the code begins; 0 of inlined calls, and
                                   as korva_entry_get_call stores it */
    uint32_t name_size;     /**< bytes of name, without its end; UINT32_MAX: so many or more */
    uint32_t linkage_name_size; /**< likewise */
} krv_call_t;

/**
 * The chain of calls at an address (of the debugging information, without load bias), innermost first: inlined calls, and
 * last the function that they are inlined into. Stores at most @p room of them, from the innermost on, and in *@p countp
 * how many there are. Names are found through DW_AT_abstract_origin and DW_AT_specification, also in other units and in
 * the alternate file.
 *
 * The first question about a unit walks its entries once, for the addresses of its functions; the first about a function
 * that has inlined calls walks these, and finds the names of what was inlined. What was found is kept until the handle is
 * freed: some 20 bytes a range, 32 a function or inlined call, and 100 a function whose name was asked for. Names point into the
 * sections, which may not be attached anew then. Of ranges that overlap without one being nested in the other the one
 * behind answers. Entries of a unit behind one that cannot be read are not known, and this is noted; range lists are read
 * up to 4 times their bytes, and what goes beyond covers nothing. Of a unit of more than 4 GiB the functions in the first 4 are
 * known.
 *
 * Returns 0, or -1: KRV_ERR_NOTFOUND without a message when no function is known to cover the address; those of reading
 * the abbreviations; KRV_ERR_NOMEM. A name is looked for in at most 32 entries that lead to one another.
 */
KORVA_API int korva_lookup_calls(krv_handle_t *hp, uint64_t address, krv_call_t *calls, size_t room, size_t *countp);

/**
 * korva_lookup_rows of one address, and the calls around it, in one step: *@p rowp is where the innermost call, or the
 * function, is at; where it was called from each call tells itself. @p addr is as korva_lookup_row takes it, with the bias
 * of KRV_OPT_BASE_ADDR; calls are looked up without it.
 *
 * Returns 0 also where nothing is known: then the row's number is KRV_ROW_NONE, or *@p countp 0. -1: KRV_ERR_INVALID for a
 * NULL argument, KRV_ERR_NOMEM, KRV_ERR_IO where a section cannot be read, and the errors of korva_lookup_ctu_by_addr that
 * speak of all addresses; what is stored is then not defined.
 */
KORVA_API int korva_lookup_chain(krv_handle_t *hp, uint64_t addr, krv_row_t *rowp, krv_call_t *calls, size_t room,
                                 size_t *countp);

/**
 * Builds what look-ups of addresses need of a unit of .debug_info: its line table, its functions with their names and the calls
 * inlined into them; and, once a handle, the index of addresses. What look-ups cannot read is left to them.
 *
 * With KRV_OPT_EXT_THREADS threads can do it side by side, each its units; once it has returned 0 for all of them,
 * korva_lookup_ctu_by_addr, korva_lookup_rows, korva_lookup_calls, korva_lookup_chain, korva_iter_chains, korva_cu_get_file and
 * korva_lnfe_path find what they need without waiting for another thread.
 *
 * Errors: KRV_ERR_INVALID for NULL; KRV_ERR_NOMEM; KRV_ERR_IO where a section cannot be read. What was built stays.
 */
KORVA_API int korva_cu_prefill(krv_handle_t *hp, krv_ctu_t *cup);

/**
 * What an entry says of its function: its names, and where it is declared, found as korva_lookup_calls finds them; of an
 * inlined call also its place. Entries of other things than functions have names and declarations likewise. The entry
 * stored has the depth 0. What cannot be read stays unknown. Errors: those of korva_entry_first.
 */
KORVA_API int korva_entry_get_call(krv_handle_t *hp, const krv_entry_t *entryp, krv_call_t *callp);

/** Visitor of korva_iter_chains: what korva_lookup_chain stores for element @p index. Non-zero stops it and is returned. */
typedef int krv_iter_chain_f(krv_handle_t *hp, size_t index, const krv_row_t *rowp, const krv_call_t *calls,
                             size_t count, void *arg);

/** Flags of korva_iter_chains. */
enum {
    KRV_CHAINS_F_NONE = 0,
    KRV_CHAINS_F_ASCENDING =
        1,                /**< visits in ascending order of addresses: twice as fast, since neighbours share much */
    KRV_CHAINS_F_ROWS = 2 /**< rows alone: no functions and calls are looked for, @p calls is NULL and @p count 0 */
};

/**
 * korva_lookup_chain of many addresses, which are looked up in ascending order, and visited in that of the array unless
 * @p flags (KRV_CHAINS_F_*) says otherwise. Takes 16 bytes of memory an address while it runs, 32 where they span 4 GiB, and
 * 40 more for the order of the array. A chain of more than 256 calls is cut at its outer end, the last element being the
 * function that has the code.
 *
 * Returns 0, @p fn's result, or -1 with the errors of korva_lookup_chain, KRV_ERR_INVALID for an unknown flag.
 */
KORVA_API int korva_iter_chains(krv_handle_t *hp, const uint64_t *addrs, size_t count, unsigned int flags,
                                krv_iter_chain_f *fn, void *arg);

/** Flags of korva_iter_named_entries. */
enum {
    KRV_NAMED_FUNCTIONS = 1, /**< entries of functions that have code */
    KRV_NAMED_VARIABLES = 2, /**< those of variables that have a location outside functions */
    KRV_NAMED_INDEXED = 4    /**< beside these: what the file's own indexes name is enough */
};

/** Visitor of korva_iter_named_entries; non-zero stops it and is returned. */
typedef int krv_iter_entry_f(krv_handle_t *hp, const krv_entry_t *entryp, void *arg);

/**
 * Visits the functions and variables (KRV_NAMED_*) whose DW_AT_name or DW_AT_linkage_name is @p name, in section order. Units
 * are walked for it, each once, and what was found is kept, in some 16 bytes a name.
 *
 * All units are walked, unless the file has an index that lists every function by both of its names: .debug_names
 * (KRV_SEC_EXT_NAMES) as LLVM's compilers and linkers write it. Then, for functions alone, only the units are that it
 * names, and those that it does not speak of. With KRV_NAMED_INDEXED other producers' .debug_names,
 * .gdb_index (KRV_SEC_EXT_GDB_INDEX), .debug_gnu_pubnames (KRV_SEC_EXT_GNU_PUBNAMES) and .debug_pubnames serve as well: of
 * the units that they speak of only those are walked that they name. What they leave out is then not visited: linkage names,
 * functions within functions, in .debug_pubnames what is static; and where nothing is found all units are walked.
 * Whatever an index lists is read in its unit. One that is damaged, or lists what is not there, is
 * noted and not used.
 *
 * Returns 0, @p fn's result, or -1: those of korva_entry_first; KRV_ERR_NOMEM. Units that cannot be read are noted.
 */
KORVA_API int korva_iter_named_entries(krv_handle_t *hp, const char *name, unsigned int flags, krv_iter_entry_f *fn,
                                       void *arg);

/**
 * The file of a number as entries of the unit give it (DW_AT_decl_file, DW_AT_call_file). Errors: KRV_ERR_NOTFOUND without
 * a message when the unit's file table has none of that number; those of korva_line_get_cu_lnph.
 */
KORVA_API int korva_cu_get_file(krv_handle_t *hp, krv_ctu_t *cup, uint64_t number, krv_lnfe_t **filep);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_ENTRIES_H */
