// SPDX-License-Identifier: Apache-2.0
//
// Rows of a matrix, as they are kept: addresses in one array, in 32 bits where they lie within 2 GiB of the first, and the
// rest behind it, in 12 bytes where the values fit. What a client holds as a row is its number; what a row says is put
// together when somebody asks.
#ifndef KRV_LINE_ROWS_H
#define KRV_LINE_ROWS_H

#include "krv_search.h"
#include "krv_types.h"

enum krv_lns_flag_t : uint32_t {
    KRV_LNS_FLAG_IS = 1,  // is_stmt
    KRV_LNS_FLAG_BB = 2,  // basic_block
    KRV_LNS_FLAG_ES = 4,  // end_sequence
    KRV_LNS_FLAG_PE = 8,  // prologue_end
    KRV_LNS_FLAG_EB = 16, // epilogue_begin
    // Of rows alone: when the row came, the table had no file of its number. A program may define one later.
    KRV_LNS_FLAG_NO_FILE = 32,
};

// What a row says, and the registers of the state machine.
struct krv_line_state_t {
    uint64_t slns_address; // in the unit's own address space: never biased
    unsigned int slns_op_index;
    unsigned int slns_file;
    unsigned int slns_line;
    uint32_t slns_flags; // KRV_LNS_FLAG_*
    unsigned short slns_column;
    unsigned short slns_isa;
    unsigned short slns_discriminator;
};

// What clients hold: a row of a matrix, in its krv_lns_table, or the registers.
struct krv_lns {
    uint32_t slns_number; // of the row; KRV_LNS_REGISTERS
};
constexpr uint32_t KRV_LNS_REGISTERS = UINT32_MAX; // no matrix has that many rows

struct krv_line_registers : krv_lns {
    krv_line_state_t state;
};

struct krv_lns_table {
    krv_lnp_t *matrix;
    krv_lns_t rows[];
};

// One address sequence.
struct krv_lnb_t {
    uint64_t slnb_start_addr;      // of its first row
    uint64_t slnb_end_addr;        // of its end_sequence row
    unsigned int slnb_start_index; // of its first row
    unsigned int slnb_end_index;   // of its end_sequence row
};

enum krv_lnp_flag_t : uint32_t {
    KRV_LNP_FLAG_IN_SEQUENCE = 1, // while it is built: a sequence is open
    KRV_LNP_FLAG_UNSORTED = 2,    // likewise: some sequence starts below the one before it
    KRV_LNP_FLAG_DESCENDING = 4,  // some row lies below the one before it in its sequence
    KRV_LNP_FLAG_DEFINES = 8,     // the program defines files: the matrix is of one header alone
};

// Rows in columns. Either form has all of `krv_line_state_t`, but for what the short one has no room for.
struct krv_short_rows_t {
    struct rest_t {
        uint32_t line;
        uint16_t file, column, discriminator;
        uint8_t isa, flags;
    };
    int32_t *distances; // of addresses from the base
    rest_t *rests;

    static constexpr size_t ADDRESS_BYTES = sizeof(*distances), REST_BYTES = sizeof(*rests);
    // Addresses whose distance from `base` fits lie within SPAN of lowest(base), at least.
    static constexpr uint64_t SPAN = 0xfe000000;
    static uint64_t lowest(uint64_t base) { return base - SPAN / 2; }
    static constexpr uint32_t MOST_FILE = UINT16_MAX, MOST_ISA = UINT8_MAX;
    static bool fits(const krv_line_state_t &s, uint64_t base)
    {
        return s.slns_address - lowest(base) < SPAN && s.slns_file <= MOST_FILE && s.slns_isa <= MOST_ISA &&
               s.slns_op_index == 0;
    }

    uint64_t address(uint32_t i, uint64_t base) const { return base + static_cast<uint64_t>(int64_t{distances[i]}); }
    krv_line_state_t get(uint32_t i, uint64_t base) const
    {
        const rest_t &r = rests[i];
        return {address(i, base), 0, r.file, r.line, r.flags, r.column, r.isa, r.discriminator};
    }
    void set(uint32_t i, uint64_t base, const krv_line_state_t &s)
    {
        distances[i] = static_cast<int32_t>(s.slns_address - base);
        rests[i] = {s.slns_line,          static_cast<uint16_t>(s.slns_file), s.slns_column,
                    s.slns_discriminator, static_cast<uint8_t>(s.slns_isa),   static_cast<uint8_t>(s.slns_flags)};
    }
};

struct krv_long_rows_t {
    struct rest_t {
        uint32_t line, file, op_index;
        uint16_t column, discriminator, isa, flags;
    };
    uint64_t *addresses;
    rest_t *rests;

    static constexpr size_t ADDRESS_BYTES = sizeof(*addresses), REST_BYTES = sizeof(*rests);

    uint64_t address(uint32_t i, uint64_t) const { return addresses[i]; }
    krv_line_state_t get(uint32_t i, uint64_t) const
    {
        const rest_t &r = rests[i];
        return {addresses[i], r.op_index, r.file, r.line, r.flags, r.column, r.isa, r.discriminator};
    }
    void set(uint32_t i, uint64_t, const krv_line_state_t &s)
    {
        addresses[i] = s.slns_address;
        rests[i] = {s.slns_line,
                    s.slns_file,
                    s.slns_op_index,
                    s.slns_column,
                    s.slns_discriminator,
                    s.slns_isa,
                    static_cast<uint16_t>(s.slns_flags)};
    }
};

// Rows of the one form or the other.
struct krv_rows_t {
    uint64_t base; // short ones: the address that distances count from
    bool is_long;
    krv_short_rows_t as_short;
    krv_long_rows_t as_long;

    // What func gives for them in their form.
    template <typename F>
    auto in_form(F func) const
    {
        return is_long ? func(as_long) : func(as_short);
    }
    uint64_t address(uint32_t i) const { return is_long ? as_long.address(i, base) : as_short.address(i, base); }
    // Of `count` rows from `first` on, whose addresses never descend, how many are not above this one; searched from the
    // `guess`th on.
    size_t count_not_above(uint32_t first, size_t count, size_t guess, uint64_t address) const
    {
        if (is_long)
            return krv_count_not_above_near(as_long.addresses + first, count, guess, address,
                                            [](uint64_t at) { return at; });
        return krv_count_not_above_near(as_short.distances + first, count, guess, address, [this](int32_t distance) {
            return base + static_cast<uint64_t>(int64_t{distance});
        });
    }
    // A hint that rows near this one will be searched, and what one says read, soon.
    void prefetch(uint32_t i) const
    {
        if (is_long)
            return;
        __builtin_prefetch(&as_short.distances[i]);
        __builtin_prefetch(&as_short.rests[i]);
    }
    krv_line_state_t get(uint32_t i) const { return is_long ? as_long.get(i, base) : as_short.get(i, base); }
};

// A matrix, in one allocation. Sequences ascend by start address, are not inverted and do not overlap; the rows of each are
// contiguous and end with its end_sequence row. Rows stand in program order. Never changed once published, but for what is
// made when it is first asked for.
struct krv_lnp {
    unsigned int slnp_lnsp_entries; // rows
    unsigned int slnp_lnbp_entries; // closed sequences
    uint32_t slnp_flags;            // KRV_LNP_FLAG_*
    uint32_t slnp_first_file;       // number of the first of slnp_files
    krv_lnfe_t **slnp_files;        // the header's, with every file that a row names
    krv_lnb_t *slnp_lnbp;
    krv_rows_t slnp_rows;
    krv_lns_table *slnp_handed_out; // owned: what clients hold of it; made when one asks for a row
    uint32_t *slnp_by_line;         // owned: numbers of the rows by file, line and address; likewise
    uint32_t *slnp_by_line_room;    // owned: for that table, until a thread takes it
};

// Bytes that a matrix may come to take, what is made later included.
uint64_t krv_lnp_bytes(const krv_lnp_t *lnpp);
void krv_line_free_program(krv_lnp_t *lnpp);

// The file of a row, or NULL.
inline krv_lnfe_t *krv_lnp_file(const krv_lnp_t *lnpp, const krv_line_state_t &row)
{
    return (row.slns_flags & KRV_LNS_FLAG_NO_FILE) != 0 ? nullptr
                                                        : lnpp->slnp_files[row.slns_file - lnpp->slnp_first_file];
}

// The lowest address of a row's file and line; of every row, in the order of rows. The first never fails, whatever memory
// there is. 0, or -1 with KRV_ERR_NOMEM.
uint64_t krv_lnp_canonical_address(krv_handle_t *hp, krv_lnp_t *lnpp, uint32_t number);
int krv_lnp_canonical_addresses(krv_handle_t *hp, krv_lnp_t *lnpp, uint64_t *addresses);

// Room for them, made with the matrix, where these calls are to need none. 0, or -1 with KRV_ERR_NOMEM.
int krv_lnp_reserve_canonical(krv_handle_t *hp, krv_lnp_t *lnpp);

// A row as clients hold it: the same each time, for as long as the matrix lives. NULL with KRV_ERR_NOMEM.
krv_lns_t *krv_lnp_hand_out(krv_handle_t *hp, krv_lnp_t *lnpp, uint32_t number);

// The matrix of what was handed out; NULL of registers.
inline krv_lnp_t *krv_lns_matrix(const krv_lns_t *lnsp)
{
    if (lnsp->slns_number == KRV_LNS_REGISTERS)
        return nullptr;
    const auto *first = reinterpret_cast<const uint8_t *>(lnsp - lnsp->slns_number);
    return reinterpret_cast<const krv_lns_table *>(first - offsetof(krv_lns_table, rows))->matrix;
}

// What it says.
inline krv_line_state_t krv_lns_get(const krv_lns_t *lnsp)
{
    const krv_lnp_t *lnpp = krv_lns_matrix(lnsp);
    return lnpp == nullptr ? static_cast<const krv_line_registers *>(lnsp)->state
                           : lnpp->slnp_rows.get(lnsp->slns_number);
}

// Its canonical address and its file; registers have neither: 0 and NULL.
inline uint64_t krv_lns_canonical_address(krv_handle_t *hp, const krv_lns_t *lnsp)
{
    krv_lnp_t *lnpp = krv_lns_matrix(lnsp);
    return lnpp == nullptr ? 0 : krv_lnp_canonical_address(hp, lnpp, lnsp->slns_number);
}
inline krv_lnfe_t *krv_lns_file(const krv_lns_t *lnsp)
{
    const krv_lnp_t *lnpp = krv_lns_matrix(lnsp);
    return lnpp == nullptr ? nullptr : krv_lnp_file(lnpp, lnpp->slnp_rows.get(lnsp->slns_number));
}

#endif
