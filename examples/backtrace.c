/* SPDX-License-Identifier: Apache-2.0 */
/* backtrace: prints the calls on its own stack, the innermost first, also those that were inlined. */
#include <inttypes.h>
#include <libkorva-proc.h>
#include <stdio.h>

static void print_call(uint32_t frame, const krv_call_t *call, const char *file, uint32_t line)
{
    printf("#%" PRIu32 " %s at %s:%" PRIu32 "%s\n", frame, call->name != NULL ? call->name : "??",
           file != NULL ? file : "??", line, call->is_inlined ? " (inlined)" : "");
}

/* The file that a call stands in: in the table of the unit that the call was inlined in. */
static const char *file_of_call(krv_handle_t *hp, const krv_call_t *inlined)
{
    krv_lnfe_t *file = NULL;
    char *path = NULL;
    if (inlined->call_unit != NULL && korva_cu_get_file(hp, inlined->call_unit, inlined->call_file, &file) == 0)
        korva_get_fields(hp, KRV_STRUCT_LNFE, file, 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path);
    return path;
}

static int visit(krv_proc_t *proc, const krv_proc_frame_t *frame, void *arg)
{
    krv_elf_t *elf = frame->module == NULL ? NULL : korva_proc_module_elf(proc, frame->module, NULL);
    (void)arg;
    if (elf == NULL) {
        printf("#%" PRIu32 " ??\n", frame->index);
        return 0;
    }
    krv_handle_t *hp = korva_elf_get_handle(elf);
    uint64_t address = frame->lookup_pc - frame->module->bias; /* as the file knows it */
    krv_elf_source_t source;
    krv_call_t calls[16];
    size_t count = 0;
    korva_elf_lookup_source(elf, address, &source, NULL); /* fills in what is known */
    if (korva_lookup_calls(hp, address, calls, 16, &count) != 0) {
        printf("#%" PRIu32 " %s\n", frame->index, source.function[0] != '\0' ? source.function : "??");
        return 0;
    }
    const char *file = source.file[0] != '\0' ? source.file : NULL;
    uint32_t line = source.line;
    for (size_t i = 0; i < count && i < 16; ++i) {
        print_call(frame->index, &calls[i], file, line);
        if (calls[i].is_inlined) { /* into the next one, at: */
            file = file_of_call(hp, &calls[i]);
            line = calls[i].call_line;
        }
    }
    return 0;
}

/* The compiler puts inner into outer: there is one frame for both. */
__attribute__((always_inline)) static inline int inner(void)
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
