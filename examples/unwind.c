/* SPDX-License-Identifier: Apache-2.0 */
/* unwind: prints the functions on its own stack, the innermost first. */
#include <libkorva-proc.h>
#include <stdio.h>

static int visit(krv_proc_t *proc, const krv_proc_frame_t *frame, void *arg)
{
    const krv_elf_symbol_t *function = NULL;
    (void)arg;
    if (frame->module != NULL) {
        krv_elf_t *elf = korva_proc_module_elf(proc, frame->module, NULL);
        if (elf != NULL) /* the file knows addresses without the bias */
            function = korva_elf_lookup_symbol(elf, frame->lookup_pc - frame->module->bias);
    }
    printf("#%u %s\n", frame->index, function != NULL ? function->name : "??");
    return 0;
}

/* Kept out of line, so that there is something to unwind. */
__attribute__((noinline)) static int inner(void)
{
    krv_elf_error_t error;
    krv_proc_t *proc = korva_proc_self(&error);
    if (proc == NULL) {
        fprintf(stderr, "%s\n", error.message);
        return 1;
    }
    krv_proc_end_t end;
    int rc = korva_proc_walk(proc, 0, 0, visit, NULL, &end);
    printf("%u frames: %s\n", end.frames, end.message);
    korva_proc_close(proc);
    return rc != 0;
}

__attribute__((noinline)) static int outer(void)
{
    int rc = inner();
    return rc * 2; /* not a tail call */
}

int main(void)
{
    return outer();
}
