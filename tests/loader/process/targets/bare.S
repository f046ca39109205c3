/* SPDX-License-Identifier: Apache-2.0 */
/* A process without a library, in whose stack of two frames little can be told: cheap to look at thousands of times. */
        .text
        .globl _start
        .type _start, @function
        .type stay, @function
stay:
        .cfi_startproc
        movl $1, %edi
        leaq ready(%rip), %rsi
        movl $6, %edx
        movl $1, %eax /* write */
        syscall
again:
        movl $34, %eax /* pause */
        syscall
        jmp again
        .cfi_endproc

_start:
        .cfi_startproc
        .cfi_undefined %rip
        call stay
        hlt
        .cfi_endproc
ready:
        .ascii "ready\n"
        .section .note.GNU-stack, "", @progbits
