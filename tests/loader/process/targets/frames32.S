/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Four functions of 32-bit code, never run: the tests write the stack that they would have. `middle` keeps its frame
 * address in %ebp, which the two below do not touch and do not speak of either.
 */
        .text
        .globl _start, deepest, in_deepest, in_leaf, in_middle, in_start
        .type in_deepest, @function
        .type in_leaf, @function
        .type in_middle, @function
        .type in_start, @function
        .type _start, @function
deepest:
        .cfi_startproc
        nop
in_deepest:
        ret
        .cfi_endproc

leaf:
        .cfi_startproc
        subl $12, %esp
        .cfi_def_cfa_offset 16
        call deepest
in_leaf:
        addl $12, %esp
        .cfi_def_cfa_offset 4
        ret
        .cfi_endproc

middle:
        .cfi_startproc
        pushl %ebp
        .cfi_def_cfa_offset 8
        .cfi_offset %ebp, -8
        movl %esp, %ebp
        .cfi_def_cfa_register %ebp
        subl $24, %esp
        call leaf
in_middle:
        leave
        .cfi_def_cfa %esp, 4
        ret
        .cfi_endproc

_start:
        .cfi_startproc
        .cfi_undefined %eip
        call middle
in_start:
        hlt
        .cfi_endproc
        .section .note.GNU-stack, "", @progbits
