// SPDX-License-Identifier: Apache-2.0
#include "elf/file.h"

#include "notes.h"

#include <algorithm>
#include <cstring>
#ifdef KRV_HAVE_ZSTD
#include <zstd.h>
#endif

namespace krv_elf_loader
{

namespace
{

constexpr char ZDEBUG[] = ".zdebug_";
constexpr char ZDEBUG_MAGIC[] = "ZLIB"; // followed by the inflated size, 8 bytes, most significant first
constexpr size_t ZDEBUG_HEADER_SIZE = 12;

// No deflated data inflates to more (zlib, technical details: 1032 to 1). A section that claims more is refused
// before memory is taken for it; so are sections that share their bytes and together claim more than the file can hold.
constexpr uint64_t MAX_INFLATION = 1032;

constexpr uint32_t ZSTD_TYPE = 2; // ELFCOMPRESS_ZSTD, which <elf.h> may not know

// A part of a file, as notes are read from it.
struct extent_reader {
    byte_span bytes;
    bool read(uint64_t at, void *buf, size_t count) const
    {
        if (at > bytes.size() || count > bytes.size() - at)
            return false;
        std::memcpy(buf, bytes.data() + at, count);
        return true;
    }
};

// The description of the build-id note among the notes in `bytes`, or nothing.
byte_span find_build_id_note(byte_span bytes)
{
    byte_span id;
    extent_reader reader{bytes};
    each_note(reader, 0, bytes.size(), [&](const elf_note &note) {
        if (note.type == NT_GNU_BUILD_ID && note.name == ELF_NOTE_GNU)
            id = bytes.subspan(note.address, note.size);
        return id.empty();
    });
    return id;
}

} // namespace

string_table::string_table(byte_span all)
{
    size_t size = all.size();
    while (size != 0 && all[size - 1] != 0)
        --size;
    bytes = all.first(size);
}

const char *string_table::at(uint64_t offset) const
{
    return offset < bytes.size() ? reinterpret_cast<const char *>(bytes.data() + offset) : nullptr;
}

void elf_file::fail(int code, const std::string &what) const
{
    throw failure(code, file_path + ": " + what);
}

byte_span elf_file::extent(uint64_t offset, uint64_t size) const
{
    if (offset > image().size() || size > image().size() - offset)
        return {};
    return image().subspan(offset, size);
}

file_mapping elf_file::map(const std::string &path, unsigned int flags)
{
    try {
        return file_mapping(path, (flags & KRV_ELF_F_NO_DESCRIPTOR) == 0);
    } catch (const failure &f) {
        throw failure(f.code, path + ": " + f.what());
    }
}

elf_file::elf_file(const std::string &path, unsigned int flags)
    : file_path(path), mapping(map(path, flags)), inflates_any((flags & KRV_ELF_F_INFLATE_ANY) != 0)
{
    try {
        elf_version(EV_CURRENT);
        handle = elf_memory(reinterpret_cast<char *>(const_cast<uint8_t *>(image().data())), image().size());
        if (handle == nullptr)
            fail(KRV_ELF_ERR_FORMAT, elf_errmsg(-1));
        check_machine();
        check_section_headers();
        read_sections();
        check_inflation();
        if (type() == ET_REL)
            place_sections();
        read_segments();
        find_code();
        find_build_id();
        if (!has_far_units())
            mapping.close_descriptor();
    } catch (...) {
        elf_end(handle);
        throw;
    }
}

// Smaller sections are touched as a whole, whoever reads little of them.
bool elf_file::has_far_units() const
{
    constexpr uint64_t LEAST = 256 << 10;
    return std::any_of(section_list.begin(), section_list.end(), [](const raw_section &section) {
        return section.name == ".debug_info" && section.file_size >= LEAST && !section.compressed;
    });
}

elf_file::~elf_file()
{
    elf_end(handle);
}

void elf_file::check_machine()
{
    if (elf_kind(handle) != ELF_K_ELF)
        fail(KRV_ELF_ERR_FORMAT, elf_kind(handle) == ELF_K_AR ? "an archive, not an ELF file" : "not an ELF file");
    if (gelf_getehdr(handle, &header) == nullptr)
        fail(KRV_ELF_ERR_FORMAT, elf_errmsg(-1));
    if (header.e_ident[EI_DATA] != ELFDATA2LSB)
        fail(KRV_ELF_ERR_UNSUPPORTED, "big-endian files are not read");
    const bool known =
        (header.e_machine == EM_386 && gelf_getclass(handle) == ELFCLASS32) || header.e_machine == EM_X86_64;
    if (!known)
        fail(KRV_ELF_ERR_UNSUPPORTED, "machine " + std::to_string(header.e_machine) + " in a " +
                                          (gelf_getclass(handle) == ELFCLASS64 ? "64" : "32") +
                                          "-bit file; 32-bit x86 and AMD64 are read");
}

krv_activation_type_t elf_file::target() const
{
    return gelf_getclass(handle) == ELFCLASS64 ? KRV_ACTIVATION_AMD64 : KRV_ACTIVATION_I386;
}

// libelf takes a file whose section headers are cut off for one without sections; its reader should know better.
void elf_file::check_section_headers()
{
    if (header.e_shoff == 0)
        return;
    size_t count = 0; // also where it is too large for the file header, and stands in section 0
    const size_t entry_size = gelf_fsize(handle, ELF_T_SHDR, 1, EV_CURRENT);
    if (header.e_shentsize != entry_size)
        fail(KRV_ELF_ERR_FORMAT, "section headers of " + std::to_string(header.e_shentsize) + " bytes");
    if (header.e_shoff > image().size() || elf_getshdrnum(handle, &count) != 0 || count < header.e_shnum ||
        count > (image().size() - header.e_shoff) / entry_size)
        fail(KRV_ELF_ERR_FORMAT, "the section headers lie beyond the end of the file: it is cut off, or damaged");
}

// What a compressed section says it inflates to; 0 when it does not say.
uint64_t elf_file::claimed_size(Elf_Scn *scn, const raw_section &section) const
{
    if ((section.flags & SHF_COMPRESSED) != 0) {
        GElf_Chdr chdr;
        return gelf_getchdr(scn, &chdr) == nullptr ? 0 : chdr.ch_size;
    }
    if (section.bytes.size() < ZDEBUG_HEADER_SIZE || std::memcmp(section.bytes.data(), ZDEBUG_MAGIC, 4) != 0)
        return 0;
    uint64_t size = 0;
    for (const uint8_t byte : section.bytes.subspan(4, 8))
        size = size << 8 | byte;
    return size;
}

string_table elf_file::section_names() const
{
    size_t number = 0;
    GElf_Shdr shdr;
    if (elf_getshdrstrndx(handle, &number) != 0 || gelf_getshdr(elf_getscn(handle, number), &shdr) == nullptr ||
        shdr.sh_type != SHT_STRTAB)
        return {};
    return string_table(extent(shdr.sh_offset, shdr.sh_size));
}

void elf_file::read_sections()
{
    constexpr size_t LONGEST_NAME = 255;
    const string_table names = section_names();
    for (Elf_Scn *scn = elf_nextscn(handle, nullptr); scn != nullptr; scn = elf_nextscn(handle, scn)) {
        GElf_Shdr shdr;
        if (gelf_getshdr(scn, &shdr) == nullptr)
            fail(KRV_ELF_ERR_FORMAT, std::string("section header: ") + elf_errmsg(-1));
        const char *name = names.at(shdr.sh_name);
        raw_section section = {};
        section.name = name == nullptr ? "" : std::string(name, strnlen(name, LONGEST_NAME));
        section.number = elf_ndxscn(scn);
        section.type = shdr.sh_type;
        section.flags = shdr.sh_flags;
        section.link = shdr.sh_link;
        section.info = shdr.sh_info;
        section.address = shdr.sh_addr;
        section.alignment = shdr.sh_addralign;
        section.size = shdr.sh_size;
        section.in_file = true;
        section.compressed = (shdr.sh_flags & SHF_COMPRESSED) != 0 || section.name.starts_with(ZDEBUG);
        if (shdr.sh_type != SHT_NOBITS && shdr.sh_size != 0) {
            section.file_size = shdr.sh_size;
            section.bytes = extent(shdr.sh_offset, shdr.sh_size);
            section.in_file = !section.bytes.empty();
        }
        if (section.compressed && section.in_file)
            section.size = claimed_size(scn, section);
        section_list.push_back(std::move(section));
    }
}

const raw_section *elf_file::section(size_t number) const
{
    return number == 0 || number > section_list.size() ? nullptr : &section_list[number - 1];
}

// The loaded sections of a relocatable file, one behind the other as a linker might place them.
void elf_file::place_sections()
{
    constexpr uint64_t MOST = uint64_t{1} << 46; // of a section and of an alignment: their sums do not wrap
    uint64_t next = 0;
    for (raw_section &section : section_list) {
        if ((section.flags & SHF_ALLOC) == 0 || section.size > MOST || section.alignment > MOST || next > MOST)
            continue;
        const uint64_t alignment = std::max(section.alignment, uint64_t{1});
        section.address = (next + alignment - 1) / alignment * alignment;
        next = section.address + section.size;
    }
}

void elf_file::find_code()
{
    for (const raw_section &section : section_list)
        if (section.executable() && section.size <= UINT64_MAX - section.address)
            code_ranges.add({section.address, section.address + section.size});
    if (code_ranges.empty())
        for (const GElf_Phdr &segment : segment_list)
            if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0 &&
                segment.p_memsz <= UINT64_MAX - segment.p_vaddr)
                code_ranges.add({segment.p_vaddr, segment.p_vaddr + segment.p_memsz});
    code_ranges.finish();
}

void elf_file::read_segments()
{
    size_t count = 0;
    if (elf_getphdrnum(handle, &count) != 0)
        return;
    for (size_t i = 0; i < count; ++i) {
        GElf_Phdr phdr;
        if (gelf_getphdr(handle, static_cast<int>(i), &phdr) == nullptr)
            break;
        segment_list.push_back(phdr);
    }
}

void elf_file::find_build_id()
{
    uint64_t left = 2 * image().size(); // sections and segments tell of the same notes, and neither overlap each other
    const auto search = [&](byte_span notes) {
        if (!build_id_bytes.empty() || notes.size() > left)
            return;
        left -= notes.size();
        build_id_bytes = find_build_id_note(notes);
    };
    for (const raw_section &section : section_list)
        if (section.type == SHT_NOTE)
            search(section.bytes);
    for (const GElf_Phdr &segment : segment_list)
        if (segment.p_type == PT_NOTE)
            search(extent(segment.p_offset, segment.p_filesz));
}

static bool is_impossible(const raw_section &section)
{
    return section.size / MAX_INFLATION > section.file_size;
}

// Of what is inflated many times as much is made again: that what is claimed is possible is not enough.
void elf_file::check_inflation() const
{
    uint64_t all = 0;
    for (const raw_section &section : section_list)
        if (section.compressed && section.in_file && !is_impossible(section))
            all = section.size > UINT64_MAX - all ? UINT64_MAX : all + section.size;
    const uint64_t most = std::max<uint64_t>(KRV_ELF_INFLATED_BYTES, KRV_ELF_INFLATED_TIMES * image().size());
    if (!inflates_any && all > most)
        fail(KRV_ELF_ERR_LIMIT, "its compressed sections claim to inflate to " + std::to_string(all) +
                                    " bytes, and no more than " + std::to_string(most) + " are taken from such a file");
}

void elf_file::check_claim(const raw_section &section) const
{
    if (is_impossible(section) || (inflated_size + section.size) / MAX_INFLATION > image().size())
        throw failure(KRV_ELF_ERR_FORMAT, "section " + section.name + " claims to inflate from " +
                                              std::to_string(section.file_size) + " to " +
                                              std::to_string(section.size) + " bytes");
}

static failure cannot_inflate(const raw_section &section, const char *why)
{
    return {KRV_ELF_ERR_FORMAT, "section " + section.name + " cannot be inflated: " + why};
}

byte_span elf_file::inflate_zstd(const raw_section &section)
{
#ifdef KRV_HAVE_ZSTD
    const size_t header_size = gelf_fsize(handle, ELF_T_CHDR, 1, EV_CURRENT);
    const byte_span deflated = section.bytes.subspan(header_size);
    auto bytes = std::make_unique_for_overwrite<uint8_t[]>(section.size);
    const size_t size = ZSTD_decompress(bytes.get(), section.size, deflated.data(), deflated.size());
    if (ZSTD_isError(size) != 0 || size != section.size)
        throw cannot_inflate(section, ZSTD_isError(size) != 0 ? ZSTD_getErrorName(size) : "it is shorter than it says");
    inflated_bytes.push_back(std::move(bytes));
    return {inflated_bytes.back().get(), size};
#else
    throw cannot_inflate(section, "it is compressed by zstd, and this libkorva-elf was built without libzstd");
#endif
}

byte_span elf_file::inflate(const raw_section &section)
{
    check_claim(section);
    Elf_Scn *scn = elf_getscn(handle, section.number);
    GElf_Chdr chdr;
    if ((section.flags & SHF_COMPRESSED) != 0 && gelf_getchdr(scn, &chdr) != nullptr && chdr.ch_type == ZSTD_TYPE) {
        const byte_span bytes = inflate_zstd(section);
        inflated_size += bytes.size();
        return bytes;
    }
    const int result = (section.flags & SHF_COMPRESSED) != 0 ? elf_compress(scn, 0, 0) : elf_compress_gnu(scn, 0, 0);
    const Elf_Data *data = result < 0 ? nullptr : elf_rawdata(scn, nullptr);
    if (data == nullptr)
        throw cannot_inflate(section, elf_errmsg(-1));
    inflated_size += data->d_size;
    return {static_cast<const uint8_t *>(data->d_buf), data->d_size};
}

byte_span elf_file::contents(const raw_section &section)
{
    if (!section.in_file)
        throw failure(KRV_ELF_ERR_FORMAT, "section " + section.name + " extends beyond the end of the file");
    if (!section.compressed)
        return section.bytes;
    const auto known = inflated.find(section.number);
    if (known != inflated.end())
        return known->second;
    return inflated[section.number] = inflate(section);
}

} // namespace krv_elf_loader
