// SPDX-License-Identifier: Apache-2.0
//
// What units of DWARF 5 have beyond those before: another header, and tables that values of entries count in. Those of
// split units of version 4, as GNU tools write them, are the same without headers.
#include "krv_info.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"

namespace
{

struct table_kind {
    krv_secidx_t section;
    bool has_lists;     // its header tells the number of offsets, which lead to lists behind them
    bool has_addresses; // its elements are addresses; else offsets
};

constexpr table_kind KINDS[KRV_BASES] = {
    {KRV_SEC_EXT_STR_OFFSETS, false, false},
    {KRV_SEC_EXT_ADDR, false, true},
    {KRV_SEC_EXT_RNGLISTS, true, false},
    {KRV_SEC_EXT_LOCLISTS, true, false},
};

} // namespace

static bool is_dwarf64(const krv_ctu_t *cu)
{
    return (cu->dcu_flags & KRV_CU_FLAG_DWARF64) != 0;
}

// Bytes of the header that stands before the elements of a table (DWARF 5, 7.26 to 7.29): none before version 5.
static uint64_t table_header_size(const krv_ctu_t *cu, const table_kind &kind)
{
    if (cu->dcu_version < 5)
        return 0;
    return (is_dwarf64(cu) ? 12U : 4U) + 4U + (kind.has_lists ? 4U : 0U);
}

void krv_cu_start_bases(krv_ctu_t *cu)
{
    for (unsigned int base = 0; base < KRV_BASES; ++base)
        cu->dcu_bases[base] = table_header_size(cu, KINDS[base]);
}

int krv_info_read_later_header(krv_handle_t *hp, krv_ctu_t *cu, krv_fd_t *fdp)
{
    cu->dcu_kind = 0;
    if (cu->dcu_version != 5 || (hp->sh_ext & KRV_EXT_DWARF5) == 0)
        return 0;
    const krv_encoding_t encoding = krv_cu_encoding(hp, cu);
    uint8_t kind = 0;
    if (!krv_read_field(fdp, DW_FORM_data1, &kind, "failed to read unit_type") ||
        !krv_read_field(fdp, DW_FORM_data1, &cu->dcu_address_size, "failed to read address_size") ||
        !krv_read_field(fdp, DW_FORM_sec_offset, encoding, &cu->dcu_debug_abbrev_offset,
                        "failed to read debug_abbreviation_offset"))
        return -1;
    cu->dcu_kind = kind <= KRV_UNIT_SPLIT_TYPE ? kind : 0;
    krv_cu_start_bases(cu);
    if (kind == KRV_UNIT_SKELETON || kind == KRV_UNIT_SPLIT_COMPILE) {
        cu->dcu_flags |= KRV_CU_FLAG_DWO_ID;
        return krv_read_field(fdp, DW_FORM_data8, &cu->dcu_type_signature, "failed to read dwo_id") ? 0 : -1;
    }
    if ((kind == KRV_UNIT_TYPE || kind == KRV_UNIT_SPLIT_TYPE) &&
        (!krv_read_field(fdp, DW_FORM_data8, &cu->dcu_type_signature, "failed to read type_signature") ||
         !krv_read_field(fdp, DW_FORM_sec_offset, encoding, &cu->dcu_type_offset, "failed to read type_offset")))
        return -1;
    return 0;
}

void krv_cu_take_bases(krv_ctu_t *cu, const krv_die_t *die)
{
    const krv_abbrev_t *abbrev = die->dwdie_abbrev_cache;
    if (cu->dcu_kind == KRV_UNIT_COMPILE && abbrev->dwa_tag == DW_TAG_partial_unit)
        cu->dcu_kind = KRV_UNIT_PARTIAL;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        const krv_attribute_t attribute = abbrev->dwa_afpairs[i].dwafp_attribute;
        if (attribute < DW_AT_str_offsets_base) // as most are
            continue;
        const uint64_t number = die->dwdie_attrs[i].sa_u.su_unsigned;
        switch (attribute) {
        case DW_AT_str_offsets_base:
            cu->dcu_bases[KRV_BASE_STR_OFFSETS] = number;
            break;
        case DW_AT_addr_base:
        case DW_AT_GNU_addr_base:
            cu->dcu_bases[KRV_BASE_ADDR] = number;
            break;
        case DW_AT_rnglists_base:
            cu->dcu_bases[KRV_BASE_RNGLISTS] = number;
            break;
        case DW_AT_loclists_base:
            cu->dcu_bases[KRV_BASE_LOCLISTS] = number;
            break;
        case DW_AT_GNU_dwo_id:
            cu->dcu_flags |= KRV_CU_FLAG_DWO_ID;
            cu->dcu_type_signature = number;
            break;
        case DW_AT_GNU_dwo_name:
            cu->dcu_kind = KRV_UNIT_SKELETON;
            break;
        default:
            break;
        }
    }
}

// Where the elements of the table at `base` end: by its header, or with the section where it has none that is sound.
static uint64_t table_end(krv_handle_t *hp, const krv_ctu_t *cu, const table_kind &kind, uint64_t base, uint64_t width)
{
    krv_fd_t fd = *krv_section(hp, kind.section);
    const uint64_t header = table_header_size(cu, kind), size = fd.sfd_size;
    if (header == 0 || base < header || krv_fd_seek(&fd, base - header) != 0)
        return size;
    if (kind.has_lists) {
        uint32_t count = 0;
        krv_fd_advance(&fd, header - sizeof(count));
        return krv_decode(&fd, DW_FORM_data4, &count) != 0 ? base : krv_add_offset(base, count * width);
    }
    krv_unit_length_t ul;
    const auto read = [&fd](size_t bytes, uint64_t *value) {
        return krv_decode(&fd, bytes == 4 ? DW_FORM_data4 : DW_FORM_data8, value) == 0;
    };
    if (krv_scan_unit_length(fd.sfd_offset, read, &ul) != krv_length_outcome_t::sound || ul.end < base || ul.end > size)
        return size;
    return ul.end;
}

// The common case: a sound table in memory, of the 32-bit format. False: not that case.
static bool read_in_memory(const krv_fd_t *section, const table_kind &kind, const krv_ctu_t *cu, uint64_t base,
                           uint64_t index, uint64_t width, uint64_t *valuep)
{
    constexpr uint64_t HEADER = 8;
    const uint64_t size = section->sfd_size;
    if (krv_fd_is_cb(section) || kind.has_lists || cu->dcu_version < 5 || is_dwarf64(cu) || base < HEADER ||
        base > size)
        return false;
    const uint8_t *elements = section->sfd_u.buf + base;
    uint32_t length;
    std::memcpy(&length, elements - HEADER, sizeof(length));
    const uint64_t begun = HEADER - sizeof(length); // bytes of the length that the header takes
    if (length < begun || length - begun > size - base || index >= (length - begun) / width)
        return false;
    *valuep = 0;
    std::memcpy(valuep, elements + index * width, width);
    return true;
}

bool krv_cu_read_indexed(krv_handle_t *hp, const krv_ctu_t *cu, krv_base_t which, uint64_t index, uint64_t *valuep)
{
    const table_kind &kind = KINDS[which];
    const uint64_t base = cu->dcu_bases[which];
    const uint64_t width = kind.has_addresses ? hp->sh_target_size : is_dwarf64(cu) ? 8 : 4;
    if (read_in_memory(krv_section(hp, kind.section), kind, cu, base, index, width, valuep))
        return true;
    krv_fd_t fd = *krv_section(hp, kind.section);
    uint64_t end = base > fd.sfd_size ? 0 : table_end(hp, cu, kind, base, width);
    end = end > fd.sfd_size ? fd.sfd_size : end;
    if (end < base || index >= (end - base) / width) {
        krv_fail(hp, KRV_ERR_CORRUPT, "index %lu at base 0x%lx leads out of %s", static_cast<unsigned long>(index),
                 static_cast<unsigned long>(base), krv_section_name(kind.section));
        return false;
    }
    if (krv_fd_seek(&fd, base + index * width) != 0 ||
        krv_decode(&fd, width == 4 ? DW_FORM_data4 : DW_FORM_data8, valuep) != 0) {
        krv_note(hp, "failed to read index %lu at base 0x%lx of %s", static_cast<unsigned long>(index),
                 static_cast<unsigned long>(base), krv_section_name(kind.section));
        return false;
    }
    if (kind.has_lists)
        *valuep = krv_add_offset(*valuep, base);
    return true;
}
