// SPDX-License-Identifier: Apache-2.0
#include "krv_names.h"

#include "krv_dwarf.h"
#include "krv_error.h"

#include <climits>
#include <cstdlib>
#include <iterator>

#define KRV_NAME(name, value, ...) {value, #name},
#define KRV_NAME_TABLE(class) constexpr krv_isp_t _krv_##class##_names[] = {KRV_DW_##class(KRV_NAME)}
static KRV_NAME_TABLE(AT);
static KRV_NAME_TABLE(ATE);
static KRV_NAME_TABLE(CC);
static KRV_NAME_TABLE(CFA);
static KRV_NAME_TABLE(CHILDREN);
static KRV_NAME_TABLE(EH);
static KRV_NAME_TABLE(FORM);
static KRV_NAME_TABLE(INL);
static KRV_NAME_TABLE(LANG);
static KRV_NAME_TABLE(LNE);
static KRV_NAME_TABLE(LNS);
static KRV_NAME_TABLE(OP);
static KRV_NAME_TABLE(ORD);
static KRV_NAME_TABLE(TAG);
static KRV_NAME_TABLE(VIS);
#undef KRV_NAME_TABLE
#define KRV_NAME_TABLE(class) constexpr krv_isp_t EXT_##class##_NAMES[] = {KRV_DW_##class(KRV_NAME)}
static KRV_NAME_TABLE(AT_EXT);
static KRV_NAME_TABLE(ATE_EXT);
static KRV_NAME_TABLE(CC_EXT);
static KRV_NAME_TABLE(CFA_EXT);
static KRV_NAME_TABLE(EH_EXT);
static KRV_NAME_TABLE(FORM_NEW);
static KRV_NAME_TABLE(LANG_EXT);
static KRV_NAME_TABLE(OP_EXT);
static KRV_NAME_TABLE(TAG_EXT);
#undef KRV_NAME_TABLE
#undef KRV_NAME

// Rows indexed by krv_def_t.
#define KRV_ROW(class)                                                                                                 \
    {                                                                                                                  \
        _krv_##class##_names, std::size(_krv_##class##_names)                                                          \
    }
constexpr krv_nap_t _krv_name_tables[KRV_DEF_MAX] = {
    KRV_ROW(AT),  KRV_ROW(ATE),  KRV_ROW(CC),  KRV_ROW(CFA),  KRV_ROW(CHILDREN),
    KRV_ROW(EH),  KRV_ROW(FORM), KRV_ROW(INL), KRV_ROW(LANG), KRV_ROW(LNE),
    KRV_ROW(LNS), KRV_ROW(OP),   KRV_ROW(ORD), KRV_ROW(TAG),  KRV_ROW(VIS),
};
#undef KRV_ROW

// What extensions add, likewise.
#define KRV_ROW(class)                                                                                                 \
    {                                                                                                                  \
        EXT_##class##_NAMES, std::size(EXT_##class##_NAMES)                                                            \
    }
constexpr krv_nap_t EXT_TABLES[KRV_DEF_MAX] = {
    KRV_ROW(AT_EXT),
    KRV_ROW(ATE_EXT),
    KRV_ROW(CC_EXT),
    KRV_ROW(CFA_EXT),
    {},
    KRV_ROW(EH_EXT),
    KRV_ROW(FORM_NEW),
    {},
    KRV_ROW(LANG_EXT),
    {},
    {},
    KRV_ROW(OP_EXT),
    {},
    KRV_ROW(TAG_EXT),
    {},
};
#undef KRV_ROW

static constexpr bool is_ascending(const krv_nap_t &table)
{
    for (size_t j = 1; j < table.dwnap_table_size; ++j)
        if (table.dwnap_tablep[j - 1].dwisp_key >= table.dwnap_tablep[j].dwisp_key)
            return false;
    return true;
}

static_assert(
    [] {
        constexpr size_t rows[KRV_DEF_MAX] = {100, 16, 3, 28, 2, 13, 25, 4, 20, 4, 12, 154, 2, 61, 3};
        for (size_t i = 0; i < std::size(rows); ++i) {
            if (_krv_name_tables[i].dwnap_table_size != rows[i] || !is_ascending(_krv_name_tables[i]) ||
                !is_ascending(EXT_TABLES[i]))
                return false;
        }
        return true;
    }(),
    "every table complete, and strictly ascending for the binary search");

int krv_compare_uint(const void *a, const void *b)
{
    const unsigned int x = *static_cast<const unsigned int *>(a);
    const unsigned int y = *static_cast<const unsigned int *>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

static char *find_name(const krv_nap_t *table, unsigned int key)
{
    if (table->dwnap_table_size == 0)
        return nullptr;
    const void *row =
        std::bsearch(&key, table->dwnap_tablep, table->dwnap_table_size, sizeof(krv_isp_t), krv_compare_uint);
    return row == nullptr ? nullptr : const_cast<char *>(static_cast<const krv_isp_t *>(row)->dwisp_valuep);
}

char *krv_print_define(unsigned int index, unsigned int key)
{
    // clang-format off
    KRV_ASSERT(index < sizeof (_krv_name_tables) / sizeof (_krv_name_tables[0]));
    // clang-format on
    return find_name(&_krv_name_tables[index], key);
}

char *krv_print_known(const krv_handle_t *hp, unsigned int index, unsigned int key)
{
    char *name = krv_print_define(index, key);
    return name == nullptr && hp->sh_ext != 0 ? find_name(&EXT_TABLES[index], key) : name;
}

const char *krv_name_or_unknown(unsigned int index, uint64_t key)
{
    const char *name = key > UINT_MAX ? nullptr : krv_print_define(index, static_cast<unsigned int>(key));
    return name == nullptr ? "unknown" : name;
}

const char *krv_form_name(krv_form_t form, bool is_extended)
{
#define KRV_CASE(name, written, code, ...)                                                                             \
    case code:                                                                                                         \
        return #name;
    if (is_extended)
        switch (form) {
            KRV_DW_FORM_EXT(KRV_CASE)
        default:
            break;
        }
#undef KRV_CASE
    return krv_name_or_unknown(KRV_DEF_FORM, form);
}

char *korva_print_define(krv_handle_t *hp, krv_def_t index, unsigned int key)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    if (index < 0 || index >= KRV_DEF_MAX) {
        krv_fail(hp, KRV_ERR_INVALID, "index (%d) out of range", index);
        return nullptr;
    }
    char *name = krv_print_known(hp, static_cast<unsigned int>(index), key);
    if (name == nullptr)
        krv_fail(hp, KRV_ERR_INVALID, "unknown key (%d) for index (%d)", static_cast<int>(key), index);
    return name;
}
