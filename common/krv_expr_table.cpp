// SPDX-License-Identifier: Apache-2.0
//
// The operations of DWARF 4, 7.7.1. DW_OP_xderef_size, DW_OP_bit_piece and the calls, which are not evaluated, are
// listed without their operands, unless the handle has extensions.
#include "krv_expr_table.h"

#include "krv_dwarf.h"

#include <initializer_list>

static consteval std::array<idata, KRV_NOPERATIONS> make_table()
{
    std::array<idata, KRV_NOPERATIONS> t{}; // rows that nothing sets are not defined
    constexpr uint32_t SIGNED = KRV_FORM_F_SIGNED;
    const auto set = [&t](unsigned op, uint32_t push, uint32_t pop, krv_form_t form = 0, uint32_t form_flags = 0) {
        t[op] = {.version = 2, .flags = 0, .push = push, .pop = pop, .ff = {{form, form_flags}, {0, 0}}};
    };
    const auto set_range = [&set](unsigned first, unsigned last, uint32_t push, uint32_t pop, krv_form_t form = 0) {
        for (unsigned op = first; op <= last; ++op)
            set(op, push, pop, form);
    };
    const auto flag = [&t](unsigned first, unsigned last, uint32_t flags) {
        for (unsigned op = first; op <= last; ++op)
            t[op].flags = flags;
    };

    // literal encodings
    set_range(DW_OP_lit0, DW_OP_lit31, 1, 0);
    set(DW_OP_addr, 1, 0, DW_FORM_addr);
    set(DW_OP_const1u, 1, 0, DW_FORM_data1);
    set(DW_OP_const1s, 1, 0, DW_FORM_data1, SIGNED);
    set(DW_OP_const2u, 1, 0, DW_FORM_data2);
    set(DW_OP_const2s, 1, 0, DW_FORM_data2, SIGNED);
    set(DW_OP_const4u, 1, 0, DW_FORM_data4);
    set(DW_OP_const4s, 1, 0, DW_FORM_data4, SIGNED);
    set(DW_OP_const8u, 1, 0, DW_FORM_data8);
    set(DW_OP_const8s, 1, 0, DW_FORM_data8, SIGNED);
    set(DW_OP_constu, 1, 0, DW_FORM_udata);
    set(DW_OP_consts, 1, 0, DW_FORM_sdata);

    // register based addressing
    set(DW_OP_fbreg, 1, 0, DW_FORM_sdata);
    set_range(DW_OP_breg0, DW_OP_breg31, 1, 0, DW_FORM_sdata);
    set(DW_OP_bregx, 1, 0, DW_FORM_udata);
    t[DW_OP_bregx].ff[1].form = DW_FORM_sdata;

    // stack operations
    set(DW_OP_dup, 1, 1);
    set(DW_OP_drop, 0, 1);
    set(DW_OP_pick, 1, 0, DW_FORM_data1);
    set(DW_OP_over, 1, 2);
    set(DW_OP_swap, 0, 2);
    set(DW_OP_rot, 0, 3);
    set(DW_OP_deref, 0, 1);
    set(DW_OP_deref_size, 0, 1, DW_FORM_data1);
    set(DW_OP_xderef, 0, 2);
    set(DW_OP_xderef_size, 0, 2);
    set(DW_OP_push_object_address, 1, 0);
    set(DW_OP_form_tls_address, 0, 1);
    set(DW_OP_call_frame_cfa, 1, 0);
    t[DW_OP_call_frame_cfa].version = 3;
    flag(DW_OP_call_frame_cfa, DW_OP_call_frame_cfa, KRV_OP_F_NOT_CFI);

    // arithmetic and logical operations
    set(DW_OP_abs, 0, 1);
    set_range(DW_OP_and, DW_OP_mul, 0, 2); // and, div, minus, mod, mul
    set(DW_OP_neg, 0, 1);
    set(DW_OP_not, 0, 1);
    set(DW_OP_or, 0, 2);
    set(DW_OP_plus, 0, 2);
    set(DW_OP_plus_uconst, 0, 1, DW_FORM_udata);
    set_range(DW_OP_shl, DW_OP_xor, 0, 2); // shl, shr, shra, xor

    // control flow operations
    set_range(DW_OP_eq, DW_OP_ne, 0, 2); // eq, ge, gt, le, lt, ne
    set(DW_OP_skip, 0, 0, DW_FORM_data2, SIGNED);
    set(DW_OP_bra, 0, 1, DW_FORM_data2, SIGNED);
    flag(DW_OP_skip, DW_OP_skip, KRV_OP_F_BRANCH);
    flag(DW_OP_bra, DW_OP_bra, KRV_OP_F_BRANCH);
    set_range(DW_OP_call2, DW_OP_call_ref, 0, 0);
    set(DW_OP_nop, 0, 0);

    // location descriptions
    set_range(DW_OP_reg0, DW_OP_reg31, 0, 0);
    set(DW_OP_regx, 0, 0, DW_FORM_udata);
    set(DW_OP_implicit_value, 0, 0, DW_FORM_block);
    set(DW_OP_stack_value, 0, 1);
    set(DW_OP_piece, 0, 0, DW_FORM_udata);
    set(DW_OP_bit_piece, 0, 0);
    flag(DW_OP_reg0, DW_OP_reg31, KRV_OP_F_LOCATION);
    flag(DW_OP_regx, DW_OP_regx, KRV_OP_F_LOCATION);
    flag(DW_OP_piece, DW_OP_piece, KRV_OP_F_LOCATION);
    flag(DW_OP_implicit_value, DW_OP_stack_value, KRV_OP_F_LOCATION);
    return t;
}

static constexpr auto table = make_table();

static_assert(
    [] {
        unsigned defined = 0;
        for (const idata &row : table)
            defined += row.version != 0;
        return defined == KRV_NOPERATIONS - 6; // 0x00 to 0x02, 0x04, 0x05 and 0x07 are reserved
    }(),
    "a row for every operation");
static_assert(table[DW_OP_lit31].push == 1 && table[DW_OP_rot].pop == 3 && table[DW_OP_stack_value].pop == 1);

static consteval krv_expr_rows_t make_base()
{
    krv_expr_rows_t base{.count = KRV_NOPERATIONS, .rows = {}};
    for (unsigned op = 0; op < KRV_NOPERATIONS; ++op)
        base.rows[op] = table[op];
    return base;
}

// DWARF 5, 7.7.1, and what GNU tools wrote before it under other numbers.
static consteval krv_expr_rows_t make_extended()
{
    krv_expr_rows_t all = make_base();
    all.count = 0x100;
    const auto set = [&all](std::initializer_list<unsigned> ops, krv_form_t first = 0, krv_form_t second = 0,
                            uint32_t flags = 0) {
        for (const unsigned op : ops)
            all.rows[op] = {.version = 5, .flags = flags, .push = 0, .pop = 0, .ff = {{first, 0}, {second, 0}}};
    };
    const auto needs = [&all](std::initializer_list<unsigned> ops, uint32_t push, uint32_t pop) {
        for (const unsigned op : ops) {
            all.rows[op].push = push;
            all.rows[op].pop = pop;
        }
    };
    constexpr krv_form_t ULEB = DW_FORM_udata, OFFSET = DW_FORM_sec_offset;
    set({DW_OP_implicit_pointer, DW_OP_GNU_implicit_pointer}, OFFSET, DW_FORM_sdata, KRV_OP_F_LOCATION);
    set({DW_OP_addrx, DW_OP_GNU_addr_index, DW_OP_constx, DW_OP_GNU_const_index}, ULEB);
    set({DW_OP_entry_value, DW_OP_GNU_entry_value}, DW_FORM_block, 0, KRV_OP_F_NOT_CFI);
    needs({DW_OP_entry_value, DW_OP_GNU_entry_value}, 1, 0);
    set({DW_OP_const_type, DW_OP_GNU_const_type}, ULEB, DW_FORM_block1);
    set({DW_OP_regval_type, DW_OP_GNU_regval_type}, ULEB, ULEB);
    set({DW_OP_deref_type, DW_OP_GNU_deref_type, DW_OP_xderef_type}, DW_FORM_data1, ULEB);
    set({DW_OP_convert, DW_OP_GNU_convert, DW_OP_reinterpret, DW_OP_GNU_reinterpret}, ULEB);
    needs({DW_OP_convert, DW_OP_GNU_convert, DW_OP_reinterpret, DW_OP_GNU_reinterpret}, 0, 1);
    set({DW_OP_GNU_push_tls_address, DW_OP_GNU_uninit});
    set({DW_OP_GNU_parameter_ref}, DW_FORM_data4);
    set({DW_OP_GNU_variable_value}, OFFSET);

    const auto operands = [&all](unsigned op, krv_form_t first, krv_form_t second = 0) {
        all.rows[op].ff[0] = {first, 0};
        all.rows[op].ff[1] = {second, 0};
    };
    operands(DW_OP_xderef_size, DW_FORM_data1);
    operands(DW_OP_call2, DW_FORM_data2);
    operands(DW_OP_call4, DW_FORM_data4);
    operands(DW_OP_call_ref, OFFSET);
    operands(DW_OP_bit_piece, ULEB, ULEB);
    return all;
}

constexpr krv_expr_rows_t krv_expr_base_rows = make_base();
constexpr krv_expr_rows_t krv_expr_extended_rows = make_extended();

static_assert(
    [] {
        unsigned defined = 0;
        for (const idata &row : krv_expr_extended_rows.rows)
            defined += row.version == 5;
        return defined == 23;
    }(),
    "a row for every operation");
