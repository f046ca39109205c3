// SPDX-License-Identifier: Apache-2.0
//
// What every call-frame instruction looks like (DWARF 4, 6.4.2): one row an instruction. What it does is a case of
// execute() in krv_cfa.cpp.
#ifndef KRV_CFA_TABLE_H
#define KRV_CFA_TABLE_H

#include "krv_dwarf.h"
#include "libkorva.h"

#include <array>

// Facts of an instruction beside the forms of its operands.
enum : uint32_t {
    KRV_CFA_F_REGISTER = 0x1, // the first operand is a register, which must have a rule
    KRV_CFA_F_SECOND = 0x2,   // the second one, too
    KRV_CFA_F_BLOCK = 0x4 // an expression follows, no operand: who executes the instruction reads it from the cursor
};

struct krv_cfa_desc_t {
    unsigned int version; // 0: not defined; decodes without operands
    krv_form_t form[2];   // 0: no operand
    uint32_t flags;       // KRV_CFA_F_*
};

constexpr uint8_t KRV_CFA_PACKED = 0xc0;  // a bit of these is set in opcodes that carry an operand
constexpr uint8_t KRV_CFA_OPERAND = 0x3f; // the operand

// Instructions that carry an operand have their rows behind those of the plain opcodes.
constexpr uint8_t KRV_CFA_LAST_PLAIN = DW_CFA_VESK_arg_loc;
constexpr size_t KRV_CFA_ROWS = KRV_CFA_LAST_PLAIN + 4;

// Whether the first byte of an instruction, or its opcode, has a row; and which.
constexpr bool krv_cfa_has_row(uint8_t opcode)
{
    return opcode <= KRV_CFA_LAST_PLAIN || (opcode & KRV_CFA_PACKED) != 0;
}
constexpr size_t krv_cfa_row(uint8_t opcode)
{
    return opcode <= KRV_CFA_LAST_PLAIN ? opcode : size_t{KRV_CFA_LAST_PLAIN} + (opcode >> 6);
}

extern const std::array<krv_cfa_desc_t, KRV_CFA_ROWS> krv_cfa_table; // by krv_cfa_row

// Of GNU tools, known to the readers of input as it is written only. NULL: no such instruction.
const krv_cfa_desc_t *krv_cfa_written_row(uint8_t opcode);

// How an instruction is encoded, by its first byte: made of the rows, for a decoder that has the bytes in memory.
enum : uint8_t {
    KRV_CFA_PLAIN, // no operands, but for one in the byte itself
    KRV_CFA_ULEB,  // one ULEB128 number
    KRV_CFA_ULEBS, // two of them
    KRV_CFA_BYTE,  // one byte, two, or four
    KRV_CFA_HALF,
    KRV_CFA_WORD,
    KRV_CFA_OTHER // not to be decoded at a glance
};
extern const std::array<uint8_t, 256> krv_cfa_shapes;

#endif
