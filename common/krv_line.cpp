// SPDX-License-Identifier: Apache-2.0
//
// The client's view of line numbers: the row for an address, the walk over a program, and the fields of rows and
// files. Rows hold addresses of the unit's own address space; KRV_OPT_BASE_ADDR is applied here and in krv_places alone.
#include "krv_line.h"

#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_line_search.h"
#include "krv_mem.h"

#include <cstring>

// ---------------------------------------------------------------------------------------------------------------
// Source lookup
// ---------------------------------------------------------------------------------------------------------------

uint32_t krv_lnp_search_descending(const krv_lnp_t *lnpp, const krv_lnb_t *seq, uint64_t address)
{
    int64_t lo = seq->slnb_start_index, hi = int64_t{seq->slnb_end_index} - 1;
    while (lo <= hi) {
        const auto mid = static_cast<uint32_t>((lo + hi) / 2);
        if (lnpp->slnp_rows.address(mid) > address)
            hi = int64_t{mid} - 1;
        else if (lnpp->slnp_rows.address(mid + 1) <= address)
            lo = int64_t{mid} + 1;
        else
            return mid;
    }
    return KRV_NO_ROW;
}

// An address between two sequences belongs to the one of them that the caller's range [start, end) reaches into, if
// it reaches into one only.
static uint32_t find_gap_row(const krv_lnp_t *lnpp, int64_t prev, uint64_t start, uint64_t end)
{
    const krv_lnb_t *before = prev < 0 ? nullptr : &lnpp->slnp_lnbp[prev];
    const krv_lnb_t *after = prev + 1 < int64_t{lnpp->slnp_lnbp_entries} ? &lnpp->slnp_lnbp[prev + 1] : nullptr;
    const bool reaches_before = (before == nullptr ? 0 : before->slnb_end_addr) > start;
    const bool reaches_after = after != nullptr && after->slnb_start_addr < end;
    if (reaches_before == reaches_after)
        return KRV_NO_ROW;
    return reaches_before ? before->slnb_end_index - 1 : after->slnb_start_index;
}

[[gnu::noinline]] static krv_lnph_t *find_header(krv_handle_t *hp, krv_ctu_t *cup)
{
    if (cup->dcu_section != KRV_SEC_INFO) {
        krv_fail(hp, KRV_ERR_INVALID, "only .debug_info can refer to a line number header");
        return nullptr;
    }
    krv_value_t *value;
    if (krv_get_die_attr(hp, cup->dcu_compile_unit, DW_AT_stmt_list, nullptr, nullptr, &value) != 0)
        return nullptr;
    krv_lnph_t *fresh = krv_line_share_header(hp, cup, value->sa_u.su_unsigned);
    return fresh == nullptr ? nullptr : krv_publish(&cup->dcu_lnphp, fresh, krv_lnph_free);
}

// What questions about a unit begin with. False: nothing is to be asked.
static bool enter_unit(krv_handle_t *hp, const krv_ctu_t *cup)
{
    if (hp == nullptr)
        return false;
    if (cup == nullptr) {
        krv_errno(hp) = KRV_ERR_INVALID;
        return false;
    }
    krv_clear_error(hp);
    return true;
}

krv_lnph_t *korva_line_get_cu_lnph(krv_handle_t *hp, krv_ctu_t *cup)
{
    if (!enter_unit(hp, cup))
        return nullptr;
    krv_lnph_t *const known = krv_load(&cup->dcu_lnphp);
    return known != nullptr ? known : find_header(hp, cup);
}

bool krv_line_find(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size, uint64_t addr,
                   krv_line_place_t *found)
{
    if (addr < start || addr >= start + size) {
        krv_fail(hp, KRV_ERR_INVALID, "addr (0x%lx) does not lie in range described by start (0x%lx) and size (0x%lx)",
                 static_cast<unsigned long>(addr), static_cast<unsigned long>(start), static_cast<unsigned long>(size));
        return false;
    }
    krv_lnph_t *lnphp = korva_line_get_cu_lnph(hp, cup);
    if (lnphp == nullptr) {
        krv_note(hp, "couldn't find line number header for CU");
        return false;
    }
    krv_lnp_t *lnpp = krv_line_get_matrix(hp, lnphp);
    if (lnpp == nullptr) {
        krv_note(hp, "couldn't find line number program for CU");
        return false;
    }

    const uint64_t address = addr - krv_line_bias(hp);
    const uint64_t range_start = start - krv_line_bias(hp);
    const int64_t prev = krv_lnp_sequence_below(lnpp, address);
    const krv_lnb_t *seq = prev < 0 ? nullptr : &lnpp->slnp_lnbp[prev];
    const bool is_inside = seq != nullptr && address < seq->slnb_end_addr;
    const uint32_t number = is_inside ? krv_lnp_find_row(lnpp, seq, address, krv_lnb_guess(seq, address))
                                      : find_gap_row(lnpp, prev, range_start, range_start + size);
    if (number != KRV_NO_ROW) {
        *found = {lnpp, number};
        return true;
    }
    if (is_inside)
        krv_fail(hp, KRV_ERR_CORRUPT, "corrupt line number sequence in rows %u--%ufor address 0x%lx",
                 seq->slnb_start_index, seq->slnb_end_index, static_cast<unsigned long>(address));
    else
        krv_errno(hp) = KRV_ERR_NOTFOUND;
    return false;
}

krv_lns_t *korva_lookup_source_by_cu_and_addr(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size,
                                              uint64_t addr, unsigned int)
{
    krv_line_place_t found;
    if (!enter_unit(hp, cup))
        return nullptr;
    return krv_line_find(hp, cup, start, size, addr, &found) ? krv_lnp_hand_out(hp, found.matrix, found.number)
                                                             : nullptr;
}

int korva_lookup_row(krv_handle_t *hp, krv_ctu_t *cup, uint64_t start, uint64_t size, uint64_t addr, krv_row_t *rowp)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || rowp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_line_place_t found;
    if (!krv_line_find(hp, cup, start, size, addr, &found))
        return -1;
    *rowp = krv_lnp_show_row(found.matrix, found.number, krv_line_bias(hp));
    return 0;
}

int korva_iter_line_entry(krv_handle_t *hp, krv_lnph_t *lnphp, krv_iter_lne_f *func, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (lnphp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_lnp_t *lnpp = nullptr;
    const int result = krv_line_build_program(hp, lnphp, &lnpp, func, arg);
    if (lnpp != nullptr)
        krv_line_free_program(lnpp);
    return result;
}

// ---------------------------------------------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------------------------------------------

// The contract of every row accessor: 0 when the row may be read, with the error state cleared.
static int enter_row(krv_handle_t *hp, const krv_lns_t *lnsp, const void *resultp)
{
    if (hp == nullptr)
        return -1;
    if (lnsp == nullptr || resultp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return 0;
}

static int get_flag(krv_handle_t *hp, const krv_lns_t *lnsp, uint32_t flag, boolean_t *resultp)
{
    if (enter_row(hp, lnsp, resultp) != 0)
        return -1;
    *resultp = (krv_lns_get(lnsp).slns_flags & flag) != 0 ? B_TRUE : B_FALSE;
    return 0;
}

int korva_lns_get_address(krv_handle_t *hp, krv_lns_t *lnsp, uint64_t *addrp)
{
    if (enter_row(hp, lnsp, addrp) != 0)
        return -1;
    *addrp = krv_lns_get(lnsp).slns_address + krv_line_bias(hp);
    return 0;
}

int korva_lns_get_canonical_address(krv_handle_t *hp, krv_lns_t *lnsp, uint64_t *addrp)
{
    if (enter_row(hp, lnsp, addrp) != 0)
        return -1;
    *addrp = krv_lns_canonical_address(hp, lnsp) + krv_line_bias(hp);
    return 0;
}

int korva_lns_get_op_index(krv_handle_t *hp, krv_lns_t *lnsp, uint32_t *op_indexp)
{
    if (enter_row(hp, lnsp, op_indexp) != 0)
        return -1;
    *op_indexp = krv_lns_get(lnsp).slns_op_index;
    return 0;
}

int korva_lns_get_file(krv_handle_t *hp, krv_lns_t *lnsp, uint32_t *filep)
{
    if (enter_row(hp, lnsp, filep) != 0)
        return -1;
    *filep = krv_lns_get(lnsp).slns_file;
    return 0;
}

int korva_lns_get_line(krv_handle_t *hp, krv_lns_t *lnsp, uint32_t *linep)
{
    if (enter_row(hp, lnsp, linep) != 0)
        return -1;
    *linep = krv_lns_get(lnsp).slns_line;
    return 0;
}

int korva_lns_get_column(krv_handle_t *hp, krv_lns_t *lnsp, uint16_t *columnp)
{
    if (enter_row(hp, lnsp, columnp) != 0)
        return -1;
    *columnp = krv_lns_get(lnsp).slns_column;
    return 0;
}

int korva_lns_get_is(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *isp)
{
    return get_flag(hp, lnsp, KRV_LNS_FLAG_IS, isp);
}

int korva_lns_get_bb(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *bbp)
{
    return get_flag(hp, lnsp, KRV_LNS_FLAG_BB, bbp);
}

int korva_lns_get_es(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *esp)
{
    return get_flag(hp, lnsp, KRV_LNS_FLAG_ES, esp);
}

int korva_lns_get_pe(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *pep)
{
    return get_flag(hp, lnsp, KRV_LNS_FLAG_PE, pep);
}

int korva_lns_get_eb(krv_handle_t *hp, krv_lns_t *lnsp, boolean_t *ebp)
{
    return get_flag(hp, lnsp, KRV_LNS_FLAG_EB, ebp);
}

int korva_lns_get_isa(krv_handle_t *hp, krv_lns_t *lnsp, uint16_t *isap)
{
    if (enter_row(hp, lnsp, isap) != 0)
        return -1;
    *isap = krv_lns_get(lnsp).slns_isa;
    return 0;
}

int korva_lns_get_discriminator(krv_handle_t *hp, krv_lns_t *lnsp, uint16_t *discriminatorp)
{
    if (enter_row(hp, lnsp, discriminatorp) != 0)
        return -1;
    *discriminatorp = krv_lns_get(lnsp).slns_discriminator;
    return 0;
}

krv_lnfe_t *korva_lns_get_filep(krv_handle_t *hp, krv_lns_t *lnsp)
{
    return enter_row(hp, lnsp, lnsp) != 0 ? nullptr : krv_lns_file(lnsp);
}

// ---------------------------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------------------------

static int enter_file(krv_handle_t *hp, const krv_lnfe_t *lnfep, const void *resultp)
{
    if (hp == nullptr)
        return -1;
    if (lnfep == nullptr || resultp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return 0;
}

int korva_lnfe_get_path(krv_handle_t *hp, krv_lnfe_t *lnfep, char *buf, size_t len, boolean_t absolute)
{
    if (enter_file(hp, lnfep, buf) != 0)
        return -1;
    char composed[KRV_STRING_BUFSZ];
    const char *path = lnfep->slnfe_path;
    if (absolute == B_TRUE) {
        krv_lnfe_compose_path(lnfep, composed);
        path = composed;
    }
    const size_t count = strnlen(path, len);
    std::memcpy(buf, path, count);
    std::memset(buf + count, 0, len - count);
    return 0;
}

const char *korva_lnfe_path(krv_handle_t *hp, krv_lnfe_t *lnfep, boolean_t absolute)
{
    if (enter_file(hp, lnfep, lnfep) != 0)
        return nullptr;
    return absolute == B_TRUE ? krv_lnfe_absolute_path(hp, lnfep) : lnfep->slnfe_path;
}

int korva_lnfe_get_mtime(krv_handle_t *hp, krv_lnfe_t *lnfep, uint64_t *mtimep)
{
    if (enter_file(hp, lnfep, mtimep) != 0)
        return -1;
    *mtimep = lnfep->slnfe_mtime;
    return 0;
}

int korva_lnfe_get_size(krv_handle_t *hp, krv_lnfe_t *lnfep, uint64_t *sizep)
{
    if (enter_file(hp, lnfep, sizep) != 0)
        return -1;
    *sizep = lnfep->slnfe_size;
    return 0;
}
