// SPDX-License-Identifier: Apache-2.0
//
// Rules that are kept while call-frame information is promised to be constant: each kind once, in a few bytes; which one
// holds at a program counter, by a table of all code or else by a cache of those that were asked for.
#ifndef KRV_COMPACT_H
#define KRV_COMPACT_H

#include "krv_activation.h"
#include "krv_search.h"

constexpr unsigned KRV_WALK_REGISTERS = 17; // DWARF numbers below this one have an origin in a rule, on either target

// How the value of a register of the caller is come by; what an expression may say, as far as compilers write it.
typedef uint8_t krv_origin_kind_t;
enum {
    KRV_ORIGIN_UNDEFINED = 0,
    KRV_ORIGIN_SAME = 1,
    KRV_ORIGIN_REGISTER = 2,    // what reg has
    KRV_ORIGIN_IN_MEMORY = 3,   // at base + offset
    KRV_ORIGIN_IS_ADDRESS = 4,  // base + offset
    KRV_ORIGIN_LOADED = 5,      // the CFA only: what is at base + offset, plus more
    KRV_ORIGIN_OF_PLT_ENTRY = 6 // the CFA only: one word above the stack pointer, two from byte `more` of an entry on
};
constexpr uint8_t KRV_ORIGIN_CFA = UINT8_MAX; // reg: the base is the CFA

constexpr unsigned KRV_CACHE_BITS = 12, KRV_MAX_CACHE_BITS = 24; // of KRV_OPT_EXT_FRAME_CACHE

struct krv_origin_t {
    krv_origin_kind_t kind;
    uint8_t reg; // DWARF number of what offset is added to
    uint16_t unused;
    int32_t offset;
    int32_t more;
};

// Where a kept register is: words from the CFA, or
constexpr int16_t KRV_KEPT_SAME = INT16_MIN, KRV_KEPT_UNDEFINED = INT16_MIN + 1;

enum : uint16_t {
    KRV_COMPACT_SIGNAL = 1, // the caller was interrupted
    KRV_COMPACT_PLAIN =
        4, // frames that called; the CFA counts from stack or frame pointer, and the latter's rule says where it is
    KRV_COMPACT_ORIGINS = 2 // the rules of registers are origins; else activations may be given this rule: it says all
};

struct krv_compact_t {
    krv_origin_t cfa;
    uint16_t flags;             // KRV_COMPACT_SIGNAL, KRV_COMPACT_ORIGINS
    int16_t kept[KRV_MAX_KEPT]; // by smd_kept; the stack pointer is the CFA, others are undefined
    uint32_t origins;           // with that flag: number of the first of KRV_WALK_REGISTERS in the table
};

// Numbers of rules: two that are none.
typedef uint16_t krv_compact_number_t;
enum : uint16_t {
    KRV_COMPACT_NONE = 0, // nothing describes this code
    KRV_COMPACT_ASK = 1,  // what does, the records tell
    KRV_COMPACT_FIRST = 2
};

// A function, or as much of one as the rows of a list reach.
struct krv_compact_piece {
    uint32_t start, size; // bytes, from the table's base
    uint32_t list;
};

// All code of a module. Does not change once published.
struct krv_compact_table {
    uint64_t base, size;       // bytes, less than 2^32
    krv_compact_piece *pieces; // owned: ascending, apart
    uint32_t *rows;            // owned: lists, which pieces share: the number of rows, and these, see krv_compact_row
    uint32_t *
        blocks; // owned: by offset >> shift: the piece at the block's first byte or before; one more than there are blocks
    unsigned shift;
    uint32_t npieces, pieces_capacity, nrows, rows_capacity;
    krv_origin_t *origins; // owned
    uint32_t norigins, origins_capacity;
};

// A row: where it begins, from the first byte of its piece, which is where the first one does, and its rule.
constexpr uint32_t krv_compact_row(uint32_t begin, krv_compact_number_t rule)
{
    return begin << 16 | rule;
}

// Rules, each of them once; and what a handle with KRV_OPT_EXT_CONSTANT_FRAMES keeps beside them.
struct krv_compact {
    static constexpr unsigned CHUNK = 256;
    krv_compact_t *chunks[UINT16_MAX / CHUNK + 1]; // rules never move
    uint32_t count;                                // of numbers in use
    krv_compact_number_t *index;                   // open addressing: rules by what they say, at most half full
    uint32_t index_size;
    krv_compact_table *table; // published by compare-and-swap
    uint64_t *cache;          // pc << 16 | number, 2^sh_cache_bits of them, each by itself; published once
    uint64_t *steps;          // owned: see krv_step_place; NULL: none are kept. Made before the table is published

    const krv_compact_t *rule(krv_compact_number_t number) const { return &chunks[number / CHUNK][number % CHUNK]; }
};

// KRV_OPT_EXT_CONSTANT_FRAMES and KRV_OPT_EXT_FRAME_CACHE. 0 or -1.
inline bool krv_compact_is_option(krv_opt_idx_t opt)
{
    return opt == KRV_OPT_EXT_CONSTANT_FRAMES || opt == KRV_OPT_EXT_FRAME_CACHE;
}
int krv_compact_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value);

// Forgets what was kept; with the switch.
void krv_compact_destroy(krv_handle_t *hp);
void krv_compact_forget(krv_handle_t *hp);

// Leaves no rules, of one that is zeroed or was cleared before.
void krv_compact_clear(krv_compact *c);

void krv_compact_table_free(krv_compact_table *table);

// What the rules of an activation say, if a compact rule can.
bool krv_compact_encode(const krv_activation_t *ap, uint64_t column, krv_compact_t *rule);

// The number of a rule; KRV_COMPACT_ASK when there are too many, or, with KRV_ERR_NOMEM, no memory.
krv_compact_number_t krv_compact_intern(krv_handle_t *hp, krv_compact *c, const krv_compact_t *rule);
// The same, of what no other thread adds to meanwhile.
krv_compact_number_t krv_compact_intern_alone(krv_handle_t *hp, krv_compact *c, const krv_compact_t *rule);

// Fills the rules of an activation; of a rule without KRV_COMPACT_ORIGINS.
void krv_compact_decode(krv_activation_t *ap, const krv_compact_t *rule);

// Fills the rules at a program counter, as krv_generate_rules does, if they are kept; what covers it stays unknown.
bool krv_compact_apply(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc, uint64_t *columnp);

// Keeps the rules that an activation has for a program counter.
void krv_compact_learn(krv_handle_t *hp, const krv_activation_t *ap, uint64_t pc, uint64_t column);

// Steps: what a rule says of stack and frame pointer, where the CFA counts from one of them, in the same word as a program counter,
// so that a walk finds it by one load. 2^sh_cache_bits words, each by itself. Of the 48 bits that code has, mixed by a
// multiplication that can be undone, the upper ones tell which word, and all but the uppermost 12 stand in its upper part.
typedef uint32_t krv_step_t;
constexpr unsigned KRV_STEP_BITS = 28, KRV_LEAST_STEP_CACHE_BITS = 12;
enum : krv_step_t {
    KRV_STEP_NONE = 0,
    KRV_STEP_SLOTS = 0x7f,        // words below the CFA where the frame pointer is; 0: it is the same
    KRV_STEP_BY_FP = 1U << 7,     // the CFA counts from the frame pointer, else from the stack pointer
    KRV_STEP_OUTERMOST = 1U << 8, // there is no return address; else it is one word below the CFA
    KRV_STEP_IS = 1U << 9,        // of every step
    KRV_STEP_OFFSET_SHIFT = 10,   // behind, uppermost: what is added to that pointer
    KRV_STEP_MOST_OFFSET = 0x3ffff
};
// What a rule says as a step of words of so many bytes, or KRV_STEP_NONE.
krv_step_t krv_step_of(const krv_mach_def_t *mach, const krv_compact_t *rule, uint64_t word);

// The product of a program counter, of which a place is found.
inline uint64_t krv_step_mixed(uint64_t pc)
{
    return pc * (0x9e3779b97f4a7c15U << 16);
}

struct krv_step_place {
    uint64_t *word;
    uint64_t tag;

    // `shift`: 64 less the bits of the number of words.
    krv_step_place(uint64_t *cache, unsigned shift, uint64_t mixed)
        : word(&cache[mixed >> shift]), tag(mixed << KRV_LEAST_STEP_CACHE_BITS)
    {
    }
    krv_step_t recall() const
    {
        const uint64_t seen = krv_load(word) ^ tag;
        constexpr uint64_t MOST = (uint64_t{1} << KRV_STEP_BITS) - 1;
        return seen - 1 < MOST ? static_cast<krv_step_t>(seen) : krv_step_t{KRV_STEP_NONE};
    }
    void remember(krv_step_t step) const { krv_store(word, tag | step); }
};

// The rule at a program counter within the table.
inline krv_compact_number_t krv_compact_search(const krv_compact_table *table, uint64_t pc)
{
    const auto offset = static_cast<uint32_t>(pc - table->base);
    const uint32_t *block = &table->blocks[offset >> table->shift];
    uint32_t piece = block[0], last = block[1];
    while (last - piece > 8) { // the last one that does not begin behind it
        const uint32_t middle = piece + (last - piece) / 2;
        (table->pieces[middle].start <= offset ? piece : last) = middle;
    }
    while (piece < last && table->pieces[piece + 1].start <= offset)
        ++piece;
    const krv_compact_piece &of = table->pieces[piece];
    const uint32_t behind = offset - of.start;
    if (behind >= of.size)
        return KRV_COMPACT_NONE;
    const uint32_t *const list = &table->rows[of.list];
    const uint32_t asked = krv_compact_row(behind < UINT16_MAX ? behind : UINT16_MAX, UINT16_MAX);
    return static_cast<krv_compact_number_t>(list[krv_count_not_above(list + 1, *list, asked, std::identity())]);
}

#endif
