// SPDX-License-Identifier: Apache-2.0
//
// The loader on files that the compiler makes here and now, and on what is none.
#include "loader/loader_fixture.h"

#include "elf/view.h"
#include "krv_types.h"

#include <csignal>
#include <random>

using namespace krv_test;

namespace
{

// A unit as DWARF 5 writes it, `size` bytes behind its length.
bytes dwarf5(bool dwarf64, size_t size)
{
    bytes rest = bytes().u16(5).u8(1).u8(8).offset(dwarf64, 0).fill(40, 0xff);
    return bytes().unit_length(dwarf64, size).add(rest.first(size));
}

} // namespace

// Every way in which a linker stores debugging information leads to the same answers.
TEST_F(Loader, StorageOfSections)
{
    static const struct {
        const char *flags;
        krv_activation_type_t target;
        bool compressed;
    } rows[] = {
        {"", KRV_ACTIVATION_AMD64, false},
        {"-gz=zlib", KRV_ACTIVATION_AMD64, true},
        {"-gz=zlib-gnu", KRV_ACTIVATION_AMD64, true},
        {"-m32", KRV_ACTIVATION_I386, false},
        {"&& objcopy --only-keep-debug a a.debug && mv a.debug a", KRV_ACTIVATION_AMD64, false},
    };
    std::map<krv_activation_type_t, std::string> frames;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.flags);
        if (!compile(std::string("-gdwarf-4 -fno-asynchronous-unwind-tables a.c -o a ") + row.flags)) {
            std::printf("skipped: the compiler cannot link with %s here\n", row.flags);
            continue;
        }
        elf_ptr elf = open("a");
        ASSERT_NE(elf, nullptr) << error.message;
        krv_elf_info_t info;
        korva_elf_get_info(elf.get(), &info);
        EXPECT_EQ(info.target, row.target);
        EXPECT_EQ(info.has_symtab, 1);
        EXPECT_NE(units(elf.get()).find("a.c "), std::string::npos);
        const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer");
        ASSERT_NE(outer, nullptr);
        krv_elf_source_t source;
        ASSERT_EQ(korva_elf_lookup_source(elf.get(), outer->address + 1, &source, &error), 0) << error.message;
        EXPECT_EQ(text("%s %s:%u:%u", source.function, source.file, source.line, source.column),
                  "outer " + (dir / "a.c").string() + ":3:18");
        EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), outer->address + outer->size - 1), outer);
        EXPECT_EQ(notes(elf.get()), "");
        EXPECT_EQ(attached(elf.get()).find('+'), std::string::npos) << attached(elf.get());
        EXPECT_EQ(attached(elf.get()).find("z ") != std::string::npos, row.compressed) << attached(elf.get());
        // What is inflated when it is read, is what it was.
        krv_fd_t frame = korva_elf_get_handle(elf.get())->sh_sec[KRV_SEC_FRAME];
        std::string bytes(frame.sfd_size, '\0');
        EXPECT_EQ(korva_fd_to_mem(&frame, bytes.data(), bytes.size()), 0);
        std::string &expected = frames[row.target];
        expected = expected.empty() ? bytes : expected;
        EXPECT_TRUE(bytes == expected && bytes.size() > 100) << bytes.size();
    }
}

TEST_F(Loader, NoSource)
{
    ASSERT_TRUE(compile("-gdwarf-5 a.c -o a"));
    const elf_ptr elf = open("a");
    krv_elf_source_t source;
    const uint64_t outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer")->address;
    for (const auto &[address, function] : {std::pair{outer, "outer"}, {uint64_t{1}, ""}}) {
        EXPECT_EQ(korva_elf_lookup_source(elf.get(), address, &source, &error), -1);
        EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
        EXPECT_EQ(error.message,
                  text("%s: no line is known for 0x%lx; unit at offset 0x0 of .debug_info is DWARF 5, and "
                       "libkorva reads DWARF 2 to 4; compile with -gdwarf-4",
                       (dir / "a").c_str(), address));
        EXPECT_EQ(text("%s %s:%u:%u", source.function, source.file, source.line, source.column),
                  std::string(function) + " :0:0");
    }
}

// A file that is cut off while it is open: a client that hands on the signal goes on.
TEST_F(Loader, FileThatShrinks)
{
    ASSERT_TRUE(compile("-gdwarf-4 a.c -o a && cp a b"));
    struct sigaction old, handler = {};
    handler.sa_sigaction = [](int number, siginfo_t *info, void *) {
        if (korva_elf_handle_bus_error(info->si_addr) == 0)
            std::signal(number, SIG_DFL);
    };
    handler.sa_flags = SA_SIGINFO;
    sigaction(SIGBUS, &handler, &old);
    const elf_ptr elf = open("a"), other = open("b");
    const uint64_t outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer")->address;
    fs::resize_file(dir / "a", 4096);
    EXPECT_EQ(line_of(elf.get(), outer), 0u);
    EXPECT_NE(notes(elf.get()).find("the file became shorter while it was read\n"), std::string::npos);
    EXPECT_EQ(line_of(other.get(), outer), 3u);
    EXPECT_EQ(notes(other.get()), "");
    EXPECT_EQ(korva_elf_handle_bus_error(this), 0);
    sigaction(SIGBUS, &old, nullptr);
}

TEST_F(Loader, RelocatableFiles)
{
    for (const char *flags : {"", "-m32", "-mx32"}) {
        ASSERT_TRUE(compile(std::string("-gdwarf-4 -c a.c -o a.o ") + flags));
        elf_ptr elf = open("a.o");
        ASSERT_NE(elf, nullptr) << error.message;
        krv_elf_info_t info;
        korva_elf_get_info(elf.get(), &info);
        EXPECT_EQ(info.type, ET_REL);
        EXPECT_EQ(info.target, *flags == '\0' ? KRV_ACTIVATION_AMD64 : KRV_ACTIVATION_I386);
        EXPECT_EQ(info.machine, std::string(flags) == "-m32" ? EM_386 : EM_X86_64);
        const krv_elf_symbol_t *inner = korva_elf_lookup_symbol_by_name(elf.get(), "inner");
        ASSERT_NE(inner, nullptr);
        EXPECT_EQ(line_of(elf.get(), inner->address), 2u);
        elf = open("a.o", KRV_ELF_F_RAW);
        EXPECT_EQ(notes(elf.get()).find("the relocations of .debug_info are not applied\n"), 0u) << notes(elf.get());
    }
}

TEST_F(Loader, UnitsThatAreNotRead)
{
    const bytes table = bytes::hex("01 11 00 00 00 00");   // a unit without attributes
    const auto good = [](uint16_t version, bool dwarf64) { // 12 or 24 bytes
        return unit{.dwarf64 = dwarf64, .version = version, .dies = bytes().uleb(1)}.build();
    };
    const auto other = [](const char *at, const char *how = "") {
        return text("unit at offset %s of .debug_info is DWARF 5, and libkorva reads DWARF 2 to 4%s; compile with "
                    "-gdwarf-4\n",
                    at, how);
    };
    const auto damaged = [](const char *at, const char *why) {
        return text("unit at offset %s of .debug_info cannot be read, nor any behind it: %s\n", at, why);
    };
    const struct {
        bytes info;
        std::string units, notes, attached;
    } rows[] = {
        {good(2, false) + good(3, true) + good(4, false), "0:v2+12 12:v3+24* 36:v4+12 ", "", "6 .debug_info=48 "},
        {good(4, false) + dwarf5(false, 8) + dwarf5(true, 12) + good(4, true), // the shortest that can be shown
         "0:v4+12 12:v5+12 24:v5+24* 48:v4+24* ", other("0xc") + other("0x18"), "12+ .debug_info=72+ "},
        {good(4, false) + dwarf5(false, 7), "0:v4+12 ",
         other("0xc", "; it is too short to be shown as an empty unit, and may end the list of units"),
         "6 .debug_info=23 "},
        {good(4, false) + bytes().u32(0xfffffff2).fill(20), "0:v4+12 ",
         damaged("0xc", "its length 0xfffffff2 is reserved"), "6 .debug_info=36 "},
        {dwarf5(false, 20) + bytes().u32(16).fill(15), "0:v5+24 ",
         other("0x0") + damaged("0x18", "its length 0x10 exceeds the section"), "12+ .debug_info=43+ "},
        {bytes().u32(0xffffffff).u64(UINT64_MAX - 11).fill(20), "",
         damaged("0x0", "its length 0xfffffffffffffff4 exceeds the section"), "6 .debug_info=32 "},
        {good(4, false) + bytes().u32(1).fill(6), "0:v4+12 ",
         damaged("0xc", "its length 0x1 has no room for a version"), "6 .debug_info=22 "},
        {good(4, false) + bytes().u32(0xffffffff).fill(7), "0:v4+12 ",
         damaged("0xc", "the section ends within its header"), "6 .debug_info=23 "},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.notes);
        elf_ptr elf = assemble(section(".debug_abbrev", table) + section(".debug_info", row.info));
        ASSERT_NE(elf, nullptr);
        EXPECT_EQ(units(elf.get()), row.units);
        EXPECT_EQ(notes(elf.get()), row.notes);
        EXPECT_EQ(attached(elf.get()).find(".debug_abbrev=" + row.attached), 0u); // as adds a .debug_line of its own
    }
    EXPECT_EQ(units(assemble(section(".debug_info", dwarf5(false, 20))).get()), "0:v5+24 "); // no .debug_abbrev

    using namespace krv_elf_loader;
    elf_file file((dir / "s.o").string());
    for (const bool raw : {true, false}) {
        const symbol_table symbols(file);
        view v(file, symbols, nullptr, raw);
        const uint8_t *seen = v.find(KRV_SEC_INFO)->bytes().data(), *begin = file.image().data();
        EXPECT_EQ(seen >= begin && seen < begin + file.image().size(), raw);
    }
}

TEST_F(Loader, SectionsThatCannotBeAttached)
{
    const bytes some = bytes().fill(16, 1);
    const auto header = [](uint32_t type, uint64_t size) { return bytes().u32(type).u32(0).u64(size).u64(1); };
    const std::string cannot = "section .debug_str cannot be inflated: ";
    const struct {
        std::string assembly, note;
    } rows[] = {
        {".section .debug_str,\"\",@nobits\n.skip 100\n", ""},
        {section(".debug_str,\"0x800\"", header(ELFCOMPRESS_ZLIB, uint64_t{1} << 40)),
         "section .debug_str claims to inflate from 24 to 1099511627776 bytes\n"},
        {section(".zdebug_str", bytes::hex("5a 4c 49 42 01 00 00 00 00 00 00 00") + some),
         "section .zdebug_str claims to inflate from 28 to 72057594037927936 bytes\n"},
        {section(".debug_str,\"0x800\"", header(ELFCOMPRESS_ZLIB, 64) + some), cannot},
        {section(".debug_str,\"0x800\"", header(99, 64) + some), cannot},
        {section(".debug_str,\"0x800\"", bytes().u32(1)), cannot},
        {section(".zdebug_str", some), "section .zdebug_str cannot be inflated: "},
    };
    for (const auto &row : rows) { // it does not stand in the way of a good one of that name
        SCOPED_TRACE(row.note);
        elf_ptr elf = assemble(row.assembly + section(".debug_str,\"\",@progbits,unique,1", some) +
                               section(".debug_str,\"\",@progbits,unique,2", some + some));
        ASSERT_NE(elf, nullptr) << error.message;
        EXPECT_EQ(attached(elf.get()), ".debug_str=16 ");
        EXPECT_EQ(notes(elf.get()).find(row.note), 0u) << notes(elf.get());
        EXPECT_NE(notes(elf.get()).find("a second section .debug_str is not read\n"), std::string::npos);
    }
}

// A loaded segment is found by any of its bytes, and by the start of its first page where no other one claims that.
TEST_F(Loader, LoadBias)
{
    for (const char *flags : {"-pie -fPIE", "-no-pie -Wl,-z,noseparate-code"}) {
        ASSERT_TRUE(compile(std::string("a.c -o a ") + flags));
        elf_ptr elf = open("a");
        const krv_elf_loader::elf_file file((dir / "a").string());
        uint64_t end = 0, bias = 0;
        for (const GElf_Phdr &load : file.segments()) {
            if (load.p_type != PT_LOAD)
                continue;
            const uint64_t page = load.p_offset & ~uint64_t{4095};
            for (const uint64_t at : {std::max(page, end), load.p_offset, load.p_offset + load.p_filesz - 1}) {
                const uint64_t address = load.p_vaddr - load.p_offset + at;
                EXPECT_EQ(korva_elf_load_bias(elf.get(), 0x7f0000000000 + address, at, &bias, &error), 0);
                EXPECT_EQ(bias, 0x7f0000000000u) << at;
            }
            end = load.p_offset + load.p_filesz;
        }
        EXPECT_EQ(korva_elf_load_bias(elf.get(), 0, end, &bias, &error), -1);
        EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
    }
}

TEST_F(Loader, SymbolTable)
{
    elf_ptr elf =
        assemble(".text\n.globl whole\nwhole: .fill 32\n.type whole,@function\n.size whole,32\n"
                 ".set inside,whole+8\n.type inside,@function\n.size inside,8\n"
                 ".weak alias\n.set alias,whole\n.type alias,@function\n.size alias,32\n"
                 "gap: .fill 8\n.type gap,@function\n.size gap,4\n"
                 "label: .fill 8\nifunc: .fill 8\n.type ifunc,@gnu_indirect_function\netext:\n"
                 ".set inner,whole+20\n.type inner,@notype\n.size inner,0\n.globl .Ltable\n.set .Ltable,whole+4\n"
                 ".set object,whole\n.type object,@object\n.size object,99\n"
                 ".data\nin_data: .fill 8\ncall_out: .quad undefined\n");
    ASSERT_NE(elf, nullptr);
    std::string seen;
    size_t count = 0;
    const krv_elf_symbol_t *all = korva_elf_get_symbols(elf.get(), &count);
    for (size_t i = 0; i < count; ++i)
        seen += text("%s@%lu+%lu ", all[i].name, all[i].address, all[i].size);
    EXPECT_EQ(seen, "whole@0+32 alias@0+32 inside@8+8 inner@20+12 gap@32+4 label@40+8 ifunc@48+8 ");
    EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), 20), all); // a function that covers a label has its address

    // Nested, overlapping and equal symbols, every third a label, against the definition.
    const auto is_label = [](const krv_elf_symbol_t &s) { return *s.name == 'f' && std::atoi(s.name + 1) % 3 == 0; };
    std::mt19937 random(1);
    for (const unsigned longest : {4u, 60u, 60u, 200u}) {
        std::string assembly = ".text\nbase: .fill 100\n.type base,@function\n.size base,1\n";
        for (int i = 0; i < 60; ++i)
            assembly += text(".set f%d,base+%u\n.type f%d,@%s\n.size f%d,%u\n", i, static_cast<unsigned>(random() % 90),
                             i, i % 3 == 0 ? "notype" : "function", i,
                             i % 3 == 0 ? 0 : static_cast<unsigned>(1 + random() % longest));
        elf = assemble(assembly);
        all = korva_elf_get_symbols(elf.get(), &count);
        ASSERT_EQ(count, 61u);
        for (uint64_t address = 0; address < 300; ++address) {
            const krv_elf_symbol_t *expected = nullptr;
            for (size_t i = 0; i < count; ++i)
                if (address >= all[i].address && address - all[i].address < all[i].size &&
                    (expected == nullptr || is_label(all[i]) < is_label(*expected) ||
                     (is_label(all[i]) == is_label(*expected) && all[i].address > expected->address)))
                    expected = &all[i];
            EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), address), expected) << address;
        }
    }
    ASSERT_TRUE(compile("-s -rdynamic a.c -o stripped"));
    krv_elf_info_t info;
    elf = open("stripped");
    korva_elf_get_info(elf.get(), &info);
    EXPECT_EQ(info.has_symtab, 0);
    EXPECT_NE(korva_elf_lookup_symbol_by_name(elf.get(), "outer"), nullptr);
    EXPECT_EQ(units(elf.get()), "");

    // Debug files of libraries have their symbols with versions.
    ASSERT_TRUE(compile("a.c -o versioned"));
    ASSERT_EQ(std::system(("objcopy --redefine-sym outer=outer@@V_1 " + (dir / "versioned").string()).c_str()), 0);
    elf = open("versioned");
    const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer");
    ASSERT_NE(outer, nullptr);
    EXPECT_STREQ(outer->name, "outer@@V_1");
    EXPECT_EQ(korva_elf_lookup_symbol_by_name(elf.get(), "oute"), nullptr);
}

TEST_F(Loader, WhatIsNoReadableFile)
{
    ASSERT_TRUE(compile("-c a.c -o a.o"));
    const std::string good = read("a.o");
    write("empty", "");
    write("text", "not an ELF file at all");
    const auto patched = [&](const char *name, size_t at, const std::string &bytes) {
        write(name, std::string(good).replace(at, bytes.size(), bytes));
    };
    const char *const beyond = "the section headers lie beyond the end of the file: it is cut off, or damaged";
    patched("mips", 18, std::string("\x08\0", 2)); // e_machine
    patched("i386", 18, std::string("\x03\0", 2));
    patched("big", 5, std::string("\2", 1));          // EI_DATA
    patched("far", 40, std::string(8, '\xf0'));       // e_shoff
    patched("many", 60, std::string("\0\xfe", 2));    // e_shnum
    patched("entries", 58, std::string("\x3f\0", 2)); // e_shentsize
    write("cut", good.substr(0, good.size() - 1));
    const struct {
        const char *name;
        int code;
        const char *text;
    } rows[] = {
        {"missing", KRV_ELF_ERR_SYSTEM, "No such file or directory"},
        {"new\nline", KRV_ELF_ERR_SYSTEM, "No such file or directory"},
        {"", KRV_ELF_ERR_SYSTEM, "Is a directory"},
        {"empty", KRV_ELF_ERR_FORMAT, "the file is empty"},
        {"text", KRV_ELF_ERR_FORMAT, "not an ELF file"},
        {"mips", KRV_ELF_ERR_UNSUPPORTED, "machine 8 in a 64-bit file; 32-bit x86 and AMD64 are read"},
        {"i386", KRV_ELF_ERR_UNSUPPORTED, "machine 3 in a 64-bit file; 32-bit x86 and AMD64 are read"},
        {"big", KRV_ELF_ERR_UNSUPPORTED, "big-endian files are not read"},
        {"far", KRV_ELF_ERR_FORMAT, beyond},
        {"many", KRV_ELF_ERR_FORMAT, beyond},
        {"cut", KRV_ELF_ERR_FORMAT, beyond},
        {"entries", KRV_ELF_ERR_FORMAT, "section headers of 63 bytes"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(open(row.name), nullptr);
        EXPECT_EQ(error.code, row.code) << row.name;
        std::string name = (dir / row.name).string();
        std::replace(name.begin(), name.end(), '\n', '?');
        EXPECT_EQ(error.message, name + ": " + row.text);
    }
    for (size_t size = 0; size < good.size(); size += 37) {
        write("cut", good.substr(0, size));
        EXPECT_EQ(open("cut"), nullptr) << size;
    }
}
