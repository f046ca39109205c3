/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * Processes for libkorva: live ones, core files, and the calling process itself.
 *
 * Part of libkorva-elf. A krv_proc_t answers for one process: its memory, the modules loaded into it, its threads and
 * their registers, and, on top of them, the frames of a thread's stack:
 *
 *     krv_proc_t *proc = korva_proc_attach(pid, &error);         or korva_proc_open_core, _watch, _self
 *     korva_proc_iter_threads(proc, ...);
 *     korva_proc_walk(proc, tid, 0, visit_frame, arg, &end);     for each of them
 *     korva_proc_close(proc);                                    and the process runs on
 *
 * Conventions
 *
 *  1. Errors. A function that can fail for a reason worth telling takes a krv_elf_error_t *, which may be NULL and is
 *     written on failure only. A walk tells why it ended in its krv_proc_end_t.
 *  2. Ownership. A krv_proc_t owns its modules, threads, their names, handles and opened files: all of them live
 *     until korva_proc_close, also a module that the calling process has unloaded since. Free none of them.
 *  3. Addresses are those of the process's memory, not of its files. Subtract a module's bias to get the address
 *     that the file, its symbols and its debugging information know.
 *  4. Threads. A krv_proc_t serves one thread at a time. The system ties a live process to the thread that attached
 *     to it: use korva_proc_get_regs, korva_proc_walk and korva_proc_close of a live process in that thread.
 *  5. Signals and children. A live process is held through ptrace. The caller must not collect its stops: no
 *     waitpid(-1, ...) between korva_proc_attach and korva_proc_close in any thread. When the caller dies, of
 *     whatever signal, the system lets the process go and it runs on; no handler is needed for that, none is
 *     installed.
 *  6. Call-backs return 0 to continue; any other value stops the walk and is what it returns. A call-back may use
 *     the krv_proc_t, also for another walk; it must not close it, throw, or jump out.
 */
#ifndef LIBKORVA_PROC_H
#define LIBKORVA_PROC_H

#include "libkorva-elf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------------------
 * Processes
 * ------------------------------------------------------------------------------------------------------------ */

/** A process under inspection. */
typedef struct krv_proc krv_proc_t;

/** What a krv_proc_t looks at. */
enum {
    KRV_PROC_LIVE = 1, /**< another process, stopped while it is attached, or running while it is watched */
    KRV_PROC_CORE = 2, /**< a core file */
    KRV_PROC_SELF = 3  /**< the calling process, which runs on meanwhile */
};

/** Facts about a process, as korva_proc_get_info stores them. */
typedef struct krv_proc_info {
    int kind;                     /**< KRV_PROC_LIVE, _CORE or _SELF */
    int pid;                      /**< process id; of a core file as recorded there, 0 when it is not */
    int signal;                   /**< core file: signal of its first thread, the one that ended the process; else 0 */
    krv_activation_type_t target; /**< instruction set of the main executable */
    const char *exe;              /**< path of the main executable, or NULL when it is not known */
} krv_proc_info_t;

/**
 * Stops every thread of process @p pid, those included that are created meanwhile, and attaches to it; a main thread
 * that has ended before the others is not among them. Nothing in
 * the process is changed: no signal is sent, and system calls that it sleeps in go on afterwards, as far as the
 * system restarts them (see signal(7) on "Interruption of system calls by stop signals"). A thread in
 * uninterruptible sleep (state D, such as a parent waiting in vfork) cannot be stopped: it is listed, and has no
 * registers.
 *
 * Returns NULL on failure: KRV_ELF_ERR_NOTFOUND (no such process), KRV_ELF_ERR_SYSTEM (no permission, or another
 * program traces it), KRV_ELF_ERR_UNSUPPORTED (an x32 program).
 */
KORVA_API krv_proc_t *korva_proc_attach(int pid, krv_elf_error_t *errorp);

/**
 * Opens core file @p core. Memory that the core file leaves out is taken from the files that the process had mapped
 * there, by the paths that the core file records; @p exe, which may be NULL, is where the main executable is found
 * instead of its recorded path. A file whose build-id is another than the process had is not used.
 *
 * A core file that was cut short is opened with what is there. Returns NULL on failure: KRV_ELF_ERR_SYSTEM,
 * KRV_ELF_ERR_FORMAT (not a core file, no thread in it, damaged), KRV_ELF_ERR_UNSUPPORTED (another machine).
 */
KORVA_API krv_proc_t *korva_proc_open_core(const char *core, const char *exe, krv_elf_error_t *errorp);

/**
 * The same, looking for the files of the process as @p search says, which may be NULL; @p flags is KRV_ELF_F_*. A file that is
 * not at its path, or is another one there, is looked for by the build-id that was dumped: when its bytes or its symbols are first
 * needed.
 */
KORVA_API krv_proc_t *korva_proc_open_core_search(const char *core, const char *exe, unsigned int flags,
                                                  const krv_elf_search_t *search, krv_elf_error_t *errorp);

/**
 * Looks at process @p pid while it runs: nothing is stopped, there is no attachment, and any thread may use it. Modules and
 * threads are those of the moment, or of the last korva_proc_refresh, which finds another program too, that the process
 * executes since; memory is read as it is. There are no registers and no walks: for a sampler that has registers and
 * stack by other ways, and needs modules, their handles and files.
 *
 * korva_proc_release opens the files of modules whose handle was asked for, where only the process leads to them, as to one
 * that was removed: call it while the process lives, and they can be asked for afterwards.
 *
 * Returns NULL on failure: KRV_ELF_ERR_NOTFOUND (no such process, it has ended, or its mappings are not for the caller),
 * KRV_ELF_ERR_UNSUPPORTED (an x32 program, or its executable cannot be opened).
 */
KORVA_API krv_proc_t *korva_proc_watch(int pid, krv_elf_error_t *errorp);

/** Looks at the calling process. Nothing is stopped; only the calling thread's own stack can be walked. */
KORVA_API krv_proc_t *korva_proc_self(krv_elf_error_t *errorp);

/**
 * Ends the inspection. A live process is left as it was found: what ran runs on, what was stopped stays stopped, and
 * a signal that was about to be delivered is. NULL is ignored.
 */
KORVA_API void korva_proc_close(krv_proc_t *proc);

/**
 * Lets a live process run on before @p proc is closed: ask for what has to be asked of a process that stands still, let
 * it go, and work with what was learnt. Modules, threads and their records stay, and the files of modules that a walk
 * was in can still be opened. Registers and walks are no longer to be had; memory is read as it is then. Call it in the
 * thread that attached. Of a core file and of the calling process there is nothing to let go.
 */
KORVA_API void korva_proc_release(krv_proc_t *proc);

/**
 * Looks at the modules and threads of the calling process, or of one that is watched, again; later questions see libraries
 * loaded since. For a process that was attached to and for a core file there is nothing to do. Returns 0, or -1, as when
 * the process has ended: then what was known stays.
 */
KORVA_API int korva_proc_refresh(krv_proc_t *proc, krv_elf_error_t *errorp);

/** Visitor of korva_proc_iter_notes; non-zero stops the walk and is returned. */
typedef int krv_proc_note_f(krv_proc_t *proc, const char *text, void *arg);

/**
 * Visits what is missing or odd on the whole, a line each: a core file that was cut short, with its size and that which
 * it should have; a core file whose modules claim more than it and its files hold (each byte may be claimed about four
 * times; modules above are not listed, or their call-frame information is not read); a main thread that has ended.
 * Returns 0 or the visitor's non-zero result.
 */
KORVA_API int korva_proc_iter_notes(krv_proc_t *proc, krv_proc_note_f *func, void *arg);

/** What the process is. */
KORVA_API void korva_proc_get_info(krv_proc_t *proc, krv_proc_info_t *infop);

/* ------------------------------------------------------------------------------------------------------------
 * Memory
 * ------------------------------------------------------------------------------------------------------------ */

/**
 * Reads memory of the process: a krv_fd_cb_f whose argument is the krv_proc_t, for korva_attach_as.
 *
 * Returns @p count, or -1 when any of the bytes cannot be read; there are no short reads. Memory of a live process and
 * of a core file is kept in pages, so that many small reads are cheap.
 */
KORVA_API int64_t korva_proc_read(void *proc, void *buf, size_t count, uint64_t address);

/* ------------------------------------------------------------------------------------------------------------
 * Modules
 * ------------------------------------------------------------------------------------------------------------ */

/** Flags of a module. */
enum {
    KRV_PROC_MODULE_F_MAIN = 0x1,    /**< the main executable */
    KRV_PROC_MODULE_F_VDSO = 0x2,    /**< the kernel's own, which is in no file */
    KRV_PROC_MODULE_F_DELETED = 0x4, /**< its file has been removed or replaced since it was loaded */
    KRV_PROC_MODULE_F_MISMATCH = 0x8 /**< core file: the file found has another build-id and is not used */
};

/** An ELF object in the process's memory. */
typedef struct krv_proc_module {
    const char *path;             /**< as the process knows it; "[vdso]"; "" when a core file names no file for it */
    uint64_t start;               /**< it covers the addresses from here, but for what is mapped of other files there */
    uint64_t end;                 /**< up to here, exclusive: as far as its program headers say, and no file after it */
    uint64_t bias;                /**< address in memory minus address in the file */
    uint64_t eh_frame_hdr;        /**< where .eh_frame_hdr is in memory; 0 when there is none */
    uint64_t eh_frame;            /**< where .eh_frame is in memory, as .eh_frame_hdr says; 0 when it does not */
    const uint8_t *build_id;      /**< contents of the build-id note in memory, or NULL */
    size_t build_id_size;         /**< its bytes */
    krv_activation_type_t target; /**< its instruction set */
    unsigned int flags;           /**< KRV_PROC_MODULE_F_* */
} krv_proc_module_t;

/** Visitor of korva_proc_iter_modules. */
typedef int krv_proc_module_f(krv_proc_t *proc, const krv_proc_module_t *module, void *arg);

/** Visits the modules, ascending by address. Returns 0, the visitor's non-zero result, or -1 when memory ran out. */
KORVA_API int korva_proc_iter_modules(krv_proc_t *proc, krv_proc_module_f *func, void *arg);

/** The module that covers @p address, or NULL. */
KORVA_API const krv_proc_module_t *korva_proc_find_module(krv_proc_t *proc, uint64_t address);

/**
 * How the files of modules are opened from now on: @p flags and the @p count folders of @p dirs are those of
 * korva_elf_open_with_debug_dirs. Returns 0, or -1 when memory ran out.
 */
KORVA_API int korva_proc_set_files(krv_proc_t *proc, unsigned int flags, const char *const *dirs, size_t count,
                                   krv_elf_error_t *errorp);

/**
 * The same by @p search, which may be NULL; see krv_elf_search_t. Its sysroot concerns a live process; of a core file it is
 * given to korva_proc_open_core_search. While a live process is stopped no server is asked: let it go first.
 */
KORVA_API int korva_proc_set_search(krv_proc_t *proc, unsigned int flags, const krv_elf_search_t *search,
                                    krv_elf_error_t *errorp);

/**
 * Stores where in the file of its module the byte at @p address is. Returns 0, or -1 when it is in no module or in no
 * file.
 */
KORVA_API int korva_proc_file_offset(krv_proc_t *proc, uint64_t address, uint64_t *offsetp);

/**
 * The module's file, opened on first use, for its symbols and line numbers; the vDSO is read from memory. The file
 * of a live process is the one that is mapped, also when its path leads to another one by now, as far as the caller
 * may open it; of a process with another root, as in a container, it and its debug files are looked for below that root. Where
 * the file is not to be had, one with the module's build-id takes its place, if need be a debug file.
 *
 * Returns NULL on failure (those of korva_elf_open; KRV_ELF_ERR_NOTFOUND when the file is gone or is another one).
 */
KORVA_API krv_elf_t *korva_proc_module_elf(krv_proc_t *proc, const krv_proc_module_t *module, krv_elf_error_t *errorp);

/**
 * The handle that walks use for the module's frames: address space and addresses of .eh_frame_hdr and .eh_frame are
 * those of the process. It reads call-frame information in corrected form: personality pointers that are indirect,
 * and the augmentation letter of signal frames, are hidden from it.
 *
 * A walk also uses the handle of korva_proc_module_elf, whose .debug_frame knows the file's addresses, where this one
 * finds nothing. Returns NULL when memory ran out.
 */
KORVA_API krv_handle_t *korva_proc_module_handle(krv_proc_t *proc, const krv_proc_module_t *module,
                                                 krv_elf_error_t *errorp);

/* ------------------------------------------------------------------------------------------------------------
 * Threads
 * ------------------------------------------------------------------------------------------------------------ */

/** A thread. */
typedef struct krv_proc_thread {
    int tid;                      /**< thread id; the main thread's is the process id */
    const char *name;             /**< its name; in a core file that of the process */
    krv_activation_type_t target; /**< instruction set that it runs; 0 for a thread that could not be stopped */
} krv_proc_thread_t;

/** Visitor of korva_proc_iter_threads. */
typedef int krv_proc_thread_f(krv_proc_t *proc, const krv_proc_thread_t *thread, void *arg);

/** Visits the threads: in a core file its own order, the failing one first. Returns 0 or the visitor's result. */
KORVA_API int korva_proc_iter_threads(krv_proc_t *proc, krv_proc_thread_f *func, void *arg);

/**
 * What a thread did before it was stopped: the letter of its state, such as 'R' for running, 'S' for sleeping, 'D' for
 * uninterruptible sleep and 'T' for stopped (proc(5) has them all). 0 when it is not known, as in a core file.
 */
KORVA_API int korva_proc_thread_state(krv_proc_t *proc, int tid);

/**
 * Stores the registers of a stopped thread as korva_activation_set_regs takes them: general registers, the mask of
 * those that have a value, and the floating-point registers, for which @p fpregs may be NULL. The program counter is
 * element KRV_HOST_RIP.
 *
 * Returns 1 when @p fpregs was filled, 0 when there are no floating-point registers, -1 on failure:
 * KRV_ELF_ERR_NOTFOUND (no such thread, or KRV_PROC_SELF), KRV_ELF_ERR_SYSTEM.
 */
KORVA_API int korva_proc_get_regs(krv_proc_t *proc, int tid, krv_gregset_t *gregsp, uint64_t *maskp,
                                  krv_fpregset_t *fpregsp, krv_elf_error_t *errorp);

/* ------------------------------------------------------------------------------------------------------------
 * Frames
 * ------------------------------------------------------------------------------------------------------------ */

/** One frame of a stack. Valid during the call of the visitor. */
typedef struct krv_proc_frame {
    unsigned int index;  /**< 0 for the topmost, the one that runs */
    uint64_t pc;         /**< program counter; but for the topmost and interrupted frames a return address */
    uint64_t lookup_pc;  /**< an address inside the instruction that the frame is in: use it for functions and lines */
    uint64_t cfa;        /**< canonical frame address; 0 when it could not be computed */
    int is_signal_frame; /**< 1: this is the trampoline of a signal handler, its caller was interrupted */
    const krv_proc_module_t *module; /**< that covers lookup_pc, or NULL */
    krv_handle_t *handle;            /**< of the activation, or NULL with it */
    /**
     * Registers of the frame, and through KRV_ACTIVATION_FRAME_CALLER those of its caller. Read them, not its
     * KRV_REG_PC: that is the address under which the frame's call-frame information was looked up. Do not change or
     * unwind it. NULL when no module covers lookup_pc.
     */
    krv_activation_t *activation;
} krv_proc_frame_t;

/**
 * What the call-frame information of each module may cost a walk from now on: @p bound is KRV_OPT_EXT_MAX_STEPS, _MAX_BYTES,
 * _MAX_ROWS or _TIMEOUT, @p most its value, 0 for no bound, as korva_handle_set_opt has them; the time is that of the whole
 * walk. What would exceed one ends the walk with KRV_PROC_END_ERROR and code KRV_ERR_EXT_LIMIT; the next walk begins anew.
 * Returns 0, or -1 with KRV_ELF_ERR_UNSUPPORTED for another option.
 */
KORVA_API int korva_proc_set_bound(krv_proc_t *proc, krv_opt_idx_t bound, uint64_t most, krv_elf_error_t *errorp);

/** Visitor of korva_proc_walk. */
typedef int krv_proc_frame_f(krv_proc_t *proc, const krv_proc_frame_t *frame, void *arg);

/** Why a walk ended. */
enum {
    KRV_PROC_END_OUTERMOST = 1,   /**< the last frame has no caller: its return address is undefined, or 0 */
    KRV_PROC_END_NO_FDE = 2,      /**< nothing describes how to leave the function of the last frame */
    KRV_PROC_END_NO_PROGRESS = 3, /**< the stack leads back to a frame that was already visited */
    KRV_PROC_END_LIMIT = 4,       /**< max_frames */
    KRV_PROC_END_STOPPED = 5,     /**< the visitor's wish */
    KRV_PROC_END_ERROR = 6        /**< something failed */
};

/** How a walk ended, as korva_proc_walk stores it. */
typedef struct krv_proc_end {
    int reason;          /**< KRV_PROC_END_* */
    int code;            /**< KRV_PROC_END_NO_FDE and _ERROR: the library's code, KRV_ERR_*, or KRV_ERR_NONE */
    unsigned int frames; /**< visited */
    uint64_t pc;         /**< program counter of the last of them */
    char message[1024];  /**< one line: the reason in words, with the library's messages, cause first */
} krv_proc_end_t;

/**
 * Visits the frames of thread @p tid from the topmost outwards, at most @p max_frames of them (0: 4096).
 *
 * A frame's call-frame information is looked up one byte before its return address, since a call may be the last
 * instruction of its function; that of the topmost frame, of a frame that a signal interrupted, and of a signal
 * trampoline at its own program counter. Floating-point registers are known in the topmost frame only.
 *
 * The topmost frame, or one that a signal interrupted, may be in no module: a call through a null pointer is the
 * commonest case. Its caller is then the address at the top of the stack, where that is in the code of a module, and
 * the end's message says that this was assumed.
 *
 * The expressions of call-frame information execute at most a million instructions in a walk, and a thousand more for
 * each of its frames; a frame that needs more ends it with KRV_PROC_END_ERROR.
 *
 * For KRV_PROC_SELF @p tid is 0 or the calling thread; the first frame is then the caller of this function.
 *
 * Returns 0, the visitor's non-zero result, or -1 with reason KRV_PROC_END_ERROR, of a walk that could not begin as
 * well. @p endp may be NULL.
 */
KORVA_API int korva_proc_walk(krv_proc_t *proc, int tid, unsigned int max_frames, krv_proc_frame_f *func, void *arg,
                              krv_proc_end_t *endp);

/**
 * As korva_proc_walk for KRV_PROC_SELF, from the registers of a ucontext_t: the third argument of a signal handler that
 * was installed with SA_SIGINFO, or what getcontext stored. The stack described must still be there. Not
 * async-signal-safe: in a handler only for programs that end then, or whose interrupted code is known.
 */
KORVA_API int korva_proc_walk_context(krv_proc_t *proc, const void *ucontext, unsigned int max_frames,
                                      krv_proc_frame_f *func, void *arg, krv_proc_end_t *endp);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_PROC_H */
