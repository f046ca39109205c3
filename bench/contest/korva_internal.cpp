// SPDX-License-Identifier: Apache-2.0
//
// libkorva's job behind its public interface, on its objects: F.
#include "contest.h"
#include "korva_file.h"
#include "krv_unwind.h"

using namespace contest;

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
    krv_activation_t *ap = korva_activation_alloc(file->hp);
    uint64_t column;
    for (uint64_t i = 0; i < r->nqueries; ++i)
        if (krv_generate_rules(file->hp, ap, r->queries[i].address, &column) == 0)
            r->check += row_check(ap);
    r->items = r->nqueries;
    korva_activation_free(ap);
}

bool contest::play(run *r)
{
    if (r->job != 'F')
        return false;
    korva_file file(r->file);
    find_rows(r, &file);
    return true;
}
