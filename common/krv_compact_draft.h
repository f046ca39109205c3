// SPDX-License-Identifier: Apache-2.0
//
// The table of the rules of all code while it is made: pieces of code in ascending order, and the rows of each. Functions that have the same
// instructions, as most do, share them.
#ifndef KRV_COMPACT_DRAFT_H
#define KRV_COMPACT_DRAFT_H

#include "krv_compact.h"
#include "krv_known_rows.h"
#include "krv_mem.h"

// A row of the function in hand.
struct krv_draft_row {
    uint32_t begin; // from the function's first byte
    krv_compact_number_t rule;
};

// The list of rows that instructions make. Its bytes are kept beside it.
struct krv_draft_list {
    uint64_t decoding; // of the CIE
    uint32_t hash, size, bytes, list;
};

struct krv_compact_draft {
    krv_handle_t *const hp;
    krv_compact_table *const table;
    uint32_t nrows = 0;

    krv_compact_draft(krv_handle_t *handle, krv_compact_table *to) : hp(handle), table(to) {}
    ~krv_compact_draft();
    krv_compact_draft(const krv_compact_draft &) = delete;
    krv_compact_draft &operator=(const krv_compact_draft &) = delete;

    // Appends a row of the function in hand; one that says what the row before it says is part of that. False: KRV_ERR_NOMEM.
    bool add_row(uint64_t begin, krv_compact_number_t rule);

    // Whether functions with these instructions came before: then *listp is theirs.
    bool knows(const krv_rows_key &key, uint32_t *listp) const;

    // Adds a function, `start` bytes from the table's base, with the list; or with the rows in hand, which are kept for others with the same
    // instructions, if there is a key. None is in hand then. False: KRV_ERR_NOMEM.
    bool add_with(uint32_t list, uint64_t start, uint64_t size);
    bool add(const krv_rows_key *key, uint64_t start, uint64_t size);

    // Makes the table ready to be searched. False: KRV_ERR_NOMEM.
    bool finish();

private:
    bool add_list(uint32_t first, uint32_t behind, uint32_t *listp);
    bool keep(const krv_rows_key &key, uint32_t list);
    bool grow_index();
    uint32_t *find(const krv_rows_key &key) const;

    krv_draft_row *rows = nullptr;
    uint32_t rows_capacity = 0;
    krv_draft_list *lists = nullptr;
    uint32_t lists_capacity = 0, nlists = 0;
    uint8_t *bytes = nullptr;
    uint32_t bytes_capacity = 0, nbytes = 0;
    uint32_t *index = nullptr; // open addressing: number of a list and 1; at most half full
    uint32_t index_size = 0;
};

#endif
