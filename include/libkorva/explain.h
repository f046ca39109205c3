/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: an extension, how an answer was come by, and what stands next to it. */
#ifndef LIBKORVA_EXPLAIN_H
#define LIBKORVA_EXPLAIN_H

#include "activations.h"
#include "entries.h"
#include "expressions.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Explanations
 * ------------------------------------------------------------------------------------------------------------ */

/*
 * Extension. Each of these asks what answers the question itself, and then tells what that went by. They are for people
 * who want to know why, one address at a time: they read again what the answer has read, and keep nothing of their own.
 * Records are plain values; cursors and units in them belong to the handle.
 */

/** What says that a unit covers an address. */
enum {
    KRV_WHY_NOTHING = 0, /**< no unit is known to */
    KRV_WHY_SET = 1,     /**< a tuple of a set of .debug_aranges */
    KRV_WHY_LIST = 2,    /**< DW_AT_ranges of the unit's first entry */
    KRV_WHY_BOUNDS = 3,  /**< its DW_AT_low_pc and DW_AT_high_pc */
    KRV_WHY_FUNCTION = 4 /**< what one of its functions covers: the unit itself does not say */
};

/** Which unit korva_lookup_ctu_by_addr gives, as korva_explain_unit stores it. */
typedef struct krv_unit_why {
    krv_ctu_t *unit;      /**< NULL: none */
    int reason;           /**< KRV_WHY_*; KRV_WHY_SET without a unit: that which the set names cannot be read */
    krv_secidx_t section; /**< that says so: KRV_SEC_ARANGES, KRV_SEC_EXT_RANGES or _RNGLISTS, KRV_SEC_INFO; else
                               KRV_SEC_NONE */
    uint64_t offset;      /**< in it: of the set, of the list, or of the entry that has the bounds */
    uint64_t tuple;       /**< of a set: offset of the tuple in .debug_aranges; else 0 */
    uint64_t named;       /**< of a set: offset in .debug_info of the unit that it names */
    uint64_t entry;       /**< offset in .debug_info of the entry whose ranges these are; 0 of a set */
    krv_range_t range;    /**< that covers the address; empty where nothing does */
    krv_ctu_t *before;    /**< without a unit: that which covers the nearest address below, or NULL */
    uint64_t before_end;  /**< where that ends: the first address behind it */
    krv_ctu_t *after;     /**< likewise, above */
    uint64_t after_start; /**< its first address */
} krv_unit_why_t;

/**
 * Tells which unit korva_lookup_ctu_by_addr gives for @p address with KRV_LOOKUP_F_NONE, and what named it; without one,
 * which units are nearest to it. Needs KRV_OPT_EXT_AS_WRITTEN.
 *
 * Returns 0, also when there is no unit. Errors: KRV_ERR_UNSUPPORTED without that option; KRV_ERR_INVALID for a NULL
 * argument; those of korva_lookup_ctu_by_addr that speak of all addresses; and, then with what was known until then in
 * *@p whyp, KRV_ERR_NOMEM and KRV_ERR_IO.
 */
KORVA_API int korva_explain_unit(krv_handle_t *hp, uint64_t address, krv_unit_why_t *whyp);

/** The row for an address with its neighbours, as korva_explain_row stores it. Addresses have the bias of
 * KRV_OPT_BASE_ADDR. */
typedef struct krv_row_why {
    uint64_t offset;      /**< of the line-number program in .debug_line */
    uint16_t version;     /**< of its header */
    uint8_t is_gap;       /**< 1: the address is in no sequence, and a row of a neighbour answers for it */
    uint8_t after_ends;   /**< 1: what follows the row is the end of its sequence */
    uint32_t sequences;   /**< of the program, as many as are used */
    uint32_t rows;        /**< of all of them */
    krv_range_t sequence; /**< which the row belongs to; empty without a row */
    krv_row_t before;     /**< the row before it in its sequence; number KRV_ROW_NONE: it is the first */
    krv_row_t row;        /**< that answers; number KRV_ROW_NONE: none does */
    krv_row_t after;      /**< the row behind it, which may be the end of the sequence */
    uint64_t before_end;  /**< without a row: where the nearest sequence below ends; 0: there is none */
    uint64_t after_start; /**< likewise: where the nearest one above begins; UINT64_MAX: there is none */
} krv_row_why_t;

/**
 * Tells which row korva_lookup_row finds, and what is next to it. Arguments are those of korva_lookup_row.
 *
 * Returns 0; or -1 with the errors of korva_lookup_row, and then *@p whyp has what was known until then: offset and
 * version are those of a header that could be read (version 0: it could not), and with KRV_ERR_NOTFOUND without a message
 * all but the rows.
 */
KORVA_API int korva_explain_row(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size, uint64_t addr,
                                krv_row_why_t *whyp);

/** Where the names of a function stand, as korva_explain_name stores it. */
typedef struct krv_name_why {
    uint64_t name_entry;          /**< offset of the entry that has DW_AT_name; 0: none has */
    uint64_t linkage_entry;       /**< likewise of DW_AT_linkage_name */
    uint8_t name_is_alternate;    /**< 1: it is an entry of the alternate file */
    uint8_t linkage_is_alternate; /**< likewise */
    uint16_t reserved;            /**< 0 */
    uint32_t steps;               /**< references that were followed: DW_AT_abstract_origin, DW_AT_specification */
    krv_entry_t path[4];          /**< the entries that they led to, the first few of them */
} krv_name_why_t;

/**
 * Tells in which entries the names of @p entryp were found that korva_lookup_calls and korva_entry_get_call give. What
 * cannot be read is not there. Errors: KRV_ERR_INVALID for a NULL argument; KRV_ERR_NOMEM.
 */
KORVA_API int korva_explain_name(krv_handle_t *hp, const krv_entry_t *entryp, krv_name_why_t *whyp);

/** How a register of the caller, or the CFA, is found (DWARF 4, 6.4.1). */
enum {
    KRV_RULE_UNDEFINED = 0,  /**< it has no value */
    KRV_RULE_SAME_VALUE = 1, /**< that of the current frame */
    KRV_RULE_OFFSET = 2,     /**< saved at CFA + offset */
    KRV_RULE_VAL_OFFSET = 3, /**< is CFA + offset */
    KRV_RULE_REGISTER = 4,   /**< is in register base of the current frame */
    KRV_RULE_EXPRESSION = 5, /**< saved at the address that the expression computes; of the CFA: is what it computes */
    KRV_RULE_VAL_EXPRESSION = 6, /**< is what the expression computes */
    KRV_RULE_REG_OFFSET = 7      /**< the CFA alone: register base + offset */
};

/** One rule. */
typedef struct krv_rule_record {
    uint32_t reg;          /**< DWARF register number; KRV_RULE_CFA: the CFA */
    uint32_t kind;         /**< KRV_RULE_* */
    const char *name;      /**< of the register by its psABI, as "rbp"; "CFA"; never NULL; not to be freed */
    const char *base_name; /**< likewise of base; NULL where the rule has none */
    uint32_t base;         /**< DWARF register number, of KRV_RULE_REGISTER and KRV_RULE_REG_OFFSET; else 0 */
    uint32_t is_default;   /**< 1: no instruction speaks of it, it is what the target does with the register */
    int64_t offset;        /**< by the kind; else 0 */
    krv_fd_t expression;   /**< by the kind: a cursor on its bytes, limited to them */
} krv_rule_record_t;

/** krv_rule_record_t.reg of the CFA. */
#define KRV_RULE_CFA UINT32_MAX

/** What call-frame information says of a program counter, as korva_explain_frame stores it. */
typedef struct krv_frame_why {
    krv_secidx_t section; /**< which is searched: KRV_SEC_FRAME, KRV_SEC_EH_FRAME; KRV_SEC_NONE: the handle has none */
    uint8_t by_table;     /**< 1: found by the search table of .eh_frame_hdr; 0: in a table of all records */
    uint8_t is_signal;    /**< 1: the trampoline to which a signal handler returns */
    uint8_t version;      /**< of the CIE */
    uint8_t has_fde;      /**< 1: the fields below are filled */
    uint64_t table_entries;  /**< of whichever table it was */
    uint64_t fde;            /**< offset of the FDE in the section */
    uint64_t cie;            /**< offset of its CIE */
    krv_range_t range;       /**< what the FDE covers */
    krv_range_t row;         /**< what the row of rules covers; its end is 0 where instructions behind cannot be read */
    char augmentation[16];   /**< augmentation string of the CIE, terminated */
    uint64_t code_alignment; /**< factors of the CIE */
    int64_t data_alignment;  /**< likewise */
    uint64_t return_register; /**< DWARF register number of the return address */
    uint64_t near_start; /**< without an FDE that covers it: first address of the one that begins below; 0: not known */
    uint64_t near_end;   /**< likewise: first address behind it */
} krv_frame_why_t;

/**
 * Tells how the caller of a frame at program counter @p pc is found: by which records, and by which rules. Stores at most
 * @p room rules, the CFA's first and then ascending by register those that give a value or were set, and in *@p countp how
 * many there are. Registers are not needed, nor is the target's memory, but for .eh_frame. Rules that a handle keeps
 * (KRV_OPT_EXT_CONSTANT_FRAMES) came from the same records, which are read anew here.
 *
 * Returns 0; or -1 with what korva_activation_unwind says when it has no rules: KRV_ERR_NOTFOUND, those of reading
 * records and of call-frame instructions. *@p whyp then has what was known until then.
 */
KORVA_API int korva_explain_frame(krv_handle_t *hp, uint64_t pc, krv_frame_why_t *whyp, krv_rule_record_t *rules,
                                  size_t room, size_t *countp);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_EXPLAIN_H */
