// SPDX-License-Identifier: Apache-2.0
//
// Abbreviations, units and their whole trees: every entry is visited by child and sibling, to a bounded depth. Where
// extensions are on, the sections that values lead to stand in front, location lists last.
#include "input.h"

#include "krv_info.h"

static int visit(krv_handle_t *hp, krv_die_t *die, void *arg)
{
    unsigned *budget = static_cast<unsigned *>(arg);
    if (*budget == 0)
        return 1;
    --*budget;
    char buf[16];
    korva_get_die_at_name(hp, die, buf, sizeof(buf));
    korva_get_die_at_producer(hp, die, buf, 1);
    krv_free_die(krv_alloc_die_by_attribute(hp, die, 0x49));
    static unsigned depth;
    int result = 0;
    if (depth < 8) {
        ++depth;
        result = krv_iter_children_in_die(hp, die, visit, arg);
        --depth;
    }
    return result > 0 ? result : 0;
}

static int visit_unit(krv_handle_t *hp, krv_ctu_t *cu, void *arg)
{
    krv_die_t *die = nullptr;
    krv_cu_header_t header;
    korva_cu_get_header(hp, cu, &header);
    krv_cu_kind_t kind;
    korva_cu_get_kind(hp, cu, &kind);
    krv_fd_t expression;
    korva_find_location(hp, cu, 0, 0, 0x1000, &expression);
    korva_find_location(hp, cu, 12, 0, 0x1000, &expression);
    korva_find_location(hp, cu, 0, KRV_LOCATION_F_INDEX, 0x1000, &expression);
    return korva_get_cu_cudie(hp, cu, &die) == 0 ? visit(hp, die, arg) : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    h.attach(KRV_SEC_ABBREV, in.part());
    h.attach(KRV_SEC_STR, in.part());
    if (in.is_extended()) {
        for (const krv_secidx_t sec :
             {KRV_SEC_EXT_LINE_STR, KRV_SEC_EXT_STR_OFFSETS, KRV_SEC_EXT_ADDR, KRV_SEC_EXT_ALT_STR})
            h.attach(sec, in.part());
        const std::vector<uint8_t> lists = in.part();
        h.attach(KRV_SEC_LOC, lists);
        h.attach(KRV_SEC_EXT_LOCLISTS, lists);
    }
    h.attach(KRV_SEC_INFO, in.rest());
    unsigned budget = 2000;
    korva_iter_cu(h, KRV_SEC_INFO, visit_unit, &budget);
    return 0;
}
