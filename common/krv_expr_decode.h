// SPDX-License-Identifier: Apache-2.0
//
// Decoding of one operation of an expression by its row of krv_expr_table.cpp.
#ifndef KRV_EXPR_DECODE_H
#define KRV_EXPR_DECODE_H

#include "krv_expr_table.h"
#include "krv_fd.h"
#include "krv_types.h"

// A block operand is read into storage of this size.
constexpr size_t KRV_EXPR_BLOCK_SIZE = 256;

// One decoded operation with the storage of its block operands.
struct krv_expr_insn_t {
    krv_operation_t op;
    unsigned int noperands;
    krv_fd_t block[KRV_OP_OPERANDS];
    uint8_t storage[KRV_OP_OPERANDS][KRV_EXPR_BLOCK_SIZE];
};

enum class krv_expr_decoded {
    whole,      // the operation; also one that is not defined, which has no operands
    no_opcode,  // its first byte could not be read,
    no_row,     // is beyond the table,
    no_operand, // or operand number noperands could not be read
};

// Decodes the operation at the cursor. Code and messages of a read that failed are the form decoder's.
krv_expr_decoded krv_expr_decode(krv_handle_t *hp, krv_fd_t *fdp, const krv_expr_rows_t *known, uint32_t form_flags,
                                 krv_expr_insn_t *insn);

#endif
