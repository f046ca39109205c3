// SPDX-License-Identifier: Apache-2.0
#include "krv_no_frame.h"

#include "krv_error.h"
#include "krv_mem.h"

static krv_cie_t *krv_no_frame_gcbo(krv_handle_t *hp, krv_reader_t *, uint64_t)
{
    KRV_ASSERT(hp != NULL);
    krv_fail_code(hp, KRV_ERR_NOTFOUND);
    return nullptr;
}

static krv_fde_t *krv_no_frame_gfbo(krv_handle_t *hp, krv_reader_t *, uint64_t, krv_fde_room *)
{
    KRV_ASSERT(hp != NULL);
    krv_fail_code(hp, KRV_ERR_NOTFOUND);
    return nullptr;
}

static int krv_no_frame_gfoba(krv_handle_t *hp, krv_reader_t *, uint64_t, krv_fde_search *)
{
    KRV_ASSERT(hp != NULL);
    return krv_fail_code(hp, KRV_ERR_NOTFOUND); // not KRV_ERR_UNSUPPORTED: there is nothing to walk either
}

static int krv_no_frame_step_over(krv_handle_t *, krv_reader_t *, uint64_t, uint64_t *)
{
    return -1;
}

static void krv_no_frame_cie_free(krv_cie_t *) {}

static void krv_no_frame_fde_free(krv_fde_t *) {}

static void krv_no_frame_destroy_reader(krv_reader_t *reader)
{
    krv_free(reader);
}

static const krv_reader_ops_t krv_no_frame_reader_ops = {
    .sro_gcbo = krv_no_frame_gcbo,
    .sro_gfbo = krv_no_frame_gfbo,
    .sro_gfoba = krv_no_frame_gfoba,
    .sro_cie_free = krv_no_frame_cie_free,
    .sro_fde_free = krv_no_frame_fde_free,
    .sro_destroy_reader = krv_no_frame_destroy_reader,
    .sro_step_over = krv_no_frame_step_over,
    .sro_section = KRV_SEC_NONE,
};

krv_reader_t *krv_no_frame_create_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    auto *reader = krv_new<krv_reader_t>(hp);
    if (reader != nullptr)
        reader->sr_ops = &krv_no_frame_reader_ops;
    return reader;
}
