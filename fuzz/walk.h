// SPDX-License-Identifier: Apache-2.0
//
// A walk out of a stack that lies in the input's memory, with the arguments of every frame.
#ifndef KRV_FUZZ_WALK_H
#define KRV_FUZZ_WALK_H

#include "input.h"
#include "krv_frame_reader.h"

#include <cstdio>
#include <span>

namespace krv_fuzz
{

// The input's memory, at a fixed address.
constexpr uint64_t BASE = 0x10000;

inline int64_t read_memory(void *arg, void *buf, size_t count, uint64_t address)
{
    return address < BASE ? -1 : source::read(arg, buf, count, address - BASE);
}

// Sets all registers, the program counter among them, which a target may have elsewhere than the host.
inline void start_at(krv_handle_t *hp, krv_activation_t *ap, krv_gregset_t &gregs, uint64_t pc)
{
    gregs[KRV_HOST_RIP] = static_cast<krv_greg_t>(pc);
    korva_activation_set_regs(hp, ap, gregs, UINT64_MAX, nullptr);
    korva_activation_set_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(pc));
}

// What the calls for a frame say of it.
struct frame_answer {
    int result, code;
    krv_gregset_t gregs;
    uint64_t mask;
    krv_frame_info_t info;
    unsigned int argc;

    uint64_t messages; // a sum of their texts

    frame_answer(krv_handle_t *hp, krv_activation_t *ap, bool with_messages)
    {
        std::memset(this, 0, sizeof(*this)); // padding, too
        result = korva_activation_get_gregs(hp, ap, KRV_ACTIVATION_FRAME_CALLER, &gregs, &mask);
        code = korva_handle_get_errno(hp);
        unsigned int count = 0;
        char **texts = korva_handle_get_errmsgs(hp, &count);
        for (unsigned int i = 0; with_messages && i < count; ++i)
            for (const char *c = texts[i]; *c != '\0'; ++c)
                messages = messages * 31 + static_cast<unsigned char>(*c);
        krv_frame_info_t known = {};
        korva_activation_get_frame_info(hp, ap, &known);
        info.start = known.start; // one by one: a copy of the whole would bring its padding along
        info.size = known.size;
        info.is_signal = known.is_signal;
        korva_activation_get_argc(hp, ap, &argc);
    }
};

// Walks by two handles of which one keeps more, frame by frame: both must be told the same. `kept` was asked what the other
// was, or has been prefilled, and then may have met another failure. Once a handle has given up a search table that does not agree
// with the records, its answers may be others; those that were kept stay.
inline void walk_alike(krv_handle_t *hp, krv_activation_t *ap, krv_handle_t *kept, krv_activation_t *ap_kept,
                       bool with_messages, bool has_search_table = false)
{
    for (int frame = 0; frame < 20; ++frame) {
        const frame_answer one(hp, ap, with_messages), other(kept, ap_kept, with_messages);
        const krv_reader_t *reader = krv_load(&hp->sh_frame_reader);
        if (has_search_table && reader != nullptr && krv_load(&reader->sr_lt) != nullptr)
            break;
        if (std::memcmp(&one, &other, sizeof(one)) != 0) {
            for (const frame_answer &a : {one, other})
                std::fprintf(stderr, "result %d %d, mask %lx, of %lx+%lx %d, %u arguments\n", a.result, a.code, a.mask,
                             a.info.start, a.info.size, a.info.is_signal, a.argc);
            std::abort();
        }
        if (korva_activation_unwind(hp, ap) != 0 || korva_activation_unwind(kept, ap_kept) != 0)
            break;
    }
}

// A walk by the tables of a prefilled handle alone; its first step is that of an activation which knows as many registers.
inline void walk_by_table(krv_handle_t *hp, krv_activation_t *ap, krv_handle_t *filled, const krv_gregset_t &gregs,
                          source *memory)
{
    const krv_stack_module_t module = {filled, 0};
    krv_stack_t stack = {};
    stack.modules = &module;
    stack.nmodules = 1;
    std::memcpy(stack.gregs, gregs, sizeof(stack.gregs));
    stack.mask = UINT64_MAX;
    stack.read = read_memory;
    stack.arg = memory;
    uint64_t addresses[20];
    krv_stack_end_t end;
    const size_t count = korva_stack_addresses(&stack, addresses, 20, &end);
    krv_greg_t pc = 0;
    const bool stepped = korva_activation_unwind(hp, ap) == 0;
    const bool has_caller = stepped && korva_activation_get_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY,
                                                                 KRV_ACTIVATION_FRAME_CURRENT, KRV_REG_PC, &pc) == 0;
    const bool is_last = count == 1 && end.reason == KRV_STACK_END;
    if (stepped && ((count > 1 && (!has_caller || static_cast<uint64_t>(pc) != addresses[1])) ||
                    (is_last && has_caller && pc != 0)))
        std::abort();
}

inline void walk(krv_handle_t *hp, krv_activation_t *ap)
{
    for (int frame = 0; frame < 20; ++frame) {
        krv_gregset_t gregs;
        krv_frame_info_t info;
        uint64_t mask, count;
        unsigned int argc = 0;
        uint8_t value[16], valid[16], in_register[16];
        if (korva_activation_get_gregs(hp, ap, KRV_ACTIVATION_FRAME_CALLER, &gregs, &mask) != 0)
            break;
        korva_activation_get_frame_info(hp, ap, &info);
        korva_activation_get_argc(hp, ap, &argc);
        for (unsigned int n = 1; n <= argc && n <= 3; ++n)
            korva_activation_get_argv(hp, ap, n, value, valid, in_register, sizeof(value), &count);
        if (korva_activation_unwind(hp, ap) != 0)
            break;
    }
}

// Nothing is learned where failures are watched, which are those of queries only.
inline void ignore_message(unsigned int, const char *, void *) {}

// Walks from each of some addresses, and again and again, with a handle that learns what call-frame instructions say, and
// with one that does not. `attach` gives a handle its sections.
template <typename Attach>
void compare_learned(const input &how, const Attach &attach, krv_gregset_t &gregs, std::span<const uint64_t> pcs)
{
    if (how.has_faults())
        return;
    handle watched(how), learning(how);
    attach(watched);
    attach(learning);
    korva_handle_set_opt(watched, KRV_OPT_DEBUG_FUNC, ignore_message);
    krv_activation_t *ap_watched = korva_activation_alloc(watched), *ap_learning = korva_activation_alloc(learning);
    for (int times = 0; times < 3; ++times)
        for (const uint64_t pc : pcs) {
            start_at(watched, ap_watched, gregs, pc);
            start_at(learning, ap_learning, gregs, pc);
            walk_alike(watched, ap_watched, learning, ap_learning, true);
        }
    korva_activation_free(ap_watched);
    korva_activation_free(ap_learning);
}

// Walks from each of some addresses with a handle that keeps nothing, and twice by a cache, then by a table, which knows
// the records alone and is not made of a search table. `attach` gives a handle its sections. Faulty reads are no constant
// memory.
template <typename Attach>
void compare_kept(const input &how, const Attach &attach, bool has_search_table, krv_gregset_t &gregs,
                  std::span<const uint64_t> pcs, source *memory)
{
    compare_learned(how, attach, gregs, pcs);
    for (const bool filled : {false, true}) {
        if (how.has_faults() || (filled && has_search_table))
            continue;
        handle plain(how), kept(how);
        attach(plain);
        attach(kept);
        korva_handle_set_opt(kept, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
        if (filled)
            korva_frames_prefill(kept);
        krv_activation_t *ap_plain = korva_activation_alloc(plain), *ap_kept = korva_activation_alloc(kept);
        for (const uint64_t pc : pcs)
            for (int times = 0; times < 2; ++times) {
                start_at(plain, ap_plain, gregs, pc);
                start_at(kept, ap_kept, gregs, pc);
                walk_alike(plain, ap_plain, kept, ap_kept, false, has_search_table);
                start_at(plain, ap_plain, gregs, pc);
                if (filled)
                    walk_by_table(plain, ap_plain, kept, gregs, memory);
            }
        korva_activation_free(ap_plain);
        korva_activation_free(ap_kept);
    }
}

} // namespace krv_fuzz

#endif
