/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * libkorva-elf: turns ELF files into libkorva handles.
 *
 * Where libkorva reads bytes and is strict, this loader opens files and is generous: it finds machine and target,
 * maps the file, inflates what is compressed, has libkorva read what compilers and linkers really write, by its
 * extensions, and says clearly what is not read.
 *
 * Conventions
 *
 *  1. Errors. A function that can fail for a reason worth telling takes a krv_elf_error_t *, which may be NULL. It is
 *     written on failure only and holds one line of text that names the file and says what and where.
 *  2. Ownership. A krv_elf_t owns its mapping, its handle and its symbols; everything handed out lives until
 *     korva_elf_close. The handle must not be freed by the client.
 *  3. Addresses are those of the file (link-time addresses), never biased by where it is loaded.
 *  4. Threads. A krv_elf_t serves one thread at a time; different ones are independent.
 *  5. Files are mapped, not read: nothing may write to a file while it is open here. One that is replaced by renaming, as
 *     linkers and package managers do, stays what it was. One that becomes shorter makes the system send SIGBUS to who
 *     reads what is no longer there, which ends a program that does not handle it; with korva_elf_handle_bus_error it
 *     goes on. Descriptors are closed at once, but for 16 files of a process at most, of those with much debugging
 *     information, while half of what the process may open is left, and without KRV_ELF_F_NO_DESCRIPTOR; what stands far
 *     apart in these is read by pread. They are closed with the file, and on exec. One that the client closes is not used again, nor
 *     closed, even where another file has its number.
 */
#ifndef LIBKORVA_ELF_H
#define LIBKORVA_ELF_H

#include "libkorva.h"

#ifdef __cplusplus
extern "C" {
#endif

/** An opened ELF file with its libkorva handle. */
typedef struct krv_elf krv_elf_t;

/** Why a loader function failed. */
typedef struct krv_elf_error {
    int code;          /**< KRV_ELF_ERR_* */
    char message[512]; /**< one line, without a newline; always terminated */
} krv_elf_error_t;

enum {
    KRV_ELF_ERR_NONE = 0,
    KRV_ELF_ERR_SYSTEM = 1,      /**< an operating-system call failed (no such file, permission, ...) */
    KRV_ELF_ERR_FORMAT = 2,      /**< not an ELF file, or a damaged one */
    KRV_ELF_ERR_UNSUPPORTED = 3, /**< an ELF file of a machine, class or byte order that libkorva does not read */
    KRV_ELF_ERR_NOMEM = 4,       /**< memory ran out */
    KRV_ELF_ERR_NOTFOUND = 5,    /**< what was asked for is not there */
    KRV_ELF_ERR_LIMIT = 6        /**< a limit of the loader that a flag lifts: the message says which */
};

/** Flags of korva_elf_open. */
enum {
    KRV_ELF_F_NONE = 0,
    /** attach every section as it stands in the file (inflated where compressed), for the strict reader of DWARF 2 to 4; look for no other file */
    KRV_ELF_F_RAW = 1,
    /** take a file however much its compressed sections inflate to */
    KRV_ELF_F_INFLATE_ANY = 2,
    /**
     * ask the servers that DEBUGINFOD_URLS in the environment names for what is not found here: krv_elf_search_t tells more.
     * Without it nothing is ever asked of a network.
     */
    KRV_ELF_F_DEBUGINFOD = 4,
    /** keep no descriptor of the file: once it is open, nothing is asked of the system but memory */
    KRV_ELF_F_NO_DESCRIPTOR = 8
};

/** What a server is doing, as krv_elf_fetch_f sees it. Valid during the call. */
typedef struct krv_elf_fetch {
    const char *url;   /**< of the file that is asked for */
    uint64_t received; /**< bytes, so far */
    uint64_t size;     /**< of all of them; 0 when it is not known */
    int is_over;       /**< 1: this is the last call for the file, whatever came of it */
    const char *error; /**< then, why the server could not be asked, did not answer, or is not asked again; else "" */
} krv_elf_fetch_t;

/**
 * Called about once a second, and at the beginning, while a server is asked, in the thread that waits for it. Non-zero
 * ends it: the file counts as not found. It must not open or find files.
 */
typedef int krv_elf_fetch_f(const krv_elf_fetch_t *fetch, void *arg);

/**
 * Where files are looked for that a client does not name itself: separate debug files, alternate files, files of processes and
 * core files. All zeros say nothing.
 *
 * By build-id a file is looked for in folders (.build-id/ab/cdef.debug, an executable as .build-id/ab/cdef) and in the cache of
 * the debuginfod clients, which is only read: $DEBUGINFOD_CACHE_PATH, else $XDG_CACHE_HOME/debuginfod_client or
 * ~/.cache/debuginfod_client, and ~/.debuginfod_client_cache. With KRV_ELF_F_DEBUGINFOD the servers of $DEBUGINFOD_URLS are asked
 * then, one after the other, by elfutils' libdebuginfod, which is loaded when it is first needed; what they send stays in that
 * cache. Each file is verified: one that has another build-id is refused with a note of the pass "debug-file", and removed from
 * the cache where it kept a server from being asked.
 *
 * A server that is silent for $DEBUGINFOD_TIMEOUT seconds (10 when it is not set), cannot be reached, takes longer than `seconds`
 * for one file or sends a wrong one is not asked again in this process. Requests are made one at a time, whichever threads
 * wait, and while one is, DEBUGINFOD_URLS in the environment of the process has this server alone.
 */
typedef struct krv_elf_search {
    const char *const *dirs; /**< folders arranged as /usr/lib/debug, looked at before that */
    size_t dir_count;        /**< how many */
    /**
     * a folder that stands for the root of another system, or NULL: paths that processes, core files and other files name are
     * looked for below it and nowhere else, with links that lead to places below it; what a build-id or a CRC verifies is looked for
     * below it first
     */
    const char *sysroot;
    krv_elf_fetch_f *fetch; /**< told of progress, or NULL */
    void *fetch_arg;        /**< its last argument */
    uint32_t seconds;       /**< that one file from a server may take; 0: 600 */
    uint32_t reserved;      /**< 0 */
} krv_elf_search_t;

/**
 * A file whose compressed sections claim to inflate to more than so many bytes together, and to more than so many times
 * the bytes of the file, is refused with KRV_ELF_ERR_LIMIT, unless KRV_ELF_F_INFLATE_ANY is given. What compilers write
 * inflates to less than ten times as much; a file made for the purpose to a thousand times.
 */
enum { KRV_ELF_INFLATED_BYTES = 1 << 20, KRV_ELF_INFLATED_TIMES = 32 };

/** A function symbol. */
typedef struct krv_elf_symbol {
    uint64_t address;
    uint64_t size;    /**< never 0: a symbol without a size reaches to the next one or to the end of its section */
    const char *name; /**< as in the file: not demangled, with its version if it has one; not empty */
} krv_elf_symbol_t;

/** Where an address comes from, as korva_elf_lookup_source says. */
typedef struct krv_elf_source {
    const char *file;     /**< path, composed with the folder of the compilation; "" when it is not known */
    uint32_t line;        /**< counted from 1; 0 when it is not known, or the compiler names none */
    uint32_t column;      /**< likewise */
    const char *function; /**< name of the function symbol that covers the address; "" when none does */
} krv_elf_source_t;

/** What is known of a frame comes from there. */
enum {
    KRV_ELF_FRAME_NOWHERE = 0, /**< no function is known, a line is */
    KRV_ELF_FRAME_ENTRIES = 1, /**< the function from the entries of the debugging information */
    KRV_ELF_FRAME_SYMBOLS = 2  /**< from the symbol table */
};

/** One of the functions around an address, as korva_elf_symbolize stores it. No text is NULL; "" is not known. */
typedef struct krv_elf_frame {
    const char *function; /**< its name as the flags want it: of languages that mangle names the mangled or demangled
                                   one, else that of the source; of symbols without their version */
    const char *linkage_name; /**< the mangled name; of symbols as in the file, with its version */
    const char *file;         /**< path, composed with the folder of the compilation */
    uint32_t line;            /**< where the code is in this function: of an outer frame the place of the call;
                                   counted from 1, 0 when it is not known, or the compiler names none */
    uint32_t column;          /**< likewise */
    uint32_t discriminator;   /**< of the place; 0 when it has none */
    uint8_t is_inlined;       /**< 1: a call that was inlined into the next frame */
    uint8_t origin;           /**< KRV_ELF_FRAME_* */
    uint8_t has_row;          /**< 1: the place is that of a row of the line numbers, the innermost frame's */
    uint8_t reserved;         /**< 0 */
    uint64_t start;           /**< where the function begins; 0 for inlined calls */
    krv_ctu_t *unit;          /**< that knows it; NULL when none does */
} krv_elf_frame_t;

/** Flags of korva_elf_symbolize. */
enum {
    KRV_ELF_FRAMES_F_NONE = 0,
    KRV_ELF_FRAMES_F_DEMANGLE = 1, /**< functions as C++, Rust and D write them: korva_elf_demangle */
    KRV_ELF_FRAMES_F_NO_FUNCTIONS =
        2 /**< the place alone, of one frame: no entry is read, and a symbol only where there is no place */
};

/** Visitor of korva_elf_symbolize_all: the frames of element @p index. Non-zero stops it and is returned. */
typedef int krv_elf_iter_frames_f(krv_elf_t *elf, size_t index, const krv_elf_frame_t *frames, size_t count, void *arg);

/** What an opened file is. */
typedef struct krv_elf_info {
    uint16_t machine;             /**< EM_386 or EM_X86_64 */
    uint16_t type;                /**< ET_EXEC, ET_DYN, ET_REL or ET_CORE */
    krv_activation_type_t target; /**< the handle's target (x32 files are AMD64 machines with 4-byte addresses: I386) */
    const uint8_t *build_id;      /**< contents of the build-id note, or NULL */
    size_t build_id_size;         /**< its bytes */
    int has_symtab;               /**< 1 when the symbols come from .symtab, 0 when from .dynsym or nowhere */
} krv_elf_info_t;

/** A section of the file, as korva_elf_iter_sections visits it. */
typedef struct krv_elf_section {
    const char *name;
    uint64_t address;   /**< 0 for sections that are not loaded; of a relocatable file, where the loader placed it */
    uint64_t size;      /**< bytes, after inflation */
    uint64_t file_size; /**< bytes in the file */
    krv_secidx_t index; /**< under which the handle has it, or KRV_SEC_NONE */
    int compressed;     /**< 1 when it is stored compressed */
    int copied;         /**< 1 when the handle reads a relocated copy, 0 when it reads the file's own bytes */
    int executable;     /**< 1 when it holds code */
} krv_elf_section_t;

/** Visitor of korva_elf_iter_sections; non-zero stops the walk and is returned. */
typedef int krv_elf_iter_section_f(krv_elf_t *elf, const krv_elf_section_t *section, void *arg);

/**
 * What was changed, left out or cannot be read, as korva_elf_iter_notes visits it: one line of text such as "unit at
 * offset 0x2a of .debug_info is DWARF 6, ...".
 */
typedef struct krv_elf_note {
    const char *pass;    /**< what was being done: "attach", "debug-file", "relocations", or "reading" by the handle */
    const char *section; /**< section it speaks of */
    uint64_t offset;     /**< offset in that section */
    int refused;         /**< 1: this cannot be read; 0: it reads well, as the text says */
    const char *text;
} krv_elf_note_t;

/** Visitor of korva_elf_iter_notes; non-zero stops the walk and is returned. */
typedef int krv_elf_iter_note_f(krv_elf_t *elf, const krv_elf_note_t *note, void *arg);

/**
 * Opens an ELF file for 32-bit x86 or AMD64, maps it and attaches every section that libkorva knows to a new handle:
 * uncompressed ones without a copy, .zdebug_* and SHF_COMPRESSED ones inflated: those that few questions read (as
 * .debug_frame and .debug_loc) when they are first read. @p flags is KRV_ELF_F_*.
 *
 * Unless KRV_ELF_F_RAW is given, the handle has KRV_OPT_EXT_DWARF5 and KRV_OPT_EXT_AS_WRITTEN on, knows the executable
 * sections and the sections of the alternate file of .gnu_debugaltlink or .debug_sup (dwz -m), and tells what it leaves out,
 * which is kept: korva_elf_iter_notes. Of a relocatable file the sections get addresses one behind the other, and the relocations
 * are applied to copies. Nothing else is copied.
 *
 * A file without .debug_info gets its sections (and, when it has no .symtab, its symbols) from a separate debug file:
 * by build-id under /usr/lib/debug/.build-id and in the cache of the debuginfod clients, else by .gnu_debuglink beside the file,
 * in .debug, or under /usr/lib/debug, and last, with KRV_ELF_F_DEBUGINFOD, from servers (krv_elf_search_t). One whose build-id or
 * CRC differs is refused with a note of the pass "debug-file".
 *
 * Returns NULL on failure. Close it with korva_elf_close.
 */
KORVA_API krv_elf_t *korva_elf_open(const char *path, unsigned int flags, krv_elf_error_t *errorp);

/**
 * The same, looking for separate debug files also under each of the @p count folders of @p dirs, in their order, before
 * /usr/lib/debug.
 */
KORVA_API krv_elf_t *korva_elf_open_with_debug_dirs(const char *path, unsigned int flags, const char *const *dirs,
                                                    size_t count, krv_elf_error_t *errorp);

/** The same, looking for other files as @p search says, which may be NULL; nothing in it is needed afterwards but fetch_arg. */
KORVA_API krv_elf_t *korva_elf_open_search(const char *path, unsigned int flags, const krv_elf_search_t *search,
                                           krv_elf_error_t *errorp);

/** What a file with a build-id is wanted for. */
enum {
    KRV_ELF_FIND_EXECUTABLE = 1, /**< the executable or shared library that is loaded, with its code */
    KRV_ELF_FIND_DEBUG = 2,      /**< the file with its debugging information and symbols */
    KRV_ELF_FIND_ANY = 3         /**< the latter, or else the former: for functions and lines either does */
};

/**
 * Finds a file by its build-id, @p size bytes at @p id, as krv_elf_search_t says: in folders, in the cache of the debuginfod
 * clients, and with KRV_ELF_F_DEBUGINFOD in @p flags at servers. @p kind is KRV_ELF_FIND_*. The file was opened, and has this
 * build-id. Any number of threads may ask.
 *
 * Returns its path, for korva_elf_open_search, in memory that the client frees with free(); or NULL: KRV_ELF_ERR_NOTFOUND, whose
 * message says what was refused and which servers failed, KRV_ELF_ERR_FORMAT (no build-id: 2 to 64 bytes) or KRV_ELF_ERR_NOMEM.
 *
 *     char *path = korva_elf_find_build_id(id, 20, KRV_ELF_FIND_ANY, KRV_ELF_F_NONE, NULL, &error);
 *     krv_elf_t *elf = path == NULL ? NULL : korva_elf_open_search(path, KRV_ELF_F_NONE, NULL, &error);
 *     free(path);
 */
KORVA_API char *korva_elf_find_build_id(const uint8_t *id, size_t size, int kind, unsigned int flags,
                                        const krv_elf_search_t *search, krv_elf_error_t *errorp);

/**
 * Takes what was read of the file's debugging information out of the process's memory; what is needed again is read again.
 * Everything that was handed out stays valid, and no answer changes. For who has asked much of a large file, and goes on:
 * half a millisecond for some MiB.
 */
KORVA_API void korva_elf_trim(krv_elf_t *elf);

/** Closes a file and frees its handle. NULL is ignored. */
KORVA_API void korva_elf_close(krv_elf_t *elf);

/**
 * For the handler of SIGBUS, which the system sends when a mapped file has become shorter than it was: puts zeros in the
 * place of what is missing around @p address (si_addr of the signal), so that the read which was interrupted goes on when
 * the handler returns. The handle then takes the rest of the file for damaged, and korva_elf_iter_notes says why.
 *
 * Returns 1, or 0 when the address is in no file that is open here: the signal has another cause. Of this library it is
 * the only function that a signal handler may call.
 *
 *     static void on_bus_error(int number, siginfo_t *info, void *context)
 *     {
 *         (void)context;
 *         if (korva_elf_handle_bus_error(info->si_addr) == 0)
 *             signal(number, SIG_DFL);
 *     }
 */
KORVA_API int korva_elf_handle_bus_error(const void *address);

/** The handle of the file: for the queries of libkorva.h. Never NULL. */
KORVA_API krv_handle_t *korva_elf_get_handle(krv_elf_t *elf);

/** The path that the file was opened with. */
KORVA_API const char *korva_elf_get_path(krv_elf_t *elf);

/** The path of the separate debug file that is read, or NULL. */
KORVA_API const char *korva_elf_get_debug_path(krv_elf_t *elf);

/** What the file is. */
KORVA_API void korva_elf_get_info(krv_elf_t *elf, krv_elf_info_t *infop);

/**
 * Visits the file's sections in file order, then those attached from a separate debug file, then those of an alternate
 * file (KRV_SEC_EXT_ALT_*). Returns 0 or the visitor's non-zero result. */
KORVA_API int korva_elf_iter_sections(krv_elf_t *elf, krv_elf_iter_section_f *func, void *arg);

/**
 * Visits what was noted so far, in section order: of the file when it was opened, of its contents as queries of the handle
 * met it. A note is kept once, and some thousand of them at most. Returns 0 or the visitor's non-zero result.
 */
KORVA_API int korva_elf_iter_notes(krv_elf_t *elf, krv_elf_iter_note_f *func, void *arg);

/**
 * The function symbols of .symtab (of .dynsym when there is no .symtab), ascending by address; of several at one
 * address all are there, global before weak before local. Labels in code are among them, but for those whose name begins
 * with ".L", which compilers make for themselves. Stores their number; NULL with 0 when there are none, or no memory for them:
 * korva_elf_iter_notes tells then.
 */
KORVA_API const krv_elf_symbol_t *korva_elf_get_symbols(krv_elf_t *elf, size_t *countp);

/**
 * The function symbol that covers @p address; of several the first of the innermost. A label (a symbol of no type and no
 * size, as of hand-written assembly) answers only where no function covers. NULL when none does.
 */
KORVA_API const krv_elf_symbol_t *korva_elf_lookup_symbol(krv_elf_t *elf, uint64_t address);

/** The first function symbol of that name; else the first of that name with a version, as in name@@V_1; or NULL. */
KORVA_API const krv_elf_symbol_t *korva_elf_lookup_symbol_by_name(krv_elf_t *elf, const char *name);

/**
 * From an address of the file to its source: the line of the unit that covers it, which in inlined code is that of the
 * innermost call, and the function symbol. The texts live until korva_elf_close.
 *
 * Returns 0; or -1 with KRV_ELF_ERR_NOTFOUND when no line is known for the address, with KRV_ELF_ERR_FORMAT when the line
 * numbers of its unit are damaged, or with KRV_ELF_ERR_NOMEM, or with KRV_ELF_ERR_LIMIT where the handle has a bound on what
 * queries may cost (KRV_OPT_EXT_MAX_STEPS) and that is used up. The message then names what the loader could not present, if
 * there is such a part. *@p sourcep is written in any case: the function may be known where the line is not.
 */
KORVA_API int korva_elf_lookup_source(krv_elf_t *elf, uint64_t address, krv_elf_source_t *sourcep,
                                      krv_elf_error_t *errorp);

/**
 * The functions around an address of the file, innermost first: the calls that the compiler inlined there, and last the
 * function that has the code. Functions come from entries (korva_lookup_chain), else from symbols, then as one frame; the
 * innermost frame's place from the line numbers, those of the others from the calls. @p flags is KRV_ELF_FRAMES_F_*.
 *
 * Stores at most @p room frames, from the innermost on, and in *@p countp how many there are, at least 1. Texts live until
 * korva_elf_close; demangled ones are kept once, up to 16 bytes a byte of the file, and 1 MiB: names beyond stay mangled.
 *
 * Returns 0; or -1 when neither function nor line is known, with the codes and messages of korva_elf_lookup_source.
 */
KORVA_API int korva_elf_symbolize(krv_elf_t *elf, uint64_t address, unsigned int flags, krv_elf_frame_t *frames,
                                  size_t room, size_t *countp, krv_elf_error_t *errorp);

/**
 * korva_elf_symbolize of many addresses, which are looked up together (korva_iter_chains) and visited in the order of the
 * array; @p count of the visitor is 0 where nothing is known, and at most 256. Returns 0, @p func's result, or -1 with
 * KRV_ELF_ERR_NOMEM or KRV_ELF_ERR_LIMIT.
 */
KORVA_API int korva_elf_symbolize_all(krv_elf_t *elf, const uint64_t *addresses, size_t count, unsigned int flags,
                                      krv_elf_iter_frames_f *func, void *arg, krv_elf_error_t *errorp);

/**
 * The name in its language of a symbol of C++, Rust (both manglings) or D: as c++filt shows it, without Rust's hashes. Needs
 * no file; any number of threads may ask.
 *
 * Stores it in the @p size bytes of @p buf, cut where it does not fit and always terminated, and returns its length, which
 * is @p size or more when it was cut. Returns 0, with an empty text, for what is no such symbol, and for one that is too
 * long (16 KiB; of C++ and D some 1,000 bytes), stands for more than 64 KiB, or finds no memory.
 */
KORVA_API size_t korva_elf_demangle(const char *name, char *buf, size_t size);

/** A segment of the file, as korva_elf_iter_segments visits it. */
typedef struct krv_elf_segment {
    uint32_t type;      /**< PT_* */
    uint32_t flags;     /**< PF_* */
    uint64_t address;   /**< in the file's own address space */
    uint64_t size;      /**< bytes in memory */
    uint64_t offset;    /**< in the file */
    uint64_t file_size; /**< bytes there */
} krv_elf_segment_t;

/** Visitor of korva_elf_iter_segments; non-zero stops the walk and is returned. */
typedef int krv_elf_iter_segment_f(krv_elf_t *elf, const krv_elf_segment_t *segment, void *arg);

/** Visits the segments of the file, as its program headers have them. Returns 0 or the visitor's non-zero result. */
KORVA_API int korva_elf_iter_segments(krv_elf_t *elf, krv_elf_iter_segment_f *func, void *arg);

/** What was at a place where a debug file was looked for. */
enum {
    KRV_ELF_TRIED_ABSENT = 0,  /**< no file */
    KRV_ELF_TRIED_ITSELF = 1,  /**< the file that it was looked for */
    KRV_ELF_TRIED_REFUSED = 2, /**< a file that is another one, or cannot be read */
    KRV_ELF_TRIED_TAKEN = 3,   /**< the file that is read */
    KRV_ELF_TRIED_FAILED = 4   /**< of a server: it could not be asked, or did not answer */
};

/** A place where a separate debug file was looked for, as korva_elf_iter_tried visits it. */
typedef struct krv_elf_tried {
    const char *path; /**< or the URL */
    const char *by;   /**< what led there: "build-id", the section with its name, "debuginfod-cache" or "debuginfod" */
    const char *reason; /**< why it is refused, or what failed; else "" */
    int outcome;        /**< KRV_ELF_TRIED_* */
    int is_alternate;   /**< 1: for the file that several share (dwz -m); 0: for the file's own debugging information */
} krv_elf_tried_t;

/** Visitor of korva_elf_iter_tried; non-zero stops the walk and is returned. */
typedef int krv_elf_iter_tried_f(krv_elf_t *elf, const krv_elf_tried_t *tried, void *arg);

/**
 * Visits the places where debug files were looked for, in their order, up to the one that was taken. There are none for a
 * file that has its debugging information itself, and with KRV_ELF_F_RAW. Returns 0 or the visitor's non-zero result.
 */
KORVA_API int korva_elf_iter_tried(krv_elf_t *elf, krv_elf_iter_tried_f *func, void *arg);

/**
 * A handle that reads the file's .eh_frame, by the search table of .eh_frame_hdr if it has one, as a process would that has
 * the file loaded at the addresses which it has in the file: for korva_explain_frame. It belongs to the
 * file. NULL when there is no memory for it.
 */
KORVA_API krv_handle_t *korva_elf_get_frame_handle(krv_elf_t *elf, krv_elf_error_t *errorp);

/**
 * The load bias of the file when its byte at @p file_offset is mapped at @p address: what must be added to an address
 * of the file to get the address in memory (the value for KRV_OPT_BASE_ADDR).
 *
 * Returns 0, or -1 with KRV_ELF_ERR_NOTFOUND when no loaded segment holds that offset.
 */
KORVA_API int korva_elf_load_bias(krv_elf_t *elf, uint64_t address, uint64_t file_offset, uint64_t *biasp,
                                  krv_elf_error_t *errorp);

#ifdef __cplusplus
}
#endif

#endif /* LIBKORVA_ELF_H */
