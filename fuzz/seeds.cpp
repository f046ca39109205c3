// SPDX-License-Identifier: Apache-2.0
//
// Writes seeds for every target: what the builders make, and the sections of given ELF files.
//     fuzz_seeds FOLDER [ELF-FILE...]      a folder for each target is made in FOLDER
#include "builders/frames.h"
#include "krv_types.h"
#include "libkorva-elf.h"
#include "walk.h"

#include <elf.h>
#include <filesystem>
#include <fstream>

using namespace krv_test;

static std::filesystem::path folder;
static constexpr size_t LARGEST = 16384;
static constexpr unsigned EXTENDED = krv_fuzz::MODE_DWARF5 | krv_fuzz::MODE_AS_WRITTEN;

static void write(const std::string &target, const bytes &contents)
{
    static unsigned n;
    if (contents.size() >= LARGEST)
        return;
    std::filesystem::create_directories(folder / target);
    std::ofstream out(folder / target / std::to_string(++n), std::ios::binary);
    out.write(reinterpret_cast<const char *>(contents.data()), static_cast<std::streamsize>(contents.size()));
}

// Each seed from memory, and through a call-back with a faulty read.
static void write_modes(const std::string &target, const bytes &body, unsigned mode = 0)
{
    write(target, bytes().u16(mode).add(body));
    write(target,
          bytes().u16(mode | krv_fuzz::MODE_CALLBACK | krv_fuzz::MODE_FAILS | 5 * krv_fuzz::MODE_FAULT).add(body));
}

static bytes part(const bytes &contents)
{
    return bytes().block(2, contents);
}

static bytes some_bytes(size_t count)
{
    bytes b;
    for (size_t i = 0; i < count; ++i)
        b.u8(i * 37 + 5);
    return b;
}

static void forms_and_expressions()
{
    const bytes datum = bytes().u8(16).add(part(bytes().cstr("name"))).u32(1).u32(2).u64(3);
    for (unsigned form = 1; form <= 0x20; ++form)
        write_modes("forms_fuzz", bytes().u8(form).u8(form & 3).add(datum));
    for (unsigned form = 0x1a; form <= 0x2c; ++form)
        write_modes("forms_fuzz", bytes().u8(form).u8(form & 3).add(datum), EXTENDED);
    for (const unsigned form : {0x81, 0x82, 0xa0, 0xa1}) // of GNU tools
        write_modes("forms_fuzz", bytes().u8(form).u8(0).add(datum), EXTENDED);
    static const char *const expressions[] = {
        "30 31 22 23 04",                         // sums
        "08 ff 0a 01 80 0c 12 34 56 78 1a 21 27", // constants
        "70 08 91 08 77 08 93 08",                // registers, pieces
        "9e 02 11 22 93 02 50 93 04",             // implicit value and register as pieces
        "33 12 28 06 00 31 1c 12 2f f8 ff",       // a loop
        "11 7f 10 ff 01 2a 2b 2c 2d 2e 24 25 26", // comparisons and shifts
        "06 94 04 18 96 97 9c 9f",                // memory
        "12 13 14 15 00 16 17 19 1b 1d 1e 1f 20", // the stack
    };
    static const char *const extended[] = {
        "a3 01 53 f3 02 73 08 a8 00",                         // values at entry
        "a4 30 02 01 02 a5 03 30 a6 04 30 a7 08 30 a9 30 f6", // types
        "a1 05 a2 06 a0 01 00 00 00 7f fa 01 00 00 00 9d 03", // indexes and references
    };
    for (const char *hex : extended)
        write_modes("expr_fuzz", bytes().u64(0x1000).u8(0).u8(16).add(part(some_bytes(64))).add(bytes::hex(hex)),
                    EXTENDED);
    for (const char *hex : expressions)
        for (const unsigned flags : {0, 1})
            write_modes("expr_fuzz",
                        bytes().u64(0x1000).u8(flags).u8(16).add(part(some_bytes(64))).add(bytes::hex(hex)));
}

static void units()
{
    const bytes abbrev = abbrevs("1 compile_unit+ name:string comp_dir:strp low_pc:addr high_pc:addr producer:strp;"
                                 "2 subprogram+ name:string low_pc:addr high_pc:addr sibling:ref4;"
                                 "3 variable type:ref4 location:exprloc; 4 base_type name:string byte_size:data1");
    const bytes strings = bytes().cstr("/build").cstr("compiler");
    bytes dies;
    dies.uleb(1).cstr("a.c").u32(0).u64(0x1000).u64(0x1100).u32(7);
    dies.uleb(2).cstr("f").u64(0x1000).u64(0x1040).offset_of("next", 4);
    dies.uleb(3).offset_of("int", 4).block_uleb(bytes::hex("91 10")).u8(0);
    dies.label("next").label("int").uleb(4).cstr("int").u8(4).u8(0);
    for (const bool dwarf64 : {false, true}) {
        const bytes info = unit{.dwarf64 = dwarf64, .dies = dies}.build();
        write_modes("info_fuzz", part(abbrev) + part(strings) + info + info);
        const bytes set = aranges_set{.dwarf64 = dwarf64, .tuples = {{0x1000, 0x40}, {0x1080, 8}}}.build();
        write_modes("lookup_fuzz", bytes().u64(0x1010).add(part(set)).add(part(abbrev)) + info);
        write_modes("lookup_fuzz", bytes().u64(0x1010).add(part({})).add(part(abbrev)) + info);
    }
}

// Values that lead to other sections, with the bases that they need behind them; and location lists.
static void written_units()
{
    const bytes abbrev = abbrevs(
        "1 compile_unit+ name:0x1a 0x72:sec_offset 0x73:sec_offset comp_dir:0x1f producer:0x1d low_pc:0x1b "
        "0x8c:sec_offset high_pc:0x21=64; 2 variable name:0x25 location:0x22 byte_size:0x1e;"
        "3 subprogram name:0x1f21 type:0x1f20 abstract_origin:ref_addr decl_line:0x21=-1; 4 namespace+ name:strp");
    const bytes offsets = bytes().u32(12).u16(5).u16(0).u32(0).u32(4),
                addresses = bytes().u32(12).u16(5).u16(8).u64(0x1000);
    const bytes lists = bytes().u32(25).u16(5).u16(8).u32(1).u32(4).add(bytes::hex("04 10 20 01 50 05 02 51 52 00"));
    bytes dies = bytes().uleb(1).uleb(1).u32(8).u32(8).u32(0).u32(0).uleb(0).u32(12);
    dies.uleb(2).u8(1).uleb(0).fill(16).uleb(4).u32(2).uleb(3).u32(1).u32(2).u32(3).u8(0).u8(0);
    const bytes sections =
        part(bytes().cstr("/dir")) + part(offsets) + part(addresses) + part(bytes().cstr("alt")) + part(lists);
    for (const bytes &info :
         {unit{.version = 5, .kind = KRV_UNIT_COMPILE, .dies = dies}.build(),
          unit{.version = 5, .kind = KRV_UNIT_SKELETON, .extra = bytes().u64(9), .dies = dies}.build(),
          unit{.dies = dies}.build()})
        write_modes("info_fuzz", part(abbrev) + part(bytes().cstr("one").cstr("two")) + sections + info + info,
                    EXTENDED);
}

static void written_ranges()
{
    const bytes abbrev =
        abbrevs("1 compile_unit+ 0x73:sec_offset 0x74:sec_offset low_pc:0x1b ranges:0x23;"
                "2 compile_unit+ low_pc:addr ranges:sec_offset; 3 namespace+ name:string; 4 compile_unit+;"
                "5 subprogram low_pc:addr high_pc:data4 ranges:sec_offset");
    const bytes ranges = bytes().u64(16).u64(32).u64(UINT64_MAX).u64(0x1000).u64(0).u64(4).u64(0).u64(0);
    const bytes items =
        bytes::hex("04 00 10 05 00 10 00 00 00 00 00 00 01 01 04 10 20 02 00 01 03 01 08"
                   "06 00 20 00 00 00 00 00 00 10 20 00 00 00 00 00 00 07 00 30 00 00 00 00 00 00 10 00");
    const bytes lists = bytes().u32(12 + items.size()).u16(5).u16(8).u32(1).u32(4).add(items);
    const bytes addresses = bytes().u32(20).u16(5).u16(8).u64(0x1000).u64(0x1400);
    const bytes later = bytes().uleb(1).u32(8).u32(12).uleb(0).uleb(0).u8(0),
                plain = bytes().uleb(2).u64(0x1000).u32(0).u8(0);
    const bytes nested = bytes().uleb(4).uleb(3).cstr("n").uleb(5).u64(0x1010).u32(8).u32(32).u8(0).u8(0);
    const bytes set = aranges_set{.tuples = {{0x1010, 0x40}, {0, 8}}}.build();
    for (const bytes &info : {unit{.version = 5, .kind = KRV_UNIT_COMPILE, .dies = later}.build(),
                              unit{.dies = plain}.build() + unit{.dies = nested}.build()})
        for (const bytes &sets : {set, bytes()})
            write_modes("lookup_fuzz",
                        bytes().u64(0x1010)
                                .add(part(sets))
                                .add(part(abbrev))
                                .add(part(ranges))
                                .add(part(lists))
                                .add(part(addresses)) +
                            info,
                        EXTENDED);
}

static void lines()
{
    for (const uint16_t version : {2, 3, 4}) {
        line_unit u{.dwarf64 = version == 3, .version = version, .mopi = 4, .dirs = {"src", "/gen"}};
        u.files = {{"a.c", 1}, {"b.c", 2, 3, 4}, {"/c.c"}};
        u.program = program("def d.c 1 0 0 at 400 copy pc 4 sp 40 line -1 copy sp 200 end at 300 copy pc 16 end");
        write_modes("line_fuzz", bytes().u64(0x404).add(u.build()));
    }
    const bytes strings = part(bytes().cstr("/dir").cstr("sub")) + part(bytes().cstr("b.c")) + part(bytes().u64(0));
    line_unit u{.v5 = true, .dirs = {"/dir", "sub"}, .files = {{"a.c", 0, 1, 2}, {"b.c", 1}}};
    u.program =
        program("at 400 copy pc 4 file 0 ext 128 copy pc 4 end at 404 copy pc 8 end at 0 copy pc 4 end at 500 copy");
    write_modes("line_fuzz", bytes().u64(0x404).add(strings).add(u.build()), EXTENDED);
    u.tables = bytes::hex("01 01 1f 02 00000000 05000000 05 01 25 02 0b 03 06 05 1e 81 40 08 01 00 01 00000000") +
               bytes().fill(16).cstr("source");
    write_modes("line_fuzz", bytes().u64(0x404).add(strings).add(u.build()), EXTENDED);
}

static void frames()
{
    const bytes initial = bytes::hex("0c 07 08 90 01"),
                rows = bytes::hex("41 0e 10 86 02 43 0d 06 0a 0e 08 0b 16 03 02 70 08");
    const bytes frame = cie{.instructions = initial}.build() + fde{.instructions = rows}.build();
    write_modes("unwind_fuzz", bytes().u16(0).u16(0).u16(0x1004).u16(0x10).add(part(frame)).add(some_bytes(256)));
    eh_hdr table{.entries = {{0x11000, krv_fuzz::BASE + 0x54}}};
    const uint64_t at = krv_fuzz::BASE + 0x40;
    bytes eh = eh_cie{.instructions = initial}.build();
    table.entries[0].second = at + eh.size();
    eh.add(eh_fde{.cie = at, .address = 0x11000, .instructions = rows}.build(at + eh.size())).u32(0);
    bytes memory = bytes().u32(0).add(table.build(krv_fuzz::BASE + 4, at));
    memory.fill(0x40 - memory.size()).add(eh).add(some_bytes(256));
    for (const unsigned hdr : {0, 4})
        write_modes("unwind_fuzz", bytes().u16(hdr).u16(0x40).u16(0x1004).u16(0xa0).add(part({})).add(memory));
    // As written: a signal frame with an indirect personality, a record that cannot be read, and pushed arguments.
    bytes written =
        eh_cie{.augmentation = "zPLRS", .data = bytes::hex("9b 34 12 00 00 1b 1b"), .instructions = initial}.build();
    written.add(eh_cie{.augmentation = "eh"}.build());
    written.add(eh_fde{
        .cie = at, .address = 0x1000, .data = bytes().u32(1), .instructions = bytes::hex("2e 10 2f 03 02 41 0e 10")}
                    .build(at + written.size()));
    written.u32(0).add(some_bytes(256));
    write_modes("unwind_fuzz", bytes().u16(0).u16(0x40).u16(0x1004).u16(0xa0).add(part({})).fill(0x40).add(written),
                krv_fuzz::MODE_AS_WRITTEN);
    for (const size_t size : {100, 400, 900})
        for (const unsigned mode : {0U, EXTENDED})
            write_modes("frames_fuzz", some_bytes(size), mode);
}

static bytes note(uint32_t type, const bytes &contents)
{
    return bytes().u32(5).u32(contents.size()).u32(type).cstr("CORE").align(4).add(contents).align(4);
}

// A 32-bit process of one thread, one file and a stack.
static void core()
{
    bytes status, auxv, files;
    status.fill(12).u16(11).fill(10).u32(4711).fill(44);
    status.fill(5 * 4).u32(0x8100).fill(6 * 4).u32(0x5000).fill(8).u32(0x8080).u32(0).u32(0);
    auxv.u32(AT_ENTRY).u32(0x5000).u32(AT_PHDR).u32(0x5034).u32(AT_NULL).u32(0);
    files.u32(1).u32(4096).u32(0x5000).u32(0x6000).u32(0).cstr("/none");
    const bytes notes = note(NT_PRSTATUS, status) + note(NT_AUXV, auxv) + note(NT_FILE, files);
    const size_t notes_at = sizeof(Elf32_Ehdr) + 2 * sizeof(Elf32_Phdr);
    bytes b = bytes::hex("7f 45 4c 46 01 01 01").fill(9);
    b.u16(ET_CORE).u16(EM_386).u32(1).u32(0).u32(sizeof(Elf32_Ehdr)).u32(0).u32(0);
    b.u16(sizeof(Elf32_Ehdr)).u16(sizeof(Elf32_Phdr)).u16(2).fill(6);
    b.u32(PT_NOTE).u32(notes_at).u32(0).u32(0).u32(notes.size()).u32(0).u32(0).u32(4);
    b.u32(PT_LOAD).u32(notes_at + notes.size()).u32(0x8000).u32(0).u32(512).u32(4096).u32(6).u32(4096);
    write("core_fuzz", b.add(notes).add(some_bytes(512)));
}

// Names of every language, nested, with references to what came before, and one that refers to itself.
static void names()
{
    static const char *const texts[] = {
        "_ZNSt6vectorIiSaIiEE9push_backEOi",
        "_ZN2ns1CIJLi1EPKcEEplIdEEvT_S4_RK1SB5cxx11",
        "_ZZ4mainENKUlvE_clEv",
        "_ZNK3fooIXsr3barE1xEEcvT_IiEEv",
        "_ZGVZ1fvE1s",
        "_RNvNtCs1234_7mycrate3foo3bar",
        "_RINvNtC3std3mem8align_ofNtNtC3std3mem12DiscriminantE",
        "_RNvXs_C1aINtB4_1SpEB4_",
        "_RIC1aTuuEFG_RL0_hEuE",
        "_RNvB_1a",
        "_ZN4core3fmt5Write9write_fmt17h0123456789abcdefE",
        "_ZN3a$LT$b$GT$17h0123456789abcdefE",
        "_D3std5stdio__T7writelnTAyaZQnFNfQjZv",
        "_D1a1b1CFMDFZvZi",
        "_D1fFS1aQfZv",
        "_Dmain",
    };
    for (const char *text : texts)
        write("demangle_fuzz", bytes().cstr(text));
}

static bytes section(krv_handle_t *hp, krv_secidx_t sec)
{
    krv_fd_t fd = *krv_section(hp, sec);
    bytes b;
    std::vector<uint8_t> room(fd.sfd_size);
    if (!room.empty() && korva_fd_to_mem(&fd, room.data(), room.size()) == 0)
        for (const uint8_t byte : room)
            b.u8(byte);
    return b;
}

// What a compiler wrote.
static void compiled(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    bytes whole;
    for (char c; in.get(c);)
        whole.u8(static_cast<uint8_t>(c));
    write("elf_fuzz", whole);
    if (whole.size() > 18 && whole.data()[16] == ET_CORE)
        write("core_fuzz", whole);
    krv_elf_t *elf = korva_elf_open(path, KRV_ELF_F_NONE, nullptr);
    if (elf == nullptr)
        return;
    krv_handle_t *hp = korva_elf_get_handle(elf);
    krv_elf_info_t about;
    korva_elf_get_info(elf, &about);
    const unsigned mode = about.target == KRV_ACTIVATION_I386 ? krv_fuzz::MODE_I386 : 0;
    const bytes abbrev = part(section(hp, KRV_SEC_ABBREV)), info = section(hp, KRV_SEC_INFO);
    write_modes("info_fuzz", abbrev + part(section(hp, KRV_SEC_STR)) + info, mode);
    write_modes("lookup_fuzz", bytes().u64(0x10).add(part(section(hp, KRV_SEC_ARANGES))).add(abbrev).add(info), mode);
    bytes lists, indexes;
    for (const krv_secidx_t sec : std::initializer_list<krv_secidx_t>{KRV_SEC_EXT_NAMES, KRV_SEC_EXT_GDB_INDEX,
                                                                      KRV_SEC_EXT_GNU_PUBNAMES, KRV_SEC_PUBNAMES})
        indexes += part(section(hp, sec));
    for (const krv_secidx_t sec : {KRV_SEC_EXT_STR_OFFSETS, KRV_SEC_EXT_ADDR, KRV_SEC_EXT_RANGES, KRV_SEC_EXT_RNGLISTS})
        lists += part(section(hp, sec));
    write_modes(
        "entries_fuzz",
        bytes().u64(0x1139).add(abbrev).add(part(section(hp, KRV_SEC_STR))).add(lists).add(part({})).add(part({})) +
            indexes + info,
        mode | krv_fuzz::MODE_DWARF5 | krv_fuzz::MODE_AS_WRITTEN);
    write_modes("line_fuzz", bytes().u64(0x10).add(section(hp, KRV_SEC_LINE)), mode);
    write_modes("line_fuzz",
                bytes().u64(0x10).add(part(section(hp, KRV_SEC_EXT_LINE_STR))).add(part({})).add(part({})) +
                    section(hp, KRV_SEC_LINE),
                mode | EXTENDED);
    const auto parts = [hp](std::initializer_list<krv_secidx_t> sections) {
        bytes b;
        for (const krv_secidx_t sec : sections)
            b.add(part(section(hp, sec)));
        return b;
    };
    write_modes("info_fuzz",
                parts({KRV_SEC_ABBREV, KRV_SEC_STR, KRV_SEC_EXT_LINE_STR, KRV_SEC_EXT_STR_OFFSETS, KRV_SEC_EXT_ADDR,
                       KRV_SEC_EXT_ALT_STR}) +
                    part(section(hp, KRV_SEC_LOC).add(section(hp, KRV_SEC_EXT_LOCLISTS))) + info,
                mode | EXTENDED);
    write_modes("lookup_fuzz",
                bytes().u64(0x10).add(parts(
                    {KRV_SEC_ARANGES, KRV_SEC_ABBREV, KRV_SEC_EXT_RANGES, KRV_SEC_EXT_RNGLISTS, KRV_SEC_EXT_ADDR})) +
                    info,
                mode | EXTENDED);
    const bytes where = bytes().u16(0).u16(0).u16(0x10).u16(0x80);
    const bytes frame = section(hp, KRV_SEC_FRAME), eh_frame = section(hp, KRV_SEC_EH_FRAME);
    write_modes("unwind_fuzz", where + part(frame) + some_bytes(256), mode);
    write_modes("unwind_fuzz", where + part({}) + eh_frame + some_bytes(256), mode);
    write_modes("unwind_fuzz", where + part({}) + eh_frame + some_bytes(256), mode | EXTENDED);
    korva_elf_close(elf);
}

int main(int argc, char **argv)
{
    if (argc < 2)
        return 64;
    folder = argv[1];
    forms_and_expressions();
    units();
    written_units();
    written_ranges();
    lines();
    frames();
    core();
    names();
    for (int i = 2; i < argc; ++i)
        compiled(argv[i]);
    return 0;
}
