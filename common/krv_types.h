// SPDX-License-Identifier: Apache-2.0
//
// What truly every module shares: the handle, forward declarations, and the assertion.
#ifndef KRV_TYPES_H
#define KRV_TYPES_H

#include "libkorva.h"

#include "krv_synch.h"

struct krv_addr_index;
struct krv_budget;
struct krv_calls;
struct krv_compact;
struct krv_hash;
struct krv_line_draft;
struct krv_named;
struct krv_reader;
struct krv_retired;
struct krv_sets;
struct krv_side_units;
struct krv_signatures;
struct krv_threads;

constexpr unsigned KRV_MAX_ERRORS = 16;      // message slots of a handle
constexpr unsigned KRV_MAX_ERROR_SIZE = 256; // bytes of each, the terminating NUL included
constexpr unsigned KRV_STRING_BUFSZ = 1024;  // longest name or path the readers take, the terminating NUL included
constexpr uint64_t KRV_KEPT_SLACK = 1 << 20; // of what an input may have kept beyond its own size
constexpr uint32_t KRV_INIT_ARANGES = 0x1;   // sh_init_flags: .debug_aranges has been applied to the units

// Powers of two: threads that keep something seldom need the same table.
constexpr unsigned KRV_NAME_TABLES = 64, KRV_HEADER_TABLES = 16;

struct krv_opt_t {
    boolean_t sopt_set; // B_TRUE once set; never reset
    union {
        uint64_t o_uint64;
        unsigned long o_ulong;
        void *o_addr;
        boolean_t o_boolean;
        int o_int;
    } sopt_u;
};

constexpr uint32_t KRV_EXT_DWARF5 = 0x1;     // sh_ext: KRV_OPT_EXT_DWARF5 is on
constexpr uint32_t KRV_EXT_AS_WRITTEN = 0x2; // likewise
constexpr unsigned KRV_EXT_SECTIONS = KRV_SEC_EXT_GNU_PUBNAMES - KRV_SEC_EXT_LINE_STR + 1;

// Addresses of executable sections.
struct krv_code_range_t {
    uint64_t start, end;
};

// What krv_abbrev_check_table has read.
struct krv_abbrev_checks_t {
    krv_offset_t table; // the one that was found sound last
    krv_offset_t end;   // what was read lies before this; 0: nothing yet
    uint64_t scanned;   // bytes, where input is read as written
};

// The call that reads a section which is in memory.
struct krv_section_reader {
    krv_fd_cb_f *func; // NULL: there is none
    void *arg;
};

// What failed last, for who asked.
struct krv_error_state {
    krv_relaxed<int32_t> code;   // KRV_ERR_*
    krv_relaxed<uint32_t> count; // messages stored since the last clear
    char *texts[KRV_MAX_ERRORS]; // their texts, cause first
};

struct krv_handle {
    krv_refcnt_t sh_refcnt;
    krv_rwlock_t sh_rwlock;            // unit table, .debug_aranges, .eh_frame_hdr; taken before a hash table's lock
    krv_relaxed<pthread_t> sh_builder; // thread that holds sh_rwlock through a krv_build_guard; 0: none
    krv_ctu_t **sh_cu_table;           // every unit of .debug_info in section order; published last
    uint32_t sh_cu_table_entries;      // their number
    krv_hash *sh_cu_offset_hash;       // the same units by start offset; NULL until somebody asks by one
    krv_retired *sh_retired;         // owned: copies of sections that were replaced, of which units still have strings
    uint32_t sh_init_flags;          // KRV_INIT_*
    krv_activation_type_t sh_target; // the machine whose code and registers are read
    uint32_t sh_target_size;         // bytes of a target address
    bool sh_is_quiet;                // messages of sh_builder are dropped: what fails is tried in another way
    krv_error_state sh_error;        // of all threads
    krv_threads *sh_threads;         // owned: what each thread has of its own instead; NULL unless asked for
    krv_fd_t sh_sec[KRV_MAX_SEC];    // one cursor a section; size 0 when not attached
    krv_fd_t sh_as;                  // the target's memory; offsets are target addresses
    krv_opt_t sh_opts[KRV_MAX_OPT];  // by KRV_OPT_*
    krv_reader *sh_frame_reader;     // built on first use, published by compare-and-swap
    krv_compact *sh_compact;         // owned: rules that are kept; NULL unless memory is promised to be constant
    unsigned sh_cache_bits;          // for 2^that program counters; 0: none
    krv_hash *sh_auphash;            // abbreviation tables by .debug_abbrev offset, likewise
    krv_addr_index *sh_addr_known;   // units by address, of those whose ranges need no scan, likewise
    krv_addr_index *sh_addr_all;     // units by address, all of them, likewise
    krv_hash *sh_au_same;            // those that others may share, by a digest of their bytes, likewise
    krv_abbrev_checks_t sh_abbrev_checks;
    krv_hash *sh_line_headers[KRV_HEADER_TABLES]; // what units share of .debug_line, built on first use
    uint32_t sh_ext;                              // KRV_EXT_*, fixed before the first query
    krv_fd_t sh_ext_sec[KRV_EXT_SECTIONS];        // one cursor a section of extensions
    krv_section_reader sh_readers[KRV_MAX_SEC + KRV_EXT_SECTIONS]; // of sh_sec, then of sh_ext_sec
    krv_sets *sh_sets;            // what .debug_aranges says, as written; built on first use, published last
    krv_addr_index *sh_addr_sets; // units that it names by address, published by compare-and-swap
    krv_note_f *sh_note_func;     // NULL: nobody wants to know
    void *sh_note_arg;
    krv_relaxed<bool> sh_is_spent; // the budget is used up, until a bound is set again
    krv_budget *sh_budget;         // owned: what queries may cost; NULL: anything
    krv_side_units *sh_alternate;  // owned: units of the alternate file; built on first use, published last
    krv_side_units *sh_type_units; // owned: those of .debug_types, likewise
    krv_signatures *sh_signatures; // owned: types by signature, likewise
    krv_hash *sh_scopes;           // what types stand in, by the unit, built on first use
    krv_hash
        *sh_function_names[KRV_NAME_TABLES]; // those of inlined calls, by the entry that has them, built on first use
    krv_named *sh_named;                     // owned: functions and variables by name; built on first use
    krv_code_range_t *sh_code;               // owned: see krv_is_code
    uint32_t sh_code_size;
    uint32_t sh_code_entries;
    krv_rwlock_t sh_error_lock; // texts of the messages while they are stored; the last lock to be taken

    // What queries write. Threads would wait for what they only read in the same cache line.
    uint8_t sh_apart[64];
    bool sh_is_indexed;        // korva_cu_prefill has the index of addresses made, or some thread is about it
    uint32_t sh_scanned_units; // units whose ranges a scan has found
    krv_relaxed<uint64_t> sh_abbrev_compared; // bytes that were read to find tables for sh_au_same
    krv_relaxed<uint64_t> sh_abbrev_bytes;    // of .debug_abbrev in the tables of sh_auphash
    krv_line_draft *sh_line_draft;        // owned: tables for the rows of the next program, while no program has them
    krv_relaxed<uint64_t> sh_line_bytes;  // of memory in line headers, files and matrices
    krv_relaxed<uint64_t> sh_ranges_read; // bytes of range lists that were read for units
    krv_relaxed<uint64_t> sh_calls_read;  // and for functions and inlined calls
    krv_calls *sh_calls;                  // owned: those of all units, in no order
};

// The cursor of a section, one of extensions included.
inline krv_fd_t *krv_section(krv_handle_t *hp, krv_secidx_t sec)
{
    const unsigned int number = static_cast<unsigned int>(sec) - KRV_SEC_EXT_LINE_STR;
    return number < KRV_EXT_SECTIONS ? &hp->sh_ext_sec[number] : &hp->sh_sec[sec];
}

inline bool krv_reads_as_written(const krv_handle_t *hp)
{
    return (hp->sh_ext & KRV_EXT_AS_WRITTEN) != 0;
}

// Preconditions, checked in every build: prints condition, file, line and function, and aborts. The text is visible
// behaviour: conditions are written as they should read, with NULL and not nullptr.
#define KRV_ASSERT(cond) ((cond) ? (void)0 : krv_assert_fail(#cond, __FILE__, __LINE__, __func__))
[[noreturn]] void krv_assert_fail(const char *cond, const char *file, int line, const char *func);

#endif
