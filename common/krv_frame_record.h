// SPDX-License-Identifier: Apache-2.0
//
// Records of call-frame information, and what a reader of them does: the one of .debug_frame, the one of .eh_frame, and
// the one that finds nothing.
#ifndef KRV_FRAME_RECORD_H
#define KRV_FRAME_RECORD_H

#include "krv_cfa_decode.h"
#include "krv_fd.h"
#include "krv_types.h"

typedef int krv_augtype_t;
enum { KRV_AUG_NONE = 0, KRV_AUG_AMD64 = 1 };

struct krv_known_rows;
struct krv_linear_t; // every FDE of the section by address

constexpr size_t KRV_AUGMENTATION_SIZE = 16; // longest augmentation string, the terminating NUL included

// A common information entry. Free with krv_cie_free.
struct krv_cie_t {
    uint64_t scie_length;                                 // bytes after the length field
    uint64_t scie_id;                                     // 0 in .eh_frame, all ones in .debug_frame
    uint16_t scie_version;                                // 1 in .eh_frame; 1, 3 or 4 in .debug_frame
    char scie_augmentation_string[KRV_AUGMENTATION_SIZE]; // empty in .debug_frame
    uint8_t scie_address_size;                            // version 4 of .debug_frame only
    uint8_t scie_segment_size;                            // likewise
    uint64_t scie_code_alignment_factor;                  // of the deltas of row creation
    int64_t scie_data_alignment_factor;                   // of offsets from the CFA
    uint64_t scie_return_address_register;                // the column; not checked yet
    uint64_t scie_cfi_offset;                             // of the first instruction, for scie_fd
    uint64_t scie_cfi_size;                               // bytes from there to the end of the record
    krv_fd_t scie_fd;                                     // through which instructions are read
    krv_secidx_t scie_sec;                                // KRV_SEC_FRAME or KRV_SEC_EH_FRAME
    uint64_t scie_section_length;                         // bytes to the next record
    krv_augtype_t scie_augmentation_type;                 // KRV_AUG_NONE: there is no augmentation data
    void *scie_augmentation_data;                         // the reader's own, or NULL
    const krv_augmentation_t *scie_augmentation;          // decodes instructions, those of its FDEs too
    bool scie_signal;                                     // as written: of the trampoline of a signal handler
    uint64_t scie_decoding;   // equal numbers: decoded from equal bytes, all of them in the window; 0: nothing is known
    bool scie_is_kept;        // by its reader, for all who ask, as is scie_decoding then: not to be changed
    krv_window_t scie_window; // over scie_fd: the record's bytes, as many as were read ahead
};

// A frame description entry. Free with krv_fde_free.
struct krv_fde_t {
    uint64_t sfde_length;           // bytes after the length field
    uint64_t sfde_pointer;          // to the CIE, as read
    uint64_t sfde_segment_selector; // always 0
    uint64_t sfde_target_address;   // first address covered
    uint64_t sfde_address_range;    // bytes covered
    uint64_t sfde_cfi_offset;       // of the first instruction, for the CIE's scie_fd
    uint64_t sfde_cfi_size;         // bytes from there to the end of the record
    krv_cie_t *sfde_cie;            // owned
    void *sfde_augmentation_data;   // the reader's own, or NULL
    uint64_t sfde_section_length;   // bytes to the next record
    uint64_t sfde_cie_offset;       // where the CIE begins, in the section
    bool sfde_is_lent;              // in its caller's room, and its CIE with it or kept: nothing has to be freed
    krv_window_t sfde_window;       // as its CIE's
};

// Where a reader may put an FDE and its CIE that are asked for and done with in one go, and so take no memory. Not
// initialised.
struct krv_fde_room {
    alignas(uint64_t) uint8_t bytes[1024];
};

// How the FDE of an address was looked for.
struct krv_fde_search {
    uint64_t start;                // what the index has: first address of the FDE,
    uint64_t offset;               // its section offset,
    uint64_t next;                 // and the first address of the one behind it, or start when none was looked at
    bool by_table;                 // it is the reader's own index; else the linear table
    uint64_t near_start, near_end; // of that FDE, where it does not reach up to the address; else 0
};

// What a reader does. Offsets are from the start of the section that it serves. Every slot is filled.
struct krv_reader_ops_t {
    krv_cie_t *(*sro_gcbo)(krv_handle_t *hp, krv_reader *reader, uint64_t offset);
    // Without a room: a record that the caller frees.
    krv_fde_t *(*sro_gfbo)(krv_handle_t *hp, krv_reader *reader, uint64_t offset, krv_fde_room *room);
    // Finds an address in the reader's own index, as krv_get_fde_offset_by_address does, and fills all but what the FDE
    // itself tells. KRV_ERR_UNSUPPORTED: there is none to be used.
    int (*sro_gfoba)(krv_handle_t *hp, krv_reader *reader, uint64_t address, krv_fde_search *searchp);
    void (*sro_cie_free)(krv_cie_t *ciep); // with its augmentation data
    void (*sro_fde_free)(krv_fde_t *fdep); // likewise; not its CIE
    void (*sro_destroy_reader)(krv_reader *reader);
    // As written: the bytes of a record at an offset that cannot be read. -1: nothing says that there is one.
    int (*sro_step_over)(krv_handle_t *hp, krv_reader *reader, uint64_t offset, uint64_t *sizep);
    krv_secidx_t sro_section; // for notes
};

struct krv_reader {
    krv_linear_t *sr_lt; // NULL until an address lookup needs it; published by compare-and-swap
    const krv_reader_ops_t *sr_ops;
    void *sr_data;                        // the reader's own
    krv_known_rows *sr_known;             // owned: what instructions have said; published by compare-and-swap
    krv_relaxed<uint32_t> sr_likely_fdes; // as an index has it; 0: not known
};
typedef krv_reader krv_reader_t;

#endif
