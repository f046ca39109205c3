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

#endif
