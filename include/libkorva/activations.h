/* SPDX-License-Identifier: Apache-2.0 */
/* Part of libkorva.h: a stack frame, its registers, its caller and its arguments. */
#ifndef LIBKORVA_ACTIVATIONS_H
#define LIBKORVA_ACTIVATIONS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

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
 * register plus offset, fail with messages and KRV_ERR_NONE. KRV_ERR_EVAL: among others, the expressions of the frame
 * execute more than a million instructions together (korva_activation_set_budget).
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

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_ACTIVATIONS_H */
