// SPDX-License-Identifier: Apache-2.0
//
// The reader of .debug_frame (DWARF 4, 6.4.1; versions 1, 3 and 4, both formats). It works on copies of the section's
// cursor, keeps nothing, and has no index of its own.
#include "krv_debug_frame.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_mem.h"

#include <cstring>
#include <memory>

static int krv_debug_frame_aug_next_op(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, void *)
{
    krv_form_t forms[2];
    return krv_cfa_read_opcode(hp, fdp, op, forms) == 0 ? krv_cfa_read_operands(hp, fdp, op, forms) : -1;
}

static const krv_augmentation_ops_t krv_debug_frame_aug_ops = {.sao_gno = krv_debug_frame_aug_next_op};
static const krv_augmentation_t krv_debug_frame_augmentation = {.sa_ops = &krv_debug_frame_aug_ops};

// A record of either kind: where it is, and the working cursor, limited to the record once its length is known.
namespace
{

struct record {
    const char *kind; // "CIE" or "FDE", for messages
    krv_fd_t fd;
    krv_encoding_t encoding;
    uint64_t length;    // bytes after the length field
    uint64_t full_size; // with the length field
};

} // namespace

static bool read_length(krv_handle_t *hp, record *r)
{
    static constexpr krv_length_texts_t TEXTS = {"failed to read 4-byte unit_length", "failed to read 8-byte length",
                                                 "4-byte length"};
    krv_unit_length_t ul;
    if (!krv_read_unit_length(&r->fd, TEXTS, &ul))
        return false;
    r->encoding = krv_encoding(hp, ul.is_dwarf64 ? KRV_FORM_F_DWARF64 : 0);
    r->length = ul.length;
    r->full_size = ul.size();
    return true;
}

// Places the cursor behind the length field and limits it to the record. A length that the section does not have is
// refused here, so a sum that wraps around never counts as a size.
static bool enter_record(krv_handle_t *hp, record *r, uint64_t offset)
{
    r->fd = hp->sh_sec[KRV_SEC_FRAME];
    if (korva_fd_seek(&r->fd, offset, KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "unable to seek to offset 0x%lx", static_cast<unsigned long>(offset));
        return false;
    }
    if (!read_length(hp, r))
        return false;
    if (r->full_size % hp->sh_target_size != 0 && !krv_reads_as_written(hp)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "Total %s length (%lu) is not a multiple of target size (%u)", r->kind,
                 static_cast<unsigned long>(r->full_size), hp->sh_target_size);
        return false;
    }
    return korva_fd_truncate(&r->fd, r->length) == 0;
}

static bool read_version(krv_handle_t *hp, record *r, krv_cie_t *ciep)
{
    if (!krv_read_field(&r->fd, DW_FORM_data1, &ciep->scie_version, "failed to read version"))
        return false;
    if (ciep->scie_version == 1 && r->encoding.is_dwarf64) {
        krv_fail(hp, KRV_ERR_CORRUPT, "64-bit length in version 1 CIE");
        return false;
    }
    if (ciep->scie_version == 1 || ciep->scie_version == 3 || ciep->scie_version == 4)
        return true;
    krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported CIE version (%hhu)", static_cast<uint8_t>(ciep->scie_version));
    return false;
}

// As written: letters without data, or data of a size, whatever it says but for how FDEs are encoded.
static bool is_stepped_over(const krv_handle_t *hp, krv_cie_t *ciep)
{
    const char *letters = ciep->scie_augmentation_string;
    ciep->scie_signal = std::strchr(letters, 'S') != nullptr;
    return krv_reads_as_written(hp) &&
           (letters[0] == 'z' ? std::strchr(letters, 'R') == nullptr : letters[std::strspn(letters, "SBG")] == '\0');
}

static bool has_augmentation_data(const krv_cie_t *ciep)
{
    return ciep->scie_augmentation_string[0] == 'z';
}

static bool step_over_augmentation_data(krv_handle_t *hp, record *r)
{
    uint64_t size = 0;
    if (!krv_read_field(&r->fd, DW_FORM_udata, &size, "failed to read augmentation section size"))
        return false;
    if (size > r->fd.sfd_remaining) {
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal augmentation length");
        return false;
    }
    krv_fd_advance(&r->fd, size);
    return true;
}

static bool read_augmentation(krv_handle_t *hp, record *r, krv_cie_t *ciep)
{
    if (!krv_read_field(&r->fd, DW_FORM_string, &ciep->scie_augmentation_string, "failed to read augmentation"))
        return false;
    if (ciep->scie_augmentation_string[0] != '\0' && !is_stepped_over(hp, ciep)) {
        krv_fail(hp, KRV_ERR_UNSUPPORTED, "augmentation found in CIE");
        return false;
    }
    ciep->scie_augmentation_type = KRV_AUG_NONE;
    ciep->scie_augmentation = &krv_debug_frame_augmentation;
    return true;
}

static bool read_sizes(krv_handle_t *hp, record *r, krv_cie_t *ciep)
{
    if (ciep->scie_version != 4)
        return true;
    if (!krv_read_field(&r->fd, DW_FORM_data1, &ciep->scie_address_size, "failed to read address_size") ||
        !krv_read_field(&r->fd, DW_FORM_data1, &ciep->scie_segment_size, "failed to read segment_size"))
        return false;
    if (ciep->scie_segment_size == 0)
        return true;
    krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported segment_size (%hhu)", ciep->scie_segment_size);
    return false;
}

static bool read_cie(krv_handle_t *hp, krv_cie_t *ciep, uint64_t offset)
{
    record r = {};
    r.kind = "CIE";
    ciep->scie_fd = hp->sh_sec[KRV_SEC_FRAME];
    if (!enter_record(hp, &r, offset))
        return false;
    ciep->scie_length = r.length;
    ciep->scie_section_length = r.full_size;
    int64_t id = 0; // extended by its sign: all ones in either format
    if (!krv_read_field(&r.fd, DW_FORM_sec_offset, r.encoding, &id, "failed to read CIE_id"))
        return false;
    ciep->scie_id = static_cast<uint64_t>(id);
    if (ciep->scie_id != UINT64_MAX) {
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal CIE_id (0x%lx)", static_cast<unsigned long>(ciep->scie_id));
        return false;
    }
    if (!read_version(hp, &r, ciep) || !read_augmentation(hp, &r, ciep) || !read_sizes(hp, &r, ciep))
        return false;
    const krv_form_t register_form = ciep->scie_version == 1 ? DW_FORM_data1 : DW_FORM_udata;
    if (!krv_read_field(&r.fd, DW_FORM_udata, &ciep->scie_code_alignment_factor, "failed to read Code Align Factor") ||
        !krv_read_field(&r.fd, DW_FORM_sdata, &ciep->scie_data_alignment_factor, "failed to read Data Align Factor") ||
        !krv_read_field(&r.fd, register_form, &ciep->scie_return_address_register, "failed to read Ret Address Reg") ||
        (has_augmentation_data(ciep) && !step_over_augmentation_data(hp, &r)))
        return false;
    ciep->scie_cfi_offset = r.fd.sfd_offset;
    ciep->scie_cfi_size = r.fd.sfd_remaining;
    ciep->scie_sec = KRV_SEC_FRAME;
    return true;
}

static krv_cie_t *krv_debug_frame_gcbo(krv_handle_t *hp, krv_reader_t *, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    krv_owner<krv_cie_t> ciep(krv_new<krv_cie_t>(hp));
    if (ciep != nullptr && read_cie(hp, ciep.get(), offset))
        return ciep.release();
    krv_note(hp, "failed to read CIE at offset 0x%lx in .debug_frame", static_cast<unsigned long>(offset));
    return nullptr;
}

// The form of an FDE's addresses; 0 with a message when there is none.
static krv_form_t address_form(krv_handle_t *hp, const krv_cie_t *ciep)
{
    if (ciep->scie_version != 4)
        return DW_FORM_addr;
    if (ciep->scie_address_size == 4)
        return DW_FORM_data4;
    if (ciep->scie_address_size == 8)
        return DW_FORM_data8;
    krv_fail(hp, KRV_ERR_INVALID, "unsupported address_size (%hhu)", ciep->scie_address_size);
    return 0;
}

namespace
{

// Of an FDE that is read: its CIE may be there already.
struct fde_deleter {
    void operator()(krv_fde_t *fdep) const
    {
        krv_free(fdep->sfde_cie);
        krv_free(fdep);
    }
};

} // namespace

static bool read_fde(krv_handle_t *hp, krv_reader_t *reader, krv_fde_t *fdep, uint64_t offset)
{
    record r = {};
    r.kind = "FDE";
    if (!enter_record(hp, &r, offset))
        return false;
    fdep->sfde_length = r.length;
    fdep->sfde_section_length = r.full_size;
    if (!krv_read_field(&r.fd, DW_FORM_sec_offset, r.encoding, &fdep->sfde_pointer, "failed to read CIE pointer"))
        return false;
    fdep->sfde_cie_offset = fdep->sfde_pointer;
    fdep->sfde_cie = krv_debug_frame_gcbo(hp, reader, fdep->sfde_cie_offset);
    if (fdep->sfde_cie == nullptr) {
        krv_note(hp, "couldn't get parent CIE");
        return false;
    }
    if (fdep->sfde_cie->scie_version == 1 && r.encoding.is_dwarf64) {
        krv_fail(hp, KRV_ERR_CORRUPT, "64-bit length in version 1 FDE");
        return false;
    }
    const krv_form_t form = address_form(hp, fdep->sfde_cie);
    if (form == 0 || !krv_read_field(&r.fd, form, &fdep->sfde_target_address, "failed to read target address") ||
        !krv_read_field(&r.fd, form, &fdep->sfde_address_range, "failed to read address_range") ||
        (has_augmentation_data(fdep->sfde_cie) && !step_over_augmentation_data(hp, &r)))
        return false;
    fdep->sfde_cfi_offset = r.fd.sfd_offset;
    fdep->sfde_cfi_size = r.fd.sfd_remaining;
    return true;
}

static krv_fde_t *krv_debug_frame_gfbo(krv_handle_t *hp, krv_reader_t *reader, uint64_t offset, krv_fde_room *)
{
    KRV_ASSERT(hp != NULL);
    std::unique_ptr<krv_fde_t, fde_deleter> fdep(krv_new<krv_fde_t>(hp));
    if (fdep != nullptr && read_fde(hp, reader, fdep.get(), offset))
        return fdep.release();
    krv_note(hp, "failed to read FDE at offset 0x%lx in .debug_frame", static_cast<unsigned long>(offset));
    return nullptr;
}

static int krv_debug_frame_gfoba(krv_handle_t *hp, krv_reader_t *, uint64_t, krv_fde_search *)
{
    KRV_ASSERT(hp != NULL);
    return krv_fail_code(hp, KRV_ERR_UNSUPPORTED);
}

static int krv_debug_frame_step_over(krv_handle_t *hp, krv_reader_t *, uint64_t offset, uint64_t *sizep)
{
    record r = {};
    r.fd = hp->sh_sec[KRV_SEC_FRAME];
    if (krv_fd_seek(&r.fd, offset) != 0 || r.fd.sfd_remaining == 0 || !read_length(hp, &r) ||
        r.length > r.fd.sfd_remaining)
        return -1;
    *sizep = r.full_size;
    return 0;
}

static void krv_debug_frame_cie_free(krv_cie_t *ciep)
{
    KRV_ASSERT(ciep->scie_augmentation_type == KRV_AUG_NONE);
    krv_free(ciep);
}

static void krv_debug_frame_fde_free(krv_fde_t *fdep)
{
    krv_free(fdep);
}

static void krv_debug_frame_destroy_reader(krv_reader_t *reader)
{
    krv_free(reader);
}

static const krv_reader_ops_t krv_debug_frame_reader_ops = {
    .sro_gcbo = krv_debug_frame_gcbo,
    .sro_gfbo = krv_debug_frame_gfbo,
    .sro_gfoba = krv_debug_frame_gfoba,
    .sro_cie_free = krv_debug_frame_cie_free,
    .sro_fde_free = krv_debug_frame_fde_free,
    .sro_destroy_reader = krv_debug_frame_destroy_reader,
    .sro_step_over = krv_debug_frame_step_over,
    .sro_section = KRV_SEC_FRAME,
};

krv_reader_t *krv_debug_frame_create_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    if (hp->sh_sec[KRV_SEC_FRAME].sfd_size == 0) {
        krv_note(hp, ".debug_frame not present");
        return nullptr;
    }
    auto *reader = krv_new<krv_reader_t>(hp);
    if (reader != nullptr)
        reader->sr_ops = &krv_debug_frame_reader_ops;
    return reader;
}
