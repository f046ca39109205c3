// SPDX-License-Identifier: Apache-2.0
//
// What DWARF 5, GNU tools and Go add to the lists of krv_dwarf.h, in lists of the same kind. Their names are known to handles
// with extensions. The forms are in krv_form.h.
#ifndef KRV_DWARF5_H
#define KRV_DWARF5_H

// clang-format off

// DWARF 5, 7.5.4, table 7.5
#define KRV_DW_AT_EXT(X) \
    X(DW_AT_string_length_bit_size, 0x6f) \
    X(DW_AT_string_length_byte_size, 0x70) \
    X(DW_AT_rank, 0x71) \
    X(DW_AT_str_offsets_base, 0x72) \
    X(DW_AT_addr_base, 0x73) \
    X(DW_AT_rnglists_base, 0x74) \
    X(DW_AT_dwo_name, 0x76) \
    X(DW_AT_reference, 0x77) \
    X(DW_AT_rvalue_reference, 0x78) \
    X(DW_AT_macros, 0x79) \
    X(DW_AT_call_all_calls, 0x7a) \
    X(DW_AT_call_all_source_calls, 0x7b) \
    X(DW_AT_call_all_tail_calls, 0x7c) \
    X(DW_AT_call_return_pc, 0x7d) \
    X(DW_AT_call_value, 0x7e) \
    X(DW_AT_call_origin, 0x7f) \
    X(DW_AT_call_parameter, 0x80) \
    X(DW_AT_call_pc, 0x81) \
    X(DW_AT_call_tail_call, 0x82) \
    X(DW_AT_call_target, 0x83) \
    X(DW_AT_call_target_clobbered, 0x84) \
    X(DW_AT_call_data_location, 0x85) \
    X(DW_AT_call_data_value, 0x86) \
    X(DW_AT_noreturn, 0x87) \
    X(DW_AT_alignment, 0x88) \
    X(DW_AT_export_symbols, 0x89) \
    X(DW_AT_deleted, 0x8a) \
    X(DW_AT_defaulted, 0x8b) \
    X(DW_AT_loclists_base, 0x8c) \
    X(DW_AT_MIPS_linkage_name, 0x2007) \
    X(DW_AT_sf_names, 0x2101) \
    X(DW_AT_src_info, 0x2102) \
    X(DW_AT_mac_info, 0x2103) \
    X(DW_AT_src_coords, 0x2104) \
    X(DW_AT_body_begin, 0x2105) \
    X(DW_AT_body_end, 0x2106) \
    X(DW_AT_GNU_vector, 0x2107) \
    X(DW_AT_GNU_guarded_by, 0x2108) \
    X(DW_AT_GNU_pt_guarded_by, 0x2109) \
    X(DW_AT_GNU_guarded, 0x210a) \
    X(DW_AT_GNU_pt_guarded, 0x210b) \
    X(DW_AT_GNU_locks_excluded, 0x210c) \
    X(DW_AT_GNU_exclusive_locks_required, 0x210d) \
    X(DW_AT_GNU_shared_locks_required, 0x210e) \
    X(DW_AT_GNU_odr_signature, 0x210f) \
    X(DW_AT_GNU_template_name, 0x2110) \
    X(DW_AT_GNU_call_site_value, 0x2111) \
    X(DW_AT_GNU_call_site_data_value, 0x2112) \
    X(DW_AT_GNU_call_site_target, 0x2113) \
    X(DW_AT_GNU_call_site_target_clobbered, 0x2114) \
    X(DW_AT_GNU_tail_call, 0x2115) \
    X(DW_AT_GNU_all_tail_call_sites, 0x2116) \
    X(DW_AT_GNU_all_call_sites, 0x2117) \
    X(DW_AT_GNU_all_source_call_sites, 0x2118) \
    X(DW_AT_GNU_macros, 0x2119) \
    X(DW_AT_GNU_deleted, 0x211a) \
    X(DW_AT_GNU_dwo_name, 0x2130) \
    X(DW_AT_GNU_dwo_id, 0x2131) \
    X(DW_AT_GNU_ranges_base, 0x2132) \
    X(DW_AT_GNU_addr_base, 0x2133) \
    X(DW_AT_GNU_pubnames, 0x2134) \
    X(DW_AT_GNU_pubtypes, 0x2135) \
    X(DW_AT_GNU_discriminator, 0x2136) \
    X(DW_AT_GNU_locviews, 0x2137) \
    X(DW_AT_GNU_entry_view, 0x2138) \
    X(DW_AT_use_GNAT_descriptive_type, 0x2301) \
    X(DW_AT_GNAT_descriptive_type, 0x2302) \
    X(DW_AT_GNU_numerator, 0x2303) \
    X(DW_AT_GNU_denominator, 0x2304) \
    X(DW_AT_GNU_bias, 0x2305) \
    X(DW_AT_go_kind, 0x2900) \
    X(DW_AT_go_key, 0x2901) \
    X(DW_AT_go_elem, 0x2902) \
    X(DW_AT_go_embedded_field, 0x2903) \
    X(DW_AT_go_runtime_type, 0x2904) \
    X(DW_AT_go_package_name, 0x2905) \
    X(DW_AT_go_dict_index, 0x2906)

// DWARF 5, 7.8
#define KRV_DW_ATE_EXT(X) \
    X(DW_ATE_UCS, 0x11) \
    X(DW_ATE_ASCII, 0x12)

// DWARF 5, 7.15
#define KRV_DW_CC_EXT(X) \
    X(DW_CC_pass_by_reference, 0x04) \
    X(DW_CC_pass_by_value, 0x05)

// Of GNU tools
#define KRV_DW_CFA_EXT(X) \
    X(DW_CFA_GNU_args_size, 0x2e) \
    X(DW_CFA_GNU_negative_offset_extended, 0x2f)

// Linux Standard Base, 10.5.1; the last one is a flag
#define KRV_DW_EH_EXT(X) \
    X(DW_EH_PE_funcrel, 0x40) \
    X(DW_EH_PE_aligned, 0x50) \
    X(DW_EH_PE_indirect, 0x80)

// DWARF 5, 7.12, and those registered since
#define KRV_DW_LANG_EXT(X) \
    X(DW_LANG_OpenCL, 0x15) \
    X(DW_LANG_Go, 0x16) \
    X(DW_LANG_Modula3, 0x17) \
    X(DW_LANG_Haskell, 0x18) \
    X(DW_LANG_C_plus_plus_03, 0x19) \
    X(DW_LANG_C_plus_plus_11, 0x1a) \
    X(DW_LANG_OCaml, 0x1b) \
    X(DW_LANG_Rust, 0x1c) \
    X(DW_LANG_C11, 0x1d) \
    X(DW_LANG_Swift, 0x1e) \
    X(DW_LANG_Julia, 0x1f) \
    X(DW_LANG_Dylan, 0x20) \
    X(DW_LANG_C_plus_plus_14, 0x21) \
    X(DW_LANG_Fortran03, 0x22) \
    X(DW_LANG_Fortran08, 0x23) \
    X(DW_LANG_RenderScript, 0x24) \
    X(DW_LANG_BLISS, 0x25) \
    X(DW_LANG_Kotlin, 0x26) \
    X(DW_LANG_Zig, 0x27) \
    X(DW_LANG_Crystal, 0x28) \
    X(DW_LANG_C_plus_plus_17, 0x2a) \
    X(DW_LANG_C_plus_plus_20, 0x2b) \
    X(DW_LANG_C17, 0x2c) \
    X(DW_LANG_Fortran18, 0x2d) \
    X(DW_LANG_Ada2005, 0x2e) \
    X(DW_LANG_Ada2012, 0x2f) \
    X(DW_LANG_Mips_Assembler, 0x8001)

// DWARF 5, 7.7.1
#define KRV_DW_OP_EXT(X) \
    X(DW_OP_implicit_pointer, 0xa0) \
    X(DW_OP_addrx, 0xa1) \
    X(DW_OP_constx, 0xa2) \
    X(DW_OP_entry_value, 0xa3) \
    X(DW_OP_const_type, 0xa4) \
    X(DW_OP_regval_type, 0xa5) \
    X(DW_OP_deref_type, 0xa6) \
    X(DW_OP_xderef_type, 0xa7) \
    X(DW_OP_convert, 0xa8) \
    X(DW_OP_reinterpret, 0xa9) \
    X(DW_OP_GNU_push_tls_address, 0xe0) \
    X(DW_OP_GNU_uninit, 0xf0) \
    X(DW_OP_GNU_implicit_pointer, 0xf2) \
    X(DW_OP_GNU_entry_value, 0xf3) \
    X(DW_OP_GNU_const_type, 0xf4) \
    X(DW_OP_GNU_regval_type, 0xf5) \
    X(DW_OP_GNU_deref_type, 0xf6) \
    X(DW_OP_GNU_convert, 0xf7) \
    X(DW_OP_GNU_reinterpret, 0xf9) \
    X(DW_OP_GNU_parameter_ref, 0xfa) \
    X(DW_OP_GNU_addr_index, 0xfb) \
    X(DW_OP_GNU_const_index, 0xfc) \
    X(DW_OP_GNU_variable_value, 0xfd)

// DWARF 5, 7.5.3, table 7.3
#define KRV_DW_TAG_EXT(X) \
    X(DW_TAG_coarray_type, 0x44) \
    X(DW_TAG_generic_subrange, 0x45) \
    X(DW_TAG_dynamic_type, 0x46) \
    X(DW_TAG_atomic_type, 0x47) \
    X(DW_TAG_call_site, 0x48) \
    X(DW_TAG_call_site_parameter, 0x49) \
    X(DW_TAG_skeleton_unit, 0x4a) \
    X(DW_TAG_immutable_type, 0x4b) \
    X(DW_TAG_format_label, 0x4101) \
    X(DW_TAG_function_template, 0x4102) \
    X(DW_TAG_class_template, 0x4103) \
    X(DW_TAG_GNU_BINCL, 0x4104) \
    X(DW_TAG_GNU_EINCL, 0x4105) \
    X(DW_TAG_GNU_template_template_param, 0x4106) \
    X(DW_TAG_GNU_template_parameter_pack, 0x4107) \
    X(DW_TAG_GNU_formal_parameter_pack, 0x4108) \
    X(DW_TAG_GNU_call_site, 0x4109) \
    X(DW_TAG_GNU_call_site_parameter, 0x410a)

// clang-format on

#define KRV_ENUMERATOR(name, value) name = (value),
enum : unsigned { KRV_DW_AT_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_ATE_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_CC_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_CFA_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_EH_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_LANG_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_OP_EXT(KRV_ENUMERATOR) };
enum : unsigned { KRV_DW_TAG_EXT(KRV_ENUMERATOR) };
#undef KRV_ENUMERATOR

#endif
