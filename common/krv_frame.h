// SPDX-License-Identifier: Apache-2.0
//
// Call-frame information: CIEs, FDEs, the readers that find them, and the search for the FDE of an address. A handle
// has one reader, chosen at its first query: .debug_frame when attached, else .eh_frame in the target's memory when
// its address is known, else a reader that finds nothing. Records are never cached; who asks for one frees it.
#ifndef KRV_FRAME_H
#define KRV_FRAME_H

#include "krv_error.h"
#include "krv_fd.h"
#include "krv_types.h"

#include <array>
#include <memory>

// Decodes one call-frame instruction; arg is the augmentation data of its CIE.
typedef int krv_get_next_op_f(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, void *arg);

struct krv_augmentation_ops_t {
    krv_get_next_op_f *sao_gno;
};

// What a CIE's augmentation does to its instructions. One static record a reader.
struct krv_augmentation_t {
    const krv_augmentation_ops_t *sa_ops;
};

typedef int krv_augtype_t;
enum { KRV_AUG_NONE = 0, KRV_AUG_AMD64 = 1 };

constexpr size_t KRV_AUGMENTATION_SIZE = 16; // longest augmentation string, the terminating NUL included

// A common information entry. Free with krv_cie_free.
struct krv_cie_t {
    uint64_t scie_length;                                 // bytes after the length field
    uint64_t scie_id;                                     //
    uint16_t scie_version;                                //
    char scie_augmentation_string[KRV_AUGMENTATION_SIZE]; //
    uint8_t scie_address_size;                            // version 4 of .debug_frame only
    uint8_t scie_segment_size;                            // likewise
    uint64_t scie_code_alignment_factor;                  //
    int64_t scie_data_alignment_factor;                   //
    uint64_t scie_return_address_register;                //
    uint64_t scie_cfi_offset;                             // of the first instruction, for scie_fd
    uint64_t scie_cfi_size;                               // bytes from there to the end of the record
    krv_fd_t scie_fd;                                     // through which instructions are read
    krv_secidx_t scie_sec;                                // KRV_SEC_FRAME or KRV_SEC_EH_FRAME
    uint64_t scie_section_length;                         // bytes to the next record
    krv_augtype_t scie_augmentation_type;                 //
    void *scie_augmentation_data;                         // the reader's own, or NULL
    const krv_augmentation_t *scie_augmentation;          // decodes instructions, those of its FDEs too
    uint64_t scie_decoding;   // equal numbers: decoded from equal bytes, all of them in the window; 0: nothing is known
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
    krv_window_t sfde_window;       // as its CIE's
};

// One FDE in the linear address table.
struct krv_lie_t {
    uint64_t sle_start;  // its first address
    uint64_t sle_offset; // its section offset
};

// Every FDE of the section, ascending by first address. Does not change once published.
struct krv_linear_t {
    krv_lie_t *sl_table;
    uint64_t sl_table_entries;
    uint64_t sl_table_size; // entries allocated
};

// What a reader does. Offsets are from the start of the section that it serves. Every slot is filled.
struct krv_reader_ops_t {
    krv_cie_t *(*sro_gcbo)(krv_handle_t *hp, krv_reader *reader, uint64_t offset);
    krv_fde_t *(*sro_gfbo)(krv_handle_t *hp, krv_reader *reader, uint64_t offset);
    // Finds an address in the reader's own index, as krv_get_fde_offset_by_address does. KRV_ERR_UNSUPPORTED: there
    // is none to be used.
    int (*sro_gfoba)(krv_handle_t *hp, krv_reader *reader, uint64_t address, uint64_t *taddrp, uint64_t *toffp,
                     uint64_t *naddrp);
    void (*sro_cie_free)(krv_cie_t *ciep); // with its augmentation data
    void (*sro_fde_free)(krv_fde_t *fdep); // likewise; not its CIE
    void (*sro_destroy_reader)(krv_reader *reader);
};

struct krv_reader {
    krv_linear_t *sr_lt; // NULL until an address lookup needs it; published by compare-and-swap
    const krv_reader_ops_t *sr_ops;
    void *sr_data; // the reader's own
};
typedef krv_reader krv_reader_t;

// Creators of the readers. NULL: not available here (with a message), or KRV_ERR_NOMEM.
krv_reader_t *krv_debug_frame_create_reader(krv_handle_t *hp);
krv_reader_t *krv_eh_frame_create_reader(krv_handle_t *hp);
krv_reader_t *krv_no_frame_create_reader(krv_handle_t *hp);

// The handle's reader, created on first use; it stays the handle's. NULL when there is no memory for any.
krv_reader_t *krv_create_reader(krv_handle_t *hp);
inline krv_reader_t *krv_get_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    auto *known = static_cast<krv_reader_t *>(krv_load(&hp->sh_frame_reader));
    return known != nullptr ? known : krv_create_reader(hp);
}
// Discards the handle's reader, if any, so that the next query chooses again. No other call may use the handle.
void krv_destroy_reader(krv_handle_t *hp);

// The record at an offset. NULL with code and messages.
krv_cie_t *krv_get_cie_by_offset(krv_handle_t *hp, uint64_t offset);
krv_fde_t *krv_get_fde_by_offset(krv_handle_t *hp, uint64_t offset);
void krv_cie_free(krv_handle_t *hp, krv_cie_t *ciep);
void krv_fde_free(krv_handle_t *hp, krv_fde_t *fdep); // with its CIE

struct krv_cie_deleter {
    krv_handle_t *hp;
    void operator()(krv_cie_t *ciep) const { krv_cie_free(hp, ciep); }
};
using krv_cie_owner = std::unique_ptr<krv_cie_t, krv_cie_deleter>;

struct krv_fde_deleter {
    krv_handle_t *hp;
    void operator()(krv_fde_t *fdep) const { krv_fde_free(hp, fdep); }
};
using krv_fde_owner = std::unique_ptr<krv_fde_t, krv_fde_deleter>;

// Finds the last FDE that begins at or below an address: its first address, its section offset, and the first address
// of the FDE after it (or its own, when none was looked at). Whether the FDE reaches up to the address is not known
// yet. force passes over the reader's own index. -1 with KRV_ERR_NOTFOUND (no such FDE) or the code of a failed read.
int krv_get_fde_offset_by_address(krv_handle_t *hp, uint64_t address, boolean_t force, uint64_t *taddrp,
                                  uint64_t *toffp, uint64_t *naddrp);

// The FDE that covers an address. NULL with KRV_ERR_NOTFOUND, KRV_ERR_CORRUPT when index and FDEs contradict each
// other, or the code of a failed read.
krv_fde_t *krv_get_fde_by_address(krv_handle_t *hp, uint64_t address);

// Three-way comparison of two krv_lie_t by first address.
int krv_fde_compar(const void *a, const void *b);

// Decodes the instruction at the cursor by a CIE's augmentation and augmentation data. Operands that it does not have
// are 0. -1 with code and messages; the cursor then stands where decoding stopped.
int krv_frame_get_next_op(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_augmentation_t *augp,
                          void *arg);

// How an instruction is encoded, by its first byte, so that who has its bytes in memory can decode it at a glance.
enum : uint8_t {
    KRV_CFA_PLAIN, // no operands, but for one in the byte itself
    KRV_CFA_ULEB,  // one ULEB128 number
    KRV_CFA_ULEBS, // two of them
    KRV_CFA_BYTE,  // one byte
    KRV_CFA_OTHER  // not to be decoded at a glance
};
extern const std::array<uint8_t, 256> krv_cfa_shapes;
constexpr uint8_t KRV_CFA_PACKED = 0xc0;  // a bit of these is set in opcodes that carry an operand
constexpr uint8_t KRV_CFA_OPERAND = 0x3f; // the operand

// The forms of an instruction's two operands, 0 for none. -1 with KRV_ERR_UNSUPPORTED and a message for an opcode that
// is not in the table.
int krv_get_cfa_forms(krv_handle_t *hp, uint8_t opcode, krv_form_t formsp[2]);

// The two steps of which a reader makes its decoder: the opcode, with an operand packed into it, and the forms of the
// operands that follow; then these operands. -1 with code and messages.
int krv_frame_read_opcode(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, krv_form_t formsp[2]);
int krv_frame_read_operands(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_form_t formsp[2]);

#endif
