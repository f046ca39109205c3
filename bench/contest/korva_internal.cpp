// SPDX-License-Identifier: Apache-2.0
//
// libkorva's jobs behind its public interface, on its objects: E and F.
#include "contest.h"
#include "korva_file.h"
#include "krv_info.h"
#include "krv_unwind.h"

using namespace contest;

static uint64_t value_check(krv_form_t form, const krv_value_t *value)
{
    switch (form) {
    case 0x08: // DW_FORM_string
    case 0x0e: // DW_FORM_strp
        return std::strlen(static_cast<const char *>(value->sa_u.su_addr));
    case 0x03: // blocks
    case 0x04:
    case 0x09:
    case 0x0a:
    case 0x18:
        return static_cast<const krv_fd_t *>(value->sa_u.su_addr)->sfd_size;
    default:
        return value->sa_u.su_unsigned;
    }
}

// Entries in section order, each read by itself as navigation does.
static int walk_unit(krv_handle_t *hp, krv_ctu_t *cu, void *arg)
{
    auto *r = static_cast<run *>(arg);
    for (uint64_t offset = cu->dcu_header_size; offset < cu->dcu_size;) {
        krv_die_t *die = krv_alloc_die_by_cu_offset(hp, cu, offset);
        if (die == nullptr && hp->sh_errno != KRV_ERR_NOTFOUND)
            return -1;
        offset = hp->sh_sec[KRV_SEC_INFO].sfd_offset - cu->dcu_offset;
        if (die == nullptr)
            continue;
        ++r->items;
        const krv_abbrev_t *abbrev = die->dwdie_abbrev_cache;
        for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i)
            r->check += value_check(abbrev->dwa_afpairs[i].dwafp_form, &die->dwdie_attrs[i]);
        krv_free_die(die);
    }
    return 0;
}

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
    if (r->job != 'E' && r->job != 'F')
        return false;
    korva_file file(r->file);
    if (r->job == 'E')
        return korva_iter_cu(file.hp, KRV_SEC_INFO, walk_unit, r) == 0;
    find_rows(r, &file);
    return true;
}
