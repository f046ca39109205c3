// SPDX-License-Identifier: Apache-2.0
#include "register_names.h"

#include <korva.hpp>

namespace korva::program
{

static constexpr register_name REGISTER_NAMES[] = {
    {KRV_HOST_RAX, "rax", "eax"},
    {KRV_HOST_RBX, "rbx", "ebx"},
    {KRV_HOST_RCX, "rcx", "ecx"},
    {KRV_HOST_RDX, "rdx", "edx"},
    {KRV_HOST_RSI, "rsi", "esi"},
    {KRV_HOST_RDI, "rdi", "edi"},
    {KRV_HOST_RBP, "rbp", "ebp"},
    {KRV_HOST_RSP, "rsp", "esp"},
    {KRV_HOST_R8, "r8", nullptr},
    {KRV_HOST_R9, "r9", nullptr},
    {KRV_HOST_R10, "r10", nullptr},
    {KRV_HOST_R11, "r11", nullptr},
    {KRV_HOST_R12, "r12", nullptr},
    {KRV_HOST_R13, "r13", nullptr},
    {KRV_HOST_R14, "r14", nullptr},
    {KRV_HOST_R15, "r15", nullptr},
    {KRV_HOST_RIP, "rip", "eip"},
    {KRV_HOST_RFLAGS, "rflags", "eflags"},
    {KRV_HOST_CS, "cs", "cs"},
    {KRV_HOST_SS, "ss", "ss"},
    {KRV_HOST_DS, "ds", "ds"},
    {KRV_HOST_ES, "es", "es"},
    {KRV_HOST_FS, "fs", "fs"},
    {KRV_HOST_GS, "gs", "gs"},
    {KRV_HOST_FSBASE, "fsbase", nullptr},
    {KRV_HOST_GSBASE, "gsbase", nullptr},
};

std::span<const register_name> register_names()
{
    return REGISTER_NAMES;
}

} // namespace korva::program
