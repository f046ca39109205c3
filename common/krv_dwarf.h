// SPDX-License-Identifier: Apache-2.0
//
// The DWARF 4 constants, each class one list of (name, value) in ascending order of value: the enumerators here and
// the printable names of krv_names.cpp are both made from it, so a name cannot drift from its number. The list of the
// forms, which says more of them, is in krv_form.h. Additions to the standard's own names are the ZEPH, GNU and VESK
// ones. Not for clients: a dwarf.h of their own would clash.
#ifndef KRV_DWARF_H
#define KRV_DWARF_H

#include "krv_dwarf5.h"
#include "krv_form.h"

// clang-format off

// DWARF 4, 7.5.4, figure 20
#define KRV_DW_AT(X) \
    X(DW_AT_sibling, 0x01) \
    X(DW_AT_location, 0x02) \
    X(DW_AT_name, 0x03) \
    X(DW_AT_ordering, 0x09) \
    X(DW_AT_byte_size, 0x0b) \
    X(DW_AT_bit_offset, 0x0c) \
    X(DW_AT_bit_size, 0x0d) \
    X(DW_AT_stmt_list, 0x10) \
    X(DW_AT_low_pc, 0x11) \
    X(DW_AT_high_pc, 0x12) \
    X(DW_AT_language, 0x13) \
    X(DW_AT_discr, 0x15) \
    X(DW_AT_discr_value, 0x16) \
    X(DW_AT_visibility, 0x17) \
    X(DW_AT_import, 0x18) \
    X(DW_AT_string_length, 0x19) \
    X(DW_AT_common_reference, 0x1a) \
    X(DW_AT_comp_dir, 0x1b) \
    X(DW_AT_const_value, 0x1c) \
    X(DW_AT_containing_type, 0x1d) \
    X(DW_AT_default_value, 0x1e) \
    X(DW_AT_inline, 0x20) \
    X(DW_AT_is_optional, 0x21) \
    X(DW_AT_lower_bound, 0x22) \
    X(DW_AT_producer, 0x25) \
    X(DW_AT_prototyped, 0x27) \
    X(DW_AT_return_addr, 0x2a) \
    X(DW_AT_start_scope, 0x2c) \
    X(DW_AT_bit_stride, 0x2e) \
    X(DW_AT_upper_bound, 0x2f) \
    X(DW_AT_abstract_origin, 0x31) \
    X(DW_AT_accessibility, 0x32) \
    X(DW_AT_address_class, 0x33) \
    X(DW_AT_artificial, 0x34) \
    X(DW_AT_base_types, 0x35) \
    X(DW_AT_calling_convention, 0x36) \
    X(DW_AT_count, 0x37) \
    X(DW_AT_data_member_location, 0x38) \
    X(DW_AT_decl_column, 0x39) \
    X(DW_AT_decl_file, 0x3a) \
    X(DW_AT_decl_line, 0x3b) \
    X(DW_AT_declaration, 0x3c) \
    X(DW_AT_discr_list, 0x3d) \
    X(DW_AT_encoding, 0x3e) \
    X(DW_AT_external, 0x3f) \
    X(DW_AT_frame_base, 0x40) \
    X(DW_AT_friend, 0x41) \
    X(DW_AT_identifier_case, 0x42) \
    X(DW_AT_macro_info, 0x43) \
    X(DW_AT_namelist_item, 0x44) \
    X(DW_AT_priority, 0x45) \
    X(DW_AT_segment, 0x46) \
    X(DW_AT_specification, 0x47) \
    X(DW_AT_static_link, 0x48) \
    X(DW_AT_type, 0x49) \
    X(DW_AT_use_location, 0x4a) \
    X(DW_AT_variable_parameter, 0x4b) \
    X(DW_AT_virtuality, 0x4c) \
    X(DW_AT_vtable_elem_location, 0x4d) \
    X(DW_AT_allocated, 0x4e) \
    X(DW_AT_associated, 0x4f) \
    X(DW_AT_data_location, 0x50) \
    X(DW_AT_byte_stride, 0x51) \
    X(DW_AT_entry_pc, 0x52) \
    X(DW_AT_use_UTF8, 0x53) \
    X(DW_AT_extension, 0x54) \
    X(DW_AT_ranges, 0x55) \
    X(DW_AT_trampoline, 0x56) \
    X(DW_AT_call_column, 0x57) \
    X(DW_AT_call_file, 0x58) \
    X(DW_AT_call_line, 0x59) \
    X(DW_AT_description, 0x5a) \
    X(DW_AT_binary_scale, 0x5b) \
    X(DW_AT_decimal_scale, 0x5c) \
    X(DW_AT_small, 0x5d) \
    X(DW_AT_decimal_sign, 0x5e) \
    X(DW_AT_digit_count, 0x5f) \
    X(DW_AT_picture_string, 0x60) \
    X(DW_AT_mutable, 0x61) \
    X(DW_AT_threads_scaled, 0x62) \
    X(DW_AT_explicit, 0x63) \
    X(DW_AT_object_pointer, 0x64) \
    X(DW_AT_endianity, 0x65) \
    X(DW_AT_elemental, 0x66) \
    X(DW_AT_pure, 0x67) \
    X(DW_AT_recursive, 0x68) \
    X(DW_AT_signature, 0x69) \
    X(DW_AT_main_subprogram, 0x6a) \
    X(DW_AT_data_bit_offset, 0x6b) \
    X(DW_AT_const_expr, 0x6c) \
    X(DW_AT_enum_class, 0x6d) \
    X(DW_AT_linkage_name, 0x6e) \
    X(DW_AT_ZEPH_alignment, 0x2202) \
    X(DW_AT_ZEPH_command_line, 0x2205) \
    X(DW_AT_ZEPH_compile_options, 0x2207) \
    X(DW_AT_ZEPH_language, 0x2208) \
    X(DW_AT_ZEPH_func_offsets, 0x2211) \
    X(DW_AT_ZEPH_cf_kind, 0x2212) \
    X(DW_AT_ZEPH_original_name, 0x2222) \
    X(DW_AT_ZEPH_amd64_parmdump, 0x2224)

// DWARF 4, 7.8
#define KRV_DW_ATE(X) \
    X(DW_ATE_address, 0x01) \
    X(DW_ATE_boolean, 0x02) \
    X(DW_ATE_complex_float, 0x03) \
    X(DW_ATE_float, 0x04) \
    X(DW_ATE_signed, 0x05) \
    X(DW_ATE_signed_char, 0x06) \
    X(DW_ATE_unsigned, 0x07) \
    X(DW_ATE_unsigned_char, 0x08) \
    X(DW_ATE_imaginary_float, 0x09) \
    X(DW_ATE_packed_decimal, 0x0a) \
    X(DW_ATE_numeric_string, 0x0b) \
    X(DW_ATE_edited, 0x0c) \
    X(DW_ATE_signed_fixed, 0x0d) \
    X(DW_ATE_unsigned_fixed, 0x0e) \
    X(DW_ATE_decimal_float, 0x0f) \
    X(DW_ATE_UTF, 0x10)

// DWARF 4, 7.15
#define KRV_DW_CC(X) \
    X(DW_CC_normal, 0x01) \
    X(DW_CC_program, 0x02) \
    X(DW_CC_nocall, 0x03)

// DWARF 4, 7.23; primary opcodes with their operand bits cleared
#define KRV_DW_CFA(X) \
    X(DW_CFA_nop, 0x00) \
    X(DW_CFA_set_loc, 0x01) \
    X(DW_CFA_advance_loc1, 0x02) \
    X(DW_CFA_advance_loc2, 0x03) \
    X(DW_CFA_advance_loc4, 0x04) \
    X(DW_CFA_offset_extended, 0x05) \
    X(DW_CFA_restore_extended, 0x06) \
    X(DW_CFA_undefined, 0x07) \
    X(DW_CFA_same_value, 0x08) \
    X(DW_CFA_register, 0x09) \
    X(DW_CFA_remember_state, 0x0a) \
    X(DW_CFA_restore_state, 0x0b) \
    X(DW_CFA_def_cfa, 0x0c) \
    X(DW_CFA_def_cfa_register, 0x0d) \
    X(DW_CFA_def_cfa_offset, 0x0e) \
    X(DW_CFA_def_cfa_expression, 0x0f) \
    X(DW_CFA_expression, 0x10) \
    X(DW_CFA_offset_extended_sf, 0x11) \
    X(DW_CFA_def_cfa_sf, 0x12) \
    X(DW_CFA_def_cfa_offset_sf, 0x13) \
    X(DW_CFA_val_offset, 0x14) \
    X(DW_CFA_val_offset_sf, 0x15) \
    X(DW_CFA_val_expression, 0x16) \
    X(DW_CFA_GNU_window_save, 0x2d) \
    X(DW_CFA_VESK_arg_loc, 0x30) \
    X(DW_CFA_advance_loc, 0x40) \
    X(DW_CFA_offset, 0x80) \
    X(DW_CFA_restore, 0xc0)

// DWARF 4, 7.5.3
#define KRV_DW_CHILDREN(X) \
    X(DW_CHILDREN_no, 0x00) \
    X(DW_CHILDREN_yes, 0x01)

// Pointer encodings of .eh_frame and .eh_frame_hdr (Linux Standard Base, 10.5.1)
#define KRV_DW_EH(X) \
    X(DW_EH_PE_absptr, 0x00) \
    X(DW_EH_PE_uleb128, 0x01) \
    X(DW_EH_PE_udata2, 0x02) \
    X(DW_EH_PE_udata4, 0x03) \
    X(DW_EH_PE_udata8, 0x04) \
    X(DW_EH_PE_sleb128, 0x09) \
    X(DW_EH_PE_sdata2, 0x0a) \
    X(DW_EH_PE_sdata4, 0x0b) \
    X(DW_EH_PE_sdata8, 0x0c) \
    X(DW_EH_PE_pcrel, 0x10) \
    X(DW_EH_PE_textrel, 0x20) \
    X(DW_EH_PE_datarel, 0x30) \
    X(DW_EH_PE_omit, 0xff)

// DWARF 4, 7.16
#define KRV_DW_INL(X) \
    X(DW_INL_not_inlined, 0x00) \
    X(DW_INL_inlined, 0x01) \
    X(DW_INL_declared_not_inlined, 0x02) \
    X(DW_INL_declared_inlined, 0x03)

// DWARF 4, 7.12
#define KRV_DW_LANG(X) \
    X(DW_LANG_C89, 0x01) \
    X(DW_LANG_C, 0x02) \
    X(DW_LANG_Ada83, 0x03) \
    X(DW_LANG_C_plus_plus, 0x04) \
    X(DW_LANG_Cobol74, 0x05) \
    X(DW_LANG_Cobol85, 0x06) \
    X(DW_LANG_Fortran77, 0x07) \
    X(DW_LANG_Fortran90, 0x08) \
    X(DW_LANG_Pascal83, 0x09) \
    X(DW_LANG_Modula2, 0x0a) \
    X(DW_LANG_Java, 0x0b) \
    X(DW_LANG_C99, 0x0c) \
    X(DW_LANG_Ada95, 0x0d) \
    X(DW_LANG_Fortran95, 0x0e) \
    X(DW_LANG_PLI, 0x0f) \
    X(DW_LANG_ObjC, 0x10) \
    X(DW_LANG_ObjC_plus_plus, 0x11) \
    X(DW_LANG_UPC, 0x12) \
    X(DW_LANG_D, 0x13) \
    X(DW_LANG_Python, 0x14)

// DWARF 4, 7.21
#define KRV_DW_LNE(X) \
    X(DW_LNE_end_sequence, 0x01) \
    X(DW_LNE_set_address, 0x02) \
    X(DW_LNE_define_file, 0x03) \
    X(DW_LNE_set_discriminator, 0x04)

// DWARF 4, 7.21
#define KRV_DW_LNS(X) \
    X(DW_LNS_copy, 0x01) \
    X(DW_LNS_advance_pc, 0x02) \
    X(DW_LNS_advance_line, 0x03) \
    X(DW_LNS_set_file, 0x04) \
    X(DW_LNS_set_column, 0x05) \
    X(DW_LNS_negate_stmt, 0x06) \
    X(DW_LNS_set_basic_block, 0x07) \
    X(DW_LNS_const_add_pc, 0x08) \
    X(DW_LNS_fixed_advance_pc, 0x09) \
    X(DW_LNS_set_prologue_end, 0x0a) \
    X(DW_LNS_set_epilogue_begin, 0x0b) \
    X(DW_LNS_set_isa, 0x0c)

// DWARF 4, 7.7.1
#define KRV_DW_OP(X) \
    X(DW_OP_addr, 0x03) \
    X(DW_OP_deref, 0x06) \
    X(DW_OP_const1u, 0x08) \
    X(DW_OP_const1s, 0x09) \
    X(DW_OP_const2u, 0x0a) \
    X(DW_OP_const2s, 0x0b) \
    X(DW_OP_const4u, 0x0c) \
    X(DW_OP_const4s, 0x0d) \
    X(DW_OP_const8u, 0x0e) \
    X(DW_OP_const8s, 0x0f) \
    X(DW_OP_constu, 0x10) \
    X(DW_OP_consts, 0x11) \
    X(DW_OP_dup, 0x12) \
    X(DW_OP_drop, 0x13) \
    X(DW_OP_over, 0x14) \
    X(DW_OP_pick, 0x15) \
    X(DW_OP_swap, 0x16) \
    X(DW_OP_rot, 0x17) \
    X(DW_OP_xderef, 0x18) \
    X(DW_OP_abs, 0x19) \
    X(DW_OP_and, 0x1a) \
    X(DW_OP_div, 0x1b) \
    X(DW_OP_minus, 0x1c) \
    X(DW_OP_mod, 0x1d) \
    X(DW_OP_mul, 0x1e) \
    X(DW_OP_neg, 0x1f) \
    X(DW_OP_not, 0x20) \
    X(DW_OP_or, 0x21) \
    X(DW_OP_plus, 0x22) \
    X(DW_OP_plus_uconst, 0x23) \
    X(DW_OP_shl, 0x24) \
    X(DW_OP_shr, 0x25) \
    X(DW_OP_shra, 0x26) \
    X(DW_OP_xor, 0x27) \
    X(DW_OP_bra, 0x28) \
    X(DW_OP_eq, 0x29) \
    X(DW_OP_ge, 0x2a) \
    X(DW_OP_gt, 0x2b) \
    X(DW_OP_le, 0x2c) \
    X(DW_OP_lt, 0x2d) \
    X(DW_OP_ne, 0x2e) \
    X(DW_OP_skip, 0x2f) \
    X(DW_OP_lit0, 0x30) \
    X(DW_OP_lit1, 0x31) \
    X(DW_OP_lit2, 0x32) \
    X(DW_OP_lit3, 0x33) \
    X(DW_OP_lit4, 0x34) \
    X(DW_OP_lit5, 0x35) \
    X(DW_OP_lit6, 0x36) \
    X(DW_OP_lit7, 0x37) \
    X(DW_OP_lit8, 0x38) \
    X(DW_OP_lit9, 0x39) \
    X(DW_OP_lit10, 0x3a) \
    X(DW_OP_lit11, 0x3b) \
    X(DW_OP_lit12, 0x3c) \
    X(DW_OP_lit13, 0x3d) \
    X(DW_OP_lit14, 0x3e) \
    X(DW_OP_lit15, 0x3f) \
    X(DW_OP_lit16, 0x40) \
    X(DW_OP_lit17, 0x41) \
    X(DW_OP_lit18, 0x42) \
    X(DW_OP_lit19, 0x43) \
    X(DW_OP_lit20, 0x44) \
    X(DW_OP_lit21, 0x45) \
    X(DW_OP_lit22, 0x46) \
    X(DW_OP_lit23, 0x47) \
    X(DW_OP_lit24, 0x48) \
    X(DW_OP_lit25, 0x49) \
    X(DW_OP_lit26, 0x4a) \
    X(DW_OP_lit27, 0x4b) \
    X(DW_OP_lit28, 0x4c) \
    X(DW_OP_lit29, 0x4d) \
    X(DW_OP_lit30, 0x4e) \
    X(DW_OP_lit31, 0x4f) \
    X(DW_OP_reg0, 0x50) \
    X(DW_OP_reg1, 0x51) \
    X(DW_OP_reg2, 0x52) \
    X(DW_OP_reg3, 0x53) \
    X(DW_OP_reg4, 0x54) \
    X(DW_OP_reg5, 0x55) \
    X(DW_OP_reg6, 0x56) \
    X(DW_OP_reg7, 0x57) \
    X(DW_OP_reg8, 0x58) \
    X(DW_OP_reg9, 0x59) \
    X(DW_OP_reg10, 0x5a) \
    X(DW_OP_reg11, 0x5b) \
    X(DW_OP_reg12, 0x5c) \
    X(DW_OP_reg13, 0x5d) \
    X(DW_OP_reg14, 0x5e) \
    X(DW_OP_reg15, 0x5f) \
    X(DW_OP_reg16, 0x60) \
    X(DW_OP_reg17, 0x61) \
    X(DW_OP_reg18, 0x62) \
    X(DW_OP_reg19, 0x63) \
    X(DW_OP_reg20, 0x64) \
    X(DW_OP_reg21, 0x65) \
    X(DW_OP_reg22, 0x66) \
    X(DW_OP_reg23, 0x67) \
    X(DW_OP_reg24, 0x68) \
    X(DW_OP_reg25, 0x69) \
    X(DW_OP_reg26, 0x6a) \
    X(DW_OP_reg27, 0x6b) \
    X(DW_OP_reg28, 0x6c) \
    X(DW_OP_reg29, 0x6d) \
    X(DW_OP_reg30, 0x6e) \
    X(DW_OP_reg31, 0x6f) \
    X(DW_OP_breg0, 0x70) \
    X(DW_OP_breg1, 0x71) \
    X(DW_OP_breg2, 0x72) \
    X(DW_OP_breg3, 0x73) \
    X(DW_OP_breg4, 0x74) \
    X(DW_OP_breg5, 0x75) \
    X(DW_OP_breg6, 0x76) \
    X(DW_OP_breg7, 0x77) \
    X(DW_OP_breg8, 0x78) \
    X(DW_OP_breg9, 0x79) \
    X(DW_OP_breg10, 0x7a) \
    X(DW_OP_breg11, 0x7b) \
    X(DW_OP_breg12, 0x7c) \
    X(DW_OP_breg13, 0x7d) \
    X(DW_OP_breg14, 0x7e) \
    X(DW_OP_breg15, 0x7f) \
    X(DW_OP_breg16, 0x80) \
    X(DW_OP_breg17, 0x81) \
    X(DW_OP_breg18, 0x82) \
    X(DW_OP_breg19, 0x83) \
    X(DW_OP_breg20, 0x84) \
    X(DW_OP_breg21, 0x85) \
    X(DW_OP_breg22, 0x86) \
    X(DW_OP_breg23, 0x87) \
    X(DW_OP_breg24, 0x88) \
    X(DW_OP_breg25, 0x89) \
    X(DW_OP_breg26, 0x8a) \
    X(DW_OP_breg27, 0x8b) \
    X(DW_OP_breg28, 0x8c) \
    X(DW_OP_breg29, 0x8d) \
    X(DW_OP_breg30, 0x8e) \
    X(DW_OP_breg31, 0x8f) \
    X(DW_OP_regx, 0x90) \
    X(DW_OP_fbreg, 0x91) \
    X(DW_OP_bregx, 0x92) \
    X(DW_OP_piece, 0x93) \
    X(DW_OP_deref_size, 0x94) \
    X(DW_OP_xderef_size, 0x95) \
    X(DW_OP_nop, 0x96) \
    X(DW_OP_push_object_address, 0x97) \
    X(DW_OP_call2, 0x98) \
    X(DW_OP_call4, 0x99) \
    X(DW_OP_call_ref, 0x9a) \
    X(DW_OP_form_tls_address, 0x9b) \
    X(DW_OP_call_frame_cfa, 0x9c) \
    X(DW_OP_bit_piece, 0x9d) \
    X(DW_OP_implicit_value, 0x9e) \
    X(DW_OP_stack_value, 0x9f)

// DWARF 4, 7.17
#define KRV_DW_ORD(X) \
    X(DW_ORD_row_major, 0x00) \
    X(DW_ORD_col_major, 0x01)

// DWARF 4, 7.5.4, figure 18
#define KRV_DW_TAG(X) \
    X(DW_TAG_array_type, 0x01) \
    X(DW_TAG_class_type, 0x02) \
    X(DW_TAG_entry_point, 0x03) \
    X(DW_TAG_enumeration_type, 0x04) \
    X(DW_TAG_formal_parameter, 0x05) \
    X(DW_TAG_imported_declaration, 0x08) \
    X(DW_TAG_label, 0x0a) \
    X(DW_TAG_lexical_block, 0x0b) \
    X(DW_TAG_member, 0x0d) \
    X(DW_TAG_pointer_type, 0x0f) \
    X(DW_TAG_reference_type, 0x10) \
    X(DW_TAG_compile_unit, 0x11) \
    X(DW_TAG_string_type, 0x12) \
    X(DW_TAG_structure_type, 0x13) \
    X(DW_TAG_subroutine_type, 0x15) \
    X(DW_TAG_typedef, 0x16) \
    X(DW_TAG_union_type, 0x17) \
    X(DW_TAG_unspecified_parameters, 0x18) \
    X(DW_TAG_variant, 0x19) \
    X(DW_TAG_common_block, 0x1a) \
    X(DW_TAG_common_inclusion, 0x1b) \
    X(DW_TAG_inheritance, 0x1c) \
    X(DW_TAG_inlined_subroutine, 0x1d) \
    X(DW_TAG_module, 0x1e) \
    X(DW_TAG_ptr_to_member_type, 0x1f) \
    X(DW_TAG_set_type, 0x20) \
    X(DW_TAG_subrange_type, 0x21) \
    X(DW_TAG_with_stmt, 0x22) \
    X(DW_TAG_access_declaration, 0x23) \
    X(DW_TAG_base_type, 0x24) \
    X(DW_TAG_catch_block, 0x25) \
    X(DW_TAG_const_type, 0x26) \
    X(DW_TAG_constant, 0x27) \
    X(DW_TAG_enumerator, 0x28) \
    X(DW_TAG_file_type, 0x29) \
    X(DW_TAG_friend, 0x2a) \
    X(DW_TAG_namelist, 0x2b) \
    X(DW_TAG_namelist_item, 0x2c) \
    X(DW_TAG_packed_type, 0x2d) \
    X(DW_TAG_subprogram, 0x2e) \
    X(DW_TAG_template_type_parameter, 0x2f) \
    X(DW_TAG_template_value_parameter, 0x30) \
    X(DW_TAG_thrown_type, 0x31) \
    X(DW_TAG_try_block, 0x32) \
    X(DW_TAG_variant_part, 0x33) \
    X(DW_TAG_variable, 0x34) \
    X(DW_TAG_volatile_type, 0x35) \
    X(DW_TAG_dwarf_procedure, 0x36) \
    X(DW_TAG_restrict_type, 0x37) \
    X(DW_TAG_interface_type, 0x38) \
    X(DW_TAG_namespace, 0x39) \
    X(DW_TAG_imported_module, 0x3a) \
    X(DW_TAG_unspecified_type, 0x3b) \
    X(DW_TAG_partial_unit, 0x3c) \
    X(DW_TAG_imported_unit, 0x3d) \
    X(DW_TAG_condition, 0x3f) \
    X(DW_TAG_shared_type, 0x40) \
    X(DW_TAG_type_unit, 0x41) \
    X(DW_TAG_rvalue_reference_type, 0x42) \
    X(DW_TAG_template_alias, 0x43) \
    X(DW_TAG_ZEPH_codeflags, 0x4206)

// DWARF 4, 7.10
#define KRV_DW_VIS(X) \
    X(DW_VIS_local, 0x01) \
    X(DW_VIS_exported, 0x02) \
    X(DW_VIS_qualified, 0x03)

// clang-format on

#define KRV_ENUMERATOR(name, value) name = (value),
enum : unsigned { KRV_DW_AT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_ATE(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_CC(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_CFA(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_CHILDREN(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_EH(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_INL(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_LANG(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_LNE(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_LNS(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_OP(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_ORD(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_TAG(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_VIS(KRV_ENUMERATOR) };
#undef KRV_ENUMERATOR

// Without printable names: kinds of list entries, and the parts of an encoding.
enum : unsigned {
    DW_LLE_default_location = 0x05, // DWARF 5, 7.7.3
    DW_LLE_GNU_view_pair = 0x09,
    DW_RLE_end_of_list = 0x00, // DWARF 5, 7.25
    DW_RLE_base_addressx = 0x01,
    DW_RLE_startx_endx = 0x02,
    DW_RLE_startx_length = 0x03,
    DW_RLE_offset_pair = 0x04,
    DW_RLE_base_address = 0x05,
    DW_RLE_start_end = 0x06,
    DW_RLE_start_length = 0x07,
    DW_CFA_primary = 0xc0,  // mask: the opcodes with an operand in their own byte
    DW_EH_PE_format = 0x0f, // mask: how a pointer is read
    DW_EH_PE_base = 0x70    // mask: what it counts from
};

#endif
