// SPDX-License-Identifier: Apache-2.0
//
// The table of the rules of all code: every FDE of the section, as krv_get_fde_by_address finds it, row by row.
#include "krv_budget.h"
#include "krv_compact_draft.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_frame.h"
#include "krv_mem.h"
#include "krv_unwind.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace
{

struct table_deleter {
    void operator()(krv_compact_table *table) const { krv_compact_table_free(table); }
};
using table_owner = std::unique_ptr<krv_compact_table, table_deleter>;

// The table while it is filled.
struct filling {
    krv_handle_t *hp;
    krv_activation_t *ap;
    krv_compact_table *table;
    krv_compact_draft *draft;
    uint64_t column; // of the FDE in hand
    uint64_t first;  // the address that its rows count from
    uint64_t behind; // where its next row begins
    uint64_t bytes;  // of instructions that were read
    int32_t failure; // KRV_ERR_NOMEM or KRV_ERR_IO: a row is missing that another time might be there
};

// What an expression says, if it is one of those that compilers and linkers write.
struct expression {
    bool known;
    krv_origin_t origin;
};

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Places
// ---------------------------------------------------------------------------------------------------------------

// A number of a single or several bytes, as far as 32 bits reach.
static bool scan_offset(const uint8_t **at, const uint8_t *end, bool is_signed, int32_t *valuep)
{
    int64_t value = 0;
    unsigned shift = 0;
    for (; *at != end && shift < 35; shift += 7) {
        const uint8_t byte = *(*at)++;
        value |= static_cast<int64_t>(uint64_t{byte & 0x7fU} << shift);
        if ((byte & 0x80) != 0)
            continue;
        if (is_signed && (byte & 0x40) != 0)
            value -= int64_t{1} << (shift + 7);
        *valuep = static_cast<int32_t>(value);
        return value >= INT32_MIN && value <= INT32_MAX;
    }
    return false;
}

// A PLT entry of `word` bytes a word pushes a number at some byte of its 16: the stack pointer moves behind it.
static bool is_plt_entry(const krv_activation_t *ap, size_t word, const uint8_t *bytes, size_t size,
                         krv_origin_t *origin)
{
    const auto sp = static_cast<uint8_t>(DW_OP_breg0 + ap->sa_mach_def->smd_sp);
    const auto pc = static_cast<uint8_t>(DW_OP_breg0 + ap->sa_mach_def->smd_pc);
    const auto shift = static_cast<uint8_t>(DW_OP_lit0 + static_cast<unsigned>(std::countr_zero(word)));
    const uint8_t known[] = {sp,          static_cast<uint8_t>(word),
                             pc,          0,
                             DW_OP_lit15, DW_OP_and,
                             0, // compared with
                             DW_OP_ge,    shift,
                             DW_OP_shl,   DW_OP_plus};
    constexpr size_t BYTE = 6;
    if (size != sizeof(known) || std::memcmp(bytes, known, BYTE) != 0 ||
        std::memcmp(bytes + BYTE + 1, known + BYTE + 1, size - BYTE - 1) != 0 || bytes[BYTE] < DW_OP_lit0 ||
        bytes[BYTE] > DW_OP_lit31)
        return false;
    *origin = {KRV_ORIGIN_OF_PLT_ENTRY, static_cast<uint8_t>(ap->sa_mach_def->smd_sp), 0, 0,
               static_cast<int32_t>(bytes[BYTE]) - static_cast<int32_t>(DW_OP_lit0)};
    return true;
}

// A register and an offset; of the CFA perhaps loaded from there, perhaps with another offset.
static bool read_expression(const filling *f, const krv_cfarule_t *rule, bool is_cfa, krv_origin_t *origin)
{
    uint8_t bytes[16];
    krv_fd_t fd = f->ap->sa_cie_fd;
    const uint64_t size = rule->size;
    if (size == 0 || size > sizeof(bytes) || krv_fd_seek(&fd, rule->offset) != 0 ||
        korva_fd_to_mem(&fd, bytes, static_cast<size_t>(size)) != 0)
        return false;
    if (is_cfa && is_plt_entry(f->ap, f->hp->sh_target_size, bytes, static_cast<size_t>(size), origin))
        return true;
    const uint8_t *at = bytes, *const end = bytes + size;
    const unsigned reg = *at++ - unsigned{DW_OP_breg0};
    *origin = {KRV_ORIGIN_IS_ADDRESS, static_cast<uint8_t>(reg), 0, 0, 0};
    if (reg > f->ap->sa_mach_def->smd_pc || !scan_offset(&at, end, true, &origin->offset))
        return false;
    if (at != end && is_cfa && *at == DW_OP_deref) {
        origin->kind = KRV_ORIGIN_LOADED;
        ++at;
        if (at != end && *at++ == DW_OP_plus_uconst && !scan_offset(&at, end, false, &origin->more))
            return false;
    }
    return at == end;
}

static bool find_cfa_origin(const filling *f, const krv_cfarule_t *rule, krv_origin_t *origin)
{
    if (rule->desc == KRV_CFA_RULE_EXPRESSION)
        return read_expression(f, rule, true, origin);
    const uint64_t base = rule->arg >> 32;
    *origin = {KRV_ORIGIN_IS_ADDRESS, static_cast<uint8_t>(base), 0, static_cast<int32_t>(rule->arg & UINT32_MAX), 0};
    return rule->desc == KRV_CFA_RULE_REG_OFFSET && base <= f->ap->sa_mach_def->smd_pc;
}

static bool find_origin(const filling *f, const krv_cfarule_t *rule, krv_origin_t *origin)
{
    const auto offset = static_cast<int64_t>(rule->arg);
    *origin = {KRV_ORIGIN_UNDEFINED, KRV_ORIGIN_CFA, 0, static_cast<int32_t>(offset), 0};
    switch (rule->desc) {
    case KRV_CFA_RULE_UNDEFINED:
        return true;
    case KRV_CFA_RULE_SAME_VALUE:
        origin->kind = KRV_ORIGIN_SAME;
        return true;
    case KRV_CFA_RULE_REGISTER:
        origin->kind = KRV_ORIGIN_REGISTER;
        origin->reg = static_cast<uint8_t>(rule->arg);
        return rule->arg <= f->ap->sa_mach_def->smd_pc;
    case KRV_CFA_RULE_OFFSET:
    case KRV_CFA_RULE_VAL_OFFSET:
        origin->kind = rule->desc == KRV_CFA_RULE_OFFSET ? KRV_ORIGIN_IN_MEMORY : KRV_ORIGIN_IS_ADDRESS;
        return offset >= INT32_MIN && offset <= INT32_MAX;
    case KRV_CFA_RULE_EXPRESSION:
    case KRV_CFA_RULE_VAL_EXPRESSION:
        if (!read_expression(f, rule, false, origin))
            return false;
        if (rule->desc == KRV_CFA_RULE_EXPRESSION)
            origin->kind = KRV_ORIGIN_IN_MEMORY;
        return true;
    default:
        return false;
    }
}

// Rules that no compact one expresses: an origin for each register, as many as instructions make likely.
static bool add_origins(filling *f, krv_compact_t *rule)
{
    krv_compact_table *table = f->table;
    const krv_activation_t *ap = f->ap;
    krv_origin_t origins[KRV_WALK_REGISTERS] = {};
    *rule = {};
    if (f->column != ap->sa_mach_def->smd_pc || table->norigins > (64 + f->bytes) * 2 ||
        !find_cfa_origin(f, &ap->sa_current[krv_library_slot(ap, KRV_REG_CFA)], &rule->cfa))
        return false;
    for (unsigned reg = 0; reg <= f->column; ++reg)
        if (!find_origin(f, &ap->sa_current[reg], &origins[reg]))
            return false;
    for (uint32_t i = 0; i < KRV_WALK_REGISTERS; ++i) {
        if (!krv_table_grow(f->hp, &table->origins, &table->origins_capacity, table->norigins + i, 64U))
            return false;
        table->origins[table->norigins + i] = origins[i];
    }
    rule->flags = KRV_COMPACT_ORIGINS | (ap->sa_function.is_signal != 0 ? KRV_COMPACT_SIGNAL : 0);
    rule->origins = table->norigins;
    table->norigins += KRV_WALK_REGISTERS;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------------------------------------------

static void add_row(filling *f, uint64_t start, krv_compact_number_t number)
{
    if (!f->draft->add_row(start - f->first, number))
        f->failure = KRV_ERR_NOMEM;
}

static krv_compact_number_t give_up(filling *f)
{
    const int32_t code = krv_errno(f->hp);
    if (code == KRV_ERR_NOMEM || code == KRV_ERR_IO)
        f->failure = code;
    return KRV_COMPACT_ASK;
}

// The rules that the activation has.
static krv_compact_number_t number_rules(filling *f)
{
    krv_compact_t rule;
    krv_clear_error(f->hp);
    if (!krv_compact_encode(f->ap, f->column, &rule) && !add_origins(f, &rule))
        return give_up(f);
    const krv_compact_number_t number = krv_compact_intern(f->hp, f->hp->sh_compact, &rule);
    return number == KRV_COMPACT_ASK ? give_up(f) : number;
}

static void visit_row(void *arg, const krv_slots_t &changed, uint64_t start, uint64_t end)
{
    auto *f = static_cast<filling *>(arg);
    f->ap->sa_current_changed.add(changed);
    add_row(f, start, number_rules(f));
    f->behind = end;
}

// Executes the instructions of an FDE, and has its rows in hand then. `shared`: to their end, as if they began at address 0. False: they
// did not end well; the last row says so.
static bool execute(filling *f, krv_fde_t *fde, bool shared)
{
    f->draft->nrows = 0;
    f->behind = f->first = shared ? 0 : fde->sfde_target_address;
    const bool whole = (shared ? krv_generate_shared_rows : krv_generate_rows)(f->hp, f->ap, fde, visit_row, f) == 0;
    add_row(f, f->behind, whole ? number_rules(f) : give_up(f));
    return whole;
}

// The call-back for debugging would be told of failures of rows that the function does not reach.
static bool may_share(const filling *f, const krv_fde_t *fde, krv_rows_key *key)
{
    return f->hp->sh_opts[KRV_OPT_DEBUG_FUNC].sopt_set != B_TRUE && f->hp->sh_budget == nullptr &&
           fde->sfde_target_address <= UINT64_MAX - KRV_ROWS_SPAN && krv_rows_key_of(fde, key);
}

static bool add_rows(filling *f, krv_fde_t *fde)
{
    const uint64_t start = fde->sfde_target_address - f->table->base, size = fde->sfde_address_range;
    krv_rows_key key;
    const bool shares = may_share(f, fde, &key);
    uint32_t list;
    if (shares && f->draft->knows(key, &list))
        return f->draft->add_with(list, start, size);
    // Of rows behind the function nothing is kept: there may be too many for their rules to have numbers.
    const uint64_t furthest = std::min(size - 1, KRV_ROWS_SPAN);
    if (shares && krv_rows_are_portable(key, fde->sfde_cie->scie_code_alignment_factor, furthest) &&
        execute(f, fde, true))
        return f->draft->add(&key, start, size);
    execute(f, fde, false);
    return f->draft->add(nullptr, start, size);
}

// An FDE that is not found by every address, or whose rows cannot be read, is left to those who ask for it. False, with
// code and messages: it cannot be read this time.
static bool add_function(filling *f, const krv_lie_t *entry, uint64_t next)
{
    krv_fde_room room;
    const krv_fde_owner fde(krv_get_fde_by_offset(f->hp, entry->sle_offset, &room), {f->hp});
    const uint64_t start = entry->sle_start;
    if (fde == nullptr)
        return false;
    const uint64_t size = fde->sfde_address_range;
    if (!krv_fde_is_consistent(fde.get(), start, next) || size == 0 || size > UINT64_MAX - start)
        return true;
    f->column = fde->sfde_cie->scie_return_address_register;
    f->bytes += fde->sfde_cfi_size;
    if (!add_rows(f, fde.get()))
        f->failure = KRV_ERR_NOMEM;
    if (f->failure != 0)
        krv_errno(f->hp) = f->failure;
    return f->failure == 0;
}

static bool fill(filling *f, const krv_linear_t *lt)
{
    const krv_lie_t *entries = lt->sl_table;
    f->table->base = entries[0].sle_start;
    for (uint64_t i = 0; i < lt->sl_table_entries; ++i) {
        const bool is_last = i + 1 == lt->sl_table_entries;
        const uint64_t next = is_last ? entries[i].sle_start : entries[i + 1].sle_start;
        if (!krv_spend(f->hp, 1))
            return false;
        if (!is_last && next == entries[i].sle_start)
            continue; // of those that begin at one address the last one is found
        if (!add_function(f, &entries[i], next))
            return false;
    }
    krv_clear_error(f->hp); // of rows that are left to others
    return true;
}

static bool fill_from_fdes(krv_handle_t *hp, krv_activation_t *ap, krv_compact_table *table)
{
    krv_compact_draft draft(hp, table);
    filling f = {.hp = hp,
                 .ap = ap,
                 .table = table,
                 .draft = &draft,
                 .column = 0,
                 .first = 0,
                 .behind = 0,
                 .bytes = 0,
                 .failure = 0};
    krv_linear_owner own;
    const krv_linear_t *fdes = krv_list_fdes(hp, &own);
    if (fdes == nullptr || !fill(&f, fdes))
        return false;
    own.reset();
    return draft.finish();
}

// What walks fill, which take no memory themselves. False: KRV_ERR_NOMEM.
static bool make_steps(krv_handle_t *hp, krv_compact *c, const krv_compact_table *table)
{
    constexpr uint64_t MOST = uint64_t{1} << 48;
    if (hp->sh_cache_bits < KRV_LEAST_STEP_CACHE_BITS || table->base >= MOST || table->size > MOST - table->base)
        return true;
    auto *steps = static_cast<uint64_t *>(krv_zalloc(hp, sizeof(uint64_t) << hp->sh_cache_bits));
    return steps != nullptr && krv_publish(&c->steps, steps, krv_free) != nullptr;
}

static int prefill(krv_handle_t *hp)
{
    krv_compact *c = hp->sh_compact;
    if (c == nullptr)
        return krv_fail(hp, KRV_ERR_INVALID, "call-frame information is not promised to be constant");
    if (krv_load(&c->table) != nullptr)
        return 0;
    const krv_activation_owner ap(korva_activation_alloc(hp));
    table_owner table(krv_new<krv_compact_table>(hp));
    if (ap == nullptr || table == nullptr || !fill_from_fdes(hp, ap.get(), table.get()) ||
        !make_steps(hp, c, table.get()))
        return -1;
    krv_publish(&c->table, table.release(), krv_compact_table_free);
    return 0;
}

int korva_frames_prefill(krv_handle_t *hp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    return prefill(hp);
}
