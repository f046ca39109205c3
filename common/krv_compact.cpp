// SPDX-License-Identifier: Apache-2.0
#include "krv_compact.h"

#include "krv_build.h"
#include "krv_error.h"
#include "krv_mem.h"

#include <bit>
#include <cstring>

void krv_compact_clear(krv_compact *c)
{
    for (krv_compact_t *chunk : c->chunks)
        krv_free(chunk);
    krv_free(c->index);
    krv_free(c->cache);
    krv_free(c->steps);
    krv_compact_table_free(c->table);
    *c = {};
    c->count = KRV_COMPACT_FIRST;
}

void krv_compact_forget(krv_handle_t *hp)
{
    if (hp->sh_compact != nullptr)
        krv_compact_clear(hp->sh_compact);
}

void krv_compact_destroy(krv_handle_t *hp)
{
    krv_compact_forget(hp);
    krv_free(hp->sh_compact);
    hp->sh_compact = nullptr;
}

// The bits of the cache count its entries, of which there are two at least.
int krv_compact_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value)
{
    if (krv_load(&hp->sh_frame_reader) != nullptr)
        return krv_fail(hp, KRV_ERR_INVALID, "what is kept of frames cannot be changed after the first query");
    if (opt == KRV_OPT_EXT_FRAME_CACHE) {
        if (value > uint64_t{1} << KRV_MAX_CACHE_BITS)
            return krv_fail(hp, KRV_ERR_INVALID, "a cache for %lu program counters", static_cast<unsigned long>(value));
        hp->sh_cache_bits = static_cast<unsigned>(value < 2 ? value : std::bit_width(value - 1));
        return 0;
    }
    krv_compact_destroy(hp);
    if (value == 0)
        return 0;
    hp->sh_compact = krv_new<krv_compact>(hp);
    krv_compact_forget(hp);
    return hp->sh_compact == nullptr ? -1 : 0;
}

void krv_compact_table_free(krv_compact_table *table)
{
    if (table == nullptr)
        return;
    krv_free(table->pieces);
    krv_free(table->rows);
    krv_free(table->blocks);
    krv_free(table->origins);
    krv_free(table);
}

// ---------------------------------------------------------------------------------------------------------------
// From rules and back
// ---------------------------------------------------------------------------------------------------------------

static int64_t word_of(const krv_activation_t *ap)
{
    return static_cast<int64_t>(ap->sa_current_registers->srs_metadata[ap->sa_mach_def->smd_pc].sr_size);
}

static bool encode_kept(const krv_cfarule_t *rule, int64_t word, int16_t *keptp)
{
    const auto offset = static_cast<int64_t>(rule->arg);
    switch (rule->desc) {
    case KRV_CFA_RULE_UNDEFINED:
        *keptp = KRV_KEPT_UNDEFINED;
        return true;
    case KRV_CFA_RULE_SAME_VALUE:
        *keptp = KRV_KEPT_SAME;
        return true;
    case KRV_CFA_RULE_OFFSET:
        *keptp = static_cast<int16_t>(offset / word);
        return offset % word == 0 && offset / word > KRV_KEPT_UNDEFINED && offset / word <= INT16_MAX;
    default:
        return false;
    }
}

// On 32-bit x86 registers that calls preserve keep their value for want of a rule.
krv_step_t krv_step_of(const krv_mach_def_t *mach, const krv_compact_t *rule, uint64_t word)
{
    const int fp = rule->kept[mach->smd_kept_fp], pc = rule->kept[mach->smd_n_kept - 1], offset = rule->cfa.offset;
    const bool is_same = fp == KRV_KEPT_SAME || (fp == KRV_KEPT_UNDEFINED && word == sizeof(uint32_t));
    const int slots = is_same ? 0 : -fp;
    if (rule->flags != 0 || rule->cfa.kind != KRV_ORIGIN_IS_ADDRESS || offset < 0 ||
        offset > int{KRV_STEP_MOST_OFFSET} || (!is_same && (slots < 1 || slots > int{KRV_STEP_SLOTS})) ||
        (pc != -1 && pc != KRV_KEPT_UNDEFINED) || (rule->cfa.reg != mach->smd_sp && rule->cfa.reg != mach->smd_fp))
        return KRV_STEP_NONE;
    return KRV_STEP_IS | (rule->cfa.reg == mach->smd_fp ? krv_step_t{KRV_STEP_BY_FP} : krv_step_t{0}) |
           (pc == -1 ? krv_step_t{0} : krv_step_t{KRV_STEP_OUTERMOST}) |
           static_cast<krv_step_t>(offset << KRV_STEP_OFFSET_SHIFT) | static_cast<krv_step_t>(slots);
}

bool krv_compact_encode(const krv_activation_t *ap, uint64_t column, krv_compact_t *rule)
{
    const krv_mach_def_t *mach = ap->sa_mach_def;
    const krv_cfarule_t *rules = ap->sa_current, *cfa = &rules[krv_library_slot(ap, KRV_REG_CFA)];
    const krv_cfarule_t *sp = &rules[mach->smd_sp];
    const uint64_t base = cfa->arg >> 32;
    if (column != mach->smd_pc || ap->sa_args.sa_argc != 0 || cfa->desc != KRV_CFA_RULE_REG_OFFSET ||
        base > mach->smd_pc || sp->desc != KRV_CFA_RULE_VAL_OFFSET || sp->arg != 0)
        return false;
    *rule = {};
    rule->cfa = {KRV_ORIGIN_IS_ADDRESS, static_cast<uint8_t>(base), 0, static_cast<int32_t>(cfa->arg & UINT32_MAX), 0};
    rule->flags = ap->sa_function.is_signal != 0 ? KRV_COMPACT_SIGNAL : 0;
    krv_slots_t others = ap->sa_ruled;
    others.add(ap->sa_current_changed);
    others.words[0] &= ~(uint64_t{1} << mach->smd_sp);
    for (unsigned i = 0; i < mach->smd_n_kept; ++i) {
        if (!encode_kept(&rules[mach->smd_kept[i]], word_of(ap), &rule->kept[i]))
            return false;
        others.words[0] &= ~(uint64_t{1} << mach->smd_kept[i]);
    }
    const unsigned int end = krv_dwarf_slots(ap);
    return others.for_each(
        [rules, end](unsigned int slot) { return slot >= end || rules[slot].desc == KRV_CFA_RULE_UNDEFINED; });
}

// The rules of slots that no compact rule tells.
static void take_defaults(krv_activation_t *ap)
{
    const krv_mach_def_t *mach = ap->sa_mach_def;
    krv_copy_rules(ap->sa_current, ap->sa_default, ap->sa_current_changed);
    ap->sa_current_changed = {};
    for (unsigned i = 0; i < mach->smd_n_kept; ++i)
        ap->sa_current_changed.add(mach->smd_kept[i]);
    ap->sa_current_changed.add(krv_library_slot(ap, KRV_REG_CFA));
}

static void set_kept(krv_cfarule_t *rule, int16_t kept, uint64_t word)
{
    const bool is_saved = kept != KRV_KEPT_SAME && kept != KRV_KEPT_UNDEFINED;
    rule->desc = is_saved                ? KRV_CFA_RULE_OFFSET
                 : kept == KRV_KEPT_SAME ? KRV_CFA_RULE_SAME_VALUE
                                         : KRV_CFA_RULE_UNDEFINED;
    rule->arg = is_saved ? static_cast<uint64_t>(int64_t{kept}) * word : 0;
}

// What it said last needs no change.
void krv_compact_decode(krv_activation_t *ap, const krv_compact_t *rule)
{
    const krv_mach_def_t *mach = ap->sa_mach_def;
    const bool knows_kept = ap->sa_knows_kept;
    if (!knows_kept)
        take_defaults(ap);
    krv_cfarule_t *cfa = &ap->sa_current[krv_library_slot(ap, KRV_REG_CFA)];
    cfa->desc = KRV_CFA_RULE_REG_OFFSET;
    cfa->arg = uint64_t{rule->cfa.reg} << 32 | static_cast<uint32_t>(rule->cfa.offset);
    if (!knows_kept || std::memcmp(ap->sa_kept, rule->kept, sizeof(rule->kept)) != 0) {
        const auto word = static_cast<uint64_t>(word_of(ap));
        for (unsigned i = 0; i < mach->smd_n_kept; ++i)
            set_kept(&ap->sa_current[mach->smd_kept[i]], rule->kept[i], word);
        std::memcpy(ap->sa_kept, rule->kept, sizeof(rule->kept));
        ap->sa_knows_kept = true;
    }
    if (ap->sa_args.sa_argc != 0) { // those of the last CIE; this one has none
        ap->sa_args = {};
        ap->sa_initial_of = 0;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Rules by what they say
// ---------------------------------------------------------------------------------------------------------------

static uint32_t hash(const krv_compact_t *rule)
{
    uint64_t words[sizeof(*rule) / sizeof(uint64_t) + 1] = {}, sum = 0;
    std::memcpy(words, rule, sizeof(*rule));
    for (const uint64_t word : words)
        sum = (std::rotl(sum, 5) ^ word) * 0x9e3779b97f4a7c15U;
    return static_cast<uint32_t>(sum >> 32);
}
static_assert(sizeof(krv_compact_t) == 12 + 16 + 4, "hashed and compared without padding");

// Where a rule stands in the index, or would.
static krv_compact_number_t *find_rule(const krv_compact *c, const krv_compact_t *rule)
{
    for (uint32_t at = hash(rule);; ++at) {
        krv_compact_number_t *number = &c->index[at & (c->index_size - 1)];
        if (*number == 0 || std::memcmp(c->rule(*number), rule, sizeof(*rule)) == 0)
            return number;
    }
}

static bool grow_index(krv_handle_t *hp, krv_compact *c)
{
    if (c->index != nullptr && c->count < c->index_size / 2)
        return true;
    const uint32_t size = c->index == nullptr ? 64 : 2 * c->index_size;
    auto *fresh = static_cast<krv_compact_number_t *>(krv_zalloc(hp, size * sizeof(krv_compact_number_t)));
    if (fresh == nullptr)
        return false;
    krv_free(c->index);
    c->index = fresh;
    c->index_size = size;
    for (uint32_t number = KRV_COMPACT_FIRST; number < c->count; ++number)
        *find_rule(c, c->rule(static_cast<krv_compact_number_t>(number))) = static_cast<krv_compact_number_t>(number);
    return true;
}

krv_compact_number_t krv_compact_intern_alone(krv_handle_t *hp, krv_compact *c, const krv_compact_t *rule)
{
    if (!grow_index(hp, c))
        return KRV_COMPACT_ASK;
    krv_compact_number_t *number = find_rule(c, rule);
    if (*number != 0 || c->count > UINT16_MAX)
        return *number != 0 ? *number : krv_compact_number_t{KRV_COMPACT_ASK};
    krv_compact_t *&chunk = c->chunks[c->count / krv_compact::CHUNK];
    if (chunk == nullptr)
        chunk = static_cast<krv_compact_t *>(krv_zalloc(hp, krv_compact::CHUNK * sizeof(krv_compact_t)));
    if (chunk == nullptr)
        return KRV_COMPACT_ASK;
    chunk[c->count % krv_compact::CHUNK] = *rule;
    *number = static_cast<krv_compact_number_t>(c->count++);
    return *number;
}

krv_compact_number_t krv_compact_intern(krv_handle_t *hp, krv_compact *c, const krv_compact_t *rule)
{
    const krv_build_guard guard(hp);
    return krv_compact_intern_alone(hp, c, rule);
}

// ---------------------------------------------------------------------------------------------------------------
// Rules by program counter
// ---------------------------------------------------------------------------------------------------------------

// Where a program counter has its entry. Its word stands for it and for its rule; 48 bits are all that code has.
static uint64_t *cache_entry(uint64_t *cache, const krv_handle_t *hp, uint64_t pc)
{
    return &cache[(pc * 0x9e3779b97f4a7c15U) >> (64 - hp->sh_cache_bits)];
}

static bool is_cached(const krv_handle_t *hp, uint64_t pc)
{
    return hp->sh_cache_bits != 0 && pc >> 48 == 0;
}

static krv_compact_number_t find_number(const krv_handle_t *hp, krv_compact *c, uint64_t pc)
{
    const krv_compact_table *table = krv_load(&c->table);
    if (table != nullptr && pc - table->base < table->size)
        return krv_compact_search(table, pc);
    uint64_t *cache = is_cached(hp, pc) ? krv_load(&c->cache) : nullptr;
    if (cache == nullptr)
        return KRV_COMPACT_ASK;
    const uint64_t word = krv_load(cache_entry(cache, hp, pc));
    return word >> 16 == pc ? static_cast<krv_compact_number_t>(word & UINT16_MAX)
                            : krv_compact_number_t{KRV_COMPACT_ASK};
}

bool krv_compact_apply(krv_handle_t *hp, krv_activation_t *ap, uint64_t pc, uint64_t *columnp)
{
    const krv_compact_number_t number = find_number(hp, hp->sh_compact, pc);
    if (number < KRV_COMPACT_FIRST)
        return false;
    const krv_compact_t *rule = hp->sh_compact->rule(number);
    if ((rule->flags & KRV_COMPACT_ORIGINS) != 0)
        return false;
    krv_compact_decode(ap, rule);
    *columnp = ap->sa_mach_def->smd_pc;
    return true;
}

static uint64_t *get_cache(krv_handle_t *hp, krv_compact *c)
{
    if (uint64_t *known = krv_load(&c->cache))
        return known;
    auto *fresh = static_cast<uint64_t *>(krv_zalloc(hp, sizeof(uint64_t) << hp->sh_cache_bits));
    return fresh == nullptr ? nullptr : krv_publish(&c->cache, fresh, krv_free);
}

void krv_compact_learn(krv_handle_t *hp, const krv_activation_t *ap, uint64_t pc, uint64_t column)
{
    krv_compact *c = hp->sh_compact;
    krv_compact_t rule;
    if (!is_cached(hp, pc) || !krv_compact_encode(ap, column, &rule))
        return;
    const int32_t code = krv_errno(hp);
    uint64_t *cache = get_cache(hp, c);
    const krv_compact_number_t number =
        cache == nullptr ? krv_compact_number_t{KRV_COMPACT_ASK} : krv_compact_intern(hp, c, &rule);
    if (number >= KRV_COMPACT_FIRST)
        krv_store(cache_entry(cache, hp, pc), pc << 16 | number);
    krv_errno(hp) = code; // of no memory to keep it: what was asked for has not failed
}
