// SPDX-License-Identifier: Apache-2.0
//
// Life of activations, and access to the registers of the current frame in three numberings.
#include "krv_activation.h"

#include "krv_activation_isa.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"

#include <cstring>

static unsigned int count_slots(const krv_mach_def_t *mach)
{
    int last = 0;
    for (unsigned int i = 0; i < mach->smd_n_defs; ++i)
        if (mach->smd_defs[i].srd_dwarf > last)
            last = mach->smd_defs[i].srd_dwarf;
    return static_cast<unsigned int>(last) + 1 + KRV_REG_MAX;
}

static krv_register_t *row_register(const krv_regset_t *set, const krv_reg_def_t *row)
{
    return &set->srs_metadata[row->srd_dwarf];
}

// Bit of a row in a presence mask. Rows without a host number share the last one.
static uint64_t row_bit(const krv_reg_def_t *row)
{
    return uint64_t{1} << (static_cast<unsigned int>(row->srd_host) % 64);
}

// Points the slots of a set at its storage.
static void describe_registers(const krv_handle_t *hp, const krv_activation_t *ap, krv_regset_t *set)
{
    auto *storage = reinterpret_cast<uint8_t *>(&set->srs_data);
    for (unsigned int i = 0; i < ap->sa_mach_def->smd_n_defs; ++i) {
        const krv_reg_def_t *row = &ap->sa_mach_def->smd_defs[i];
        const bool high = (row->srd_flags & KRV_REG_DEF_FLAG_PIECE_HI) != 0;
        *row_register(set, row) = {storage + row->srd_offset, row->srd_size,
                                   KRV_REG_FLAG_VALID | (high ? KRV_REG_FLAG_PIECE_HI : 0U)};
    }
    for (unsigned int reg = 0; reg < KRV_REG_MAX; ++reg)
        set->srs_metadata[krv_library_slot(ap, reg)] = {&set->srs_data.special[reg], hp->sh_target_size,
                                                        KRV_REG_FLAG_VALID};
}

static krv_regset_t *alloc_regset(krv_handle_t *hp, const krv_activation_t *ap)
{
    krv_owner<krv_regset_t> set(krv_new<krv_regset_t>(hp));
    if (set == nullptr)
        return nullptr;
    set->srs_metadata = static_cast<krv_register_t *>(krv_zalloc(hp, ap->sa_n_registers * sizeof(krv_register_t)));
    if (set->srs_metadata == nullptr)
        return nullptr;
    describe_registers(hp, ap, set.get());
    return set.release();
}

static void free_regset(krv_regset_t *set)
{
    if (set != nullptr)
        krv_free(set->srs_metadata);
    krv_free(set);
}

static krv_cfarule_t *alloc_rules(krv_handle_t *hp, const krv_activation_t *ap)
{
    return static_cast<krv_cfarule_t *>(krv_zalloc(hp, ap->sa_n_registers * sizeof(krv_cfarule_t)));
}

static int out_of_range(krv_handle_t *hp, int reg, unsigned int last)
{
    return krv_fail(hp, KRV_ERR_INVALID, "register (%d) out of range (0..%d)", reg, static_cast<int>(last));
}

static int dwarf_slot(krv_handle_t *hp, const krv_activation_t *ap, int reg, unsigned int *slotp)
{
    const auto slot = static_cast<unsigned int>(reg);
    if (reg < 0 || slot >= krv_dwarf_slots(ap))
        return out_of_range(hp, reg, krv_dwarf_slots(ap) - 1);
    if ((ap->sa_current_registers->srs_metadata[slot].sr_flags & KRV_REG_FLAG_VALID) == 0)
        return krv_fail(hp, KRV_ERR_INVALID, "DWARF register %d is undefined", reg);
    *slotp = slot;
    return 0;
}

static int host_slot(krv_handle_t *hp, const krv_activation_t *ap, int reg, unsigned int *slotp)
{
    if (reg == KRV_HOST_RIP) {
        *slotp = krv_library_slot(ap, KRV_REG_PC);
        return 0;
    }
    if (reg < 0) // else every row without a host number would match
        return krv_fail_code(hp, KRV_ERR_INVALID);
    for (unsigned int i = 0; i < ap->sa_mach_def->smd_n_defs; ++i) {
        const krv_reg_def_t *row = &ap->sa_mach_def->smd_defs[i];
        if (row->srd_host != reg)
            continue;
        *slotp = static_cast<unsigned int>(row->srd_dwarf);
        return 0;
    }
    return krv_fail_code(hp, KRV_ERR_INVALID);
}

int krv_get_reg_index(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, int reg, unsigned int *slotp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(ap != NULL);
    KRV_ASSERT(slotp != NULL);
    switch (type) {
    case KRV_ACTIVATION_REG_DWARF:
        return dwarf_slot(hp, ap, reg, slotp);
    case KRV_ACTIVATION_REG_HOST:
        return host_slot(hp, ap, reg, slotp);
    case KRV_ACTIVATION_REG_LIBRARY:
        if (reg < 0 || reg >= KRV_REG_MAX)
            return out_of_range(hp, reg, KRV_REG_MAX - 1);
        *slotp = krv_library_slot(ap, static_cast<unsigned int>(reg));
        return 0;
    default:
        return krv_fail(hp, KRV_ERR_INVALID, "illegal register type (%d)", type);
    }
}

int krv_activation_get_reg_size(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                                size_t *sizep)
{
    KRV_ASSERT(sizep != NULL);
    unsigned int slot = 0;
    if (krv_get_reg_index(hp, ap, type, static_cast<int>(reg), &slot) != 0)
        return -1;
    *sizep = ap->sa_current_registers->srs_metadata[slot].sr_size;
    return 0;
}

krv_regset_t *krv_current_registers(krv_handle_t *, krv_activation_t *ap)
{
    return ap->sa_current_registers;
}

int krv_regset_read(krv_handle_t *hp, const krv_regset_t *set, unsigned int slot, unsigned int reg, void *buf,
                    size_t size)
{
    const krv_register_t *rp = &set->srs_metadata[slot];
    if ((rp->sr_flags & KRV_REG_FLAG_PRESENT) == 0)
        return krv_fail(hp, KRV_ERR_NOTFOUND, "register not present (%d)", static_cast<int>(reg));
    const size_t count = size < rp->sr_size ? size : rp->sr_size;
    const bool high = (rp->sr_flags & KRV_REG_FLAG_PIECE_HI) != 0;
    std::memcpy(buf, static_cast<const uint8_t *>(rp->sr_contents) + (high ? rp->sr_size - count : 0), count);
    return 0;
}

uint64_t krv_regset_copy_gregs(const krv_activation_t *ap, const krv_regset_t *set, krv_gregset_t *gregsp)
{
    std::memcpy(*gregsp, set->srs_data.g, sizeof(*gregsp));
    uint64_t mask = 0;
    for (unsigned int i = 0; i < ap->sa_mach_def->smd_n_defs; ++i) {
        const krv_reg_def_t *row = &ap->sa_mach_def->smd_defs[i];
        if (row->srd_host != KRV_REG_NO_HOST && (row_register(set, row)->sr_flags & KRV_REG_FLAG_PRESENT) != 0)
            mask |= row_bit(row);
    }
    return mask;
}

int krv_activation_read(krv_handle_t *hp, krv_activation_t *ap, krv_frame_registers_f *frame, krv_reg_type_t type,
                        unsigned int reg, void *buf, size_t size)
{
    krv_clear_error(hp);
    unsigned int slot = 0;
    if (krv_get_reg_index(hp, ap, type, static_cast<int>(reg), &slot) != 0)
        return -1;
    const krv_regset_t *set = frame(hp, ap);
    return set == nullptr ? -1 : krv_regset_read(hp, set, slot, reg, buf, size);
}

void krv_regset_clear(const krv_activation_t *ap, krv_regset_t *set)
{
    if (set->srs_loaded) {
        for (unsigned int slot = 0; slot < ap->sa_n_registers; ++slot)
            set->srs_written.add(slot);
        set->srs_data = {};
    }
    set->srs_written.for_each([set](unsigned int slot) {
        krv_register_t *rp = &set->srs_metadata[slot];
        rp->sr_flags &= ~KRV_REG_FLAG_PRESENT;
        if (rp->sr_size == sizeof(uint64_t)) // nearly always
            std::memset(rp->sr_contents, 0, sizeof(uint64_t));
        else if (rp->sr_size != 0)
            std::memset(rp->sr_contents, 0, rp->sr_size);
        return true;
    });
    set->srs_written = {};
    set->srs_loaded = false;
}

// Writes a register of the current set: `size` bytes of its value are given, those above are zero.
static int write_register(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                          const void *bytes, size_t size)
{
    unsigned int slot = 0;
    if (krv_get_reg_index(hp, ap, type, static_cast<int>(reg), &slot) != 0)
        return -1;
    krv_register_store(ap->sa_current_registers, slot, bytes, size);
    ap->sa_state = KRV_EVALUATION_UNTRIED;
    return 0;
}

krv_activation_t *korva_activation_alloc(krv_handle_t *hp)
{
    if (hp == nullptr)
        return nullptr;
    krv_clear_error(hp);
    krv_activation_owner ap(krv_new<krv_activation_t>(hp));
    if (ap == nullptr)
        return nullptr;
    const krv_mach_def_t *mach = krv_activation_isa_alloc(hp);
    ap->sa_mach_def = mach;
    ap->sa_n_registers = count_slots(mach);
    KRV_ASSERT(ap->sa_n_registers <= KRV_MAX_SLOTS);
    for (krv_regset_t **setp : {&ap->sa_current_registers, &ap->sa_caller_registers})
        if ((*setp = alloc_regset(hp, ap.get())) == nullptr)
            return nullptr;
    for (krv_cfarule_t **rulesp : {&ap->sa_default, &ap->sa_initial, &ap->sa_current})
        if ((*rulesp = alloc_rules(hp, ap.get())) == nullptr)
            return nullptr;
    if ((ap->sa_exprstack = korva_expr_alloc_stack(hp)) == nullptr)
        return nullptr;
    for (krv_fd_t *&fdp : ap->sa_arg_fd)
        if ((fdp = krv_fd_alloc(hp)) == nullptr)
            return nullptr;
    for (unsigned int i = 0; i < mach->smd_n_defs; ++i) {
        const krv_reg_def_t *row = &mach->smd_defs[i];
        ap->sa_default[row->srd_dwarf] = row->srd_rule;
        if (row->srd_rule.desc != KRV_CFA_RULE_UNDEFINED)
            ap->sa_ruled.add(static_cast<uint64_t>(row->srd_dwarf));
    }
    for (unsigned int slot = 0; slot < ap->sa_n_registers; ++slot) // nothing has been copied yet
        ap->sa_initial_changed.add(slot);
    ap->sa_current_changed = ap->sa_initial_changed;
    return ap.release();
}

void korva_activation_free(krv_activation_t *ap)
{
    if (ap == nullptr)
        return;
    free_regset(ap->sa_current_registers);
    free_regset(ap->sa_caller_registers);
    krv_free(ap->sa_default);
    krv_free(ap->sa_initial);
    krv_free(ap->sa_current);
    korva_expr_free_stack(ap->sa_exprstack);
    for (krv_fd_t *fdp : ap->sa_arg_fd)
        krv_fd_free(fdp);
    krv_free(ap);
}

int korva_activation_reset(krv_handle_t *hp, krv_activation_t *ap)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    for (unsigned int slot = 0; slot < ap->sa_n_registers; ++slot)
        ap->sa_current_registers->srs_metadata[slot].sr_flags &= ~KRV_REG_FLAG_PRESENT;
    ap->sa_state = KRV_EVALUATION_UNTRIED;
    return 0;
}

int korva_activation_set_reg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                             const void *buf)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr || buf == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    return write_register(hp, ap, type, reg, buf, SIZE_MAX);
}

int korva_activation_set_greg(krv_handle_t *hp, krv_activation_t *ap, krv_reg_type_t type, unsigned int reg,
                              krv_greg_t value)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    return write_register(hp, ap, type, reg, &value, sizeof(value));
}

int korva_activation_set_regs(krv_handle_t *hp, krv_activation_t *ap, const krv_greg_t *gregs, uint64_t mask,
                              const krv_fpregset_t *fpregs)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (ap == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_regset_t *set = ap->sa_current_registers;
    set->srs_loaded = true;
    if (gregs != nullptr)
        std::memcpy(set->srs_data.g, gregs, sizeof(set->srs_data.g));
    if (fpregs != nullptr)
        set->srs_data.f = *fpregs;
    for (unsigned int i = 0; i < ap->sa_mach_def->smd_n_defs; ++i) {
        const krv_reg_def_t *row = &ap->sa_mach_def->smd_defs[i];
        const bool present =
            row->srd_type == KRV_RTYPE_FLOAT ? fpregs != nullptr : gregs != nullptr && (mask & row_bit(row)) != 0;
        krv_register_t *rp = row_register(set, row);
        rp->sr_flags &= ~KRV_REG_FLAG_PRESENT;
        rp->sr_flags |= present ? KRV_REG_FLAG_PRESENT : 0U;
    }
    ap->sa_state = KRV_EVALUATION_UNTRIED;
    return 0;
}
