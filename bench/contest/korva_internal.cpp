// SPDX-License-Identifier: Apache-2.0
//
// libkorva's job behind its public interface, on its objects: F. As korva-constant, with the promise that memory is
// constant: F, and the walk S by the public interface.
#include "contest.h"
#include "korva_file.h"
#include "krv_unwind.h"

using namespace contest;

#ifdef KORVA_CONTEST_CONSTANT
constexpr bool CONSTANT = true;
#else
constexpr bool CONSTANT = false;
#endif

// ---------------------------------------------------------------------------------------------------------------
// Frames
// ---------------------------------------------------------------------------------------------------------------

// The file's memory as a program would have it: a segment of the file at each address.
static int64_t read_image(void *arg, void *buf, size_t count, uint64_t address)
{
    const auto *file = static_cast<const korva_file *>(arg);
    const auto *header = reinterpret_cast<const Elf64_Ehdr *>(file->image);
    const auto *segments = reinterpret_cast<const Elf64_Phdr *>(file->image + header->e_phoff);
    for (const Elf64_Phdr *p = segments; p < segments + header->e_phnum; ++p)
        if (p->p_type == PT_LOAD && address - p->p_vaddr < p->p_filesz) {
            const uint64_t skip = address - p->p_vaddr;
            const size_t there = count < p->p_filesz - skip ? count : p->p_filesz - skip;
            std::memcpy(buf, file->image + p->p_offset + skip, there);
            return static_cast<int64_t>(there);
        }
    return -1;
}

static uint64_t row_check(const krv_activation_t *ap)
{
    const krv_cfarule_t *cfa = &ap->sa_current[krv_library_slot(ap, KRV_REG_CFA)];
    uint64_t check = 0;
    if (cfa->desc == KRV_CFA_RULE_REG_OFFSET)
        check += cfa_check(cfa->arg >> 32, static_cast<int32_t>(cfa->arg));
    for (const unsigned reg : saved_registers)
        if (ap->sa_current[reg].desc == KRV_CFA_RULE_OFFSET)
            check += saved_check(reg, static_cast<int64_t>(ap->sa_current[reg].arg));
    return check;
}

static void find_rows(run *r, korva_file *file)
{
    const Elf64_Shdr *eh_frame = file->section(".eh_frame"), *hdr = file->section(".eh_frame_hdr");
    korva_attach_as(file->hp, read_image, file);
    korva_handle_set_opt(file->hp, KRV_OPT_EH_FRAME_ADDR, eh_frame->sh_addr);
    korva_handle_set_opt(file->hp, KRV_OPT_EH_FRAME_HDR_ADDR, hdr->sh_addr);
    if (CONSTANT) {
        korva_handle_set_opt(file->hp, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
        korva_frames_prefill(file->hp);
    }
    krv_activation_t *ap = korva_activation_alloc(file->hp);
    uint64_t column;
    for (uint64_t i = 0; i < r->nqueries; ++i)
        if (krv_generate_rules(file->hp, ap, r->queries[i].address, &column) == 0)
            r->check += row_check(ap);
    r->items = r->nqueries;
    korva_activation_free(ap);
}

// ---------------------------------------------------------------------------------------------------------------
// The walk
// ---------------------------------------------------------------------------------------------------------------

static uint64_t reads;

static int64_t read_memory(void *, void *buf, size_t count, uint64_t address)
{
    ++reads;
    std::memcpy(buf, reinterpret_cast<const void *>(address), count);
    return static_cast<int64_t>(count);
}

static void at_leaf(const uint64_t registers[17], void *arg)
{
    auto *r = static_cast<run *>(arg);
    const module m = module_of(registers[16]);
    int32_t distance; // eh_frame_ptr, relative to itself
    std::memcpy(&distance, reinterpret_cast<const void *>(m.eh_frame_hdr + 4), sizeof(distance));
    krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    korva_attach_as(hp, read_memory, nullptr);
    korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, m.eh_frame_hdr + 4 + static_cast<uint64_t>(int64_t{distance}));
    korva_handle_set_opt(hp, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
    korva_frames_prefill(hp);
    const krv_stack_module_t module = {hp, 0};
    krv_stack_t stack = {};
    stack.modules = &module;
    stack.nmodules = 1;
    stack.read = r->job == 'S' ? read_memory : nullptr;
    stack.low = registers[7];
    stack.high = stack_end();
    static constexpr struct {
        unsigned dwarf, host;
    } numbers[] = {{3, KRV_HOST_RBX},  {6, KRV_HOST_RBP},  {7, KRV_HOST_RSP},  {12, KRV_HOST_R12},
                   {13, KRV_HOST_R13}, {14, KRV_HOST_R14}, {15, KRV_HOST_R15}, {16, KRV_HOST_RIP}};
    for (const auto &number : numbers) {
        stack.gregs[number.host] = static_cast<krv_greg_t>(registers[number.dwarf]);
        stack.mask |= uint64_t{1} << number.host;
    }
    uint64_t addresses[256];
    const uint64_t started = now();
    reads = 0;
    for (int i = walks(); i > 0; --i)
        count_frames(r, m, addresses, korva_stack_addresses(&stack, addresses, 256, nullptr));
    r->ns = now() - started;
    r->reads = reads;
    korva_handle_free(hp);
}

bool contest::play(run *r)
{
    if (CONSTANT && (r->job == 'S' || r->job == 'W'))
        return run_chain(r->file, at_leaf, r);
    if (r->job != 'F')
        return false;
    korva_file file(r->file);
    find_rows(r, &file);
    return true;
}
