// SPDX-License-Identifier: Apache-2.0
//
// One record of call-frame information, read whole: what unwinding reads of it bit by bit, and only where a frame needs it.
#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_eh_frame.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_frame_reader.h"
#include "krv_unwind.h"

// Size and kind, from the record's first fields.
static int read_kind(krv_handle_t *hp, const krv_reader_t *reader, uint64_t offset, krv_frame_record_t *record)
{
    static constexpr krv_length_texts_t TEXTS = {"failed to read length", "failed to read 8-byte length", "length"};
    const bool is_eh = reader->sr_ops->sro_section == KRV_SEC_EH_FRAME;
    const uint64_t base = is_eh ? static_cast<krv_eh_frame_reader_data *>(reader->sr_data)->sefh_eh_frame : 0;
    krv_fd_t fd = is_eh ? krv_eh_address_space(hp) : hp->sh_sec[KRV_SEC_FRAME];
    krv_unit_length_t ul = {};
    uint64_t id = 0;
    if (krv_fd_seek(&fd, base + offset) != 0 || !krv_read_unit_length(&fd, TEXTS, &ul))
        return -1;
    if (ul.end == UINT64_MAX)
        return krv_fail(hp, KRV_ERR_CORRUPT, "a record of %lu bytes", static_cast<unsigned long>(ul.length));
    record->size = ul.size();
    if (ul.length == 0 && is_eh) {
        record->kind = KRV_FRAME_RECORD_END;
        return 0;
    }
    const bool is_wide = ul.is_dwarf64 && !is_eh;
    if (!krv_read_field(&fd, is_wide ? DW_FORM_data8 : DW_FORM_data4, &id, "failed to read CIE id or pointer"))
        return -1;
    const uint64_t of_cie = is_eh ? 0 : is_wide ? UINT64_MAX : UINT32_MAX;
    record->kind = id == of_cie ? KRV_FRAME_RECORD_CIE : KRV_FRAME_RECORD_FDE;
    return 0;
}

static int ignore_operation(krv_handle_t *, uint8_t, krv_operand_t *, unsigned int, void *)
{
    return 0;
}

// All instructions, those behind the last row too, and the operations of their expressions.
static int read_instructions(krv_handle_t *hp, const krv_cie_t *cie, uint64_t offset, uint64_t size)
{
    krv_fd_t fd = cie->scie_fd;
    if (krv_fd_seek(&fd, offset) != 0 || krv_fd_truncate(&fd, size) != 0)
        return -1;
    while (fd.sfd_remaining > 0) {
        krv_operation_t op;
        uint64_t bytes = 0;
        const uint64_t at = fd.sfd_offset - offset;
        if (krv_frame_get_next_op(hp, &fd, &op, cie->scie_augmentation, cie->scie_augmentation_data) != 0)
            return krv_note(hp, "error at offset %lu in instruction stream", static_cast<unsigned long>(at));
        if (!krv_cfa_has_row(op.opcode) || (krv_cfa_table[krv_cfa_row(op.opcode)].flags & KRV_CFA_F_BLOCK) == 0)
            continue;
        if (!krv_read_field(&fd, DW_FORM_udata, &bytes, "failed to read expression length"))
            return -1;
        krv_fd_t expression = fd;
        if (bytes > fd.sfd_remaining)
            return krv_fail(hp, KRV_ERR_CORRUPT, "expression of %lu bytes, where %lu remain",
                            static_cast<unsigned long>(bytes), static_cast<unsigned long>(fd.sfd_remaining));
        expression.sfd_remaining = bytes;
        if (korva_expr_iter_instruction(hp, &expression, 0, ignore_operation, nullptr) != 0)
            return krv_note(hp, "error in the expression at offset %lu in instruction stream",
                            static_cast<unsigned long>(at));
        krv_fd_advance(&fd, bytes);
    }
    return 0;
}

static int read_cie(krv_handle_t *hp, krv_activation_t *ap, uint64_t offset, krv_frame_record_t *record)
{
    const krv_cie_owner cie(krv_get_cie_by_offset(hp, offset), {hp});
    if (cie == nullptr)
        return -1;
    record->is_signal = cie->scie_signal ? 1 : 0;
    return read_instructions(hp, cie.get(), cie->scie_cfi_offset, cie->scie_cfi_size) != 0
               ? -1
               : krv_generate_initial_rules(hp, ap, cie.get());
}

static void count_row(void *arg, const krv_slots_t &, uint64_t, uint64_t)
{
    ++static_cast<krv_frame_record_t *>(arg)->rows;
}

static int read_fde(krv_handle_t *hp, krv_activation_t *ap, uint64_t offset, krv_frame_record_t *record)
{
    const krv_fde_owner fde(krv_get_fde_by_offset(hp, offset), {hp});
    if (fde == nullptr)
        return -1;
    const krv_cie_t *cie = fde->sfde_cie;
    record->cie = cie->scie_sec == KRV_SEC_EH_FRAME ? offset + 4 - fde->sfde_pointer : fde->sfde_pointer;
    record->start = fde->sfde_target_address;
    record->length = fde->sfde_address_range;
    record->is_signal = cie->scie_signal ? 1 : 0;
    if (read_instructions(hp, cie, fde->sfde_cfi_offset, fde->sfde_cfi_size) != 0)
        return -1;
    if (record->length == 0)
        return 0;
    const uint64_t highest = hp->sh_target_size == 4 ? UINT32_MAX : UINT64_MAX;
    if (record->start > highest || record->length - 1 > highest - record->start)
        return krv_fail(hp, KRV_ERR_CORRUPT, "0x%lx bytes from 0x%lx lead past the address space",
                        static_cast<unsigned long>(record->length), static_cast<unsigned long>(record->start));
    if (krv_generate_rows(hp, ap, fde.get(), count_row, record) != 0)
        return -1;
    ++record->rows; // the one that ends with the function
    return 0;
}

int korva_frame_record_at(krv_handle_t *hp, krv_activation_t *ap, uint64_t offset, krv_frame_record_t *recordp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr || recordp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    *recordp = {};
    const krv_reader_t *reader = krv_need_reader(hp);
    if (reader == nullptr)
        return -1;
    if (reader->sr_ops->sro_section == KRV_SEC_NONE)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    if (read_kind(hp, reader, offset, recordp) != 0 || !krv_spend(hp, recordp->size))
        return -1;
    switch (recordp->kind) {
    case KRV_FRAME_RECORD_CIE:
        return read_cie(hp, ap, offset, recordp);
    case KRV_FRAME_RECORD_FDE:
        return read_fde(hp, ap, offset, recordp);
    default:
        return 0;
    }
}
