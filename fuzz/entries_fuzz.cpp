// SPDX-License-Identifier: Apache-2.0
//
// Entries by cursor with all their values and their types, the calls around addresses, and names.
#include "input.h"
#include "krv_dwarf.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <type_traits>

static int look_at(krv_handle_t *hp, krv_ctu_t *cu, void *)
{
    unsigned left = 500;
    const auto count_down = [](krv_handle_t *, const krv_entry_t *, const krv_attr_t *, size_t, void *arg) {
        return --*static_cast<unsigned *>(arg) == 0 ? 1 : 0;
    };
    korva_iter_entries(hp, cu, count_down, &left);
    krv_entry_t entry;
    unsigned budget = 500;
    for (int moved = korva_entry_first(hp, cu, &entry); moved == 0 && budget != 0;
         moved = korva_entry_next(hp, &entry)) {
        krv_entry_t other = entry, above[4];
        krv_attr_t attr;
        size_t count;
        const auto pass = [](krv_handle_t *, const krv_location_t *, void *) { return 0; };
        uint64_t size;
        while (korva_entry_next_attr(hp, &entry, &attr) == 1) {
            if (attr.attribute == DW_AT_location)
                korva_iter_locations(hp, cu, attr.number, attr.number % 2, pass, nullptr, &size);
            if (korva_entry_follow(hp, &entry, &attr, &other) == 0)
                korva_entry_get_attr(hp, &other, attr.attribute, &attr);
        }
        krv_name_why_t why;
        korva_explain_name(hp, &entry, &why);
        other = entry;
        korva_entry_sibling(hp, &other);
        if (budget-- % 16 == 0)
            korva_entry_get_ancestors(hp, &entry, above, 4, &count);
        const auto ignore = [](krv_handle_t *, const krv_range_t *, void *) { return 0; };
        korva_entry_iter_ranges(hp, &entry, ignore, nullptr);
        char type[64];
        korva_entry_get_type_text(hp, &entry, type, sizeof(type));
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    const uint64_t addresses[] = {0x1000, 0x1001, 0x1004, 0x1008, 0x1010, in.number(8), UINT64_MAX};
    h.attach(KRV_SEC_ABBREV, in.part());
    h.attach(KRV_SEC_STR, in.part());
    if (in.is_extended())
        for (const krv_secidx_t sec : std::initializer_list<krv_secidx_t>{
                 KRV_SEC_EXT_STR_OFFSETS, KRV_SEC_EXT_ADDR, KRV_SEC_EXT_RANGES, KRV_SEC_EXT_RNGLISTS,
                 KRV_SEC_EXT_ALT_ABBREV, KRV_SEC_EXT_ALT_INFO, KRV_SEC_EXT_NAMES, KRV_SEC_EXT_GDB_INDEX,
                 KRV_SEC_EXT_GNU_PUBNAMES, KRV_SEC_PUBNAMES})
            h.attach(sec, in.part());
    h.attach(KRV_SEC_INFO, in.rest());
    korva_iter_cu(h, KRV_SEC_INFO, look_at, nullptr);
    krv_call_t calls[4];
    size_t count;
    for (const uint64_t address : addresses)
        korva_lookup_calls(h, address, calls, 4, &count);
    // One at a time and together, with and without lines, they are the same.
    struct chains {
        krv_call_t calls[std::extent_v<decltype(addresses)>][4];
        size_t lengths[std::extent_v<decltype(addresses)>];
    } found = {};
    const auto visit = [](krv_handle_t *, size_t index, const krv_row_t *, const krv_call_t *chain, size_t length,
                          void *arg) {
        auto *to = static_cast<chains *>(arg);
        to->lengths[index] = length;
        std::copy_n(chain, std::min<size_t>(length, 4), to->calls[index]);
        return 0;
    };
    if (korva_iter_chains(h, addresses, std::size(addresses),
                          in.is_extended() ? KRV_CHAINS_F_ASCENDING : KRV_CHAINS_F_NONE, visit, &found) != 0)
        return 0;
    for (size_t i = 0; i < std::size(addresses); ++i) {
        krv_row_t row;
        if (korva_lookup_chain(h, addresses[i], &row, calls, 4, &count) == 0 &&
            (count != found.lengths[i] ||
             std::memcmp(calls, found.calls[i], std::min<size_t>(count, 4) * sizeof(krv_call_t)) != 0))
            abort();
    }
    const auto named = [](krv_handle_t *, const krv_entry_t *, void *) { return 0; };
    for (const unsigned flags : std::initializer_list<unsigned>{
             KRV_NAMED_FUNCTIONS, KRV_NAMED_FUNCTIONS | KRV_NAMED_INDEXED, KRV_NAMED_FUNCTIONS | KRV_NAMED_VARIABLES})
        for (const char *name : {"f", "n::f"})
            korva_iter_named_entries(h, name, flags, named, nullptr);
    return 0;
}
