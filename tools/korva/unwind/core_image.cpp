// SPDX-License-Identifier: Apache-2.0
#include "unwind/core_image.h"

#include <cstring>
#include <elf.h>
#include <span>

namespace korva::program
{

namespace
{

constexpr unsigned int NO_REGISTER = 0xff;

// The registers of struct user_regs_struct, in its order.
constexpr unsigned int ORDER_AMD64[] = {
    KRV_HOST_R15,    KRV_HOST_R14,    KRV_HOST_R13, KRV_HOST_R12, KRV_HOST_RBP,    KRV_HOST_RBX, KRV_HOST_R11,
    KRV_HOST_R10,    KRV_HOST_R9,     KRV_HOST_R8,  KRV_HOST_RAX, KRV_HOST_RCX,    KRV_HOST_RDX, KRV_HOST_RSI,
    KRV_HOST_RDI,    NO_REGISTER,     KRV_HOST_RIP, KRV_HOST_CS,  KRV_HOST_RFLAGS, KRV_HOST_RSP, KRV_HOST_SS,
    KRV_HOST_FSBASE, KRV_HOST_GSBASE, KRV_HOST_DS,  KRV_HOST_ES,  KRV_HOST_FS,     KRV_HOST_GS};
constexpr unsigned int ORDER_I386[] = {KRV_HOST_RBX, KRV_HOST_RCX, KRV_HOST_RDX, KRV_HOST_RSI, KRV_HOST_RDI,
                                       KRV_HOST_RBP, KRV_HOST_RAX, KRV_HOST_DS,  KRV_HOST_ES,  KRV_HOST_FS,
                                       KRV_HOST_GS,  NO_REGISTER,  KRV_HOST_RIP, KRV_HOST_CS,  KRV_HOST_RFLAGS,
                                       KRV_HOST_RSP, KRV_HOST_SS};

struct amd64 {
    using ehdr = Elf64_Ehdr;
    using phdr = Elf64_Phdr;
    using word = uint64_t;
    static constexpr unsigned char elf_class = ELFCLASS64;
    static constexpr uint16_t machine = EM_X86_64;
    static constexpr size_t status_pid = 32, status_regs = 112; // of struct elf_prstatus
    static constexpr std::span<const unsigned int> order = ORDER_AMD64;
};

struct i386 {
    using ehdr = Elf32_Ehdr;
    using phdr = Elf32_Phdr;
    using word = uint32_t;
    static constexpr unsigned char elf_class = ELFCLASS32;
    static constexpr uint16_t machine = EM_386;
    static constexpr size_t status_pid = 24, status_regs = 72;
    static constexpr std::span<const unsigned int> order = ORDER_I386;
};

template <typename T>
void append(std::string *to, const T &value)
{
    to->append(reinterpret_cast<const char *>(&value), sizeof(value));
}

void append_note(std::string *to, uint32_t type, const std::string &contents)
{
    append(to, Elf64_Nhdr{5, static_cast<uint32_t>(contents.size()), type});
    to->append("CORE\0\0\0\0", 8);
    to->append(contents);
    to->append((4 - contents.size() % 4) % 4, '\0');
}

template <typename format>
std::string make_status(const described_process &of)
{
    std::string status(format::status_regs, '\0');
    std::memcpy(status.data() + format::status_pid, &CORE_TID, sizeof(CORE_TID));
    for (const unsigned int host : format::order) {
        const auto known = of.registers.find(host);
        append(&status, static_cast<typename format::word>(known == of.registers.end() ? 0 : known->second));
    }
    return status;
}

template <typename format>
std::string make_files(const std::vector<mapped_part> &parts)
{
    using word = typename format::word;
    std::string files;
    append(&files, static_cast<word>(parts.size()));
    append(&files, word{1}); // bytes: the unit of offsets
    for (const mapped_part &part : parts)
        for (const uint64_t number : {part.start, part.end, part.offset})
            append(&files, static_cast<word>(number));
    for (const mapped_part &part : parts)
        files.append(part.path.c_str(), part.path.size() + 1);
    return files;
}

template <typename format>
std::string make(const described_process &of, const std::vector<mapped_part> &parts, uint64_t vdso)
{
    using word = typename format::word;
    std::string notes;
    append_note(&notes, NT_PRSTATUS, make_status<format>(of));
    if (vdso != 0) {
        std::string words;
        for (const uint64_t number : {uint64_t{AT_SYSINFO_EHDR}, vdso, uint64_t{AT_NULL}, uint64_t{0}})
            append(&words, static_cast<word>(number));
        append_note(&notes, NT_AUXV, words);
    }
    append_note(&notes, NT_FILE, make_files<format>(parts));

    typename format::ehdr header = {};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = format::elf_class;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_CORE;
    header.e_machine = format::machine;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof(header);
    header.e_phoff = sizeof(header);
    header.e_phentsize = sizeof(typename format::phdr);
    header.e_phnum = static_cast<uint16_t>(1 + of.memory.size());
    std::string core;
    append(&core, header);
    uint64_t offset = sizeof(header) + (1 + of.memory.size()) * sizeof(typename format::phdr);
    const auto add_segment = [&](uint32_t type, uint32_t flags, uint64_t address, uint64_t size) {
        typename format::phdr segment = {};
        segment.p_type = type;
        segment.p_flags = flags;
        segment.p_offset = static_cast<word>(offset);
        segment.p_vaddr = static_cast<word>(address);
        segment.p_filesz = segment.p_memsz = static_cast<word>(size);
        append(&core, segment);
        offset += size;
    };
    add_segment(PT_NOTE, 0, 0, notes.size());
    for (const described_memory &piece : of.memory)
        add_segment(PT_LOAD, PF_R | (piece.address == vdso ? PF_X : PF_W), piece.address, piece.bytes.size());
    core += notes;
    for (const described_memory &piece : of.memory)
        core += piece.bytes;
    return core;
}

} // namespace

std::string make_core(const described_process &of, const std::vector<mapped_part> &parts, uint64_t vdso)
{
    return of.target == KRV_ACTIVATION_AMD64 ? make<amd64>(of, parts, vdso) : make<i386>(of, parts, vdso);
}

} // namespace korva::program
