// SPDX-License-Identifier: Apache-2.0
//
// Line-number header, program, matrix, lookup and field access, of units that are always the same: two of one compilation
// directory, which share what they can, and one of another. Where extensions are on, the sections of strings stand in
// front, and the code of the object is at 0x400.
#include "input.h"

static int visit_op(krv_handle_t *hp, unsigned long, unsigned char, krv_value_t **values, unsigned int nvalues,
                    krv_lns_t *state, void *arg)
{
    uint64_t sum = 0, address;
    for (unsigned int i = 0; i < nvalues; ++i)
        sum += korva_value_unsigned(values[i]);
    korva_lns_get_canonical_address(hp, state, &address);
    *static_cast<uint64_t *>(arg) += sum;
    return 0;
}

static int ask(krv_handle_t *hp, krv_ctu_t *cu, void *arg)
{
    const uint64_t address = *static_cast<const uint64_t *>(arg);
    krv_lnph_t *lnphp = korva_line_get_cu_lnph(hp, cu);
    if (lnphp == nullptr)
        return 0;
    uint64_t sum = 0;
    korva_iter_line_entry(hp, lnphp, visit_op, &sum);

    krv_lnfe_t **files = nullptr;
    uint64_t nfiles = 0;
    krv_lnp_t *matrix = nullptr;
    korva_get_fields(hp, KRV_STRUCT_LNPH, lnphp, 2, KRV_FIELD_LNPH_FILES, &files, KRV_FIELD_LNPH_FILES_ENTRIES,
                     &nfiles);
    for (uint64_t i = 0; i < nfiles; ++i) {
        char path[8];
        korva_lnfe_get_path(hp, files[i], path, sizeof(path), B_TRUE);
        char *absolute;
        korva_get_fields(hp, KRV_STRUCT_LNFE, files[i], 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &absolute);
    }
    if (korva_get_fields(hp, KRV_STRUCT_LNPH, lnphp, 1, KRV_FIELD_LNPH_LNP, &matrix) == 0) {
        unsigned int nrows = 0;
        korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, &nrows);
        std::vector<uint64_t> addresses(nrows);
        std::vector<boolean_t> ends(nrows);
        korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 2, KRV_FIELD_LNS_ADDRESS, addresses.data(), KRV_FIELD_LNS_ES,
                         ends.data());
        korva_get_fields(hp, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNS_C_ADDRESS, addresses.data());
    }
    for (const uint64_t size : {uint64_t{1}, uint64_t{0x100}, UINT64_MAX}) {
        krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cu, address, size, address, 0);
        if (matrix == nullptr)
            continue; // a program that failed defines its files again when it is asked again, and may then succeed
        uint32_t line = 0;
        uint64_t canonical;
        const krv_lnfe_t *file = nullptr;
        if (row != nullptr) {
            korva_lns_get_line(hp, row, &line);
            korva_lns_get_canonical_address(hp, row, &canonical);
            file = korva_lns_get_filep(hp, row);
        }
        krv_row_t value = {};
        if ((korva_lookup_row(hp, cu, address, size, address, &value) == 0) != (row != nullptr) || value.line != line ||
            value.file != file)
            __builtin_trap(); // two ways to one row
        krv_row_why_t why;
        if (korva_explain_row(hp, cu, address, size, address, &why) == 0 &&
            (korva_lookup_row(hp, cu, address, size, address, &value) != 0 || why.row.number != value.number))
            __builtin_trap(); // told otherwise than answered
        krv_ctu_t *unit;
        if (size == 1 && korva_lookup_rows(hp, &address, 1, KRV_LOOKUP_F_NONE, &unit, &value) == 0 && unit == cu &&
            (value.number != KRV_ROW_NONE) != (row != nullptr))
            __builtin_trap(); // and a third
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const uint8_t abbrev[] = {1, 0x11, 0, 0x10, 0x17, 0x1b, 0x08, 0, 0, 0}; // stmt_list, comp_dir
    static const uint8_t unit[] = {16, 0, 0, 0, 4, 0, 0, 0, 0, 0, 8, 1, 0, 0, 0, 0, '/', 'd', 'i', 0};
    std::vector<uint8_t> info;
    for (const char last : {'i', 'i', 'j'}) {
        info.insert(info.end(), std::begin(unit), std::end(unit));
        info.rbegin()[1] = static_cast<uint8_t>(last);
    }
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    uint64_t address = in.number(8);
    if (in.is_extended()) {
        korva_handle_add_code(h, 0x400, 0x1000);
        for (const int sec : {int{KRV_SEC_EXT_LINE_STR}, int{KRV_SEC_STR}, int{KRV_SEC_EXT_STR_OFFSETS}})
            h.attach(sec, in.part());
    }
    static const uint8_t aranges[] = {28, 0, 0, 0, 2, 0, 0, 0, 0, 0,  8, 0, 0, 0, 0, 0, // the first unit's
                                      0,  4, 0, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0};
    h.attach(KRV_SEC_ARANGES, std::vector<uint8_t>(aranges, aranges + sizeof(aranges)));
    h.attach(KRV_SEC_ABBREV, std::vector<uint8_t>(abbrev, abbrev + sizeof(abbrev)));
    h.attach(KRV_SEC_INFO, info);
    h.attach(KRV_SEC_LINE, in.rest());
    korva_iter_cu(h, KRV_SEC_INFO, ask, &address);
    return 0;
}
