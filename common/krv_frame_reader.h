// SPDX-License-Identifier: Apache-2.0
//
// The handle's frame reader, chosen at its first query: .debug_frame when attached, else .eh_frame in the target's
// memory when its address is known, else the one that finds nothing. Records are not kept; who asks for one frees it.
#ifndef KRV_FRAME_READER_H
#define KRV_FRAME_READER_H

#include "krv_error.h"
#include "krv_frame_record.h"

#include <memory>

// One FDE in the linear address table.
struct krv_lie_t {
    uint64_t sle_start;  // its first address
    uint64_t sle_offset; // its section offset
};

// Every FDE of the section, ascending by first address. Does not change once published.
struct krv_linear_t {
    krv_lie_t *sl_table;
    uint64_t sl_table_entries;
    uint64_t sl_table_size; // entries allocated
};

struct krv_linear_deleter {
    void operator()(krv_linear_t *lt) const;
};
using krv_linear_owner = std::unique_ptr<krv_linear_t, krv_linear_deleter>;

// The handle's reader, created on first use; it stays the handle's. NULL when there is no memory for any.
krv_reader_t *krv_create_reader(krv_handle_t *hp);
inline krv_reader_t *krv_get_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *known = krv_load(&hp->sh_frame_reader);
    return known != nullptr ? known : krv_create_reader(hp);
}
// Discards the handle's reader, if any, so that the next query chooses again. No other call may use the handle.
void krv_destroy_reader(krv_handle_t *hp);

// The same, with a message.
inline krv_reader_t *krv_need_reader(krv_handle_t *hp)
{
    krv_reader_t *reader = krv_get_reader(hp);
    if (reader == nullptr)
        krv_note(hp, "no frame reader available for this handle");
    return reader;
}

// The record at an offset. NULL with code and messages.
krv_cie_t *krv_get_cie_by_offset(krv_handle_t *hp, uint64_t offset);
krv_fde_t *krv_get_fde_by_offset(krv_handle_t *hp, uint64_t offset, krv_fde_room *room = nullptr);
void krv_cie_free(krv_handle_t *hp, krv_cie_t *ciep);
void krv_fde_free(krv_handle_t *hp, krv_fde_t *fdep); // with its CIE

struct krv_cie_deleter {
    krv_handle_t *hp;
    void operator()(krv_cie_t *ciep) const { krv_cie_free(hp, ciep); }
};
using krv_cie_owner = std::unique_ptr<krv_cie_t, krv_cie_deleter>;

struct krv_fde_deleter {
    krv_handle_t *hp;
    void operator()(krv_fde_t *fdep) const
    {
        if (!fdep->sfde_is_lent)
            krv_fde_free(hp, fdep);
    }
};
using krv_fde_owner = std::unique_ptr<krv_fde_t, krv_fde_deleter>;

#endif
