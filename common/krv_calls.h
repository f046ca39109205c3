// SPDX-License-Identifier: Apache-2.0
//
// The calls around an address: a unit's functions by address, and of each function that has any the calls that were
// inlined into it. Both are found when they are first asked for, and kept until the handle is freed.
#ifndef KRV_CALLS_H
#define KRV_CALLS_H

#include "krv_addr_map.h"
#include "krv_function_names.h"
#include "krv_plan.h"

constexpr uint32_t KRV_NO_CALL = KRV_ADDR_NOTHING;

// A call that was inlined into a function, as its entry says. They stand in section order: callers before what they inline.
struct krv_inlined_call {
    const krv_function_names *names; // the handle's, kept by entry; NULL: it has none
    uint32_t entry;                  // offset from the function's
    uint32_t caller;                 // the call that it was inlined into; KRV_NO_CALL: the function
    uint32_t row;                    // of the abbreviation, in the unit's plan
    uint32_t line;
    uint16_t file, column, discriminator;
    uint8_t code_size; // bytes of the abbreviation's code
    bool is_cut : 1;   // the numbers are larger than these fields: they are read again
    bool has_children : 1, has_file : 1;
};

// In one block, so that what an address needs of it lies together: the pieces of an address map, and the calls.
struct krv_inlined_calls {
    uint64_t base;
    uint32_t pieces;
    uint32_t count : 31, is_far : 1; // as krv_addr_map

    template <typename T>
    krv_addr_piece<T> *map()
    {
        return reinterpret_cast<krv_addr_piece<T> *>(this + 1);
    }
    krv_inlined_call *calls()
    {
        return is_far != 0 ? reinterpret_cast<krv_inlined_call *>(map<uint64_t>() + pieces)
                           : reinterpret_cast<krv_inlined_call *>(map<uint32_t>() + pieces);
    }
    // The innermost call that covers the address, or KRV_NO_CALL; and the addresses around it of which the same is true, unless
    // that is NULL.
    uint32_t find(uint64_t address, krv_addr_span *span)
    {
        if (address >= base && pieces != 0)
            return is_far != 0 ? find<uint64_t>(address - base, span) : find<uint32_t>(address - base, span);
        if (span != nullptr)
            *span = {0, pieces == 0 ? UINT64_MAX : base - 1};
        return KRV_NO_CALL;
    }

private:
    template <typename T>
    uint32_t find(uint64_t distance, krv_addr_span *span)
    {
        const size_t begun = krv_addr_pieces_count(map<T>(), pieces, distance); // the first one does
        if (span != nullptr)
            *span = krv_addr_span_of(map<T>(), pieces, base, begun);
        return map<T>()[begun - 1].owner;
    }
};

struct krv_function {
    krv_function_names *names;  // owned: NULL until they are asked for
    uint64_t start;             // of its first range
    krv_inlined_calls *inlined; // owned, likewise
    uint32_t entry;             // offset from the unit's
    uint32_t row : 23;          // as those of krv_inlined_call
    uint32_t code_size : 6;
    uint32_t is_cut : 1, has_children : 1, has_inlined : 1;
};
static_assert(sizeof(krv_inlined_call) == 32 && sizeof(krv_function) == 32, "two lie in a cache line");

struct krv_calls {
    krv_addr_map sc_map;
    krv_function *sc_functions; // owned
    const krv_plan *sc_plan;
    uint64_t sc_offset;   // of the unit
    uint32_t sc_language; // DW_LANG_* of the unit, or 0
    bool sc_is_alternate;
    uint32_t sc_size, sc_count;
    krv_calls *sc_next; // of the handle's
};

// The functions of a unit. NULL: KRV_ERR_NOMEM, or the error of reading it.
krv_calls *krv_calls_get(krv_handle_t *hp, krv_ctu_t *cu);

// The calls that were inlined into a function that has any (has_inlined). NULL likewise.
krv_inlined_calls *krv_calls_get_inlined(krv_handle_t *hp, krv_ctu_t *cu, const krv_calls *calls, krv_function *of);

uint32_t krv_cu_language(const krv_ctu_t *cu); // DW_LANG_*, or 0

void krv_calls_destroy(krv_handle_t *hp); // teardown, before the units are freed

#endif
