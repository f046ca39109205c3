// SPDX-License-Identifier: Apache-2.0
//
// Abbreviations, units and their whole trees: every entry is visited by child and sibling, to a bounded depth. Where
// extensions are on, the sections that values lead to stand in front, location lists last.
#include "input.h"

#include "krv_info.h"

#include <string>
#include <utility>

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

static void attach_sections(krv_fuzz::handle &h, krv_fuzz::input in, bool has_readers)
{
    const auto attach = [&](krv_secidx_t sec, std::vector<uint8_t> bytes) {
        const bool is_empty = bytes.empty();
        h.attach(sec, std::move(bytes));
        if (has_readers && !is_empty)
            h.attach_reader(sec);
    };
    attach(KRV_SEC_ABBREV, in.part());
    attach(KRV_SEC_STR, in.part());
    if (in.is_extended()) {
        for (const krv_secidx_t sec :
             {KRV_SEC_EXT_LINE_STR, KRV_SEC_EXT_STR_OFFSETS, KRV_SEC_EXT_ADDR, KRV_SEC_EXT_ALT_STR})
            attach(sec, in.part());
        const std::vector<uint8_t> lists = in.part();
        attach(KRV_SEC_LOC, lists);
        attach(KRV_SEC_EXT_LOCLISTS, lists);
    }
    attach(KRV_SEC_INFO, in.rest());
}

// Units with their names, and how the table ends.
static std::string list_units(krv_handle_t *hp)
{
    std::string list;
    const auto add = [](krv_handle_t *of, krv_ctu_t *cu, void *arg) {
        auto *to = static_cast<std::string *>(arg);
        char text[64] = "";
        *to += std::to_string(cu->dcu_offset) + " " + std::to_string(cu->dcu_size);
        for (const auto get : {korva_get_die_at_name, korva_get_die_at_comp_dir, korva_get_die_at_producer}) {
            *to += " " + std::to_string(get(of, cu->dcu_compile_unit, text, sizeof(text)));
            *to += text;
        }
        return 0;
    };
    list += std::to_string(korva_iter_cu(hp, KRV_SEC_INFO, add, &list));
    unsigned count = 0;
    char **texts = korva_handle_get_errmsgs(hp, &count);
    for (unsigned i = 0; i < count; ++i)
        list += std::string("|") + texts[i];
    return list;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in), beside(in);
    attach_sections(h, in, false);
    attach_sections(beside, in, true);
    if (list_units(h) != list_units(beside)) // what a call reads beside memory is the same
        std::abort();
    unsigned budget = 2000;
    korva_iter_cu(h, KRV_SEC_INFO, visit_unit, &budget);
    return 0;
}
