// SPDX-License-Identifier: Apache-2.0
//
// The reader of .eh_frame and .eh_frame_hdr, what it keeps, and its two decoders.
#ifndef KRV_EH_FRAME_H
#define KRV_EH_FRAME_H

#include "krv_frame_record.h"

// NULL: the section's address is not set (with a message), or KRV_ERR_NOMEM.
krv_reader_t *krv_eh_frame_create_reader(krv_handle_t *hp);

// Whether the search table of .eh_frame_hdr can be used. UNSUPPORTED is final.
typedef int krv_eh_status_t;
enum { KRV_EFH_UNINITIALISED = 0, KRV_EFH_UNSUPPORTED = 1, KRV_EFH_INITIALISED = 2 };

constexpr unsigned KRV_EH_KEPT_CIES = 8;     // a linker leaves two or three
constexpr unsigned KRV_EH_KEPT_SIZES = 4096; // enough to tell the records of half as many functions from each other

// The reader's sr_data.
struct krv_eh_frame_reader_data {
    uint64_t sefh_eh_frame_hdr;                     // where .eh_frame_hdr is loaded
    uint64_t sefh_near;                             // the first of 2^32 bytes around it, none of which wraps
    uint64_t sefh_eh_frame;                         // where .eh_frame is loaded
    krv_eh_status_t sefh_status;                    // published after what follows, which only the header tells
    uint8_t sefh_version;                           // not checked
    uint8_t sefh_fpe;                               // encoding of eh_frame_ptr
    uint8_t sefh_fdece;                             // encoding of fde_count
    uint8_t sefh_te;                                // encoding of the table's fields
    uint64_t sefh_fp;                               // eh_frame_ptr, for nothing
    uint64_t sefh_fde_count;                        // entries of the table
    uint64_t sefh_table_offset;                     // target address of the first
    uint8_t sefh_width;                             // bytes of one field: 2, 4 or 8
    struct krv_eh_cie *sefh_cies[KRV_EH_KEPT_CIES]; // those that were decoded first, published by compare-and-swap
    struct krv_eh_guide *sefh_guide;  // what searches of the table have seen, published by compare-and-swap
    krv_relaxed<bool> sefh_has_found; // a search has found something
    // By offset: words of the last record there; 0: not known, or too many.
    krv_relaxed<uint8_t> sefh_sizes[KRV_EH_KEPT_SIZES];

    bool has_many() const { return sefh_fde_count > KRV_EH_KEPT_SIZES / 2; } // for what is kept of single functions
    krv_relaxed<uint8_t> &words_at(uint64_t offset) { return sefh_sizes[offset / 8 % KRV_EH_KEPT_SIZES]; }
};

// scie_augmentation_data of a CIE with an augmentation string.
struct krv_amd64_cie_augmentation {
    boolean_t scie_P;
    boolean_t scie_R;
    boolean_t scie_L;
    uint64_t scie_pr; // address of the personality routine
    uint8_t scie_re;  // encoding of FDE addresses
    uint64_t scie_le; // encoding of the LSDA's address
};

// sfde_augmentation_data of such a CIE's FDEs.
struct krv_amd64_fde_augmentation {
    uint64_t safa_ldsa; // address of the LSDA, 0 when there is none
};

// Reads a pointer in a DW_EH_PE_* encoding and adds the base that it names, modulo 2^64. -1 with KRV_ERR_INVALID (no
// such format, DW_EH_PE_omit included), KRV_ERR_UNSUPPORTED (any other base, and indirect pointers), or the code of the
// form decoder.
int krv_decode_eh_form(krv_fd_t *fdp, uint8_t encoding, uint64_t pc_base, uint64_t data_base, uint64_t *datump);

// A cursor over the target's memory, which reports errors even when no address space is attached.
inline krv_fd_t krv_eh_address_space(krv_handle_t *hp)
{
    krv_fd_t fd = hp->sh_as;
    fd.sfd_hp = hp;
    return fd;
}

// Decodes one call-frame instruction; arg is the krv_amd64_cie_augmentation of its CIE, or NULL.
krv_get_next_op_f krv_eh_frame_aug_next_op;

// The index of krv_eh_frame: sro_gfoba over the search table of .eh_frame_hdr.
int krv_eh_frame_gfoba(krv_handle_t *hp, krv_reader_t *reader, uint64_t address, krv_fde_search *searchp);

#endif
