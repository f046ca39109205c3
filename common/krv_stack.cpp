// SPDX-License-Identifier: Apache-2.0
//
// The program counters of a whole stack, by the tables of rules alone. Safe in a signal handler: what is not on the stack
// of the call is only read, and no handle's error state is touched. Of a register that was saved only the address is
// noted; few are ever asked for.
#include "krv_activation_isa.h"
#include "krv_compact.h"
#include "krv_expr.h"

#include <cstring>

namespace
{

// What is known of a register of the frame in hand.
struct known_register {
    uint64_t value;
    enum : uint8_t { nothing, is, is_at } how; // the value, or where it is in memory
};

struct stack_walk {
    const krv_stack_t *stack;
    const krv_mach_def_t *mach;
    krv_activation_type_t target;
    uint64_t word, mask; // bytes of one, and its bits
    size_t module;       // that had the last program counter
    uint64_t pc, cfa;
    int reason; // KRV_STACK_*, when it has ended
    known_register registers[KRV_WALK_REGISTERS];

    bool end(int why)
    {
        reason = why;
        return false;
    }
};

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Memory and registers
// ---------------------------------------------------------------------------------------------------------------

namespace
{

// Words of a stack that lies in the memory of the process itself.
template <typename Word>
class own_memory
{
public:
    explicit own_memory(const krv_stack_t &stack)
        : low(stack.low), starts(stack.high < stack.low || stack.high - stack.low < sizeof(Word)
                                     ? 0
                                     : stack.high - stack.low - sizeof(Word) + 1)
    {
    }
    [[gnu::always_inline]] bool read(uint64_t address, uint64_t *valuep) const
    {
        if (address - low >= starts)
            return false;
        Word value;
        const auto *own = reinterpret_cast<const void *>(address); // NOLINT(performance-no-int-to-ptr)
        std::memcpy(&value, own, sizeof(value));
        *valuep = value;
        return true;
    }

private:
    uint64_t low, starts; // how many addresses from there on a word may begin at
};

// Those that the client's call reads.
template <typename Word>
class called_memory
{
public:
    explicit called_memory(const krv_stack_t &stack) : func(stack.read), arg(stack.arg) {}
    [[gnu::always_inline]] bool read(uint64_t address, uint64_t *valuep) const
    {
        Word value = 0;
        if (func(arg, &value, sizeof(value), address) != int64_t{sizeof(value)})
            return false;
        *valuep = value;
        return true;
    }

private:
    krv_fd_cb_f *const func;
    void *const arg;
};

} // namespace

// Calls func(memory) with the one that a stack is in.
template <typename Word, typename F>
static inline auto with_memory(const krv_stack_t &stack, F func)
{
    return stack.read == nullptr ? func(own_memory<Word>(stack)) : func(called_memory<Word>(stack));
}

static bool read_word(stack_walk *w, uint64_t address, uint64_t *valuep)
{
    const auto read = [=](const auto &memory) { return memory.read(address, valuep); };
    const bool is_read =
        w->word == sizeof(uint64_t) ? with_memory<uint64_t>(*w->stack, read) : with_memory<uint32_t>(*w->stack, read);
    return is_read || w->end(KRV_STACK_MEMORY);
}

static bool read_register(stack_walk *w, unsigned reg, uint64_t *valuep)
{
    known_register *r = &w->registers[reg];
    if (r->how == known_register::is_at) {
        if (!read_word(w, r->value, &r->value))
            return false;
        r->how = known_register::is;
    }
    *valuep = r->value;
    return r->how == known_register::is || w->end(KRV_STACK_REGISTER);
}

// A register that the client gives, by its DWARF number.
static void load_register(stack_walk *w, unsigned reg)
{
    const int host = w->mach->smd_defs[reg].srd_host;
    if ((w->stack->mask >> host & 1) != 0)
        w->registers[reg] = {static_cast<uint64_t>(w->stack->gregs[host]) & w->mask, known_register::is};
}

// ---------------------------------------------------------------------------------------------------------------
// Rules
// ---------------------------------------------------------------------------------------------------------------

// The rule at a program counter of a module, or NULL.
static const krv_compact_t *rule_in(const stack_walk *w, size_t module, uint64_t pc)
{
    const krv_handle_t *hp = w->stack->modules[module].handle;
    const krv_compact *c = hp->sh_compact;
    const krv_compact_table *table = c == nullptr ? nullptr : krv_load(&c->table);
    const uint64_t at = pc - w->stack->modules[module].bias;
    if (table == nullptr || hp->sh_target != w->target || at - table->base >= table->size)
        return nullptr;
    const krv_compact_number_t number = krv_compact_search(table, at);
    return number < KRV_COMPACT_FIRST ? nullptr : c->rule(number);
}

// Most frames are of the module of the frame before. Modules may lie within the span of another.
static const krv_compact_t *find_rule(const stack_walk *w, size_t *modulep, uint64_t pc)
{
    if (const krv_compact_t *rule = rule_in(w, *modulep, pc))
        return rule;
    for (size_t i = 0; i < w->stack->nmodules; ++i)
        if (const krv_compact_t *rule = i == *modulep ? nullptr : rule_in(w, i, pc)) {
            *modulep = i;
            return rule;
        }
    return nullptr;
}

static bool find_cfa(stack_walk *w, const krv_origin_t *origin, uint64_t *cfap)
{
    uint64_t base = 0;
    if (!read_register(w, origin->reg, &base))
        return false;
    const auto offset = static_cast<uint64_t>(int64_t{origin->offset}),
               more = static_cast<uint64_t>(int64_t{origin->more});
    *cfap = (base + offset) & w->mask;
    if (origin->kind == KRV_ORIGIN_LOADED) {
        if (!read_word(w, *cfap, &base))
            return false;
        *cfap = (base + more) & w->mask;
    } else if (origin->kind == KRV_ORIGIN_OF_PLT_ENTRY) {
        *cfap = (base + ((w->pc & 15) >= more ? 2 * w->word : w->word)) & w->mask;
    }
    return true;
}

// Registers that calls preserve; a register that is not undefined by the rule of AMD64, but for want of one, is preserved.
static void keep_registers(stack_walk *w, const krv_compact_t *rule)
{
    known_register kept[KRV_WALK_REGISTERS] = {};
    for (unsigned i = 0; i < w->mach->smd_n_kept; ++i) {
        const unsigned reg = w->mach->smd_kept[i];
        const int16_t words = rule->kept[i];
        if (words == KRV_KEPT_UNDEFINED && (w->target == KRV_ACTIVATION_AMD64 || reg == w->mach->smd_pc))
            continue;
        if (words == KRV_KEPT_SAME || words == KRV_KEPT_UNDEFINED)
            kept[reg] = w->registers[reg];
        else
            kept[reg] = {(w->cfa + static_cast<uint64_t>(int64_t{words}) * w->word) & w->mask, known_register::is_at};
    }
    std::memcpy(w->registers, kept, sizeof(kept));
}

// Registers by an origin for each.
static bool apply_origins(stack_walk *w, const krv_origin_t *origins)
{
    known_register placed[KRV_WALK_REGISTERS] = {};
    for (unsigned reg = 0; reg <= w->mach->smd_pc; ++reg) {
        const krv_origin_t *origin = &origins[reg];
        uint64_t base = w->cfa;
        switch (origin->kind) {
        case KRV_ORIGIN_UNDEFINED:
            break;
        case KRV_ORIGIN_SAME:
            placed[reg] = w->registers[reg];
            break;
        case KRV_ORIGIN_REGISTER:
            placed[reg] = w->registers[origin->reg];
            break;
        default:
            if (origin->reg != KRV_ORIGIN_CFA && !read_register(w, origin->reg, &base))
                return false;
            placed[reg] = {(base + static_cast<uint64_t>(int64_t{origin->offset})) & w->mask,
                           origin->kind == KRV_ORIGIN_IN_MEMORY ? known_register::is_at : known_register::is};
        }
    }
    std::memcpy(w->registers, placed, sizeof(placed));
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Frames
// ---------------------------------------------------------------------------------------------------------------

// From a frame to its caller. `is_exact`: it was interrupted, and did not call; becomes that of the caller.
static bool leave(stack_walk *w, bool *is_exact)
{
    const krv_compact_t *rule = find_rule(w, &w->module, *is_exact ? w->pc : w->pc - 1);
    if (rule == nullptr)
        return w->end(KRV_STACK_NO_RULE);
    const unsigned pc = w->mach->smd_pc;
    const uint64_t last_pc = w->pc, last_cfa = w->cfa;
    w->registers[pc] = {w->pc, known_register::is};
    if (!find_cfa(w, &rule->cfa, &w->cfa))
        return false;
    if ((rule->flags & KRV_COMPACT_ORIGINS) == 0) {
        keep_registers(w, rule);
        w->registers[w->mach->smd_sp] = {w->cfa, known_register::is};
    } else if (!apply_origins(w, krv_load(&w->stack->modules[w->module].handle->sh_compact->table)->origins +
                                     rule->origins)) {
        return false;
    }
    if (w->registers[pc].how == known_register::nothing)
        return w->end(KRV_STACK_END);
    if (!read_register(w, pc, &w->pc))
        return false;
    if (w->pc == 0)
        return w->end(KRV_STACK_END);
    *is_exact = (rule->flags & KRV_COMPACT_SIGNAL) != 0;
    return (w->pc != last_pc || w->cfa != last_cfa) || w->end(KRV_STACK_NO_PROGRESS);
}

namespace
{

// The steps of the module that had the last program counter.
class steps_nearby
{
public:
    explicit steps_nearby(const stack_walk *w) : walk(w), module(w->module) { look(); }

    // That of the last byte before an address, where a call that returns there stands. KRV_STEP_NONE: there is no rule, or one
    // that says more.
    [[gnu::always_inline]] krv_step_t find_before(uint64_t address)
    {
        const krv_step_t step = address - behind_start < size
                                    ? krv_step_place(steps, shift, krv_step_mixed(address) - mixed_start).recall()
                                    : krv_step_t{KRV_STEP_NONE};
        return __builtin_expect(step != KRV_STEP_NONE, 1) ? step : search(address - 1);
    }
    bool has_rule = true; // where there was no step

private:
    [[gnu::noinline]] krv_step_t search(uint64_t pc)
    {
        const krv_compact_t *rule = find_rule(walk, &module, pc);
        has_rule = rule != nullptr;
        if (!has_rule)
            return KRV_STEP_NONE;
        look();
        const krv_step_t step = krv_step_of(walk->mach, rule, walk->word);
        if (size != 0 && step != KRV_STEP_NONE)
            krv_step_place(steps, shift, krv_step_mixed(pc + 1) - mixed_start).remember(step);
        return step;
    }

    void look()
    {
        const krv_stack_module_t *its = &walk->stack->modules[module];
        const krv_compact *compact = its->handle->sh_target == walk->target ? its->handle->sh_compact : nullptr;
        const krv_compact_table *table = compact == nullptr ? nullptr : krv_load(&compact->table);
        steps = table == nullptr ? nullptr : krv_load(&compact->steps);
        shift = 64 - its->handle->sh_cache_bits;
        size = steps == nullptr ? 0 : table->size;
        behind_start = table == nullptr ? 0 : table->base + its->bias + 1;
        mixed_start = krv_step_mixed(its->bias + 1);
    }

    const stack_walk *walk;
    size_t module;
    uint64_t *steps = nullptr;
    unsigned shift = 0;
    uint64_t behind_start = 0, size = 0; // of the code that steps are of: an address further than its first
    uint64_t mixed_start = 0;
};

struct swift_end {
    size_t count;
    int reason; // KRV_STACK_*; 0: the rule of the last frame says more
};

} // namespace

// Goes on from the frame that `w` has, the last of `count`, as leave does, for as long as rules are steps, as nearly all are: no
// register but stack and frame pointer is followed. `Word` is the target's.
template <typename Word, typename Memory>
static swift_end walk_swiftly(const stack_walk *w, const Memory &memory, bool is_exact, uint64_t *addresses,
                              size_t room, size_t count)
{
    if (w->registers[w->mach->smd_sp].how != known_register::is)
        return {count, 0};
    steps_nearby steps(w);
    uint64_t frame = w->registers[w->mach->smd_fp].value; // as frame_how says
    auto frame_how = w->registers[w->mach->smd_fp].how;
    auto stack_pointer = static_cast<Word>(w->registers[w->mach->smd_sp].value);
    uint64_t last_cfa = w->cfa, pc = w->pc;
    for (uint64_t behind = is_exact ? pc + 1 : pc;; behind = pc) {
        const krv_step_t step = steps.find_before(behind);
        if (step == KRV_STEP_NONE)
            return {count, steps.has_rule ? 0 : int{KRV_STACK_NO_RULE}};
        Word cfa = stack_pointer;
        if ((step & KRV_STEP_BY_FP) != 0) {
            if (frame_how != known_register::is) {
                if (frame_how == known_register::nothing)
                    return {count, 0};
                if (!memory.read(frame, &frame))
                    return {count, KRV_STACK_MEMORY};
                frame_how = known_register::is;
            }
            cfa = static_cast<Word>(frame);
        }
        cfa += static_cast<Word>(step >> KRV_STEP_OFFSET_SHIFT);
        if (const auto slots = static_cast<Word>(step & KRV_STEP_SLOTS)) {
            frame = static_cast<Word>(cfa - slots * Word{sizeof(Word)});
            frame_how = known_register::is_at;
        }
        if ((step & KRV_STEP_OUTERMOST) != 0)
            return {count, KRV_STACK_END};
        const uint64_t last_pc = pc;
        if (!memory.read(static_cast<Word>(cfa - sizeof(Word)), &pc))
            return {count, KRV_STACK_MEMORY};
        if (pc == 0)
            return {count, KRV_STACK_END};
        if (pc == last_pc && cfa == last_cfa)
            return {count, KRV_STACK_NO_PROGRESS};
        if (count == room)
            return {count, KRV_STACK_LIMIT};
        addresses[count++] = pc;
        stack_pointer = cfa;
        last_cfa = cfa;
    }
}

template <typename Word>
static swift_end walk_by_words(const stack_walk *w, bool is_exact, uint64_t *addresses, size_t room, size_t count)
{
    return with_memory<Word>(
        *w->stack, [=](const auto &memory) { return walk_swiftly<Word>(w, memory, is_exact, addresses, room, count); });
}

static size_t walk(stack_walk *w, uint64_t *addresses, size_t room)
{
    uint64_t pc = 0;
    for (const unsigned reg : {w->mach->smd_sp, w->mach->smd_fp, w->mach->smd_pc})
        load_register(w, reg); // others only where a step does not do
    bool has_all = false;
    if (!read_register(w, w->mach->smd_pc, &pc))
        return 0;
    w->pc = pc;
    if (room == 0) {
        w->reason = KRV_STACK_LIMIT;
        return 0;
    }
    addresses[0] = pc;
    bool is_exact = true;
    for (size_t at = 0;; addresses[++at] = w->pc) {
        const auto swiftly = w->word == sizeof(uint64_t) ? walk_by_words<uint64_t> : walk_by_words<uint32_t>;
        const auto [count, reason] = swiftly(w, is_exact, addresses, room, at + 1);
        w->reason = reason;
        if (reason != 0)
            return count;
        for (unsigned reg = 0; !has_all && reg <= w->mach->smd_pc; ++reg)
            load_register(w, reg);
        has_all = true;
        for (; at + 1 < count; addresses[++at] = w->pc) // the same frames, with all registers
            if (!leave(w, &is_exact))
                return at + 1;
        if (!leave(w, &is_exact))
            return count;
        if (count == room) {
            w->reason = KRV_STACK_LIMIT;
            return count;
        }
    }
}

size_t korva_stack_addresses(const krv_stack_t *stack, uint64_t *addresses, size_t room, krv_stack_end_t *endp)
{
    if (stack == nullptr || (addresses == nullptr && room != 0))
        return 0;
    size_t count = 0;
    krv_stack_end_t end = {.reason = KRV_STACK_NO_RULE, .pc = 0};
    if (stack->nmodules != 0) {
        const krv_handle_t *hp = stack->modules[0].handle;
        stack_walk w = {};
        w.stack = stack;
        w.mach = krv_activation_isa_alloc(hp);
        w.target = hp->sh_target;
        w.word = hp->sh_target_size;
        w.mask = krv_expr_truncate(hp, UINT64_MAX);
        count = walk(&w, addresses, room);
        end = {.reason = w.reason, .pc = count == 0 ? w.pc : addresses[count - 1]};
    }
    if (endp != nullptr)
        *endp = end;
    return count;
}
