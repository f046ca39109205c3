// SPDX-License-Identifier: Apache-2.0
//
// The activation: two register sets, the rules that lead from the current frame to its caller, and the scratch state
// that applying them needs; its life, and the registers of the current frame. Registers live in slots: slots 0 to
// sa_n_registers - 3 are DWARF register numbers, the last two are the library registers KRV_REG_PC and KRV_REG_CFA.
// Register numbers from the data are checked against krv_dwarf_slots before they index anything.
#ifndef KRV_ACTIVATION_H
#define KRV_ACTIVATION_H

#include "krv_machine.h"

#include <cstring>
#include <memory>

enum : unsigned {
    KRV_REG_FLAG_VALID = 1,   // the slot exists on this target
    KRV_REG_FLAG_PRESENT = 2, // it holds a known value
    KRV_REG_FLAG_PIECE_HI = 4 // the value is at the high-order end of the storage
};
typedef unsigned int krv_reg_flag_t;

// One slot.
struct krv_register_t {
    void *sr_contents; // its bytes, in srs_data of the same set; NULL for a slot that is not valid
    size_t sr_size;
    krv_reg_flag_t sr_flags;
};

// The registers of one frame.
struct krv_regset_t {
    krv_register_t *srs_metadata; // one a slot
    krv_registers_t srs_data;
    krv_slots_t srs_written; // slots that may hold anything but zeros: those that are present among them,
    bool srs_loaded;         // or any, since whole register sets were loaded
};

// Whether the outcome of computing the caller's frame is known; any change to the current frame makes it UNTRIED.
typedef int krv_evaluation_t;
enum { KRV_EVALUATION_UNTRIED = 0, KRV_EVALUATION_FAILED = 1, KRV_EVALUATION_SUCCEEDED = 2 };

struct krv_activation {
    const krv_mach_def_t *sa_mach_def;
    krv_regset_t *sa_current_registers;
    krv_regset_t *sa_caller_registers;
    unsigned int sa_n_registers;
    krv_cfarule_t *sa_default;      // rules by slot: those of the target's table,
    krv_cfarule_t *sa_initial;      // after the CIE's instructions,
    krv_cfarule_t *sa_current;      // and at the program counter; the slot of KRV_REG_CFA holds the CFA's rule
    krv_slots_t sa_ruled;           // slots whose default rule gives a value
    uint64_t sa_initial_of;         // scie_decoding of the CIE whose rules sa_initial and sa_args hold, or 0
    krv_slots_t sa_initial_changed; // where sa_initial may differ from sa_default,
    krv_slots_t sa_current_changed; // and where sa_current may
    bool sa_knows_kept;             // sa_current came of a compact rule,
    int16_t sa_kept[KRV_MAX_KEPT];  // which said this of the registers that calls preserve
    krv_activation_args_t sa_args;
    krv_fd_t sa_cie_fd;           // the cursor through which the expressions of rules and arguments are read
    krv_frame_info_t sa_function; // what covers the program counter, of the last evaluation; its size is 0: nothing
    uint64_t sa_spared_pc;        // not 0: its rules were kept, and what covers it was not looked up
    krv_evaluation_t sa_state;
    krv_exprstack_t *sa_exprstack;
    krv_fd_t *sa_arg_fd[3]; // output cursors of argument evaluation
    uint64_t *sa_budget;    // instructions that expressions may still execute, the client's; NULL: a million a frame
};

struct krv_activation_deleter {
    void operator()(krv_activation_t *ap) const { korva_activation_free(ap); }
};
using krv_activation_owner = std::unique_ptr<krv_activation_t, krv_activation_deleter>;

// Slots below this one are DWARF register numbers: those that call-frame data may name.
inline unsigned int krv_dwarf_slots(const krv_activation_t *ap)
{
    return ap->sa_n_registers - KRV_REG_MAX;
}

// The slot of KRV_REG_CFA or KRV_REG_PC.
inline unsigned int krv_library_slot(const krv_activation_t *ap, unsigned int reg)
{
    return ap->sa_n_registers - 1 - reg;
}

// The slot of a register. -1 with KRV_ERR_INVALID and, but for an unknown host register, a message.
int krv_get_reg_index(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, int reg, unsigned int *slotp);

// The width of a register in bytes. Fails as krv_get_reg_index does.
int krv_activation_get_reg_size(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                                size_t *sizep);

// Gives a valid slot a value and marks it present: `size` bytes of the value are there, those above them are zero.
inline void krv_register_store(krv_regset_t *set, unsigned int slot, const void *bytes, size_t size)
{
    krv_register_t *rp = &set->srs_metadata[slot];
    if (size == sizeof(uint64_t) && rp->sr_size == sizeof(uint64_t)) { // nearly always
        std::memcpy(rp->sr_contents, bytes, sizeof(uint64_t));
    } else {
        const size_t given = size < rp->sr_size ? size : rp->sr_size;
        std::memcpy(rp->sr_contents, bytes, given);
        std::memset(static_cast<uint8_t *>(rp->sr_contents) + given, 0, rp->sr_size - given);
    }
    rp->sr_flags |= KRV_REG_FLAG_PRESENT;
    set->srs_written.add(slot);
}

// The value of a register of 8 bytes. False: it has none, or is of another kind.
inline bool krv_register_load(const krv_register_t *rp, uint64_t *valuep)
{
    if (rp->sr_size != sizeof(*valuep) || (rp->sr_flags & KRV_REG_FLAG_PRESENT) == 0)
        return false;
    std::memcpy(valuep, rp->sr_contents, sizeof(*valuep));
    return true;
}

// Forgets all values, and leaves zeros.
void krv_regset_clear(const krv_activation_t *ap, krv_regset_t *set);

// The register set of a frame, computed first where that is how it is come by. NULL with code and messages.
typedef krv_regset_t *krv_frame_registers_f(krv_handle_t *hp, krv_activation_t *ap);
krv_frame_registers_f krv_current_registers;

// Copies at most `size` bytes of the register in a slot. -1 with KRV_ERR_NOTFOUND and a message, which calls it `reg`,
// when it has no value.
int krv_regset_read(krv_handle_t *hp, const krv_regset_t *set, unsigned int slot, unsigned int reg, void *buf,
                    size_t size);

// Copies the host's general registers; the mask of those that have a value.
uint64_t krv_regset_copy_gregs(const krv_activation_t *ap, const krv_regset_t *set, krv_gregset_t *gregsp);

// krv_regset_read of the frame that `frame` gives. Clears the error state. Fails as krv_get_reg_index and `frame`, too.
int krv_activation_read(krv_handle_t *hp, krv_activation_t *ap, krv_frame_registers_f *frame, krv_reg_type_t type,
                        unsigned int reg, void *buf, size_t size);

#endif
