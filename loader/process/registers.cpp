// SPDX-License-Identifier: Apache-2.0
#include "process/registers.h"

#include <cstring>
#include <sys/ucontext.h>
#include <sys/user.h>

namespace krv_elf_loader
{

namespace
{

// Which of our registers a slot of the system's layout holds.
struct slot {
    unsigned host;
    unsigned index; // in words of the layout
};

constexpr slot amd64_slots[] = {
    {KRV_HOST_R15, 0},     {KRV_HOST_R14, 1},     {KRV_HOST_R13, 2},     {KRV_HOST_R12, 3},  {KRV_HOST_RBP, 4},
    {KRV_HOST_RBX, 5},     {KRV_HOST_R11, 6},     {KRV_HOST_R10, 7},     {KRV_HOST_R9, 8},   {KRV_HOST_R8, 9},
    {KRV_HOST_RAX, 10},    {KRV_HOST_RCX, 11},    {KRV_HOST_RDX, 12},    {KRV_HOST_RSI, 13}, {KRV_HOST_RDI, 14},
    {KRV_HOST_RIP, 16},    {KRV_HOST_CS, 17},     {KRV_HOST_RFLAGS, 18}, {KRV_HOST_RSP, 19}, {KRV_HOST_SS, 20},
    {KRV_HOST_FSBASE, 21}, {KRV_HOST_GSBASE, 22}, {KRV_HOST_DS, 23},     {KRV_HOST_ES, 24},  {KRV_HOST_FS, 25},
    {KRV_HOST_GS, 26},
};

// Word 11 is the number of the system call.
constexpr slot i386_slots[] = {
    {KRV_HOST_RBX, 0}, {KRV_HOST_RCX, 1},     {KRV_HOST_RDX, 2},  {KRV_HOST_RSI, 3},
    {KRV_HOST_RDI, 4}, {KRV_HOST_RBP, 5},     {KRV_HOST_RAX, 6},  {KRV_HOST_DS, 7},
    {KRV_HOST_ES, 8},  {KRV_HOST_FS, 9},      {KRV_HOST_GS, 10},  {KRV_HOST_RIP, 12},
    {KRV_HOST_CS, 13}, {KRV_HOST_RFLAGS, 14}, {KRV_HOST_RSP, 15}, {KRV_HOST_SS, 16},
};

constexpr slot context_slots[] = {
    {KRV_HOST_R8, REG_R8},   {KRV_HOST_R9, REG_R9},      {KRV_HOST_R10, REG_R10}, {KRV_HOST_R11, REG_R11},
    {KRV_HOST_R12, REG_R12}, {KRV_HOST_R13, REG_R13},    {KRV_HOST_R14, REG_R14}, {KRV_HOST_R15, REG_R15},
    {KRV_HOST_RDI, REG_RDI}, {KRV_HOST_RSI, REG_RSI},    {KRV_HOST_RBP, REG_RBP}, {KRV_HOST_RBX, REG_RBX},
    {KRV_HOST_RDX, REG_RDX}, {KRV_HOST_RAX, REG_RAX},    {KRV_HOST_RCX, REG_RCX}, {KRV_HOST_RSP, REG_RSP},
    {KRV_HOST_RIP, REG_RIP}, {KRV_HOST_RFLAGS, REG_EFL}, {KRV_HOST_ERR, REG_ERR}, {KRV_HOST_TRAPNO, REG_TRAPNO},
};

static_assert(sizeof(user_regs_struct) == REGS_SIZE_AMD64 && offsetof(user_regs_struct, rip) == 16 * 8 &&
                  offsetof(user_regs_struct, rsp) == 19 * 8 && offsetof(user_regs_struct, gs) == 26 * 8,
              "the system's layout");
static_assert(sizeof(user_fpregs_struct) == FXSAVE_SIZE && offsetof(krv_fpregset_t, status) == FXSAVE_SIZE,
              "the FXSAVE image comes first");

template <typename word, size_t N>
void load(register_set *set, const slot (&slots)[N], const void *bytes)
{
    for (const slot &row : slots) {
        word value;
        std::memcpy(&value, static_cast<const uint8_t *>(bytes) + row.index * sizeof(word), sizeof(word));
        set->set(row.host, value);
    }
}

} // namespace

krv_activation_type_t target_of_registers(size_t size)
{
    switch (size) {
    case REGS_SIZE_AMD64:
        return KRV_ACTIVATION_AMD64;
    case REGS_SIZE_I386:
        return KRV_ACTIVATION_I386;
    default:
        return 0;
    }
}

void load_registers(register_set *set, krv_activation_type_t target, const uint8_t *bytes)
{
    if (target == KRV_ACTIVATION_AMD64)
        load<uint64_t>(set, amd64_slots, bytes);
    else
        load<uint32_t>(set, i386_slots, bytes);
}

void load_fxsave(register_set *set, const uint8_t *bytes)
{
    std::memcpy(&set->fpregs, bytes, FXSAVE_SIZE);
    set->has_fpregs = true;
}

register_set registers_of_context(const void *ucontext)
{
    const auto *context = static_cast<const ucontext_t *>(ucontext);
    register_set set;
    load<uint64_t>(&set, context_slots, &context->uc_mcontext.gregs);
    return set;
}

} // namespace krv_elf_loader
