// SPDX-License-Identifier: Apache-2.0
//
// Decoding of one call-frame instruction by its row of krv_cfa_table: from any cursor, and at a glance where its bytes
// are in memory.
#ifndef KRV_CFA_DECODE_H
#define KRV_CFA_DECODE_H

#include "krv_cfa_table.h"
#include "krv_code.h"
#include "krv_types.h"

#include <cstring>

// Decodes one call-frame instruction; arg is the augmentation data of its CIE.
typedef int krv_get_next_op_f(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, void *arg);

struct krv_augmentation_ops_t {
    krv_get_next_op_f *sao_gno;
};

// What a CIE's augmentation does to its instructions. One static record a reader.
struct krv_augmentation_t {
    const krv_augmentation_ops_t *sa_ops;
};

// Decodes the instruction at the cursor by a CIE's augmentation and augmentation data. Operands that it does not have
// are 0. -1 with code and messages; the cursor then stands where decoding stopped.
int krv_frame_get_next_op(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_augmentation_t *augp,
                          void *arg);

// The forms of an instruction's two operands, 0 for none. -1 with KRV_ERR_UNSUPPORTED and a message for an opcode that
// is not in the table.
int krv_get_cfa_forms(krv_handle_t *hp, uint8_t opcode, krv_form_t formsp[2]);

// The two steps of which a reader makes its decoder: the opcode, with an operand packed into it, and the forms of the
// operands that follow; then these operands. -1 with code and messages.
int krv_cfa_read_opcode(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, krv_form_t formsp[2]);
int krv_cfa_read_operands(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_form_t formsp[2]);

struct krv_cfa_op_t {
    uint8_t opcode;
    uint64_t first, second;
};

// A number of a fixed width, and what follows it. NULL: the bytes end before.
template <typename T>
inline const uint8_t *krv_cfa_scan_number(const uint8_t *at, const uint8_t *end, uint64_t *valuep)
{
    T value = 0;
    if (static_cast<size_t>(end - at) < sizeof(value))
        return nullptr;
    std::memcpy(&value, at, sizeof(value));
    *valuep = value;
    return at + sizeof(value);
}

// The twin of krv_frame_get_next_op for the bytes from `at` on, some at least: the same outcome, of any augmentation,
// and what follows the instruction. NULL: not to be decoded at a glance.
inline const uint8_t *krv_cfa_scan(const uint8_t *at, const uint8_t *end, krv_cfa_op_t *op)
{
    const uint8_t byte = *at++;
    const uint8_t shape = krv_cfa_shapes[byte];
    op->second = 0;
    if ((byte & KRV_CFA_PACKED) != 0) {
        op->opcode = byte & KRV_CFA_PACKED;
        op->first = byte & KRV_CFA_OPERAND;
        return shape == KRV_CFA_PLAIN ? at : krv_scan_short_uleb128(at, end, &op->second);
    }
    op->opcode = byte;
    op->first = 0;
    switch (shape) {
    case KRV_CFA_PLAIN:
        return at;
    case KRV_CFA_ULEB:
        return krv_scan_short_uleb128(at, end, &op->first);
    case KRV_CFA_ULEBS:
        at = krv_scan_short_uleb128(at, end, &op->first);
        return at == nullptr ? nullptr : krv_scan_short_uleb128(at, end, &op->second);
    case KRV_CFA_BYTE:
        return krv_cfa_scan_number<uint8_t>(at, end, &op->first);
    case KRV_CFA_HALF:
        return krv_cfa_scan_number<uint16_t>(at, end, &op->first);
    case KRV_CFA_WORD:
        return krv_cfa_scan_number<uint32_t>(at, end, &op->first);
    default:
        return nullptr;
    }
}

#endif
