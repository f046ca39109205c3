// SPDX-License-Identifier: Apache-2.0
#include "krv_aranges.h"

#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"
#include "krv_threads.h"

namespace
{

struct arh_deleter {
    void operator()(krv_arh_t *arhp) const { krv_arh_free(arhp); }
};
using arh_owner = std::unique_ptr<krv_arh_t, arh_deleter>;

} // namespace

static uint64_t length_field_size(const krv_arh_t *arhp)
{
    return (arhp->sarh_flags & KRV_FORM_F_DWARF64) != 0 ? 12 : 4;
}

static uint64_t header_size(const krv_arh_t *arhp)
{
    return (arhp->sarh_flags & KRV_FORM_F_DWARF64) != 0 ? 24 : 12;
}

static bool read_unit_length(krv_handle_t *hp, krv_arh_t *arhp, krv_fd_t *fdp, uint64_t offset)
{
    krv_unit_length_t ul;
    if (!krv_read_unit_length(fdp, KRV_UNIT_LENGTH_TEXTS, &ul))
        return false;
    if (!krv_extent_fits(fdp->sfd_size, offset, 0, ul.length)) { // the length field itself is not counted
        krv_fail(hp, KRV_ERR_CORRUPT, "unit_length (0x%llx) too large for existing section size",
                 static_cast<unsigned long long>(ul.length));
        return false;
    }
    arhp->sarh_unit_length = ul.length;
    arhp->sarh_flags = ul.is_dwarf64 ? KRV_FORM_F_DWARF64 : 0;
    return true;
}

static bool read_header(krv_handle_t *hp, krv_arh_t *arhp, uint64_t offset)
{
    krv_fd_t *fdp = krv_position(hp, KRV_SEC_ARANGES);
    if (korva_fd_seek(fdp, offset, KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "couldn't seek in .debug_aranges");
        return false;
    }
    if (!read_unit_length(hp, arhp, fdp, offset))
        return false;
    if (!krv_read_field(fdp, DW_FORM_data2, &arhp->sarh_version, "failed to read version") ||
        !krv_read_field(fdp, DW_FORM_sec_offset, krv_encoding(hp, arhp->sarh_flags), &arhp->sarh_debug_info_offset,
                        "failed to read debug_info_offset"))
        return false;
    const uint64_t info_size = hp->sh_sec[KRV_SEC_INFO].sfd_size;
    if (arhp->sarh_debug_info_offset > info_size) {
        krv_fail(hp, KRV_ERR_CORRUPT, "debug_info_offset (%lld) exceeds size of .debug_info (%lld)",
                 static_cast<long long>(arhp->sarh_debug_info_offset), static_cast<long long>(info_size));
        return false;
    }
    if (!krv_read_field(fdp, DW_FORM_data1, &arhp->sarh_address_size, "failed to read address_size") ||
        !krv_read_field(fdp, DW_FORM_data1, &arhp->sarh_segment_size, "failed to read segment_size"))
        return false;
    arhp->sarh_offset = offset;
    return true;
}

krv_arh_t *krv_arh_alloc(krv_handle_t *hp, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    krv_owner<krv_arh_t> arhp(krv_new<krv_arh_t>(hp));
    return arhp != nullptr && read_header(hp, arhp.get(), offset) ? arhp.release() : nullptr;
}

void krv_arh_free(krv_arh_t *arhp)
{
    KRV_ASSERT(arhp != NULL);
    krv_free(arhp);
}

uint64_t krv_get_arh_debug_info_offset(krv_arh_t *arhp)
{
    KRV_ASSERT(arhp != NULL);
    return arhp->sarh_debug_info_offset;
}

uint64_t krv_get_arh_offset(krv_arh_t *arhp)
{
    KRV_ASSERT(arhp != NULL);
    return arhp->sarh_offset;
}

uint8_t krv_get_arh_segment_size(krv_arh_t *arhp)
{
    KRV_ASSERT(arhp != NULL);
    return arhp->sarh_segment_size;
}

int krv_iter_aranges_header(krv_handle_t *hp, krv_iter_arh_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    const uint64_t size = hp->sh_sec[KRV_SEC_ARANGES].sfd_size;
    uint64_t offset = 0;
    while (offset < size) {
        const arh_owner arhp(krv_arh_alloc(hp, offset));
        if (arhp == nullptr || !krv_spend(hp, arhp->sarh_unit_length))
            return -1;
        if (const int result = fn(hp, arhp.get(), arg))
            return result;
        offset = krv_add_offset(offset + arhp->sarh_unit_length, length_field_size(arhp.get()));
    }
    return 0;
}

// Places the cursor at the set's first tuple and limits it to the set.
static bool enter_set(krv_handle_t *hp, const krv_arh_t *arhp, krv_fd_t *fdp, uint64_t tuple_size)
{
    const uint64_t header = header_size(arhp);
    uint64_t skip = header; // from the set's first byte to its first tuple
    if (krv_add_offset(arhp->sarh_offset, header) % tuple_size != 0)
        skip += tuple_size - header % tuple_size;
    if (korva_fd_seek(fdp, krv_add_offset(arhp->sarh_offset, skip), KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "couldn't seek in .debug_aranges");
        return false;
    }
    const uint64_t set_size = krv_add_offset(arhp->sarh_unit_length, length_field_size(arhp));
    // A set too short for its padding asks for a length near 2^64, which no section has.
    if (korva_fd_truncate(fdp, set_size - skip) != 0) {
        krv_note(hp, "couldn't truncate .debug_aranges section");
        return false;
    }
    return true;
}

namespace
{

struct tuple {
    uint64_t selector, address, length;
};

} // namespace

static bool read_tuple(krv_fd_t *fdp, krv_form_t selector_form, krv_form_t address_form, tuple *t)
{
    *t = {};
    return (selector_form == 0 || krv_read_field(fdp, selector_form, &t->selector, "failed to read selector")) &&
           krv_read_field(fdp, address_form, &t->address, "failed to read address") &&
           krv_read_field(fdp, address_form, &t->length, "failed to read length");
}

int krv_iter_aranges_entry(krv_handle_t *hp, krv_arh_t *arhp, krv_iter_are_f *fn, void *arg)
{
    if (hp == nullptr)
        return -1;
    if (arhp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const unsigned int selector_size = arhp->sarh_segment_size;
    const unsigned int address_size = arhp->sarh_address_size;
    const krv_form_t selector_form = krv_data_form(selector_size);
    const krv_form_t address_form = krv_data_form(address_size);
    if (selector_size != 0 && selector_form == 0) {
        krv_fail(hp, KRV_ERR_INVALID, "Unsupported segment selector size: %d", static_cast<int>(selector_size));
        return 0;
    }
    if (address_form == 0) {
        krv_fail(hp, KRV_ERR_INVALID, "Unsupported address size: %d", static_cast<int>(address_size));
        return 0;
    }

    krv_fd_t *fdp = krv_position(hp, KRV_SEC_ARANGES);
    bool sound = enter_set(hp, arhp, fdp, selector_size + 2 * address_size);
    while (sound && fdp->sfd_remaining > 0) {
        tuple t;
        sound = read_tuple(fdp, selector_form, address_form, &t);
        if (!sound)
            break;
        if (t.selector == 0 && t.address == 0 && t.length == 0)
            return 0;
        if (const int result = fn(hp, t.selector, t.address, t.length, arg)) {
            krv_errno(hp) = KRV_ERR_IO;
            return result;
        }
    }
    return krv_note(hp, fdp->sfd_remaining == 0 ? "unterminated .debug_aranges unit"
                                                : "failed to read .debug_aranges entry");
}
