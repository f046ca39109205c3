// SPDX-License-Identifier: Apache-2.0
//
// The vocabulary of rules: how a register of the caller's frame, or the CFA, is found. Targets give defaults in it,
// call-frame instructions change them, the unwinder applies them. An activation has one rule a slot.
#ifndef KRV_RULE_H
#define KRV_RULE_H

#include <bit>
#include <cstdint>

typedef int krv_ruledesc_t;
enum {
    KRV_CFA_RULE_UNDEFINED = 0,      // no value can be recovered; what a zero-filled rule says
    KRV_CFA_RULE_SAME_VALUE = 1,     // the current frame's value
    KRV_CFA_RULE_OFFSET = 2,         // saved at CFA + arg
    KRV_CFA_RULE_VAL_OFFSET = 3,     // is CFA + arg
    KRV_CFA_RULE_REGISTER = 4,       // is in the current frame's DWARF register arg
    KRV_CFA_RULE_EXPRESSION = 5,     // saved at the address that the expression computes
    KRV_CFA_RULE_VAL_EXPRESSION = 6, // is the value that the expression computes
    KRV_CFA_RULE_REG_OFFSET = 7,     // the CFA only: register arg >> 32 plus the low half of arg, signed
    KRV_CFA_RULE_MAX = 8
};

struct krv_cfarule_t {
    krv_ruledesc_t desc;
    uint64_t arg;    // bytes from the CFA, signed and factored already; or see above
    uint64_t offset; // expressions: where they lie, as an offset of the CIE's cursor
    uint64_t size;   // expressions: their bytes
};

constexpr unsigned KRV_MAX_SLOTS = 128; // more than any target has

// A set of slots.
struct krv_slots_t {
    uint64_t words[KRV_MAX_SLOTS / 64];

    void add(uint64_t slot) { words[slot / 64] |= uint64_t{1} << (slot % 64); }
    void add(const krv_slots_t &more)
    {
        for (unsigned i = 0; i < KRV_MAX_SLOTS / 64; ++i)
            words[i] |= more.words[i];
    }

    // Visits them in ascending order until a visit returns false; whether none did.
    template <typename Visit>
    bool for_each(Visit visit) const
    {
        for (unsigned i = 0; i < KRV_MAX_SLOTS / 64; ++i)
            for (uint64_t left = words[i]; left != 0; left &= left - 1)
                if (!visit(64 * i + static_cast<unsigned>(std::countr_zero(left))))
                    return false;
        return true;
    }
};

// Copies the rules of `slots`; those of the others are equal already.
inline void krv_copy_rules(krv_cfarule_t *to, const krv_cfarule_t *from, const krv_slots_t &slots)
{
    slots.for_each([to, from](unsigned int slot) {
        to[slot] = from[slot];
        return true;
    });
}

constexpr unsigned KRV_MAX_ARGS = 128;

// Where the location of one argument lies in the CIE's instructions; size 0 when it was never described.
struct krv_activation_arg_t {
    uint64_t offset;
    uint64_t size;
};

struct krv_activation_args_t {
    unsigned int sa_argc;                       // highest argument number described
    krv_activation_arg_t sa_argv[KRV_MAX_ARGS]; // argument n is element n - 1
};

constexpr unsigned KRV_MAX_KEPT = 7; // registers that calls preserve, and the return address

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
    KRV_COMPACT_ORIGINS = 2 // the rules of registers are origins; else activations may be given this rule: it says all
};

struct krv_compact_t {
    krv_origin_t cfa;
    uint16_t flags;             // KRV_COMPACT_SIGNAL, KRV_COMPACT_ORIGINS
    int16_t kept[KRV_MAX_KEPT]; // by smd_kept; the stack pointer is the CFA, others are undefined
    uint32_t origins;           // with that flag: number of the first of KRV_WALK_REGISTERS in the table
};

#endif
