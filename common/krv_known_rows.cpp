// SPDX-License-Identifier: Apache-2.0
#include "krv_known_rows.h"

#include "krv_compact.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_mem.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace
{

// The rows of some instructions. Does not change once published.
struct program {
    uint64_t decoding;
    uint32_t size, hash;
    uint32_t rows; // 0: executing the instructions is the only way
    uint32_t unused;

    // Behind it: where the rows begin, their rules, and the bytes.
    uint32_t *offsets() { return reinterpret_cast<uint32_t *>(this + 1); }
    krv_compact_number_t *rules() { return reinterpret_cast<krv_compact_number_t *>(offsets() + rows); }
    uint8_t *bytes() { return reinterpret_cast<uint8_t *>(rules() + rows); }

    bool is_of(const krv_rows_key &key)
    {
        return size == key.size && decoding == key.decoding && std::memcmp(bytes(), key.bytes, size) == 0;
    }
};

constexpr uint32_t SLOTS_FEWEST = 64, SLOTS_MOST = 4096, PROBES = 4;
constexpr uint32_t LIKELY = 8, LIKELY_MOST = 1 << 13; // functions that are told from each other: a slot, and in all

} // namespace

// Open addressing: a program stands in one of PROBES slots, and stays there.
struct krv_known_rows {
    krv_rwlock_t lock;  // while a rule is added; no call-back runs then
    krv_compact rules;  // by number
    uint32_t slots;     // a power of two
    uint32_t functions; // that are told from each other, a power of two; or 0

    // Behind it, by slot: programs, each published once, and the hash that led there last; and by functions, the slot of
    // the last one's program.
    program **programs() { return reinterpret_cast<program **>(this + 1); }
    krv_relaxed<uint32_t> *seen() { return reinterpret_cast<krv_relaxed<uint32_t> *>(programs() + slots); }
    krv_relaxed<uint16_t> *likely() { return reinterpret_cast<krv_relaxed<uint16_t> *>(seen() + slots); }
    uint32_t slot(uint32_t hash, uint32_t probe) const { return (hash + probe) & (slots - 1); }
};

void krv_known_rows_free(krv_known_rows *known)
{
    if (known == nullptr)
        return;
    for (uint32_t i = 0; i < known->slots; ++i)
        krv_free(known->programs()[i]);
    krv_compact_clear(&known->rules);
    krv_rwlock_destroy(&known->lock);
    krv_free(known);
}

// There are 8 bytes before the first one, at least.
static uint32_t hash_bytes(uint64_t sum, const uint8_t *bytes, uint64_t size)
{
    constexpr uint64_t FACTOR = 0x9e3779b97f4a7c15U;
    uint64_t word;
    for (; size >= sizeof(word); bytes += sizeof(word), size -= sizeof(word)) {
        std::memcpy(&word, bytes, sizeof(word));
        sum = std::rotl((sum ^ word) * FACTOR, 29);
    }
    if (size != 0) {
        std::memcpy(&word, bytes + size - sizeof(word), sizeof(word));
        sum = (sum ^ word >> (64 - 8 * size)) * FACTOR;
    }
    return static_cast<uint32_t>((sum ^ sum >> 32) * FACTOR >> 32); // of all bits
}

static inline bool make_key(const krv_fde_t *fde, krv_rows_key *key)
{
    const krv_window_t *window = &fde->sfde_window;
    const uint64_t skip = fde->sfde_cfi_offset - window->sw_offset;
    if (!fde->sfde_cie->scie_is_kept || skip < sizeof(uint64_t) || skip > window->sw_size ||
        fde->sfde_cfi_size > window->sw_size - skip)
        return false;
    key->decoding = fde->sfde_cie->scie_decoding;
    key->bytes = window->sw_bytes + skip;
    key->size = static_cast<uint32_t>(fde->sfde_cfi_size);
    return true;
}

bool krv_rows_key_of(const krv_fde_t *fde, krv_rows_key *key)
{
    if (!make_key(fde, key))
        return false;
    key->hash = hash_bytes(key->decoding, key->bytes, key->size);
    return true;
}

// Where the program with these bytes stands, or would stand. NULL: there is no room.
static inline program **find(krv_known_rows *known, const krv_rows_key &key)
{
    for (uint32_t probe = 0; probe < PROBES; ++probe) {
        program **slot = &known->programs()[known->slot(key.hash, probe)];
        program *p = krv_load(slot);
        if (p == nullptr || (p->hash == key.hash && p->is_of(key)))
            return slot;
    }
    return nullptr;
}

// The program of a function. NULL: there is none.
static inline program *program_of(krv_known_rows *known, const krv_fde_t *fde)
{
    krv_rows_key key;
    if (!make_key(fde, &key))
        return nullptr;
    krv_relaxed<uint16_t> *likely =
        known->functions == 0 ? nullptr : &known->likely()[fde->sfde_target_address / 16 & (known->functions - 1)];
    program *p = likely == nullptr ? nullptr : krv_load(&known->programs()[*likely]);
    if (p != nullptr && p->is_of(key))
        return p;
    key.hash = hash_bytes(key.decoding, key.bytes, key.size);
    program **slot = find(known, key);
    p = slot == nullptr ? nullptr : krv_load(slot);
    if (p != nullptr && likely != nullptr)
        *likely = static_cast<uint16_t>(slot - known->programs());
    return p;
}

bool krv_rows_apply(const krv_reader_t *reader, krv_activation_t *ap, const krv_fde_t *fde, uint64_t offset)
{
    krv_known_rows *known = krv_load(&reader->sr_known);
    program *p = known == nullptr ? nullptr : program_of(known, fde);
    if (p == nullptr || p->rows == 0 || offset > KRV_ROWS_SPAN)
        return false;
    const uint32_t *offsets = p->offsets();
    uint32_t row = 0;
    while (row + 1 < p->rows && offsets[row + 1] <= offset)
        ++row;
    const krv_compact_number_t number = p->rules()[row];
    if (number < KRV_COMPACT_FIRST)
        return false;
    krv_compact_decode(ap, known->rules.rule(number));
    return true;
}

// About as many slots as there are functions for a few each, within reason. NULL: KRV_ERR_NOMEM.
static krv_known_rows *need_known(krv_handle_t *hp, krv_reader_t *reader)
{
    if (krv_known_rows *known = krv_load(&reader->sr_known))
        return known;
    const uint32_t slots = std::bit_ceil(std::clamp(uint32_t{reader->sr_likely_fdes} / 4, SLOTS_FEWEST, SLOTS_MOST));
    const uint32_t functions = LIKELY * slots <= LIKELY_MOST ? LIKELY * slots : 0;
    const size_t size = sizeof(krv_known_rows) + slots * (sizeof(program *) + sizeof(krv_relaxed<uint32_t>)) +
                        functions * sizeof(krv_relaxed<uint16_t>);
    auto *fresh = static_cast<krv_known_rows *>(krv_zalloc(hp, size));
    if (fresh == nullptr)
        return nullptr;
    krv_rwlock_init(&fresh->lock);
    fresh->slots = slots;
    fresh->functions = functions;
    fresh->rules.count = KRV_COMPACT_FIRST;
    return krv_publish(&reader->sr_known, fresh, krv_known_rows_free);
}

static bool is_advance(uint8_t opcode)
{
    return opcode == DW_CFA_advance_loc || opcode == DW_CFA_advance_loc1 || opcode == DW_CFA_advance_loc2 ||
           opcode == DW_CFA_advance_loc4;
}

bool krv_rows_are_portable(const krv_rows_key &key, uint64_t code_align, uint64_t furthest)
{
    const uint8_t *at = key.bytes, *const end = at + key.size;
    uint64_t behind = 0;
    while (at != end) {
        krv_cfa_op_t op;
        at = krv_cfa_scan(at, end, &op);
        if (at == nullptr)
            return false;
        if (!is_advance(op.opcode))
            continue;
        uint64_t step;
        if (__builtin_mul_overflow(op.first, code_align, &step) || step > furthest - behind)
            return false;
        behind += step;
    }
    return true;
}

static void publish(krv_rows_draft *draft, const krv_rows_key &key)
{
    const size_t rows = draft->count;
    const size_t size = sizeof(program) + rows * (sizeof(uint32_t) + sizeof(krv_compact_number_t)) + key.size;
    auto *fresh = static_cast<program *>(krv_alloc(draft->hp, size));
    program **slot = find(draft->known, key);
    if (fresh == nullptr || slot == nullptr)
        return krv_free(fresh);
    *fresh = {key.decoding, key.size, key.hash, draft->count, 0};
    std::memcpy(fresh->offsets(), draft->offsets, rows * sizeof(uint32_t));
    std::memcpy(fresh->rules(), draft->rules, rows * sizeof(krv_compact_number_t));
    std::memcpy(fresh->bytes(), key.bytes, key.size);
    krv_publish(slot, fresh, krv_free);
}

bool krv_rows_begin(krv_rows_draft *draft, krv_handle_t *hp, krv_reader_t *reader, krv_activation_t *ap,
                    const krv_cie_t *cie, const krv_rows_key &key)
{
    // The debug call-back would be told of failures that the query does not meet, a budget charged with what it does not need.
    if (hp->sh_opts[KRV_OPT_DEBUG_FUNC].sopt_set == B_TRUE || hp->sh_budget != nullptr)
        return false;
    krv_known_rows *known = need_known(hp, reader);
    krv_clear_error(hp);
    program **slot = known == nullptr ? nullptr : find(known, key);
    if (slot == nullptr || krv_load(slot) != nullptr)
        return false;
    krv_relaxed<uint32_t> &seen = known->seen()[known->slot(key.hash, 0)];
    if (seen != key.hash) {
        seen = key.hash;
        return false;
    }
    draft->hp = hp;
    draft->known = known;
    draft->ap = ap;
    draft->column = cie->scie_return_address_register;
    draft->behind = 0;
    draft->is_short = false;
    draft->count = 0;
    if (krv_rows_are_portable(key, cie->scie_code_alignment_factor, KRV_ROWS_SPAN))
        return true;
    publish(draft, key);
    krv_clear_error(hp);
    return false;
}

// Appends the row in hand; one that says what the row before it says is part of that.
static void add_row(krv_rows_draft *draft)
{
    krv_compact_t rule;
    krv_compact_number_t number = KRV_COMPACT_ASK;
    krv_clear_error(draft->hp);
    if (krv_compact_encode(draft->ap, draft->column, &rule)) {
        const krv_write_guard guard(&draft->known->lock);
        number = krv_compact_intern_alone(draft->hp, &draft->known->rules, &rule);
    }
    draft->is_short = draft->is_short || krv_ran_out(draft->hp);
    if (draft->count != 0 && draft->rules[draft->count - 1] == number)
        return;
    draft->offsets[draft->count] = static_cast<uint32_t>(draft->behind);
    draft->rules[draft->count++] = number;
}

void krv_rows_add(void *arg, const krv_slots_t &changed, uint64_t, uint64_t end)
{
    auto *draft = static_cast<krv_rows_draft *>(arg);
    draft->ap->sa_current_changed.add(changed);
    add_row(draft);
    draft->behind = end;
}

void krv_rows_keep(krv_rows_draft *draft, const krv_rows_key &key, bool is_complete)
{
    if (is_complete)
        add_row(draft);
    else
        draft->count = 0;
    if (!draft->is_short && !krv_ran_out(draft->hp))
        publish(draft, key);
    krv_clear_error(draft->hp);
}
