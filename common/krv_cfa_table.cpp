// SPDX-License-Identifier: Apache-2.0
#include "krv_cfa_table.h"

static consteval std::array<krv_cfa_desc_t, KRV_CFA_ROWS> make_table()
{
    std::array<krv_cfa_desc_t, KRV_CFA_ROWS> t{}; // rows that nothing sets are not defined
    constexpr uint32_t REGISTER = KRV_CFA_F_REGISTER, SECOND = KRV_CFA_F_SECOND, BLOCK = KRV_CFA_F_BLOCK;
    const auto set = [&t](uint8_t op, uint32_t flags = 0, krv_form_t first = 0, krv_form_t second = 0) {
        t[krv_cfa_row(op)] = {1, {first, second}, flags};
    };

    // 6.4.2.1 row creation
    set(DW_CFA_set_loc, 0, DW_FORM_addr);
    set(DW_CFA_advance_loc);
    set(DW_CFA_advance_loc1, 0, DW_FORM_data1);
    set(DW_CFA_advance_loc2, 0, DW_FORM_data2);
    set(DW_CFA_advance_loc4, 0, DW_FORM_data4);

    // 6.4.2.2 CFA
    set(DW_CFA_def_cfa, REGISTER, DW_FORM_udata, DW_FORM_udata);
    set(DW_CFA_def_cfa_sf, REGISTER, DW_FORM_udata, DW_FORM_sdata);
    set(DW_CFA_def_cfa_register, REGISTER, DW_FORM_udata);
    set(DW_CFA_def_cfa_offset, 0, DW_FORM_udata);
    set(DW_CFA_def_cfa_offset_sf, 0, DW_FORM_sdata);
    set(DW_CFA_def_cfa_expression, BLOCK);

    // 6.4.2.3 registers
    set(DW_CFA_undefined, REGISTER, DW_FORM_udata);
    set(DW_CFA_same_value, REGISTER, DW_FORM_udata);
    set(DW_CFA_offset, REGISTER, 0, DW_FORM_udata);
    set(DW_CFA_offset_extended, REGISTER, DW_FORM_udata, DW_FORM_udata);
    set(DW_CFA_offset_extended_sf, REGISTER, DW_FORM_udata, DW_FORM_sdata);
    set(DW_CFA_val_offset, REGISTER, DW_FORM_udata, DW_FORM_udata);
    set(DW_CFA_val_offset_sf, REGISTER, DW_FORM_udata, DW_FORM_sdata);
    set(DW_CFA_register, REGISTER | SECOND, DW_FORM_udata, DW_FORM_udata);
    set(DW_CFA_expression, REGISTER | BLOCK, DW_FORM_udata);
    set(DW_CFA_val_expression, REGISTER | BLOCK, DW_FORM_udata);
    set(DW_CFA_restore, REGISTER);
    set(DW_CFA_restore_extended, REGISTER, DW_FORM_udata);

    // 6.4.2.4 row states, 6.4.2.5 padding
    set(DW_CFA_remember_state);
    set(DW_CFA_restore_state);
    set(DW_CFA_nop);

    // Of vendors. GNU_window_save is decoded, and refused when its turn comes.
    set(DW_CFA_GNU_window_save);
    set(DW_CFA_VESK_arg_loc, BLOCK, DW_FORM_udata);
    return t;
}

static constexpr auto table = make_table();
static_assert(table.size() == 52 && krv_cfa_row(DW_CFA_advance_loc) == 0x31 && krv_cfa_row(DW_CFA_restore) == 0x33);
static_assert(
    [] {
        unsigned defined = 0;
        for (const krv_cfa_desc_t &row : table)
            defined += row.version;
        return defined == KRV_CFA_ROWS - 24; // 0x17 to 0x2c, 0x2e and 0x2f are reserved
    }(),
    "a row for every instruction");

constexpr std::array<krv_cfa_desc_t, KRV_CFA_ROWS> krv_cfa_table = table;

const krv_cfa_desc_t *krv_cfa_written_row(uint8_t opcode)
{
    static constexpr krv_cfa_desc_t ARGS_SIZE = {1, {DW_FORM_udata, 0}, 0};
    static constexpr krv_cfa_desc_t NEGATIVE_OFFSET = {1, {DW_FORM_udata, DW_FORM_udata}, KRV_CFA_F_REGISTER};
    return opcode == DW_CFA_GNU_args_size                  ? &ARGS_SIZE
           : opcode == DW_CFA_GNU_negative_offset_extended ? &NEGATIVE_OFFSET
                                                           : nullptr;
}

// What no row defines may be known to the reader.
static consteval uint8_t shape_of(uint8_t opcode)
{
    if (!krv_cfa_has_row(opcode) || table[krv_cfa_row(opcode)].version == 0)
        return KRV_CFA_OTHER;
    const krv_cfa_desc_t &row = table[krv_cfa_row(opcode)];
    const krv_form_t first = row.form[0], second = row.form[1];
    if ((row.flags & KRV_CFA_F_BLOCK) != 0)
        return KRV_CFA_OTHER;
    if (second == 0)
        return first == 0               ? KRV_CFA_PLAIN
               : first == DW_FORM_udata ? KRV_CFA_ULEB
               : first == DW_FORM_data1 ? KRV_CFA_BYTE
               : first == DW_FORM_data2 ? KRV_CFA_HALF
               : first == DW_FORM_data4 ? KRV_CFA_WORD
                                        : KRV_CFA_OTHER;
    if (second != DW_FORM_udata || (first != 0 && first != DW_FORM_udata))
        return KRV_CFA_OTHER;
    return first == 0 ? KRV_CFA_ULEB : KRV_CFA_ULEBS;
}

static consteval std::array<uint8_t, 256> make_shapes()
{
    std::array<uint8_t, 256> t{};
    for (size_t opcode = 0; opcode < t.size(); ++opcode)
        t[opcode] = shape_of(static_cast<uint8_t>(opcode));
    return t;
}
constexpr std::array<uint8_t, 256> krv_cfa_shapes = make_shapes();
