// SPDX-License-Identifier: Apache-2.0
#include "krv_frame_reader.h"

#include "krv_debug_frame.h"
#include "krv_eh_frame.h"
#include "krv_known_rows.h"
#include "krv_mem.h"
#include "krv_no_frame.h"

void krv_linear_deleter::operator()(krv_linear_t *lt) const
{
    krv_free(lt->sl_table);
    krv_free(lt);
}

krv_reader_t *krv_create_reader(krv_handle_t *hp)
{
    static krv_reader_t *(*const creators[])(krv_handle_t *) = {
        krv_debug_frame_create_reader,
        krv_eh_frame_create_reader,
        krv_no_frame_create_reader,
    };
    krv_reader_t *fresh = nullptr;
    for (auto *create : creators) {
        fresh = create(hp);
        if (fresh != nullptr)
            break;
    }
    if (fresh == nullptr)
        return nullptr;
    return krv_publish(&hp->sh_frame_reader, fresh, [](krv_reader_t *lost) { lost->sr_ops->sro_destroy_reader(lost); });
}

void krv_destroy_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *reader = hp->sh_frame_reader;
    if (reader == nullptr)
        return;
    if (reader->sr_lt != nullptr)
        krv_linear_deleter()(reader->sr_lt);
    krv_known_rows_free(reader->sr_known);
    reader->sr_ops->sro_destroy_reader(reader);
    hp->sh_frame_reader = nullptr;
}

krv_cie_t *krv_get_cie_by_offset(krv_handle_t *hp, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *reader = krv_need_reader(hp);
    return reader == nullptr ? nullptr : reader->sr_ops->sro_gcbo(hp, reader, offset);
}

krv_fde_t *krv_get_fde_by_offset(krv_handle_t *hp, uint64_t offset, krv_fde_room *room)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *reader = krv_need_reader(hp);
    return reader == nullptr ? nullptr : reader->sr_ops->sro_gfbo(hp, reader, offset, room);
}

void krv_cie_free(krv_handle_t *hp, krv_cie_t *ciep)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(ciep != NULL);
    krv_reader_t *reader = krv_get_reader(hp);
    KRV_ASSERT(reader != NULL); // it has read the record
    reader->sr_ops->sro_cie_free(ciep);
}

void krv_fde_free(krv_handle_t *hp, krv_fde_t *fdep)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdep != NULL);
    if (fdep->sfde_is_lent)
        return;
    krv_reader_t *reader = krv_get_reader(hp);
    KRV_ASSERT(reader != NULL);
    krv_cie_t *ciep = fdep->sfde_cie;
    if (ciep != nullptr && !ciep->scie_is_kept) // an FDE whose reading failed may not have come that far
        reader->sr_ops->sro_cie_free(ciep);
    reader->sr_ops->sro_fde_free(fdep);
}
