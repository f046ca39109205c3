/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: an extension, the return addresses of a whole stack in one call. */
#ifndef LIBKORVA_STACKS_H
#define LIBKORVA_STACKS_H

#include "activations.h"
#include "cursors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Stacks
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Extension: reads all call-frame information of a handle with KRV_OPT_EXT_CONSTANT_FRAMES, and keeps a table of the rules of
 * all its code. Rules come from this table from then on: of every record of the section, whatever .eh_frame_hdr says. It
 * has 16 to 24 bytes a function and 4 for each row of unwind rules, which functions with the same instructions share, and the cache of
 * KRV_OPT_EXT_FRAME_CACHE; both are the handle's. The second call finds it there.
 *
 * What lies 4 GiB or more behind the first function, what is damaged, and what no table of rules can say, is not in it:
 * activations ask the records for that, as without it.
 *
 * Errors, and then there is no table: KRV_ERR_INVALID without that option; KRV_ERR_NOTFOUND when there are no records;
 * KRV_ERR_NOMEM; KRV_ERR_IO when a read fails.
 */
KORVA_API int korva_frames_prefill(krv_handle_t *hp);

/** Extension: a module of a stack's code. */
typedef struct krv_stack_module {
    krv_handle_t *handle; /**< prefilled; of the same target as all others */
    uint64_t bias;        /**< what its addresses lack: 0 for .eh_frame in memory, the load bias for .debug_frame */
} krv_stack_module_t;

/** Extension: where a walk begins and what it reads, for korva_stack_addresses. */
typedef struct krv_stack {
    const krv_stack_module_t *modules; /**< in any order; those with the most frames are best first */
    size_t nmodules;
    krv_gregset_t gregs; /**< registers of the innermost frame, KRV_HOST_RIP the place where it was interrupted */
    uint64_t mask;       /**< bit n: gregs[n] has a value */
    krv_fd_cb_f *read;   /**< delivers the target's memory; NULL: it is the memory of the calling process */
    void *arg;           /**< its first argument */
    uint64_t low, high;  /**< of the stack: without @p read, only [low, high) is read, which must be readable */
} krv_stack_t;

/** Why a walk ended. */
enum {
    KRV_STACK_END = 1,         /**< at the outermost frame: it has no return address, or 0 */
    KRV_STACK_NO_RULE = 2,     /**< no table has a rule for the program counter */
    KRV_STACK_MEMORY = 3,      /**< memory could not be read, or lies outside the stack */
    KRV_STACK_REGISTER = 4,    /**< the rule needs a register whose value is not known */
    KRV_STACK_NO_PROGRESS = 5, /**< a frame that is its own caller */
    KRV_STACK_LIMIT = 6        /**< there was no more room for addresses */
};

/** Extension: where a walk ended, as korva_stack_addresses stores it. */
typedef struct krv_stack_end {
    int reason;  /**< KRV_STACK_* */
    uint64_t pc; /**< program counter of the last frame: the last address that was stored, or would have been */
} krv_stack_end_t;

/**
 * Extension: stores the program counters of the frames of a stack, the innermost first, at most @p room of them, and
 * returns their number. Of frames that called, that is the return address; their rules are those of the call, one byte
 * before. *@p endp, unless it is NULL, tells why there are no more. Error states of handles are not touched.
 *
 * Async-signal-safe, and for any number of threads at a time, as long as nobody changes or frees the handles: it takes no
 * memory and no lock, calls nothing but @p read, and ends after @p room frames. It uses less than 2 KiB of stack itself.
 * A read that fails ends the walk.
 *
 * Registers that calls preserve keep their value where no instruction speaks of them, on 32-bit x86 too. Of expressions
 * those are known that compilers and linkers write: of PLT entries, realigned stacks and the frames of signal handlers.
 * For others there is no rule here, and an activation unwinds them.
 */
KORVA_API size_t korva_stack_addresses(const krv_stack_t *stack, uint64_t *addresses, size_t room,
                                       krv_stack_end_t *endp);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_STACKS_H */
